// The SoC GPIO backend: platform and SoC detection, the FCH window (a
// logged stand-in, or /dev/mem mapped over memory), the register accesses
// of each SoC kind, pin validation, and the device rows of the interface.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ham/FakeHam.h"
#include "xilinx/amd/AmdGpio.h"
#include "xilinx/amd/EkabiniIntf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

using amd::SocKind;

// The backend reports on stdout; death tests look at stderr.
#define EXPECT_EXIT_SAYING(statement, regex) \
    EXPECT_EXIT(                             \
        {                                    \
            std::fflush(stdout);             \
            ::dup2(2, 1);                    \
            statement;                       \
        },                                   \
        ::testing::ExitedWithCode(1), regex)

std::string hex(U32 v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

U32 word(const std::vector<unsigned char>& mem, U32 offset) {
    U32 v;
    std::memcpy(&v, &mem[offset], 4);
    return v;
}

class Amd : public ::testing::Test {
  protected:
    void SetUp() override { amd::resetForTests(); }
    void TearDown() override { amd::resetForTests(); }

    void boardIs(const char* platform, unsigned family, unsigned model) {
        board.cmdline = std::string("console=ttyS0 platform=") + platform;
        board.cpuIs(family, model);
    }
    FakeHamImpl& window() { return board.hams["/dev/mem"]; }
    // Detects, then forgets what detection did.
    void detect() {
        amd::validatePlatform();
        board.events.clear();
    }
    EkabiniIntf* newIntf(U8 device = 0x14) {
        auto* intf = static_cast<EkabiniIntf*>(EkabiniGpioFactory().newXilIntf(0, 0, 0, 0, device, 0));
        window().clearLog();
        board.events.clear();
        return intf;
    }

    FakeBoard board;
};

const char* const kTestOrder[] = {"gozip", "lubug", "bupul", "pizagu", "mosavo", "fezub", "goneg", "fetup",
                                  "vadeku", "gogos", "mafulprime", "maful"};

// ---- platform ----

TEST_F(Amd, PlatformClassComesFromTheFirstMatchInTestOrder) {
    board.cpuIs(0x16, 0x05);
    struct {
        const char* cmdline;
        int platformClass;
    } cases[] = {
        {"platform=mafulprime", 0x04}, {"platform=maful", 0x02},     {"platform=fezub platform=gozip", 0x01},
        {"platform=gogos", 0x10},      {"platform=mubarplus", 0x01}, {"platform=tabukccpu", 0x02},
        {"platform=pizagu", 0x08},     {"platform=sozemo", 0x02},
    };
    for (auto& c : cases) {
        amd::resetForTests();
        board.cmdline = c.cmdline;
        EXPECT_EQ(amd::validatePlatform(), c.platformClass) << c.cmdline;
    }
    amd::resetForTests();
    board.cmdline = "platform=mafulprime";
    board.events.clear();
    amd::validatePlatform();
    std::vector<std::string> shells;
    for (int i = 0; i < 11; ++i) shells.push_back(std::string("shell fgrep -q 'platform=") + kTestOrder[i] + "' /proc/cmdline");
    EXPECT_THAT(board.eventsStartingWith("shell"), ElementsAreArray(shells));
}

TEST_F(Amd, SecondDetectionRunsNoShellAndMapsNothing) {
    boardIs("mubarplus", 0x16, 0x05);
    EXPECT_EQ(amd::validatePlatform(), 0x01);
    EXPECT_EQ(board.eventsStartingWith("shell").size(), 24u);
    board.events.clear();
    EXPECT_EQ(amd::validatePlatform(), 0x01);
    EXPECT_THAT(board.events, IsEmpty());
    EXPECT_EQ(board.hams.opened().size(), 1u);
}

TEST_F(Amd, UnknownPlatformIsReportedBeforeTheProcessorOrDevMem) {
    boardIs("lubugx", 0x16, 0x05);  // "lubug" as a substring still counts
    EXPECT_EQ(amd::validatePlatform(), 0x02);
    amd::resetForTests();
    board.cmdline = "console=ttyS0 platform=zorro";
    board.leaf0.eax = 0;  // would be "Unsupported family 0 model 0"
    board.devMemOpenErrno = EACCES;
    board.hams.decline("/dev/mem");
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported platform\n$");
}

// ---- processor ----

TEST_F(Amd, SocKindAndWindowFromFamilyAndModel) {
    struct {
        unsigned family, model;
        SocKind kind;
        U32 windowLength;
    } cases[] = {
        {0x16, 0x00, SocKind::kabini, 0x1000},      {0x16, 0x05, SocKind::kabini, 0x1000},
        {0x16, 0x0F, SocKind::kabini, 0x1000},      {0x16, 0x30, SocKind::steppeEagle, 0x2000},
        {0x16, 0x35, SocKind::steppeEagle, 0x2000}, {0x16, 0x3F, SocKind::steppeEagle, 0x2000},
        {0x15, 0x60, SocKind::mosavo, 0x2000},      {0x15, 0xFF, SocKind::mosavo, 0x2000},
        {0x17, 0x01, SocKind::mosavo, 0x2000},      {0x17, 0x10, SocKind::r1000, 0x2000},
        {0x17, 0x18, SocKind::r1000, 0x2000},       {0x17, 0x2F, SocKind::r1000, 0x2000},
        {0x19, 0x44, SocKind::v3000, 0x2000},
    };
    board.cmdline = "platform=gozip";
    for (auto& c : cases) {
        amd::resetForTests();
        board.cpuIs(c.family, c.model);
        amd::validatePlatform();
        const HamSpec& spec = board.hams.opened().back();
        EXPECT_EQ(spec.name, "gpioWindow");
        EXPECT_EQ(spec.fileName, "/dev/mem");
        EXPECT_EQ(spec.base, 0xFED80000u);
        EXPECT_EQ(spec.size, c.windowLength) << hex(c.family) << " " << hex(c.model);
        const amd::Family& f = amd::family(c.kind, true);
        EXPECT_TRUE(amd::getBitFn == f.getBit && amd::setBitFn == f.setBit && amd::setInputFn == f.setInput &&
                    amd::setOutputFn == f.setOutput)
            << hex(c.family) << " " << hex(c.model);
    }
}

TEST_F(Amd, UnsupportedProcessorsNameFamilyAndModel) {
    board.cmdline = "platform=gozip";
    struct {
        unsigned family, model;
        const char* message;
    } cases[] = {
        {0x16, 0x20, "^Unsupported family 22 model 32\n$"}, {0x16, 0x10, "^Unsupported family 22 model 16\n$"},
        {0x16, 0x40, "^Unsupported family 22 model 64\n$"}, {0x17, 0x31, "^Unsupported family 23 model 49\n$"},
        {0x17, 0x00, "^Unsupported family 23 model 0\n$"},  {0x17, 0x30, "^Unsupported family 23 model 48\n$"},  {0x15, 0x30, "^Unsupported family 21 model 48\n$"},
        {0x15, 0x5F, "^Unsupported family 21 model 95\n$"}, {0x19, 0x45, "^Unsupported family 25 model 69\n$"},
        {0x19, 0x01, "^Unsupported family 25 model 1\n$"},
    };
    for (auto& c : cases) {
        board.cpuIs(c.family, c.model);
        EXPECT_EXIT_SAYING(amd::validatePlatform(), c.message);
    }
    board.leaf1.eax = 0x000906EA;  // Intel: base family 6, base model 0xE, extended model 9
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported family 6 model 14\n$");
    board.leaf1.eax = 0x650;
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported family 6 model 5\n$");
    board.cpuIs(0x16, 0x05);
    board.leaf0.eax = 0;
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Unsupported family 0 model 0\n$");
}

// ---- /dev/mem ----

TEST_F(Amd, DevMemIsMappedReadWriteSharedAtTheFchBase) {
    boardIs("tabukccpu", 0x17, 0x18);
    board.hams.decline("/dev/mem");
    int openFlags = -1, prot = -1, flags = -1;
    void* hint = &prot;
    auto open = Os::hooks().open;
    auto mmap = Os::hooks().mmap;
    Os::hooks().open = [&](const char* p, int f) {
        openFlags = f;
        return open(p, f);
    };
    Os::hooks().mmap = [&](void* a, size_t l, int p, int f, int fd, off_t o) {
        hint = a;
        prot = p;
        flags = f;
        return mmap(a, l, p, f, fd, o);
    };
    EkabiniIntf* intf = newIntf();
    EXPECT_EQ(openFlags, O_RDWR);
    EXPECT_EQ(hint, nullptr);
    EXPECT_EQ(prot, PROT_READ | PROT_WRITE);
    EXPECT_EQ(flags, MAP_SHARED);
    EXPECT_THAT(board.hams.opened(), IsEmpty());
    intf->select("tabukccpuSwitchScd");
    intf->tckIs(true);
    // R1000 pads 116 (TCK) and 121 (select, high): IOMUX function 1, output enabled.
    EXPECT_EQ(board.devMem[0xD74], 1);
    EXPECT_EQ(board.devMem[0xD79], 1);
    EXPECT_EQ(hex(word(board.devMem, 0x16D0)), "0xc00000");
    EXPECT_EQ(hex(word(board.devMem, 0x16E4)), "0xc00000");
    EXPECT_EQ(hex(word(board.devMem, 0x16E0)), "0x800000");  // 120: low
    EXPECT_EQ(hex(word(board.devMem, 0x170C)), "0x0");       // 131: TDO stays an input
    intf->cleanup("tabukccpuSwitchScd");
    EXPECT_EQ(hex(word(board.devMem, 0x16D0)), "0x400000");
}

TEST_F(Amd, DevMemWindowLengthAndFailures) {
    boardIs("gozip", 0x16, 0x05);
    board.hams.decline("/dev/mem");
    amd::validatePlatform();
    EXPECT_THAT(board.eventsStartingWith("open"), ElementsAre("open /dev/mem"));
    EXPECT_THAT(board.eventsStartingWith("mmap"), ElementsAre("mmap 0x1000 0xfed80000"));

    amd::resetForTests();
    board.devMemOpenErrno = EACCES;
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Could not open gpio device, errno 13$");
    board.devMemOpenErrno = 0;
    Os::hooks().mmap = [](void*, size_t, int, int, int, off_t) {
        errno = ENOMEM;
        return MAP_FAILED;
    };
    EXPECT_EXIT_SAYING(amd::validatePlatform(), "^Could not mmap gpio device, errno 12$");
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
    EXPECT_THAT(w.log(), ElementsAre("W8 0xd3c=0x3", "W8 0x13c=0x20", "W8 0xd41=0x1", "W8 0x141=0x0",
                                     "R8 0x141=0xa0", "W8 0x141=0xe0", "R8 0x141=0xff", "W8 0x141=0xbf"));
    const amd::Family& f = amd::family(SocKind::kabini, true);
    w.poke(0x13c, 0x80, 8);
    EXPECT_TRUE(amd::getBitFn(60));
    EXPECT_FALSE(f.directionInput(60));
    w.poke(0x13c, 0x7F, 8);
    EXPECT_FALSE(amd::getBitFn(60));
    EXPECT_TRUE(f.directionInput(60));
}

TEST_F(Amd, PadKindsChangeOnlyTheirBitsOfTheControlRegister) {
    struct {
        const char* platform;
        unsigned family, model;
        SocKind kind;
        U8 gpio;
        U32 iomux, function, control, outputEnable;
    } cases[] = {
        // Steppe Eagle: Kabini GPIO 60 is pad 0x5C; bit 17 goes with bit 23.
        {"gozip", 0x16, 0x35, SocKind::steppeEagle, 60, 0xD5C, 3, 0x1670, 0x820000},
        {"tabukccpu", 0x17, 0x18, SocKind::r1000, 132, 0xD84, 2, 0x1710, 0x800000},
        {"telub", 0x19, 0x44, SocKind::v3000, 131, 0xD83, 3, 0x170C, 0x800000},
        {"mosavo", 0x17, 0x01, SocKind::mosavo, 72, 0xD48, 0, 0x1620, 0x800000},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.platform);
        amd::resetForTests();
        boardIs(c.platform, c.family, c.model);
        detect();
        FakeHamImpl& w = window();
        w.clearLog();
        std::string iomux = "W8 " + hex(c.iomux) + "=" + hex(c.function);
        std::string ctl = hex(c.control);
        w.poke(c.control, 0x400000);  // level high, output off
        amd::setOutputFn(c.gpio);
        w.poke(c.control, 0xFFFFFFFF);
        amd::setInputFn(c.gpio);
        w.poke(c.control, c.outputEnable);
        amd::setBitFn(c.gpio, true);
        w.poke(c.control, 0xFFFFFFFF);
        amd::setBitFn(c.gpio, false);
        EXPECT_THAT(w.log(), ElementsAre(iomux, "R32 " + ctl + "=0x400000", "W32 " + ctl + "=" + hex(0x400000 | c.outputEnable),
                                         iomux, "R32 " + ctl + "=0xffffffff", "W32 " + ctl + "=" + hex(~c.outputEnable),
                                         "R32 " + ctl + "=" + hex(c.outputEnable),
                                         "W32 " + ctl + "=" + hex(c.outputEnable | 0x400000), "R32 " + ctl + "=0xffffffff",
                                         "W32 " + ctl + "=0xffbfffff"));
        const amd::Family& f = amd::family(c.kind, true);
        w.poke(c.control, 0x10000);
        EXPECT_TRUE(amd::getBitFn(c.gpio));
        EXPECT_TRUE(f.directionInput(c.gpio));
        w.poke(c.control, ~0x10000u);
        EXPECT_FALSE(amd::getBitFn(c.gpio));
        EXPECT_FALSE(f.directionInput(c.gpio));
    }
}

