// The PLX PEX 8600 and PEX 8700 switch backends: the exact register
// traffic of select, the pin operations and cleanup over a fake BAR 0.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "TestSupport.h"
#include "xilinx/XilTrace.h"
#include "xilinx/backends/PlxPex8600Intf.h"
#include "xilinx/backends/PlxPex8700Intf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

const char* const kBar0 = "/sys/bus/pci/devices/0000:03:00.0/resource0";

// Trace lines without the file and line: "Xilinx/3 tckIs: tckIs true".
std::vector<std::string> traceLines(const std::string& err) {
    std::vector<std::string> lines;
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);) {
        size_t from = line.find(' '), to = line.find(' ', from + 1);
        lines.push_back(line.erase(from, to - from));
    }
    return lines;
}

std::string access(char op, U32 offset, U32 value) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%c32 0x%x=0x%x", op, offset, value);
    return buf;
}

// Makes nine TCK edges from high, TCK's bit being low in the output-data
// register `reg`, and returns the accesses they should make: calls 1 and 9
// read, 2 to 8 write the cached value alone. Before call 9 another bit of
// the register changes, which only a read picks up.
std::vector<std::string> nineTcks(XilIntf* intf, FakeHamImpl& bar, U32 reg, U32 tckBit) {
    U32 others = bar.peek(reg);
    std::vector<std::string> expected;
    for (int call = 1; call <= 9; ++call) {
        bool high = call % 2;
        if (call == 9) bar.poke(reg, others |= 0x1);
        if (call == 1 || call == 9) expected.push_back(access('R', reg, others));
        expected.push_back(access('W', reg, others | (high ? tckBit : 0)));
        intf->tckIs(high);
    }
    return expected;
}

}  // namespace

// ---- PEX 8600 ----

TEST(PlxPex8600, FactoryNamesLockAndWindow) {
    FakeBoard board;
    PlxPex8600Factory f;
    for (const char* n : {"rotanMotub", "rotanSeret", "rotanGuzik", "dimabuGen4Scd", "selek", "dimabuGen4LineScd",
                          "lomipuScd", "mubarUplinkScd", "vopot"})
        EXPECT_TRUE(f.manages(n)) << n;
    for (const char* n : {"rotanmotub", "vopot ", "tilegScd", ""}) EXPECT_FALSE(f.manages(n)) << n;
    f.newXilIntf(0x10b5, 0x8624, 0, 3, 0, 1);
    XilIntf_testModeIs(1);
    f.newXilIntf(0, 0, 0, 3, 0, 0);
    XilIntf_testModeIs(0);
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_3_0_jtag",
                                          "window theJamHam /sys/bus/pci/devices/0000:03:00.1/resource0",
                                          "lock /tmp/xilinxTestLockFile", "window theJamHam /tmp/xilinxTestMemMapFile"));
    EXPECT_NE(dynamic_cast<PlxPex8600Intf*>(XilIntf_bySystem("vopot", 0, 0, 0, 4, 0, 0)), nullptr);
}

