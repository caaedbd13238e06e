// The simulated board installed in this process: which model stands
// behind each window, what the OS hooks answer, how the chain hangs on the
// wired pins, and what --show-writes prints.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ChainIntf.h"
#include "jtag/Tap.h"
#include "os/Os.h"
#include "sim/Board.h"

using namespace sim;

namespace {

// A window as a backend makes it: the simulator picks the chip by its tag.
Ptr<HamImpl> window(const char* name, const char* file, U32 base = 0, U32 size = 0,
                    HamType type = HamType::mappedFile, const char* tag = "") {
    return Ham::provided({name, type, base, size, file, tag});
}
Ptr<HamImpl> sb820() { return window("theSb820Ham", "/sys/bus/pci/devices/0000:00:14.0/resource5", 0, 0, HamType::mappedFile, "sb820"); }
Ptr<HamImpl> fch() { return window("gpioWindow", "/dev/mem", 0xFED80000, 0x2000, HamType::mappedFile, "fch-gpio"); }

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

// A file name in a fresh private directory under /tmp, and what a file holds.
std::string tempPath(const char* name) {
    char dir[] = "/tmp/kelvorn-simboard-XXXXXX";
    return std::string(::mkdtemp(dir)) + "/" + name;
}
std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

const char kVcdHeader[] =
    "$version kelvorn-sim $end\n$timescale 1 us $end\n$scope module jtag $end\n"
    "$var wire 1 C tck $end\n$var wire 1 M tms $end\n$var wire 1 I tdi $end\n$var wire 1 O tdo $end\n"
    "$var wire 1 S3 tap_state[3] $end\n$var wire 1 S2 tap_state[2] $end\n$var wire 1 S1 tap_state[1] $end\n"
    "$var wire 1 S0 tap_state[0] $end\n$upscope $end\n$enddefinitions $end\n";

}  // namespace

TEST(SimBoard, WindowsAreModelsUnknownOnesPlainMemory) {
    Board board(boardFor("fodak"));
    board.install();
    EXPECT_EQ(fch().ptr(), fch().ptr());  // the same window twice is the same chip
    EXPECT_EQ(dynamic_cast<FchGpioModel&>(*fch()).layout(), FchLayout::steppeEagle);  // the default processor
    // Unknown windows, I/O ports among them, get plain memory and a warning;
    // so does a window with a chip's usual name but no tag saying what it is onto.
    ::testing::internal::CaptureStderr();
    Ptr<HamImpl> odd = window("oddHam", "", 0, 0, HamType::ioPort);
    window("theSb820Ham2", "/dev/mem", 0, 0x1000);
    window("theJamHam", "/sys/bus/pci/devices/0000:03:00.0/resource0");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "kelvorn-sim: no model for window oddHam (I/O ports), plain memory behind it\n"
              "kelvorn-sim: no model for window theSb820Ham2 (/dev/mem), plain memory behind it\n"
              "kelvorn-sim: no model for window theJamHam (/sys/bus/pci/devices/0000:03:00.0/resource0), plain memory "
              "behind it\n");
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

        // Configuration space reads only (the Cave Creek scans read it); nothing else opens.
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(Os::fopen("/sys/bus/pci/devices/0000:00:1f.0/config", "r+"), nullptr);
        EXPECT_EQ(Os::fopen("/etc/passwd", "r"), nullptr);
        ::testing::internal::GetCapturedStderr();

        // Lock files are nameless temporary files: nothing under /var/lock, nothing left behind.
        int fd = Os::creat("/var/lock/0_0_20_jtag", 0400);
        ASSERT_GE(fd, 0);
        char path[256] = {};
        ASSERT_GT(::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1), 0);
        // The same name again is the same file: a second lock is refused as on /var/lock.
        int again = Os::creat("/var/lock/0_0_20_jtag", 0400);
        ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
        EXPECT_NE(::flock(again, LOCK_EX | LOCK_NB), 0);
        ::close(again);
        ::close(fd);
        lockFile = path;
        EXPECT_EQ(lockFile.find("/var/lock"), std::string::npos) << lockFile;
    }
    EXPECT_NE(::access(lockFile.c_str(), F_OK), 0);
}

