// The PLX PEX 8600 and PEX 8700 switch backends: the exact register
// traffic of select, the pin operations and cleanup over a fake BAR 0.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "TestSupport.h"
#include "xilinx/XilTrace.h"
#include "xilinx/backends/PlxPex8600Intf.h"
#include "xilinx/backends/PlxPex8700Intf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

const char* const kBar0 = "/sys/bus/pci/devices/0000:03:00.0/resource0";

class Plx : public ::testing::Test {
  protected:
    PlxPex8600Intf* pex8600() { return new PlxPex8600Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag"); }
    PlxPex8700Intf* pex8700() { return new PlxPex8700Intf(0, 0, 0, 3, 0, 0, "0_3_0_jtag"); }

    // Makes nine TCK edges from high, TCK's bit being low in the output-data
    // register `reg`, and adds the accesses they should make to `expected`:
    // calls 1 and 9 read, 2 to 8 write the cached value alone. Before call 9
    // another bit of the register changes, which only a read picks up.
    void nineTcks(XilIntf* intf, U32 reg, U32 tckBit, Accesses& expected) {
        U32 others = bar.peek(reg);
        for (int call = 1; call <= 9; ++call) {
            bool high = call % 2;
            if (call == 9) bar.poke(reg, others |= 0x1);
            if (call == 1 || call == 9) expected.read(reg, others);
            expected.write(reg, others | (high ? tckBit : 0));
            intf->tckIs(high);
        }
    }

    FakeBoard board;
    FakeHamImpl& bar = board.hams[kBar0];
};
using PlxPex8600 = Plx;
using PlxPex8700 = Plx;

}  // namespace

// ---- PEX 8600 ----

// Every name each factory takes is scanned through the registry on the
// backend's window in simscan_test; here the names near them it refuses.
TEST_F(PlxPex8600, FactoryNamesLockAndWindow) {
    PlxPex8600Factory f;
    for (const char* n : {"rotanmotub", "vopot ", "tilegScd", ""}) EXPECT_FALSE(f.manages(n)) << n;
    f.newXilIntf(0x10b5, 0x8624, 0, 3, 0, 1);
    XilIntf_testModeIs(1);  // until the board goes
    f.newXilIntf(0, 0, 0, 3, 0, 0);
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_3_0_jtag",
                                          "window theJamHam /sys/bus/pci/devices/0000:03:00.1/resource0",
                                          "lock /tmp/xilinxTestLockFile",
                                          "window theJamHam /tmp/xilinxTestMemMapFile"));
}

// TCK (GPIO 15) in group 0, the held-low pin (GPIO 16) in group 1.
TEST_F(PlxPex8600, SelectCleanupAndCachedTckAcrossGroups) {
    bar.poke(0x62C, 0x55555555);
    for (U32 reg : {0x630, 0x644, 0x648}) bar.poke(reg, 0xffffffff);
    XilIntf* intf = pex8600();
    intf->select("rotanSeret");
    Accesses expected;  // 15, 12, 14 outputs (bits 2n+1..2n = 10), 13 an input; 16 an output
    expected.rmw(0x62c, {0x55555555, 0x95555555, 0x96555555, 0xa6555555, 0xa2555555}).rmw(0x630, {~0u, 0xfffffffe});
    // TCK, TDI, TMS low; 16 held low
    expected.rmw(0x644, {~0u, 0xffff7fff, 0xffff6fff, 0xffff2fff}).rmw(0x648, {~0u, 0xfffffffe});
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));
    bar.poke(0x644, 0);
    bar.clearLog();
    intf->tdiIs(true);
    intf->tmsIs(true);
    expected = Accesses().rmw(0x644, {0x0, 0x1000, 0x5000});
    nineTcks(intf, 0x644, 0x8000, expected);
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));

    bar.clearLog();
    TraceLevels levels(0x20);
    intf->cleanup("rotanSeret");
    EXPECT_THAT(traceLines(levels.text()), ElementsAre("Xilinx/5 cleanup: jtag totals: tdo 0 tdi 1 tms 1 tck 9"));
    // Only direction bits go back to input; TDO (bits 27..26) and the output data stay.
    EXPECT_THAT(bar.log(), ElementsAreArray(Accesses()
                                                .rmw(0x62c, {0xa2555555, 0x22555555, 0x20555555, 0x555555})
                                                .rmw(0x630, {0xfffffffe, 0xfffffffc})));
}

// All four JTAG GPIOs (18 to 21) in group 1.
TEST_F(PlxPex8600, SecondGroupOnlyAndTdo) {
    bar.poke(0x630, 0xc0);
    bar.poke(0x648, 0xff);
    XilIntf* intf = pex8600();
    intf->select("rotanMotub");
    expectTdoFollows(bar, intf, 0x640, 0x8);
    intf->tckIs(true);
    intf->tckIs(false);
    Accesses expected;  // 21, 18, 20 outputs, 19 an input; TCK, TDI, TMS low; two tdo reads; TCK high, low
    expected.rmw(0x630, {0xc0, 0x8c0, 0x8e0, 0xae0, 0xa20}).rmw(0x648, {0xff, 0xdf, 0xdb, 0xcb});
    expected.read(0x640, 0x8).read(0x640, 0xfffffff7).rmw(0x648, {0xcb, 0xeb}).write(0x648, 0xcb);
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));
}