TEST_F(Amd, NoPinTouchesNothingAndDetectsNothing) {
    for (SocKind kind : {SocKind::kabini, SocKind::steppeEagle, SocKind::mosavo, SocKind::r1000, SocKind::v3000}) {
        for (bool substituted : {false, true}) {
            const amd::Family& f = amd::family(kind, substituted);
            f.setInput(0xFF);
            f.setOutput(0xFF);
            f.setBit(0xFF, true);
            EXPECT_FALSE(f.getBit(0xFF));
            EXPECT_FALSE(f.directionInput(0xFF));
        }
    }
    EXPECT_THAT(board.events, IsEmpty());
    EXPECT_THAT(board.hams.opened(), IsEmpty());
}

TEST_F(Amd, FirstPinOperationDetectsThePlatform) {
    boardIs("tabukccpu", 0x17, 0x18);
    amd::family(SocKind::r1000, true).setBit(116, true);
    EXPECT_EQ(board.eventsStartingWith("shell").size(), 23u);
    EXPECT_THAT(window().log(), ElementsAre("R32 0x16d0=0x0", "W32 0x16d0=0x400000"));
    board.cmdline = "console=ttyS0";
    amd::resetForTests();
    EXPECT_EXIT_SAYING(amd::family(SocKind::r1000, true).setBit(116, true), "^Unsupported platform\n$");
}