// TCK (GPIO 15) in group 0, the held-low pin (GPIO 16) in group 1.
TEST(PlxPex8600, SelectCleanupAndCachedTckAcrossGroups) {
    FakeBoard board;
    FakeHamImpl& bar = board.hams[kBar0];
    bar.poke(0x62C, 0x55555555);
    bar.poke(0x630, 0xffffffff);
    bar.poke(0x644, 0xffffffff);
    bar.poke(0x648, 0xffffffff);
    XilIntf* intf = new PlxPex8600Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    intf->select("rotanSeret");
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x62c=0x55555555", "W32 0x62c=0x95555555",  // 15: bits 31..30 = 10
                                       "R32 0x62c=0x95555555", "W32 0x62c=0x96555555",  // 12
                                       "R32 0x62c=0x96555555", "W32 0x62c=0xa6555555",  // 14
                                       "R32 0x62c=0xa6555555", "W32 0x62c=0xa2555555",  // 13: input
                                       "R32 0x630=0xffffffff", "W32 0x630=0xfffffffe",  // 16
                                       "R32 0x644=0xffffffff", "W32 0x644=0xffff7fff",  // TCK low
                                       "R32 0x644=0xffff7fff", "W32 0x644=0xffff6fff",  // TDI low
                                       "R32 0x644=0xffff6fff", "W32 0x644=0xffff2fff",  // TMS low
                                       "R32 0x648=0xffffffff", "W32 0x648=0xfffffffe"));  // held low
    bar.poke(0x644, 0);
    bar.clearLog();
    intf->tdiIs(true);
    intf->tmsIs(true);
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x644=0x0", "W32 0x644=0x1000", "R32 0x644=0x1000", "W32 0x644=0x5000"));
    bar.clearLog();
    std::vector<std::string> expected = nineTcks(intf, bar, 0x644, 0x8000);
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));

    bar.clearLog();
    TraceLevels levels(0x3f);
    ::testing::internal::CaptureStderr();
    intf->cleanup("rotanSeret");
    EXPECT_THAT(traceLines(::testing::internal::GetCapturedStderr()),
                ElementsAre("Xilinx/1 setInput: setInput 15", "Xilinx/1 setInput: setInput 12",
                            "Xilinx/1 setInput: setInput 14", "Xilinx/1 setInput: setInput 16",
                            "Xilinx/5 cleanup: jtag totals: tdo 0 tdi 1 tms 1 tck 9"));
    // Only direction bits go back to input; TDO (bits 27..26) and the output data stay.
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x62c=0xa2555555", "W32 0x62c=0x22555555", "R32 0x62c=0x22555555",
                                       "W32 0x62c=0x20555555", "R32 0x62c=0x20555555", "W32 0x62c=0x555555",
                                       "R32 0x630=0xfffffffe", "W32 0x630=0xfffffffc"));
}

// All four JTAG GPIOs (18 to 21) in group 1.
TEST(PlxPex8600, SecondGroupOnlyAndTdo) {
    FakeBoard board;
    FakeHamImpl& bar = board.hams[kBar0];
    bar.poke(0x630, 0xc0);
    bar.poke(0x648, 0xff);
    bar.poke(0x640, 0x8);
    XilIntf* intf = new PlxPex8600Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    intf->select("rotanMotub");
    EXPECT_TRUE(intf->tdo());
    bar.poke(0x640, ~0x8u);
    EXPECT_FALSE(intf->tdo());
    intf->tckIs(true);
    intf->tckIs(false);
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x630=0xc0", "W32 0x630=0x8c0", "R32 0x630=0x8c0", "W32 0x630=0x8e0",
                                       "R32 0x630=0x8e0", "W32 0x630=0xae0", "R32 0x630=0xae0", "W32 0x630=0xa20",
                                       "R32 0x648=0xff", "W32 0x648=0xdf", "R32 0x648=0xdf", "W32 0x648=0xdb",
                                       "R32 0x648=0xdb", "W32 0x648=0xcb", "R32 0x640=0x8", "R32 0x640=0xfffffff7",
                                       "R32 0x648=0xcb", "W32 0x648=0xeb", "W32 0x648=0xcb"));
}

TEST(PlxPex8600, NoHeldLowPinForLomipuAndMubarUplink) {
    for (const char* name : {"lomipuScd", "mubarUplinkScd"}) {
        FakeBoard board;
        XilIntf* intf = new PlxPex8600Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
        intf->select(name);
        intf->cleanup(name);
        std::set<U32> touched;
        for (const auto& a : board.hams[kBar0].accesses()) touched.insert(a.offset);
        EXPECT_THAT(touched, ElementsAre(0x62Cu, 0x644u)) << name;  // nothing in group 1
        EXPECT_EQ(board.hams[kBar0].accesses().size(), 4 * 2 + 3 * 2 + 3 * 2u) << name;
    }
}

// Pins that are not connected (255, as before select assigns any) are
// counted and traced but reach no register.
TEST(PlxPex8600, UnconnectedPinsCountAndTraceOnly) {
    FakeBoard board;
    XilIntf* intf = new PlxPex8600Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    TraceLevels levels(0x2f);
    ::testing::internal::CaptureStderr();
    intf->tdiIs(true);
    intf->tmsIs(false);
    intf->tckIs(true);
    EXPECT_FALSE(intf->tdo());
    EXPECT_FALSE(intf->tdo());
    intf->cleanup("");
    EXPECT_THAT(traceLines(::testing::internal::GetCapturedStderr()),
                ElementsAre("Xilinx/1 tdiIs: tdiIs true", "Xilinx/2 tmsIs: tmsIs false", "Xilinx/3 tckIs: tckIs true",
                            "Xilinx/0 tdo: tdo false", "Xilinx/0 tdo: tdo false",
                            "Xilinx/5 cleanup: jtag totals: tdo 2 tdi 1 tms 1 tck 1"));
    EXPECT_TRUE(board.hams[kBar0].log().empty());
}

