// The SoC GPIO backend: platform and SoC detection, the FCH window (a
// logged stand-in, or /dev/mem mapped over memory), the register accesses
// of each SoC kind, pin validation, and the device rows of the interface.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "xilinx/amd/AmdGpio.h"
#include "xilinx/amd/EkabiniIntf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

using amd::SocKind;

// The backend reports on stdout; death tests look at stderr.
#define EXPECT_EXIT_SAYING(expression, regex) \
    EXPECT_EXIT((std::fflush(stdout), ::dup2(2, 1), expression), ::testing::ExitedWithCode(1), regex)

std::string hex(U32 v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

class Amd : public ::testing::Test {
  protected:
    void TearDown() override { amd::resetForTests(); }

    void boardIs(const char* platform, unsigned family, unsigned model) {
        amd::resetForTests();
        board.cmdline = std::string("console=ttyS0 platform=") + platform;
        board.cpuIs(family, model);
    }
    FakeHamImpl& window() { return board.hams["/dev/mem"]; }
    void detect() {
        amd::validatePlatform();
        window().clearLog();
        board.events.clear();
    }
    EkabiniIntf* newIntf(U8 device = 0x14) {
        auto* intf = static_cast<EkabiniIntf*>(EkabiniGpioFactory().newXilIntf(0, 0, 0, 0, device, 0));
        window().clearLog();
        return intf;
    }
    U32 level(U32 control) { return window().peek(control) >> 22 & 1; }

    FakeBoard board;
};

// ---- platform and processor ----

TEST_F(Amd, PlatformClassComesFromTheFirstMatchInTestOrderAndAnUnknownOneIsReportedFirst) {
    const std::pair<const char*, int> cases[] = {
        {"maful", 0x02},  {"fezub platform=gozip", 0x01}, {"gogos", 0x10},     {"mubarplus", 0x01},
        {"pizagu", 0x08}, {"lubugx", 0x02},               {"mafulprime", 0x04}};
    for (auto [platforms, platformClass] : cases) {
        boardIs(platforms, 0x16, 0x05);
        board.events.clear();
        EXPECT_EQ(amd::validatePlatform(), platformClass) << platforms;
    }
    std::vector<std::string> shells;  // of the last row: the tests up to the first match, then the window
    for (const char* p : {"gozip", "lubug", "bupul", "pizagu", "mosavo", "fezub", "goneg", "fetup", "vadeku", "gogos",
                          "mafulprime"})
        shells.push_back(std::string("shell fgrep -q 'platform=") + p + "' /proc/cmdline");
    shells.push_back("window gpioWindow /dev/mem");
    EXPECT_THAT(board.events, ElementsAreArray(shells));
    board.events.clear();
    size_t windows = board.hams.opened().size();
    EXPECT_EQ(amd::validatePlatform(), 0x04);  // once detected: no shell, no window
    EXPECT_THAT(board.events, IsEmpty());
    EXPECT_EQ(board.hams.opened().size(), windows);

    // An unknown platform is reported before the processor or /dev/mem.
    boardIs("zorro", 0x16, 0x05);
    board.leaf0.eax = 0;  // would be "Unsupported family 0 model 0"
    board.devMemOpenErrno = EACCES;
    board.hams.decline("/dev/mem");
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported platform\n$");
    EXPECT_EXIT_SAYING(amd::family(SocKind::r1000, true).setBit(116, true), "^Unsupported platform\n$");
}

// Families and models at the edges of each SoC kind's range, and beyond.
TEST_F(Amd, SocKindAndWindowFromFamilyAndModelOrTheRefusalNamingThem) {
    using K = SocKind;
    struct {
        unsigned family, model;
        SocKind kind;
    } rows[] = {{0x16, 0x00, K::kabini}, {0x16, 0x0F, K::kabini}, {0x16, 0x30, K::steppeEagle},
                {0x16, 0x3F, K::steppeEagle}, {0x15, 0x60, K::mosavo}, {0x15, 0xFF, K::mosavo},
                {0x17, 0x01, K::mosavo}, {0x17, 0x10, K::r1000}, {0x17, 0x2F, K::r1000}, {0x19, 0x44, K::v3000},
                {0x16, 0x10, K::none}, {0x16, 0x20, K::none}, {0x16, 0x40, K::none}, {0x17, 0x00, K::none},
                {0x17, 0x30, K::none}, {0x15, 0x5F, K::none}, {0x19, 0x45, K::none}, {0x19, 0x01, K::none}};
    for (auto& r : rows) {
        SCOPED_TRACE(hex(r.family) + " " + hex(r.model));
        boardIs("gozip", r.family, r.model);
        if (r.kind == K::none) {
            EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported family " + std::to_string(r.family) +
                                                            " model " + std::to_string(r.model) + "\n$");
            continue;
        }
        amd::validatePlatform();
        const HamDesc& desc = board.hams.opened().back();
        EXPECT_EQ(desc.name + " " + desc.fileName + " " + hex(desc.base) + " " + hex(desc.size),
                  "gpioWindow /dev/mem 0xfed80000 " + hex(r.kind == K::kabini ? 0x1000 : 0x2000));
        const amd::Family& f = amd::family(r.kind, true);
        EXPECT_TRUE(amd::getBitFn == f.getBit && amd::setBitFn == f.setBit && amd::setInputFn == f.setInput &&
                    amd::setOutputFn == f.setOutput);
    }
    board.leaf1.eax = 0x000906EA;  // Intel: base family 6, base model 0xE, extended model 9
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported family 6 model 14\n$");
    board.leaf0.eax = 0;
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported family 0 model 0\n$");
}

