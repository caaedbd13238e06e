// The simulated board installed in this process: which model stands
// behind each window, what the OS hooks answer, how the chain hangs on the
// wired pins, and what --show-writes prints.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "os/Os.h"
#include "sim/Board.h"

using namespace sim;
using ::testing::HasSubstr;

namespace {

Ptr<HamImpl> window(const char* name, HamType type, U32 base, U32 size, const char* file) {
    return Ptr<Ham>(new Ham(name, type, nullptr, base, size, file))->hamImpl();
}

Ptr<HamImpl> sb820() {
    return window("theSb820Ham", HamType::mappedFile, 0, 0, "/sys/bus/pci/devices/0000:00:14.0/resource5");
}

BoardConfig boardFor(const char* device, const char* platform = "") {
    BoardConfig c;
    c.device = device;
    c.platform = platform;
    return c;
}

// One TCK cycle on the SB820 wiring of "fodak": TCK 189, TMS 49.
void sb820Cycle(HamImpl& w, bool tms) {
    w.write8(0x131, tms ? 0x40 : 0x00);
    w.write8(0x1bd, 0x40);
    w.write8(0x1bd, 0x00);
}

void sb820Outputs(HamImpl& w, U8 gpio60) {
    for (U32 off : {0x1bdu, 0x1abu, 0x131u, 0x129u, 0x132u}) w.write8(off, 0x00);
    w.write8(0x13c, gpio60);
}

}  // namespace

TEST(SimBoard, EveryWindowGetsAModelNeverTheRealThing) {
    Board board(boardFor("fodak"));
    board.install();
    EXPECT_TRUE(dynamic_cast<Sb820Model*>(sb820().ptr()));
    EXPECT_TRUE(dynamic_cast<PlxPex8600Model*>(
        window("theJamHam", HamType::mappedFile, 0, 0, "/sys/bus/pci/devices/0000:03:00.0/resource0").ptr()));
    EXPECT_TRUE(dynamic_cast<PlxPex8700Model*>(
        window("PlxPex8700Ham", HamType::mappedFile, 0, 0, "/sys/bus/pci/devices/0000:03:00.0/resource0").ptr()));
    EXPECT_TRUE(dynamic_cast<PericomGen3Model*>(
        window("PericomGen3Ham", HamType::mappedFile, 0, 0, "/sys/bus/pci/devices/0000:03:00.0/resource0").ptr()));
    EXPECT_TRUE(dynamic_cast<CedarForkModel*>(
        window("CedarForkGpioHam", HamType::mappedFile, 0xfd000000, 0xc60000, "/dev/mem").ptr()));
    EXPECT_TRUE(dynamic_cast<CaveCreekModel*>(window("theCaveCreekPCHIOHam", HamType::ioPort, 0, 0, "").ptr()));
    Ptr<HamImpl> gbe =
        Ptr<Ham>(new PciHam("0_3_0_jtag", 0, 0x100000, "resource0", "", "", {0, 3, 0, 0}, 0, true))->hamImpl();
    EXPECT_TRUE(dynamic_cast<IntelGbeModel*>(gbe.ptr()));
    HamDesc fch;
    fch.name = "gpioWindow";
    fch.base = 0xFED80000;
    fch.size = 0x2000;
    fch.fileName = "/dev/mem";
    auto* model = dynamic_cast<FchGpioModel*>(Ham::provided(fch).ptr());
    ASSERT_TRUE(model);
    EXPECT_EQ(model->layout(), FchLayout::steppeEagle);  // the default processor
    // The same window twice is the same chip.
    EXPECT_EQ(Ham::provided(fch).ptr(), model);

    // Unknown windows, I/O ports among them, get plain memory and a warning.
    ::testing::internal::CaptureStderr();
    Ptr<HamImpl> odd = window("oddHam", HamType::ioPort, 0, 0, "");
    Ptr<HamImpl> odd2 = window("theSb820Ham2", HamType::mappedFile, 0, 0x1000, "/dev/mem");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "kelvorn-sim: no model for window oddHam (I/O ports), plain memory behind it\n"
              "kelvorn-sim: no model for window theSb820Ham2 (/dev/mem), plain memory behind it\n");
    odd->write32(0x80, 0x12345678);  // port 0x80: stays in the model
    U32 v;
    odd->read32(0x80, &v);
    EXPECT_EQ(v, 0x12345678u);
}