// ---- validation ----

TEST_F(Amd, AGpioIsAcceptedThroughAnyTableThatAllowsItsClass) {
    struct {
        const char* platform;
        unsigned family, model;
    } boards[] = {{"telub", 0x19, 0x44}, {"tabukccpu", 0x17, 0x18}, {"mosavo", 0x17, 0x01}};
    for (auto& b : boards) {
        amd::resetForTests();
        boardIs(b.platform, b.family, b.model);
        amd::validateGpio(116);  // V3000, R1000 and mosavo rows respectively
        window().clearLog();
        amd::setOutputFn(116);
        EXPECT_EQ(window().log().front(), "W8 0xd74=0x1") << b.platform;
    }
    amd::resetForTests();
    boardIs("gozip", 0x16, 0x05);
    detect();
    EXPECT_EXIT_SAYING(amd::validateGpio(200), "^Unsupported gpio 200\n$");
    EXPECT_EXIT_SAYING(amd::setOutputFn(0xFE), "^Unsupported gpio 254\n$");
}

TEST_F(Amd, AGpioWithoutARowInTheActiveTableIsRefusedBeforeAnyAccess) {
    // gozip on an R1000: 60 and 168 are allowed through the Steppe Eagle
    // table, but R1000 has no pad for them.
    boardIs("gozip", 0x17, 0x18);
    amd::validateGpio(60);  // as the factory's probe: allowed
    EXPECT_THAT(window().log(), IsEmpty());
    EXPECT_EXIT_SAYING(amd::setOutputFn(60), "^Unsupported gpio 60\n$");
    // On V3000 the table ends at 148.
    amd::resetForTests();
    boardIs("gozip", 0x19, 0x44);
    detect();
    EXPECT_EXIT_SAYING(amd::setBitFn(168, true), "^Unsupported gpio 168\n$");
}