// ---- /dev/mem ----

TEST_F(Amd, DevMemIsMappedAtTheFchBaseAndUsedDirectly) {
    board.hams.decline("/dev/mem");
    boardIs("gozip", 0x16, 0x05);  // Kabini: one page
    amd::validatePlatform();
    boardIs("tabukccpu", 0x17, 0x18);
    EkabiniIntf* intf = newIntf();
    EXPECT_THAT(board.eventsStartingWith("open"), ElementsAre("open /dev/mem", "open /dev/mem"));
    EXPECT_THAT(board.eventsStartingWith("mmap"), ElementsAre("mmap 0x1000 0xfed80000", "mmap 0x2000 0xfed80000"));
    EXPECT_THAT(board.hams.opened(), IsEmpty());
    intf->select("tabukccpuSwitchScd");
    intf->tckIs(true);
    auto word = [&](U32 offset) { U32 v; std::memcpy(&v, &board.devMem[offset], 4); return hex(v); };
    // R1000 IOMUX functions of pads 116 (TCK), 131 (TDO) and 132 (TMS); 116 an output, high; 120 (aux) low;
    // 131 an input.
    EXPECT_EQ(hex(board.devMem[0xD74]) + " " + hex(board.devMem[0xD83]) + " " + hex(board.devMem[0xD84]) + " " +
                  word(0x16D0) + " " + word(0x16E0) + " " + word(0x170C),
              "0x1 0x3 0x2 0xc00000 0x800000 0x0");
    intf->cleanup("tabukccpuSwitchScd");
    EXPECT_EQ(word(0x16D0), "0x400000");

    amd::resetForTests();
    board.devMemOpenErrno = EACCES;
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Could not open gpio device, errno 13$");
    board.devMemOpenErrno = 0;
    Os::hooks().mmap = [](void*, size_t, int, int, int, off_t) {
        errno = ENOMEM;
        return MAP_FAILED;
    };
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Could not mmap gpio device, errno 12$");
    // A /dev/mem that is a file ending inside the window is refused before it is mapped.
    Os::hooks().fileSize = [](int) { return 0xFED81FFFLL; };
    EXPECT_EXIT(amd::validatePlatform(), ::testing::ExitedWithCode(1),
                "^register window gpioWindow: /dev/mem holds 0xfed81fff bytes, its registers need 0xfed82000\n$");
}