TEST(SimBoard, OsHooksAnswerForTheBoard) {
    BoardConfig c = boardFor("fodak", "gozip");
    c.family = 0x19;
    c.model = 0x44;
    std::string lockFile;
    {
        Board board(c);
        board.install();
        EXPECT_EQ(Os::system("fgrep -q 'platform=gozip' /proc/cmdline"), 0);
        EXPECT_EQ(Os::system("/bin/grep -qE \"platform=(gozip|bupul)\" /proc/cmdline"), 0);
        EXPECT_EQ(Os::system("fgrep -q 'platform=lubug' /proc/cmdline") >> 8, 1);
        EXPECT_EQ(Os::cpuid(0).eax, 0xDu);
        EXPECT_EQ(Os::cpuid(1).eax, 0x00a40f40u);  // base family 0xF + 0xA, model 4 + 0x40

        errno = 0;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(Os::open("/dev/mem", 2), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(Os::mmap(nullptr, 0x1000, PROT_READ, MAP_SHARED, 3, 0xFED80000), MAP_FAILED);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "kelvorn-sim: refused to open /dev/mem\nkelvorn-sim: refused to map memory\n");
        EXPECT_EQ(Os::usleep(1000000), 0);
        EXPECT_EQ(Os::sleep(10), 0u);  // the hold: none by default

        // Configuration space of every function: the Cave Creek GPIO base at 0x48.
        FILE* f = Os::fopen("/sys/bus/pci/devices/0000:00:1f.0/config", "rb");
        ASSERT_TRUE(f);
        U32 reg = 0;
        std::fseek(f, 0x48, SEEK_SET);
        EXPECT_EQ(std::fread(&reg, 4, 1, f), 1u);
        std::fclose(f);
        EXPECT_EQ(reg, kCaveCreekGpioBaseRegister);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(Os::fopen("/sys/bus/pci/devices/0000:00:1f.0/config", "r+"), nullptr);
        EXPECT_EQ(Os::fopen("/etc/passwd", "r"), nullptr);
        ::testing::internal::GetCapturedStderr();

        // Lock files into a private directory, gone with the board.
        int fd = Os::creat("/var/lock/0_0_20_jtag", 0400);
        ASSERT_GE(fd, 0);
        char path[256] = {};
        std::string link = "/proc/self/fd/" + std::to_string(fd);
        ASSERT_GT(::readlink(link.c_str(), path, sizeof path - 1), 0);
        ::close(fd);
        lockFile = path;
        EXPECT_EQ(lockFile.find("/var/lock"), std::string::npos);
        EXPECT_THAT(lockFile, HasSubstr("/kelvorn-sim-"));
    }
    EXPECT_NE(::access(lockFile.c_str(), F_OK), 0);
}

TEST(SimBoard, IntelStyleFamiliesUseTheBaseFieldAndNoPlatformMeansNoWord) {
    BoardConfig c = boardFor("");
    c.family = 6;
    c.model = 0x55;
    Board board(c);
    board.install();
    EXPECT_EQ(Os::cpuid(1).eax, 0x00050650u);
    EXPECT_EQ(board.cmdline().find("platform="), std::string::npos);
    EXPECT_NE(Os::system("/bin/grep -qE \"platform=(gozip|bupul)\" /proc/cmdline"), 0);
}

TEST(SimBoard, TheChainHangsOnTheWiredPinsBehindTheMux) {
    Board board(boardFor("fodak", "mosavo"));
    board.install();
    Ptr<HamImpl> w = sb820();
    ASSERT_TRUE(board.wiredChip());
    sb820Outputs(*w, 0x00);  // GPIO 60 low: the multiplexer selects another device
    sb820Cycle(*w, false);
    EXPECT_EQ(board.chain().state(), jtag::TapState::TestLogicReset);
    U8 tdo;
    w->read8(0x13d, &tdo);
    EXPECT_EQ(tdo & 0x80, 0x80);  // nothing drives TDO: the pull-up
    w->write8(0x13c, 0x40);
    sb820Cycle(*w, false);
    EXPECT_EQ(board.chain().state(), jtag::TapState::RunTestIdle);
    for (bool tms : {true, false, false}) sb820Cycle(*w, tms);  // Shift-DR: TDO shows IDCODE bit 0, then bit 1
    EXPECT_EQ(board.chain().state(), jtag::TapState::ShiftDr);
    w->read8(0x13d, &tdo);
    EXPECT_EQ(tdo & 0x80, 0x80);
    sb820Cycle(*w, false);
    w->read8(0x13d, &tdo);
    EXPECT_EQ(tdo & 0x80, (defaultChain()[0].idcode & 2) << 6);
    // TCK turned back into an input makes no edge.
    w->write8(0x1bd, 0x60);
    w->write8(0x1bd, 0x20);
    EXPECT_EQ(board.chain().state(), jtag::TapState::ShiftDr);
}