TEST(SimBoard, TheChainHangsOnTheWiredPinsBehindTheMux) {
    Board board(boardFor("fodak", "mosavo"));
    board.install();
    Ptr<HamImpl> w = sb820();
    ASSERT_TRUE(board.wiredChip());
    // Every wired pin an output, low; GPIO 60 low: the multiplexer selects another device.
    for (U32 off : {0x1bdu, 0x1abu, 0x131u, 0x129u, 0x132u, 0x13cu}) w->write8(off, 0x00);
    sb820Cycle(*w, false);
    EXPECT_EQ(board.chain().state(), jtag::TapState::TestLogicReset);
    U8 tdo;
    w->read8(0x13d, &tdo);
    EXPECT_EQ(tdo & 0x80, 0x80);  // nothing drives TDO: the pull-up
    w->write8(0x13c, 0x40);
    w->write8(0x131, 0x20);  // TMS not driven: pulled high
    w->write8(0x1bd, 0x40);
    w->write8(0x1bd, 0x00);
    EXPECT_EQ(board.chain().state(), jtag::TapState::TestLogicReset);
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

// --show-writes prints each write with the pins it moved, reads not; the VCD
// has the pins and the TAP state, one time unit per access, which --stats counts.
TEST(SimBoard, ShowWritesVcdAndStatsOfOneRun) {
    BoardConfig c = boardFor("fodak", "mosavo");
    c.vcd = tempPath("run.vcd");
    c.stats = true;
    c.showWrites = true;
    ::testing::internal::CaptureStderr();
    {
        Board board(c);
        board.install();
        Ptr<HamImpl> w = sb820();
        for (U32 off : {0x1bdu, 0x131u, 0x1abu, 0x129u, 0x132u}) w->write8(off, 0x00);  // at 1 to 5
        w->write8(0x13c, 0x40);                                                        // 6: routed, nothing seen
        U8 ignored;
        w->read8(0x13d, &ignored);  // 7: a read takes its time unit too
        sb820Cycle(*w, false);      // 8 (TMS stays low), 9, 10
        sb820Cycle(*w, true);       // 11, 12, 13
        window("oddHam", "", 0, 0, HamType::ioPort)->write32(0x80, 1);  // not the wired chip: not counted
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "sim: theSb820Ham W8 0x1bd: 0xa0 -> 0x00  TCK z->0\n"
              "sim: theSb820Ham W8 0x131: 0xa0 -> 0x00  TMS z->0\n"
              "sim: theSb820Ham W8 0x1ab: 0xa0 -> 0x00  TDI z->0\n"
              "sim: theSb820Ham W8 0x129: 0xa0 -> 0x00  GPIO41 z->0\n"
              "sim: theSb820Ham W8 0x132: 0xa0 -> 0x00  GPIO50 z->0\n"
              "sim: theSb820Ham W8 0x13c: 0xa0 -> 0x40  GPIO60 z->1\n"
              "sim: theSb820Ham W8 0x131: 0x00 -> 0x00\n"
              "sim: theSb820Ham W8 0x1bd: 0x00 -> 0x40  TCK 0->1  TAP Test-Logic-Reset->Run-Test/Idle\n"
              "sim: theSb820Ham W8 0x1bd: 0xc0 -> 0x00  TCK 1->0\n"
              "sim: theSb820Ham W8 0x131: 0x00 -> 0x40  TMS 0->1\n"
              "sim: theSb820Ham W8 0x1bd: 0x00 -> 0x40  TCK 0->1  TAP Run-Test/Idle->Select-DR-Scan\n"
              "sim: theSb820Ham W8 0x1bd: 0xc0 -> 0x00  TCK 1->0\n"
              "kelvorn-sim: no model for window oddHam (I/O ports), plain memory behind it\n"
              "sim stats: reads 1 writes 12 tck-cycles 2 contention 0\n");
    EXPECT_EQ(contents(c.vcd), std::string(kVcdHeader) +
                                   "#0\n$dumpvars\nzC\nzM\nzI\n1O\n0S3\n0S2\n0S1\n0S0\n$end\n"
                                   "#1\n0C\n#2\n0M\n#3\n0I\n"
                                   "#9\n1C\n1S0\n#10\n0C\n"        // Run-Test/Idle
                                   "#11\n1M\n#12\n1C\n1S1\n0S0\n#13\n0C\n");  // Select-DR-Scan
}

TEST(SimBoard, StatsAndMemoryDumpAreWrittenOnceAlsoWhenTheRunEndsInExit) {
    BoardConfig c = boardFor("fodak", "mosavo");
    c.chain = {{0x0a5c7035, 8}, {0x1b4d2093, 4, {3, 16, 5, 5}}};
    c.dumpMemory = tempPath("memory.bin");
    c.stats = true;
    EXPECT_EXIT(
        {
            auto* board = new Board(c);  // never destroyed: exit() finishes it
            board->install();
            sb820()->write8(0x1bd, 0x00);
            // Row 1 programmed through the chain itself.
            jtag::Tap tap(new ChainIntf("0_1_0_jtag", &board->chain()));
            tap.reset();
            tap.shiftIr(jtag::BitVector::fromValue(0xff | kAddressInstruction << 8, 12));
            tap.shiftDr(jtag::BitVector::fromValue(1 << 1, 17));
            tap.shiftIr(jtag::BitVector::fromValue(0xff | kProgramInstruction << 8, 12));
            tap.shiftDr(jtag::BitVector::fromValue(0x1234 << 1, 17));
            tap.idle(5);
            std::exit(3);
        },
        // Cycles: reset 5; IR scans 5 and 4 to Shift-IR, 12 bits, 2 to Run-Test/Idle; DR scans 3 + 17 + 2; idle 5.
        ::testing::ExitedWithCode(3), "^sim stats: reads 0 writes 1 tck-cycles 91 contention 0\n$");
    EXPECT_EQ(contents(c.dumpMemory), std::string("\xff\xff\x34\x12\xff\xff", 6));
    // A board that is destroyed finishes once; exit() afterwards adds nothing.
    EXPECT_EXIT(
        {
            { Board(c).install(); }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "^sim stats: reads 0 writes 0 tck-cycles 0 contention 0\n$");
    EXPECT_EQ(contents(c.dumpMemory), std::string(6, '\xff'));
}