// ---- register accesses of each SoC kind ----

TEST_F(Amd, KabiniWritesWholeControlBytesAndPin65HasItsOwnFunction) {
    boardIs("gozip", 0x16, 0x05);
    detect();
    FakeHamImpl& w = window();
    amd::setInputFn(60);
    amd::setOutputFn(65);
    w.poke(0x141, 0xA0, 8);
    amd::setBitFn(65, true);
    w.poke(0x141, 0xFF, 8);
    amd::setBitFn(65, false);
    EXPECT_THAT(w.log(), ElementsAre("W8 0xd3c=0x3", "W8 0x13c=0x20", "W8 0xd41=0x1", "W8 0x141=0x0", "R8 0x141=0xa0",
                                     "W8 0x141=0xe0", "R8 0x141=0xff", "W8 0x141=0xbf"));
    amd::GetBitFn directionInput = amd::family(SocKind::kabini, true).directionInput;
    w.poke(0x13c, 0x80, 8);
    EXPECT_TRUE(amd::getBitFn(60) && !directionInput(60));
    w.poke(0x13c, 0x7F, 8);
    EXPECT_TRUE(!amd::getBitFn(60) && directionInput(60));
}

TEST_F(Amd, PadKindsChangeOnlyTheirBitsOfTheControlRegister) {
    struct {
        const char* platform;
        unsigned family, model;
        SocKind kind;
        U8 gpio;
        const char* iomux;
        U32 control, outputEnable;
    } cases[] = {
        // Steppe Eagle: Kabini GPIO 60 is pad 0x5C; bit 17 goes with bit 23.
        {"gozip", 0x16, 0x35, SocKind::steppeEagle, 60, "W8 0xd5c=0x3", 0x1670, 0x820000},
        {"tabukccpu", 0x17, 0x18, SocKind::r1000, 132, "W8 0xd84=0x2", 0x1710, 0x800000},
        {"telub", 0x19, 0x44, SocKind::v3000, 131, "W8 0xd83=0x3", 0x170C, 0x800000},
        {"mosavo", 0x17, 0x01, SocKind::mosavo, 72, "W8 0xd48=0x0", 0x1620, 0x800000},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.platform);
        boardIs(c.platform, c.family, c.model);
        detect();
        FakeHamImpl& w = window();
        w.poke(c.control, 0x400000);  // level high, output off
        amd::setOutputFn(c.gpio);
        w.poke(c.control, 0xFFFFFFFF);
        amd::setInputFn(c.gpio);
        w.poke(c.control, c.outputEnable);
        amd::setBitFn(c.gpio, true);
        w.poke(c.control, 0xFFFFFFFF);
        amd::setBitFn(c.gpio, false);
        Accesses expected;  // output, input, high, low
        expected.push_back(c.iomux);
        expected.rmw(c.control, {0x400000, 0x400000 | c.outputEnable}).push_back(c.iomux);
        expected.rmw(c.control, {0xFFFFFFFF, ~c.outputEnable});
        expected.rmw(c.control, {c.outputEnable, c.outputEnable | 0x400000}).rmw(c.control, {0xFFFFFFFF, 0xFFBFFFFF});
        EXPECT_THAT(w.log(), ElementsAreArray(expected));
        amd::GetBitFn directionInput = amd::family(c.kind, true).directionInput;
        w.poke(c.control, 0x10000);
        EXPECT_TRUE(amd::getBitFn(c.gpio) && directionInput(c.gpio));
        w.poke(c.control, ~0x10000u);
        EXPECT_TRUE(!amd::getBitFn(c.gpio) && !directionInput(c.gpio));
    }
}

TEST_F(Amd, NoPinTouchesNothingAndDetectsNothing) {
    for (SocKind kind : {SocKind::kabini, SocKind::steppeEagle, SocKind::mosavo, SocKind::r1000, SocKind::v3000})
        for (bool substituted : {false, true}) {
            const amd::Family& f = amd::family(kind, substituted);
            f.setInput(0xFF);
            f.setOutput(0xFF);
            f.setBit(0xFF, true);
            EXPECT_FALSE(f.getBit(0xFF) || f.directionInput(0xFF));
        }
    EXPECT_THAT(board.events, IsEmpty());
    EXPECT_THAT(board.hams.opened(), IsEmpty());
}

