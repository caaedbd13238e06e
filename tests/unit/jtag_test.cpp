// The JTAG layer over a pin interface wired straight to a simulated chain:
// the TMS sequences it chooses, what its shifts return and leave in the
// devices, and the IDCODE scan, also against TDO stuck high or low.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChainIntf.h"
#include "TestSupport.h"
#include "jtag/Tap.h"

using jtag::BitVector;
using jtag::TapState;
using ::testing::ElementsAre;

namespace {

class Jtag : public ::testing::Test {
  protected:
    FakeBoard board;
    sim::JtagChain chain{{{0x0a5c7035, 8}, {0x1b4d2093, 6}}};
    ChainIntf* intf = new ChainIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};
};

}  // namespace

// Hex as SVF writes it and its widths, masks: vectors_test and player_test.
TEST(JtagBits, ValuesHexAndCopiesLeastSignificantFirst) {
    BitVector b = BitVector::fromValue(0x0123456789abcdefULL, 64);
    EXPECT_EQ(b.value(4, 8), 0xdeu);
    EXPECT_EQ(b.value(60, 8), 0x0u);  // past the end reads as zeros
    BitVector h;  // the last two digits are byte 0
    ASSERT_TRUE(BitVector::fromHex("1fA5", 13, &h));
    EXPECT_EQ(h.data()[0], 0xa5);
    EXPECT_EQ(h.data()[1], 0x1f);
    // Appends and copies at any bit offset keep the tail of the last byte clear.
    BitVector a = BitVector::fromValue(0x3, 3);
    a.append(BitVector::fromValue(0x1ff, 9), 1, 7);  // bits 1..7 of 0x1ff
    EXPECT_EQ(a.size(), 10u);
    EXPECT_EQ(a.value(0, 10), 0x3fbu);
    EXPECT_EQ(a.data()[1], 0x03);
    BitVector ones(21, true);
    BitVector dst(30);
    jtag::copyBits(ones.data(), 3, dst.data(), 5, 17);
    EXPECT_EQ(dst.value(0, 30), 0x3fffe0u);
}

TEST_F(Jtag, MovesTakeTheShortestTmsPathIdleClocksInRunTestIdleAndResetIsFiveCycles) {
    tap.reset();
    intf->tmsTrail.clear();
    tap.moveTo(TapState::ShiftDr);
    // Rising and falling edge of each cycle see the same TMS.
    EXPECT_THAT(intf->tmsTrail, ElementsAre(0, 0, 1, 1, 0, 0, 0, 0));
    intf->cycles = 0;
    tap.moveTo(TapState::ShiftIr);  // Exit1-DR, Update-DR, Select-DR, Select-IR, Capture-IR, Shift-IR
    EXPECT_EQ(intf->cycles, 6u);
    tap.moveTo(TapState::ShiftIr);
    EXPECT_EQ(intf->cycles, 6u);
    tap.moveTo(TapState::TestLogicReset);  // Exit1-IR, Update-IR, Select-DR, Select-IR, Test-Logic-Reset
    EXPECT_EQ(intf->cycles, 11u);
    EXPECT_EQ(chain.state(), TapState::TestLogicReset);
    tap.idle(3);
    EXPECT_EQ(intf->cycles, 15u);  // one to get there
    EXPECT_EQ(chain.state(), TapState::RunTestIdle);
    tap.moveTo(TapState::PauseIr);
    intf->cycles = 0;
    tap.reset();  // TMS high, from any state
    EXPECT_EQ(intf->cycles, 5u);
    EXPECT_EQ(chain.state(), TapState::TestLogicReset);
    EXPECT_EQ(tap.state(), TapState::TestLogicReset);
}

TEST_F(Jtag, ShiftIrLoadsOnUpdateShiftDrReadsThroughBypassAndReadIdcodesResetsFirst) {
    tap.reset();
    // The bits shifted first travel furthest: BYPASS for the device nearest TDO, IDCODE for the other.
    BitVector out = tap.shiftIr(BitVector::fromValue(0xff | sim::kIdcodeInstruction << 8, 14), TapState::PauseIr);
    EXPECT_EQ(out.value(0, 14), 0x01u | 0x01u << 8);  // each captures ...01
    EXPECT_EQ(tap.state(), TapState::PauseIr);
    EXPECT_EQ(chain.instruction(0), sim::kIdcodeInstruction);  // not before Update-IR
    tap.moveTo(TapState::RunTestIdle);
    EXPECT_EQ(chain.instruction(0), 0xffu);
    out = tap.shiftDr(BitVector(33));
    EXPECT_FALSE(out[0]);  // BYPASS captures 0
    EXPECT_EQ(out.value(1, 32), 0x1b4d2093u);
    EXPECT_EQ(tap.state(), TapState::RunTestIdle);

    // The IDCODE scan, nearest TDO first, and nothing on a stuck TDO.
    tap.moveTo(TapState::ShiftIr);  // wherever it was: the scan resets first
    EXPECT_THAT(jtag::readIdcodes(tap), ElementsAre(0x0a5c7035u, 0x1b4d2093u));
    EXPECT_EQ(chain.state(), TapState::RunTestIdle);
    intf->stuck = 1;
    EXPECT_TRUE(jtag::readIdcodes(tap).empty());
    intf->stuck = 0;
    intf->cycles = 0;
    EXPECT_TRUE(jtag::readIdcodes(tap, 4).empty());
    EXPECT_LT(intf->cycles, 32u * 5 + 20);  // bounded: a code's length for each of four devices and the end
}
