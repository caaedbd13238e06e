// The simulated scan chain at the pins: the TAP controller's states for a
// known TMS stream, instruction capture and update, IDCODE after reset,
// the BYPASS delay, and when TDO changes. (Devices in series, through the
// JTAG layer: jtag_test.)
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

TEST(SimChain, KnownTmsStreamVisitsEveryStateAndFiveTmsHighReset) {
    JtagChain chain({{0x0a5c7035, 8}});
    Pins pins{chain};
    EXPECT_EQ(chain.state(), TapState::TestLogicReset);  // as at power-up
    std::string seen;
    for (int tms : {0, 1, 0, 0, 1, 0, 1, 0, 1, 1, 1, 1, 0, 0, 1, 0, 1, 0, 1, 1, 0, 1, 1, 1}) {
        pins.cycle(tms);
        seen += std::string(jtag::stateName(chain.state())) + " ";
    }
    EXPECT_EQ(seen,
              "Run-Test/Idle Select-DR-Scan Capture-DR Shift-DR Exit1-DR Pause-DR Exit2-DR Shift-DR Exit1-DR "
              "Update-DR Select-DR-Scan Select-IR-Scan Capture-IR Shift-IR Exit1-IR Pause-IR Exit2-IR Shift-IR "
              "Exit1-IR Update-IR Run-Test/Idle Select-DR-Scan Select-IR-Scan Test-Logic-Reset ");
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
    Pins{chain}.tms({0, 1, 0});       // Capture-DR
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

TEST(SimChain, IdcodeIrCaptureAndBypassForAllOnesAndUnknownCodes) {
    for (uint32_t instruction : {0xffu, 0x42u}) {
        JtagChain chain({{0x0a5c7035, 8}});
        Pins pins{chain};
        pins.tms({0, 1, 0, 0});  // Shift-DR
        EXPECT_EQ(pins.shift(32), 0x0a5c7035u);
        EXPECT_EQ(pins.shift(32, 0xdeadbeef), 0u);  // then the zeros shifted in behind it
        pins.tms({1, 1, 1, 1, 0, 0});               // Exit1, Update, Select-DR, Select-IR, Capture-IR, Shift-IR
        EXPECT_EQ(pins.shift(7, instruction), 0x01u);
        EXPECT_FALSE(pins.cycle(true, (instruction >> 7) & 1));  // last bit of ...01, to Exit1-IR
        pins.tms({1});                                           // Update-IR
        EXPECT_EQ(chain.instruction(0), instruction);
        pins.tms({1, 0, 0});  // Select-DR, Capture-DR, Shift-DR
        // One bit of delay: the captured 0, then the pattern.
        EXPECT_EQ(pins.shift(9, 0xa5), 0xa5u << 1) << instruction;
        pins.tms({1, 1, 1, 1, 1, 0, 1, 0, 0});  // Test-Logic-Reset selects IDCODE again
        EXPECT_EQ(pins.shift(32), 0x0a5c7035u) << instruction;
    }
}