TEST(SimBoard, SocWiringFollowsTheProcessorsPads) {
    BoardConfig c = boardFor("fodak", "gozip");
    HamDesc fch;
    fch.name = "gpioWindow";
    fch.size = 0x2000;
    fch.base = 0xFED80000;
    fch.fileName = "/dev/mem";
    {
        Board board(c);  // Steppe Eagle: TCK (GPIO 168) is pad 0x1B, IOMUX function 1
        board.install();
        Ptr<HamImpl> w = Ham::provided(fch);
        for (U32 pad : {0x5Cu, 0x59u, 0x41u}) w->write32(0x1500 + 4 * pad, 0x00820000);  // mux pins out, low
        w->write32(0x1500 + 4 * 0x5C, 0x00c20000);                                       // GPIO 60 high
        w->write8(0xD00 + 0x5C, 3);
        w->write8(0xD00 + 0x59, 0);
        w->write8(0xD00 + 0x41, 2);
        const U32 tck = 0x1500 + 4 * 0x1B, tms = 0x1500 + 4 * 0x40;
        w->write8(0xD00 + 0x1B, 1);
        w->write32(tck, 0x00820000);
        w->write32(tck, 0x00c20000);
        EXPECT_EQ(board.chain().state(), jtag::TapState::TestLogicReset);  // TMS not driven: pulled high
        w->write8(0xD00 + 0x40, 2);
        w->write32(tms, 0x00820000);
        w->write32(tck, 0x00820000);
        w->write32(tck, 0x00c20000);
        EXPECT_EQ(board.chain().state(), jtag::TapState::RunTestIdle);
    }
    c.family = 0x19;
    c.model = 0x44;
    Board board(c);
    board.install();
    ::testing::internal::CaptureStderr();
    Ham::provided(fch);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "kelvorn-sim: fodak is not wired to this processor's GPIO pads\n");
    EXPECT_EQ(board.wiredChip(), nullptr);
}

TEST(SimBoard, ShowWritesPrintsEachWriteWithThePinsItMoved) {
    BoardConfig c = boardFor("fodak", "mosavo");
    c.showWrites = true;
    Board board(c);
    board.install();
    Ptr<HamImpl> w = sb820();
    ::testing::internal::CaptureStderr();
    w->write8(0x1bd, 0x00);
    w->write8(0x131, 0x00);
    for (U32 off : {0x1abu, 0x129u, 0x132u}) w->write8(off, 0x00);
    w->write8(0x13c, 0x40);
    w->write8(0x1bd, 0x40);
    U8 ignored;
    w->read8(0x1bd, &ignored);  // reads are not shown
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "sim: theSb820Ham W8 0x1bd: 0xa0 -> 0x00  TCK z->0\n"
              "sim: theSb820Ham W8 0x131: 0xa0 -> 0x00  TMS z->0\n"
              "sim: theSb820Ham W8 0x1ab: 0xa0 -> 0x00  TDI z->0\n"
              "sim: theSb820Ham W8 0x129: 0xa0 -> 0x00  GPIO41 z->0\n"
              "sim: theSb820Ham W8 0x132: 0xa0 -> 0x00  GPIO50 z->0\n"
              "sim: theSb820Ham W8 0x13c: 0xa0 -> 0x40  GPIO60 z->1\n"
              "sim: theSb820Ham W8 0x1bd: 0x00 -> 0x40  TCK 0->1  TAP Test-Logic-Reset->Run-Test/Idle\n");
}

TEST(SimBoard, RewireChangesTheWiringBeforeTheChainHangsOnIt) {
    BoardConfig c = boardFor("fodak", "mosavo");
    c.rewire = [](Wiring& w) { std::swap(w.tck, w.tms); };
    Board board(c);
    board.install();
    Ptr<HamImpl> w = sb820();
    sb820Outputs(*w, 0x40);
    w->write8(0x1bd, 0x40);  // the backend's TCK now reaches TMS: no edge
    EXPECT_EQ(board.chain().state(), jtag::TapState::TestLogicReset);
    w->write8(0x131, 0x40);  // and its TMS clocks, with TMS (its TCK) high
    w->write8(0x131, 0x00);
    EXPECT_EQ(board.chain().state(), jtag::TapState::TestLogicReset);
}