TEST(PlxPex8600DeathTest, UnknownDevice) {
    FakeBoard board;
    XilIntf* intf = new PlxPex8600Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    EXPECT_EXIT(intf->select("tilegScd"), ::testing::ExitedWithCode(1), "^Unknown device: tilegScd\n$");
}

// ---- PEX 8700 ----

TEST(PlxPex8700, FactoryNamesAndWindowWithoutTestMode) {
    FakeBoard board;
    PlxPex8700Factory f;
    for (const char* n : {"gemufScd", "lomifScd", "tilegScd", "nipigScd", "nipig2Scd", "vebekScd", "bakonScd",
                          "gurideScd", "zegomoScd", "memivScd", "mofidiPlusLcScd", "mubarplusUplinkScd"})
        EXPECT_TRUE(f.manages(n)) << n;
    for (const char* n : {"GemufScd", "vopot", "mubarUplinkScd", ""}) EXPECT_FALSE(f.manages(n)) << n;
    XilIntf_testModeIs(1);
    XilIntf* intf = f.newXilIntf(0, 0, 0, 3, 0, 0);
    XilIntf_testModeIs(0);
    EXPECT_THAT(board.events, ElementsAre("lock /tmp/xilinxTestLockFile", std::string("window PlxPex8700Ham ") + kBar0));
    EXPECT_NE(dynamic_cast<PlxPex8700Intf*>(intf), nullptr);
    EXPECT_NE(dynamic_cast<PlxPex8700Intf*>(XilIntf_bySystem("gurideScd", 0, 0, 0, 4, 0, 0)), nullptr);
}

// GPIO 10 is the held-high pin: its direction register is written whole.
TEST(PlxPex8700, HeldHighOnGpio10SelectTckCacheAndCleanup) {
    FakeBoard board;
    FakeHamImpl& bar = board.hams[kBar0];
    bar.poke(0x600, 0x001c0007);  // GPIO 6 (TDO) and GPIO 0 fields set
    bar.poke(0x604, 0xfff0);
    bar.poke(0x624, 0x3);
    XilIntf* intf = new PlxPex8700Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    intf->select("tilegScd");
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x600=0x1c0007", "W32 0x600=0x201c0007",  // TCK 9: bits 29..27 = 100
                                       "R32 0x600=0x201c0007", "W32 0x600=0x209c0007",  // TDI 7
                                       "R32 0x600=0x209c0007", "W32 0x600=0x249c0007",  // TMS 8
                                       "R32 0x600=0x249c0007", "W32 0x600=0x24800007",  // TDO 6: input
                                       "W32 0x604=0x4",                                 // GPIO 10 output
                                       "R32 0x624=0x3", "W32 0x624=0x403"));            // and high
    bar.clearLog();
    intf->tdiIs(true);
    intf->tmsIs(true);
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x624=0x403", "W32 0x624=0x483", "R32 0x624=0x483", "W32 0x624=0x583"));
    bar.clearLog();
    std::vector<std::string> expected = nineTcks(intf, bar, 0x624, 0x200);
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));
    bar.clearLog();
    intf->cleanup("tilegScd");
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x600=0x24800007", "W32 0x600=0x4800007", "R32 0x600=0x4800007",
                                       "W32 0x600=0x4000007", "R32 0x600=0x4000007", "W32 0x600=0x7",
                                       "W32 0x604=0x0"));
}