// ---- validation ----

TEST_F(Amd, AGpioIsAcceptedThroughAnyTableThatAllowsItsClassButDrivenOnlyWithARowInTheActiveOne) {
    using Soc = std::tuple<const char*, unsigned, unsigned>;  // 116 through the V3000, R1000 and mosavo rows
    for (auto [platform, family, model] :
         {Soc{"telub", 0x19, 0x44}, Soc{"tabukccpu", 0x17, 0x18}, Soc{"mosavo", 0x17, 0x01}}) {
        boardIs(platform, family, model);
        amd::validateGpio(116);
        amd::setOutputFn(116);
        EXPECT_EQ(window().log().front(), "W8 0xd74=0x1") << platform;
        window().clearLog();
    }
    boardIs("gozip", 0x16, 0x05);
    detect();
    EXPECT_EXIT_SAYING(amd::validateGpio(200), "^Unsupported gpio 200\n$");
    EXPECT_EXIT_SAYING(amd::setOutputFn(0xFE), "^Unsupported gpio 254\n$");
    // gozip on an R1000: 60 and 168 are allowed through the Steppe Eagle
    // table, but R1000 has no pad for them.
    boardIs("gozip", 0x17, 0x18);
    amd::validateGpio(60);  // as the factory's probe: allowed
    EXPECT_THAT(window().log(), IsEmpty());
    EXPECT_EXIT_SAYING(amd::setOutputFn(60), "^Unsupported gpio 60\n$");
    boardIs("gozip", 0x19, 0x44);  // the V3000 table ends at 148
    detect();
    EXPECT_EXIT_SAYING(amd::setBitFn(168, true), "^Unsupported gpio 168\n$");
}

// ---- the interface ----

TEST_F(Amd, ManagesItsNamesOnlyOnItsPlatformsAndProbesThePinOfThePlatform) {
    EkabiniGpioFactory factory;
    board.cmdline = "console=ttyS0 platform=lubug";
    EXPECT_FALSE(factory.manages("fodak"));
    EXPECT_THAT(board.events,
                ElementsAre("shell /bin/grep -qE \"platform=(mosavo|gozip|bupul|vadeku|gogos|fezub|maful|bameb|"
                            "mupene|goneg|fetup|mafulprime|bugil|telub|mukom|tabukccpu|tabukhcpu|padud|mubarplus)\" "
                            "/proc/cmdline"));
    board.cmdline = "console=ttyS0 platform=gozip";
    EXPECT_TRUE(factory.manages("fodak") && factory.manages("tumarScd"));
    EXPECT_FALSE(factory.manages("dizufCpld") || factory.manages("mukomSwitchMain") || factory.manages("Fodak"));
    board.events.clear();

    // The pin it probes follows the platform.
    const char* const greps[] = {"mosavo", "gogos", "vadeku|maful", "mafulprime",
                                 "fezub|goneg|fetup|mupene|bameb|bugil|tabukccpu"};
    struct {
        const char* platform;
        U8 probe;
        std::vector<int> grepsRun;
    } cases[] = {{"mafulprime", 2, {0, 1, 2, 3}}, {"maful", 51, {0, 1, 2, 3}}, {"bugil", 2, {0, 1, 2, 4}},
                 {"gozip", 60, {0, 1, 2, 4}},     {"mosavo", 71, {0}},         {"gogos", 72, {0, 1}}};
    U8 device = 0;
    for (auto& c : cases) {
        SCOPED_TRACE(c.platform);
        boardIs(c.platform, 0x16, 0x05);  // Kabini drives any allowed number
        EkabiniGpioFactory().newXilIntf(0, 0, 0, 0, device++, 0);
        std::vector<std::string> expected;
        for (int g : c.grepsRun)
            expected.push_back(std::string("shell /bin/grep -qE \"platform=(") + greps[g] + ")\" /proc/cmdline");
        EXPECT_THAT(board.eventsStartingWith("shell /bin/grep"), ElementsAreArray(expected));
        board.events.clear();
        std::vector<int> validated;
        for (int n = 0; n < 256; ++n)
            if (amd::validated(static_cast<U8>(n))) validated.push_back(n);
        EXPECT_THAT(validated, ElementsAre(c.probe));
    }
}

