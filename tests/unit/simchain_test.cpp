// The simulated scan chain at the pins: the TAP controller's states for a
// known TMS stream, instruction capture and update, IDCODE after reset,
// the BYPASS delay, devices in series, and when TDO changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sim/JtagChain.h"

using jtag::TapState;
using sim::JtagChain;

namespace {

// Drives the chain's pins by hand: one TCK cycle per call, TDO sampled
// while TCK is low.
struct Pins {
    JtagChain& chain;
    bool cycle(bool tms, bool tdi = false) {
        bool tdo = chain.tdo();
        chain.tckIs(true, tms, tdi);
        chain.tckIs(false, tms, tdi);
        return tdo;
    }
    void tms(std::initializer_list<int> levels) {
        for (int l : levels) cycle(l != 0);
    }
    // Shifts n bits in (value LSB first) and returns what came out; stays in the shift state.
    uint64_t shift(unsigned n, uint64_t in = 0) {
        uint64_t out = 0;
        for (unsigned i = 0; i < n; ++i) out |= static_cast<uint64_t>(cycle(false, (in >> i) & 1)) << i;
        return out;
    }
};

}  // namespace

TEST(SimChain, KnownTmsStreamVisitsEveryState) {
    JtagChain chain({{0x0a5c7035, 8}});
    Pins pins{chain};
    const int tms[] = {0, 1, 0, 0, 1, 0, 1, 0, 1, 1, 1, 1, 0, 0, 1, 0, 1, 0, 1, 1, 0, 1, 1, 1};
    const TapState expected[] = {
        TapState::RunTestIdle, TapState::SelectDrScan, TapState::CaptureDr,    TapState::ShiftDr,
        TapState::Exit1Dr,     TapState::PauseDr,      TapState::Exit2Dr,      TapState::ShiftDr,
        TapState::Exit1Dr,     TapState::UpdateDr,     TapState::SelectDrScan, TapState::SelectIrScan,
        TapState::CaptureIr,   TapState::ShiftIr,      TapState::Exit1Ir,      TapState::PauseIr,
        TapState::Exit2Ir,     TapState::ShiftIr,      TapState::Exit1Ir,      TapState::UpdateIr,
        TapState::RunTestIdle, TapState::SelectDrScan, TapState::SelectIrScan, TapState::TestLogicReset,
    };
    EXPECT_EQ(chain.state(), TapState::TestLogicReset);  // as at power-up
    std::vector<std::string> seen, want;
    for (size_t i = 0; i < sizeof tms / sizeof tms[0]; ++i) {
        pins.cycle(tms[i]);
        seen.push_back(jtag::stateName(chain.state()));
        want.push_back(jtag::stateName(expected[i]));
    }
    EXPECT_EQ(seen, want);
    EXPECT_STREQ(jtag::stateName(TapState::UpdateIr), "Update-IR");
}

TEST(SimChain, FiveTmsHighReachTestLogicResetFromEveryState) {
    for (int s = 0; s < 16; ++s) {
        TapState state = static_cast<TapState>(s);
        for (int i = 0; i < 5; ++i) state = jtag::nextState(state, true);
        EXPECT_EQ(state, TapState::TestLogicReset) << s;
    }
}

TEST(SimChain, OnlyTckEdgesStepAndTdoChangesOnTheFallingEdge) {
    JtagChain chain({{0x0a5c7035, 8}});
    chain.tckIs(false, false, true);  // no edge: TCK was low
    chain.tckIs(false, true, false);
    EXPECT_EQ(chain.state(), TapState::TestLogicReset);
    Pins pins{chain};
    pins.tms({0, 1, 0});              // Capture-DR
    chain.tckIs(true, false, false);  // into Shift-DR
    EXPECT_EQ(chain.state(), TapState::ShiftDr);
    EXPECT_TRUE(chain.tdo());  // not driven yet: the pull-up
    chain.tckIs(false, false, false);
    EXPECT_TRUE(chain.tdo());         // bit 0 of the IDCODE
    chain.tckIs(true, false, false);  // shifts
    EXPECT_TRUE(chain.tdo());         // still bit 0 until the falling edge
    chain.tckIs(false, false, false);
    EXPECT_FALSE(chain.tdo());  // bit 1 of 0x...35
}

TEST(SimChain, IdcodeAfterResetAndIrCapture) {
    JtagChain chain({{0x0a5c7035, 8}});
    Pins pins{chain};
    pins.tms({1, 1, 1, 1, 1, 0, 1, 0, 0});  // Shift-DR
    EXPECT_EQ(pins.shift(32), 0x0a5c7035u);
    EXPECT_EQ(pins.shift(32, 0xdeadbeef), 0u);  // then the zeros shifted in behind it
    pins.tms({1, 1, 1, 1, 0, 0});               // Exit1, Update, Select-DR, Select-IR, Capture-IR, Shift-IR
    EXPECT_EQ(chain.state(), TapState::ShiftIr);
    EXPECT_EQ(pins.shift(8, 0xff), 0x01u);
}

TEST(SimChain, AllOnesSelectsBypassAndUnknownCodesDoToo) {
    for (uint32_t instruction : {0xffu, 0x42u}) {
        JtagChain chain({{0x0a5c7035, 8}});
        Pins pins{chain};
        pins.tms({0, 1, 1, 0, 0});  // Shift-IR
        pins.shift(7, instruction);
        pins.cycle(true, (instruction >> 7) & 1);  // last bit, to Exit1-IR
        pins.tms({1});                             // Update-IR
        EXPECT_EQ(chain.instruction(0), instruction);
        pins.tms({1, 0, 0});  // Select-DR, Capture-DR, Shift-DR
        // One bit of delay: the captured 0, then the pattern.
        EXPECT_EQ(pins.shift(9, 0xa5), 0xa5u << 1) << instruction;
        pins.tms({1, 1, 1, 1, 1});
        EXPECT_EQ(chain.instruction(0), sim::kIdcodeInstruction);  // Test-Logic-Reset selects IDCODE again
    }
}

TEST(SimChain, DevicesInSeriesNearestTdoFirst) {
    JtagChain chain({{0x0a5c7035, 8}, {0x1b4d2093, 6}});
    Pins pins{chain};
    pins.tms({0, 1, 0, 0});  // Shift-DR
    EXPECT_EQ(pins.shift(64), 0x1b4d2093'0a5c7035ULL);
    pins.tms({1, 1, 1, 1, 0, 0});  // Shift-IR: 8 + 6 bits, each capturing ...01
    EXPECT_EQ(pins.shift(14, 0x3fff), 0x01u | 0x01u << 8);
    pins.cycle(true, true);
    pins.tms({1, 1, 0, 0});  // Update-IR, Select-DR, Capture-DR, Shift-DR: both in BYPASS
    EXPECT_EQ(chain.instruction(0), 0xffu);
    EXPECT_EQ(chain.instruction(1), 0x3fu);
    EXPECT_EQ(pins.shift(10, 0x155), (0x155u << 2) & 0x3ff);  // two bits of delay
}