// The held-low pin (GPIO 2) comes first and stays an output driven low.
TEST(PlxPex8700, HeldLowPinOutlivesCleanup) {
    FakeBoard board;
    FakeHamImpl& bar = board.hams[kBar0];
    bar.poke(0x624, 0xffff);
    XilIntf* intf = new PlxPex8700Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    intf->select("gemufScd");
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x600=0x0", "W32 0x600=0x100", "R32 0x624=0xffff", "W32 0x624=0xfffb",
                                       "R32 0x600=0x100", "W32 0x600=0x800100",   // TCK 7
                                       "W32 0x604=0x4",                           // TDI 10
                                       "R32 0x600=0x800100", "W32 0x600=0x4800100",  // TMS 8
                                       "R32 0x600=0x4800100", "W32 0x600=0x4800100",  // TDO 9
                                       "R32 0x600=0x4800100", "W32 0x600=0x4900100",  // held high 6
                                       "R32 0x624=0xfffb", "W32 0x624=0xfffb"));
    intf->cleanup("gemufScd");
    EXPECT_EQ(bar.peek(0x600), 0x100u);  // GPIO 2 output (bits 8..6 = 100); 6, 7, 8 and 9 inputs
    EXPECT_EQ(bar.peek(0x604), 0x0u);
    EXPECT_EQ(bar.peek(0x624), 0xfffbu);  // GPIO 2 still low
}

TEST(PlxPex8700, TdoOnGpio10AndUnconnectedPins) {
    FakeBoard board;
    FakeHamImpl& bar = board.hams[kBar0];
    bar.poke(0x604, 0x4);
    XilIntf* intf = new PlxPex8700Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    intf->select("mubarplusUplinkScd");
    EXPECT_EQ(bar.log()[6], "W32 0x604=0x0");  // after TCK 7, TDI 9 and TMS 8, no read
    bar.clearLog();
    bar.poke(0x61C, 0x400);
    EXPECT_TRUE(intf->tdo());
    bar.poke(0x61C, ~0x400u);
    EXPECT_FALSE(intf->tdo());
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x61c=0x400", "R32 0x61c=0xfffffbff"));

    XilIntf* idle = new PlxPex8700Intf(0, 0, 0, 4, 0, 0, "0_4_0_jtag");  // no pins assigned yet
    idle->tdiIs(true);
    idle->tmsIs(true);
    idle->tckIs(true);
    EXPECT_FALSE(idle->tdo());
    EXPECT_TRUE(board.hams["/sys/bus/pci/devices/0000:04:00.0/resource0"].log().empty());
}

// Bits 4..0 of 0x354 name the 4 KB block that holds the GPIO registers.
TEST(PlxPex8700, RelocatedBlock) {
    FakeBoard board;
    FakeHamImpl& bar = board.hams[kBar0];
    bar.poke(0x354, 0xffffffe3);  // block 3; the upper bits mean nothing here
    bar.poke(0x3A44, 0x40);
    XilIntf* intf = new PlxPex8700Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    intf->select("nipig2Scd");
    intf->tckIs(true);
    EXPECT_TRUE(intf->tdo());
    intf->cleanup("nipig2Scd");
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x354=0xffffffe3", "R32 0x3a34=0x0", "W32 0x3a34=0x20000000",
                                       "R32 0x3a34=0x20000000", "W32 0x3a34=0x20800000", "R32 0x3a34=0x20800000",
                                       "W32 0x3a34=0x24800000", "R32 0x3a34=0x24800000", "W32 0x3a34=0x24800000",
                                       "W32 0x3a38=0x4", "R32 0x3a48=0x0", "W32 0x3a48=0x400",  // held high 10
                                       "R32 0x3a48=0x400", "W32 0x3a48=0x600",                  // TCK
                                       "R32 0x3a44=0x40",                                       // TDO 6
                                       "R32 0x3a34=0x24800000", "W32 0x3a34=0x4800000", "R32 0x3a34=0x4800000",
                                       "W32 0x3a34=0x4000000", "R32 0x3a34=0x4000000", "W32 0x3a34=0x0",
                                       "W32 0x3a38=0x0"));
}

TEST(PlxPex8700DeathTest, UnknownFpgaAndPinOutOfRange) {
    FakeBoard board;
    PlxPex8700Intf* intf = new PlxPex8700Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag");
    EXPECT_EXIT(intf->select("rotanSeret"), ::testing::ExitedWithCode(1), "^Unknown fpga: rotanSeret\n$");
    EXPECT_DEATH(intf->setDir(11, 4), "pin >= MIN_PIN and pin <= MAX_PIN");
    EXPECT_DEATH(intf->setPin(255, true, false), "pin >= MIN_PIN and pin <= MAX_PIN");
}