TEST_F(Amd, SelectAndCleanupOnKabiniInOrder) {
    boardIs("gozip", 0x16, 0x05);
    EkabiniIntf* intf = newIntf();
    intf->select("fodak");
    Accesses expected(8);  // outputs TCK 168, TDI 57, TMS 49, aux 60, 32, 50: function 3, control byte 0
    for (U32 pin : {168, 57, 49, 60, 32, 50}) expected.write(0xd00 + pin, 0x3).write(0x100 + pin, 0x0);
    expected.write(0xd3d, 0x3).write(0x13d, 0x20);  // TDO 61 an input
    for (U32 pin : {168, 57, 49}) expected.rmw(0x100 + pin, {0x0, 0x0});  // TCK, TDI, TMS low
    expected.rmw(0x13c, {0x0, 0x40}).rmw(0x120, {0x0, 0x0}).rmw(0x132, {0x0, 0x0});  // 60 high, 32 and 50 low
    EXPECT_THAT(window().log(), ElementsAreArray(expected));
    window().clearLog();
    expectTdoFollows(window(), intf, 0x13d, 0x80, 8);
    intf->tckIs(true);
    intf->tdiIs(true);
    intf->tmsIs(true);
    intf->warningIs(true);
    EXPECT_THAT(window().log(), ElementsAre("R8 0x13d=0x80", "R8 0x13d=0x7f", "R8 0x1a8=0x0", "W8 0x1a8=0x40",
                                            "R8 0x139=0x0", "W8 0x139=0x40", "R8 0x131=0x0", "W8 0x131=0x40"));
    window().clearLog();
    intf->cleanup("fodak");
    expected = Accesses(8);  // the same pins inputs: function 3, control byte 0x20 (driver off)
    for (U32 pin : {168, 57, 49, 60, 32, 50}) expected.write(0xd00 + pin, 0x3).write(0x100 + pin, 0x20);
    EXPECT_THAT(window().log(), ElementsAreArray(expected));
    intf->select("komipe_scd");
    EXPECT_EQ(window().peek(0x13c, 8), 0x00u);  // 60 low for this one
}

// The aux levels of the names the factory takes open the simulated board's
// multiplexers in simscan_test; "dizufCpld" is selectable but not taken.
TEST_F(Amd, AuxLevelsOfASelectableNameTheFactoryDoesNotTakeAndASelectionForgetsTheAuxPinsOfTheOneBefore) {
    boardIs("mosavo", 0x17, 0x01);
    newIntf()->select("dizufCpld");
    EXPECT_EQ(level(0x1614), 0u);  // 69
    EXPECT_EQ(level(0x161C), 1u);  // 71

    boardIs("telub", 0x19, 0x44);
    EkabiniIntf* intf = newIntf(0x15);  // a device of its own: its own lock
    intf->select("telubSwitchMain");
    EXPECT_EQ(level(0x159C), 1u);  // 39 high
    window().clearLog();
    intf->select("tumarScd");
    intf->cleanup("tumarScd");
    for (const std::string& access : window().log())
        for (const char* aux38or39 : {"0xd26=", "0xd27=", "0x1598=", "0x159c="})
            EXPECT_EQ(access.find(aux38or39), std::string::npos) << access;
    EXPECT_EQ(window().log().size(), 3u * 3 + 3 + 3 * 2 + 3 * 3);  // 3 outputs, TDO, 3 levels, 3 inputs
}

}  // namespace