TEST_F(PlxPex8600, NoHeldLowPinForLomipuAndMubarUplink) {
    XilIntf* intf = pex8600();
    for (const char* name : {"lomipuScd", "mubarUplinkScd"}) {
        intf->select(name);
        intf->cleanup(name);
        std::set<U32> touched;
        for (const auto& a : bar.accesses()) touched.insert(a.offset);
        EXPECT_THAT(touched, ElementsAre(0x62Cu, 0x644u)) << name;  // nothing in group 1
        EXPECT_EQ(bar.accesses().size(), 4 * 2 + 3 * 2 + 3 * 2u) << name;
        bar.clearLog();
    }
}

// ---- PEX 8700 ----

TEST_F(PlxPex8700, FactoryNamesAndWindowWithoutTestMode) {
    PlxPex8700Factory f;
    for (const char* n : {"GemufScd", "vopot", "mubarUplinkScd", ""}) EXPECT_FALSE(f.manages(n)) << n;
    XilIntf_testModeIs(1);  // until the board goes
    f.newXilIntf(0, 0, 0, 3, 0, 0);
    EXPECT_THAT(board.events,
                ElementsAre("lock /tmp/xilinxTestLockFile", std::string("window PlxPex8700Ham ") + kBar0));
}

// GPIO 10 is the held-high pin: its direction register is written whole.
TEST_F(PlxPex8700, HeldHighOnGpio10SelectTckCacheAndCleanup) {
    bar.poke(0x600, 0x001c0007);  // GPIO 6 (TDO) and GPIO 0 fields set
    bar.poke(0x604, 0xfff0);
    bar.poke(0x624, 0x3);
    XilIntf* intf = pex8700();
    intf->select("tilegScd");
    Accesses expected;  // TCK 9, TDI 7, TMS 8 outputs (bits 3p+2..3p = 100), TDO 6 an input; 10 output, high
    expected.rmw(0x600, {0x1c0007, 0x201c0007, 0x209c0007, 0x249c0007, 0x24800007});
    expected.write(0x604, 0x4).rmw(0x624, {0x3, 0x403});
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));
    bar.clearLog();
    intf->tdiIs(true);
    intf->tmsIs(true);
    expected = Accesses().rmw(0x624, {0x403, 0x483, 0x583});
    nineTcks(intf, 0x624, 0x200, expected);
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));
    bar.clearLog();
    intf->cleanup("tilegScd");
    EXPECT_THAT(bar.log(), ElementsAreArray(Accesses()
                                                .rmw(0x600, {0x24800007, 0x4800007, 0x4000007, 0x7})
                                                .write(0x604, 0x0)));
}

// The held-low pin (GPIO 2) comes first and stays an output driven low.
TEST_F(PlxPex8700, HeldLowPinOutlivesCleanup) {
    bar.poke(0x624, 0xffff);
    XilIntf* intf = pex8700();
    intf->select("gemufScd");
    Accesses expected;  // held low 2: output, low; TCK 7 output; TDI 10 output, its register written whole
    expected.rmw(0x600, {0x0, 0x100}).rmw(0x624, {0xffff, 0xfffb}).rmw(0x600, {0x100, 0x800100}).write(0x604, 0x4);
    // TMS 8 output, TDO 9 input, held high 6 output, high
    expected.rmw(0x600, {0x800100, 0x4800100, 0x4800100, 0x4900100}).rmw(0x624, {0xfffb, 0xfffb});
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));
    intf->cleanup("gemufScd");
    EXPECT_EQ(bar.peek(0x600), 0x100u);  // GPIO 2 output (bits 8..6 = 100); 6, 7, 8 and 9 inputs
    EXPECT_EQ(bar.peek(0x604), 0x0u);
    EXPECT_EQ(bar.peek(0x624), 0xfffbu);  // GPIO 2 still low
}

TEST_F(PlxPex8700, TdoOnGpio10) {
    bar.poke(0x604, 0x4);
    XilIntf* intf = pex8700();
    intf->select("mubarplusUplinkScd");
    EXPECT_EQ(bar.log()[6], "W32 0x604=0x0");  // after TCK 7, TDI 9 and TMS 8, no read
    bar.clearLog();
    expectTdoFollows(bar, intf, 0x61C, 0x400);
    EXPECT_THAT(bar.log(), ElementsAre("R32 0x61c=0x400", "R32 0x61c=0xfffffbff"));
}

// Bits 4..0 of 0x354 name the 4 KB block that holds the GPIO registers.
TEST_F(PlxPex8700, RelocatedBlock) {
    bar.poke(0x354, 0xffffffe3);  // block 3; the upper bits mean nothing here
    bar.poke(0x3A44, 0x40);
    XilIntf* intf = pex8700();
    intf->select("nipig2Scd");
    intf->tckIs(true);
    EXPECT_TRUE(intf->tdo());
    intf->cleanup("nipig2Scd");
    Accesses expected;  // select as tilegScd's, in block 3; TCK high; TDO 6; cleanup
    expected.read(0x354, 0xffffffe3).rmw(0x3a34, {0x0, 0x20000000, 0x20800000, 0x24800000, 0x24800000});
    expected.write(0x3a38, 0x4).rmw(0x3a48, {0x0, 0x400, 0x600}).read(0x3a44, 0x40);
    expected.rmw(0x3a34, {0x24800000, 0x4800000, 0x4000000, 0x0}).write(0x3a38, 0x0);
    EXPECT_THAT(bar.log(), ElementsAreArray(expected));
}

TEST_F(PlxPex8700, PinOutOfRangeStopsAtItsAssertion) {
    SKIP_WITHOUT_ASSERTIONS();
    PlxPex8700Intf* intf = pex8700();
    EXPECT_DEATH(intf->setDir(11, 4), "pin >= MIN_PIN and pin <= MAX_PIN");
    EXPECT_DEATH(intf->setPin(255, true, false), "pin >= MIN_PIN and pin <= MAX_PIN");
}