// ---- the interface ----

TEST_F(Amd, ManagesItsNamesOnlyOnItsPlatforms) {
    EkabiniGpioFactory factory;
    board.cmdline = "console=ttyS0 platform=lubug";
    EXPECT_FALSE(factory.manages("fodak"));
    EXPECT_THAT(board.events,
                ElementsAre("shell /bin/grep -qE \"platform=(mosavo|gozip|bupul|vadeku|gogos|fezub|maful|bameb|mupene|"
                            "goneg|fetup|mafulprime|bugil|telub|mukom|tabukccpu|tabukhcpu|padud|mubarplus)\" /proc/cmdline"));
    board.cmdline = "console=ttyS0 platform=gozip";
    EXPECT_TRUE(factory.manages("fodak"));
    EXPECT_TRUE(factory.manages("tumarScd"));
    EXPECT_FALSE(factory.manages("dizufCpld"));
    EXPECT_FALSE(factory.manages("mukomSwitchMain"));
    EXPECT_FALSE(factory.manages("Fodak"));
}

TEST_F(Amd, ProbePinFollowsThePlatform) {
    struct {
        const char* platform;
        U8 probe;
        std::vector<std::string> patterns;
    } cases[] = {
        {"mafulprime", 2, {"mosavo", "gogos", "vadeku|maful", "mafulprime"}},
        {"maful", 51, {"mosavo", "gogos", "vadeku|maful", "mafulprime"}},
        {"bugil", 2, {"mosavo", "gogos", "vadeku|maful", "fezub|goneg|fetup|mupene|bameb|bugil|tabukccpu"}},
        {"gozip", 60, {"mosavo", "gogos", "vadeku|maful", "fezub|goneg|fetup|mupene|bameb|bugil|tabukccpu"}},
        {"mosavo", 71, {"mosavo"}},
        {"gogos", 72, {"mosavo", "gogos"}},
    };
    U8 device = 0;
    for (auto& c : cases) {
        SCOPED_TRACE(c.platform);
        amd::resetForTests();
        boardIs(c.platform, 0x16, 0x05);  // Kabini drives any allowed number
        board.events.clear();
        EkabiniGpioFactory().newXilIntf(0, 0, 0, 0, device++, 0);
        std::vector<std::string> greps;
        for (auto& p : c.patterns) greps.push_back("shell /bin/grep -qE \"platform=(" + p + ")\" /proc/cmdline");
        auto shells = board.eventsStartingWith("shell /bin/grep");
        EXPECT_THAT(shells, ElementsAreArray(greps));
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
    EXPECT_THAT(window().log(),
                ElementsAre(  // outputs: TCK 168, TDI 57, TMS 49, aux 60, 32, 50
                    "W8 0xda8=0x3", "W8 0x1a8=0x0", "W8 0xd39=0x3", "W8 0x139=0x0", "W8 0xd31=0x3", "W8 0x131=0x0",
                    "W8 0xd3c=0x3", "W8 0x13c=0x0", "W8 0xd20=0x3", "W8 0x120=0x0", "W8 0xd32=0x3", "W8 0x132=0x0",
                    // TDO 61 an input
                    "W8 0xd3d=0x3", "W8 0x13d=0x20",
                    // TCK, TDI, TMS low
                    "R8 0x1a8=0x0", "W8 0x1a8=0x0", "R8 0x139=0x0", "W8 0x139=0x0", "R8 0x131=0x0", "W8 0x131=0x0",
                    // 60 high, 32 and 50 low
                    "R8 0x13c=0x0", "W8 0x13c=0x40", "R8 0x120=0x0", "W8 0x120=0x0", "R8 0x132=0x0", "W8 0x132=0x0"));
    window().clearLog();
    window().poke(0x13d, 0x80, 8);
    EXPECT_TRUE(intf->tdo());
    intf->tckIs(true);
    intf->tdiIs(true);
    intf->tmsIs(true);
    intf->warningIs(true);
    EXPECT_THAT(window().log(), ElementsAre("R8 0x13d=0x80", "R8 0x1a8=0x0", "W8 0x1a8=0x40", "R8 0x139=0x0",
                                            "W8 0x139=0x40", "R8 0x131=0x0", "W8 0x131=0x40"));
    window().clearLog();
    intf->cleanup("fodak");
    EXPECT_THAT(window().log(),
                ElementsAre("W8 0xda8=0x3", "W8 0x1a8=0x20", "W8 0xd39=0x3", "W8 0x139=0x20", "W8 0xd31=0x3",
                            "W8 0x131=0x20", "W8 0xd3c=0x3", "W8 0x13c=0x20", "W8 0xd20=0x3", "W8 0x120=0x20",
                            "W8 0xd32=0x3", "W8 0x132=0x20"));
    intf->select("komipe_scd");
    EXPECT_EQ(window().peek(0x13c, 8), 0x00u);  // 60 low for this one
    EXPECT_EQ(window().peek(0x132, 8), 0x00u);
}

TEST_F(Amd, AuxLevelsDifferBetweenSwitchRows) {
    boardIs("tabukccpu", 0x17, 0x18);
    EkabiniIntf* intf = newIntf();
    auto level = [&](U32 control) { return (window().peek(control) >> 22) & 1; };
    intf->select("tabukccpuSwitchScd");
    EXPECT_EQ(level(0x16E4), 1u);  // 121
    EXPECT_EQ(level(0x16E0), 0u);  // 120
    intf->select("mupeneSwitchScd");
    EXPECT_EQ(level(0x16E4), 0u);
    EXPECT_EQ(level(0x16E0), 0u);
}

TEST_F(Amd, ASelectionForgetsTheAuxPinsOfTheOneBefore) {
    boardIs("telub", 0x19, 0x44);
    EkabiniIntf* intf = newIntf();
    intf->select("telubSwitchMain");
    EXPECT_EQ(window().peek(0x159C) >> 22 & 1, 1u);  // 39 high
    window().clearLog();
    intf->select("tumarScd");
    intf->cleanup("tumarScd");
    for (const std::string& access : window().log()) {
        for (const char* aux38or39 : {"0xd26=", "0xd27=", "0x1598=", "0x159c="})
            EXPECT_EQ(access.find(aux38or39), std::string::npos) << access;
    }
    EXPECT_EQ(window().log().size(), 3u * 3 + 3 + 3 * 2 + 3 * 3);  // 3 outputs, TDO, 3 levels, 3 inputs
}

TEST_F(Amd, SelectKnowsNamesTheFactoryDoesNot) {
    boardIs("mosavo", 0x17, 0x01);
    EkabiniIntf* intf = newIntf();
    intf->select("dizufCpld");
    EXPECT_EQ(window().peek(0x1614), 0x800000u);  // 69: output, low
    EXPECT_EQ(window().peek(0x161C), 0xC00000u);  // 71: output, high
    intf->select("debusScd");
    EXPECT_EQ(window().peek(0x1614), 0xC00000u);
    EXPECT_EQ(window().peek(0x161C), 0x800000u);
}

TEST_F(Amd, UnknownDeviceEndsTheRunBeforeAnyWrite) {
    // A window that reports every write where the death test looks.
    struct TellingHam : FakeHamImpl {
        int write8(U32 o, U8 v) override {
            std::fprintf(stderr, "W8\n");
            return FakeHamImpl::write8(o, v);
        }
        int write32(U32 o, U32 v) override {
            std::fprintf(stderr, "W32\n");
            return FakeHamImpl::write32(o, v);
        }
    };
    Ham::providerIs([](const HamSpec&) { return Ptr<HamImpl>(new TellingHam); });
    boardIs("gozip", 0x16, 0x05);
    EkabiniIntf* intf = newIntf();
    EXPECT_EXIT(intf->select("nosuch"), ::testing::ExitedWithCode(1), "^Unknown device: nosuch\n$");
    EXPECT_EXIT(intf->select("Fodak"), ::testing::ExitedWithCode(1), "^Unknown device: Fodak\n$");
}

}  // namespace
