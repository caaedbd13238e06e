// A small JTAG layer over the plain-named pin functions (xilinx/XilIntfC.h):
// it moves the TAP controllers of a chain through their states and shifts
// instruction and data registers, one TCK cycle per bit. Tools that drive a
// whole chain (an IDCODE scan, a vector player, a remote protocol server)
// build on it; the interface itself must already be selected.
//
//   jtag::Tap tap(intf);
//   tap.reset();
//   jtag::Bits out = tap.shiftIr(jtag::bitsOf(0x09, 6));
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "xilinx/XilIntfC.h"

namespace jtag {

// The sixteen states of the IEEE 1149.1 TAP controller.
enum class TapState : uint8_t {
    TestLogicReset,
    RunTestIdle,
    SelectDrScan,
    CaptureDr,
    ShiftDr,
    Exit1Dr,
    PauseDr,
    Exit2Dr,
    UpdateDr,
    SelectIrScan,
    CaptureIr,
    ShiftIr,
    Exit1Ir,
    PauseIr,
    Exit2Ir,
    UpdateIr,
};

// The state a TAP controller in state s enters on a rising TCK edge with TMS at tms.
TapState nextState(TapState s, bool tms);
// The standard's name of a state: "Test-Logic-Reset", "Shift-DR", ...
const char* stateName(TapState s);

// Bits in shift order: element 0 is shifted first, as the least significant
// bit of the register.
using Bits = std::vector<bool>;
Bits bitsOf(uint64_t value, unsigned count);
// count (at most 64) bits of bits from index first, element first as bit 0.
uint64_t valueOf(const Bits& bits, size_t first, unsigned count);

class Tap {
  public:
    // The controller's state is unknown until reset().
    explicit Tap(XilIntf* intf) : intf_(intf) {}

    // One TCK cycle: TMS and TDI set while TCK is low, TDO sampled, then a
    // rising and a falling edge. Returns TDO as it was before the rising edge.
    bool cycle(bool tms, bool tdi);
    // Five cycles with TMS high: Test-Logic-Reset from any state.
    void reset();
    // The shortest TMS sequence from the current state to target.
    void moveTo(TapState target);
    // Cycles spent in Run-Test/Idle (moves there first).
    void idle(unsigned cycles);
    // Shifts in through Shift-IR or Shift-DR and returns what came out of
    // TDO meanwhile; the last bit leaves the shift state, and the
    // controller then moves on to end.
    Bits shiftIr(const Bits& in, TapState end = TapState::RunTestIdle);
    Bits shiftDr(const Bits& in, TapState end = TapState::RunTestIdle);

    TapState state() const { return state_; }

  private:
    Bits shift(TapState shiftState, const Bits& in, TapState end);

    XilIntf* intf_;
    TapState state_ = TapState::TestLogicReset;
    bool tdi_ = true;  // TDI is left where it was while only TMS matters
};

// Resets the chain and reads what its data registers hold right after the
// reset: one entry per device, the device nearest TDO first; a device
// without an identification register (BYPASS after reset) gives 0. Empty
// when nothing answers: TDO stuck high, or stuck low (all entries 0).
// Leaves the controller in Run-Test/Idle.
std::vector<uint32_t> readIdcodes(Tap& tap, unsigned maxDevices = 32);

}  // namespace jtag
