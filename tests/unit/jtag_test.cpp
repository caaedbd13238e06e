// The JTAG layer over a pin interface wired straight to a simulated chain:
// the TMS sequences it chooses, what its shifts return and leave in the
// devices, and the IDCODE scan, also against TDO stuck high or low.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "jtag/Tap.h"
#include "sim/JtagChain.h"
#include "xilinx/XilIntf.h"

using jtag::Bits;
using jtag::TapState;
using ::testing::ElementsAre;

namespace {

// A pin interface whose pins are the chain's, counting TCK cycles.
struct ChainIntf : XilIntf {
    ChainIntf(const char* lock, sim::JtagChain* chain) : XilIntf(lock), chain(chain) {}
    void tdiIs(bool v) override { tdi = v; }
    void tmsIs(bool v) override { tms = v; }
    void tckIs(bool v) override {
        cycles += v;
        tmsTrail.push_back(tms);
        chain->tckIs(v, tms, tdi);
    }
    bool tdo() override { return stuck < 0 ? chain->tdo() : stuck; }
    void select(const char*) override {}
    void cleanup(const char*) override {}
    void warningIs(bool) override {}

    sim::JtagChain* chain;
    bool tms = false, tdi = false;
    int stuck = -1;  // 0 or 1: TDO stuck at that level
    unsigned cycles = 0;
    std::vector<bool> tmsTrail;  // TMS at each TCK edge
};

class Jtag : public ::testing::Test {
  protected:
    FakeBoard board;
    sim::JtagChain chain{{{0x0a5c7035, 8}, {0x1b4d2093, 6}}};
    ChainIntf* intf = new ChainIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};
};

}  // namespace

TEST(JtagBits, ValuesAndBitsRoundTripLeastSignificantFirst) {
    EXPECT_THAT(jtag::bitsOf(0x5, 4), ElementsAre(true, false, true, false));
    Bits b = jtag::bitsOf(0x0123456789abcdefULL, 64);
    EXPECT_EQ(jtag::valueOf(b, 0, 64), 0x0123456789abcdefULL);
    EXPECT_EQ(jtag::valueOf(b, 4, 8), 0xdeu);
    EXPECT_EQ(jtag::valueOf(b, 60, 8), 0x0u);  // past the end reads as zeros
}

TEST_F(Jtag, ResetIsFiveCyclesWithTmsHighFromAnyState) {
    tap.reset();
    tap.moveTo(TapState::PauseIr);
    intf->cycles = 0;
    tap.reset();
    EXPECT_EQ(intf->cycles, 5u);
    EXPECT_EQ(chain.state(), TapState::TestLogicReset);
    EXPECT_EQ(tap.state(), TapState::TestLogicReset);
}

TEST_F(Jtag, MovesTakeTheShortestTmsPath) {
    tap.reset();
    intf->tmsTrail.clear();
    tap.moveTo(TapState::ShiftDr);
    // Rising and falling edge of each cycle see the same TMS.
    EXPECT_THAT(intf->tmsTrail, ElementsAre(0, 0, 1, 1, 0, 0, 0, 0));
    intf->cycles = 0;
    tap.moveTo(TapState::ShiftIr);  // Exit1-DR, Update-DR, Select-DR, Select-IR, Capture-IR, Shift-IR
    EXPECT_EQ(intf->cycles, 6u);
    intf->cycles = 0;
    tap.moveTo(TapState::ShiftIr);
    EXPECT_EQ(intf->cycles, 0u);
    tap.moveTo(TapState::TestLogicReset);  // Exit1-IR, Update-IR, Select-DR, Select-IR, Test-Logic-Reset
    EXPECT_EQ(intf->cycles, 5u);
    EXPECT_EQ(chain.state(), TapState::TestLogicReset);
}

TEST_F(Jtag, ShiftIrReturnsTheCapturedBitsAndLoadsTheInstructions) {
    tap.reset();
    // The bits shifted first travel furthest: 8 for the device nearest TDO, then 6 for the other.
    Bits in = jtag::bitsOf(0xff, 8);
    Bits other = jtag::bitsOf(0x2a, 6);
    in.insert(in.end(), other.begin(), other.end());
    Bits out = tap.shiftIr(in, TapState::PauseIr);
    EXPECT_EQ(jtag::valueOf(out, 0, 8), 0x01u);  // ...01 from the device nearest TDO
    EXPECT_EQ(jtag::valueOf(out, 8, 6), 0x01u);
    EXPECT_EQ(tap.state(), TapState::PauseIr);
    EXPECT_EQ(chain.instruction(0), sim::kIdcodeInstruction);  // not before Update-IR
    tap.moveTo(TapState::RunTestIdle);
    EXPECT_EQ(chain.instruction(0), 0xffu);
    EXPECT_EQ(chain.instruction(1), 0x2au);
}

TEST_F(Jtag, ShiftDrThroughBypassAndIdcode) {
    tap.reset();
    Bits ir = jtag::bitsOf(0xff, 8);  // BYPASS nearest TDO
    Bits idcode = jtag::bitsOf(sim::kIdcodeInstruction, 6);
    ir.insert(ir.end(), idcode.begin(), idcode.end());
    tap.shiftIr(ir);
    Bits out = tap.shiftDr(jtag::bitsOf(0, 33));
    EXPECT_FALSE(out[0]);  // BYPASS captures 0
    EXPECT_EQ(jtag::valueOf(out, 1, 32), 0x1b4d2093u);
    EXPECT_EQ(tap.state(), TapState::RunTestIdle);
}

TEST_F(Jtag, IdleClocksInRunTestIdle) {
    tap.reset();
    intf->cycles = 0;
    tap.idle(3);
    EXPECT_EQ(intf->cycles, 4u);  // one to get there
    EXPECT_EQ(chain.state(), TapState::RunTestIdle);
}

TEST_F(Jtag, ReadIdcodesNearestTdoFirstAndEndsInRunTestIdle) {
    tap.moveTo(TapState::ShiftIr);  // wherever it was: the scan resets first
    EXPECT_THAT(jtag::readIdcodes(tap), ElementsAre(0x0a5c7035u, 0x1b4d2093u));
    EXPECT_EQ(chain.state(), TapState::RunTestIdle);
}

TEST_F(Jtag, ReadIdcodesFindsNothingOnAStuckTdo) {
    intf->stuck = 1;
    EXPECT_TRUE(jtag::readIdcodes(tap).empty());
    intf->stuck = 0;
    intf->cycles = 0;
    EXPECT_TRUE(jtag::readIdcodes(tap, 4).empty());
    EXPECT_LT(intf->cycles, 20u);  // bounded: four one-bit devices
}
