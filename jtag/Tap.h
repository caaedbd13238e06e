// A small JTAG layer over the plain-named pin functions (xilinx/XilIntfC.h):
// it moves the TAP controllers of a chain through their states and shifts
// instruction and data registers through XilIntf_shift, a whole scan with
// the state moves around it in one call, bits packed in bytes
// (BitVector.h). Tools that drive a whole chain (an IDCODE scan, a vector
// player, a remote protocol server) build on it; the interface itself must
// already be selected.
//
//   jtag::Tap tap(intf);
//   tap.reset();
//   jtag::BitVector out = tap.shiftIr(jtag::BitVector::fromValue(0x09, 6));
#pragma once
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/TapState.h"
#include "xilinx/XilIntfC.h"

namespace jtag {

// The TCK period for a ceiling of hz, in whole nanoseconds rounded up (so
// never faster than asked); 0 (no ceiling) for 0, for less, and from 1 GHz
// on, which is past any pin.
inline uint32_t tckPeriodNs(double hz) {
    return hz > 0 && hz < 1e9 ? static_cast<uint32_t>(std::ceil(1e9 / hz)) : 0;
}

class Tap {
  public:
    // The controller's state is unknown until reset().
    explicit Tap(XilIntf* intf) : intf_(intf) {}

    // One TCK cycle: TMS and TDI set while TCK is low, TDO sampled, then a
    // rising and a falling edge. Returns TDO as it was before the rising edge.
    bool cycle(bool tms, bool tdi);
    // Cycles with these TMS and TDI bits (as many as tms has), in one
    // XilIntf_shift; tdo, when given, receives TDO of each cycle.
    void clock(const BitVector& tms, const BitVector& tdi, BitVector* tdo = nullptr);
    // Five cycles with TMS high: Test-Logic-Reset from any state.
    void reset();
    // The shortest TMS sequence from the current state to target.
    void moveTo(TapState target);
    // One cycle to a state next to the current one; false (and no cycle)
    // when no TMS level leads there.
    bool stepTo(TapState next);
    // Through each of count states in turn, one cycle each, in one
    // XilIntf_shift; false (and no cycle) when a state does not follow the
    // one before it in one cycle.
    bool walkTo(const TapState* path, size_t count);
    // Moves to a stable state (Test-Logic-Reset, Run-Test/Idle, Pause-DR,
    // Pause-IR) and stays there for count cycles, TDI unchanged.
    void stay(TapState stable, uint64_t count);
    void idle(uint64_t count) { stay(TapState::RunTestIdle, count); }
    // Shifts in through Shift-IR or Shift-DR; out, when given, receives
    // what came out of TDO meanwhile (no TDO is read without it). The last
    // bit leaves the shift state, and the controller then moves on to end;
    // with end the shift state itself, it stays there instead, so that the
    // next shift goes on with the same register. Moving there, shifting and
    // moving on are one XilIntf_shift.
    // With readMask (as long as in), TDO is read only where it has a 1;
    // out's other bits are 0.
    void shiftIr(const BitVector& in, BitVector* out, TapState end = TapState::RunTestIdle,
                 const BitVector* readMask = nullptr);
    void shiftDr(const BitVector& in, BitVector* out, TapState end = TapState::RunTestIdle,
                 const BitVector* readMask = nullptr);
    BitVector shiftIr(const BitVector& in, TapState end = TapState::RunTestIdle);
    BitVector shiftDr(const BitVector& in, TapState end = TapState::RunTestIdle);

    // A ceiling on TCK from now on: no high or low phase shorter than half
    // of periodNs (XilIntf_tckPeriodIs); 0: none.
    void ceilingIs(uint32_t periodNs) { XilIntf_tckPeriodIs(intf_, periodNs); }
    // The same ceiling in Hz (tckPeriodNs).
    void ceilingHzIs(double hz) { ceilingIs(tckPeriodNs(hz)); }

    TapState state() const { return state_; }
    // TCK cycles made through this object.
    uint64_t cycles() const { return cycles_; }

    // A hook for a caller that must look in on a long run (progress, a
    // request to stop): once kHookCycles TCK cycles have passed since it
    // was set or last called, it is called after the XilIntf_shift that
    // passed them, and with a hook set a longer shift is cut into shifts of
    // kHookCycles, so it is never more than 2 * kHookCycles cycles without
    // a call, also in one long scan. It may throw: the scan then stops
    // between two shifts and the controller's state is unknown until
    // reset(). Null: none.
    static constexpr uint32_t kHookCycles = 1u << 18;  // a multiple of 8: the cuts fall between bytes
    using Hook = void (*)(void* context);
    void hookIs(Hook hook, void* context) {
        hook_ = hook;
        hookContext_ = context;
        hookDue_ = cycles_ + kHookCycles;
    }

  private:
    void shift(TapState shiftState, const BitVector& in, BitVector* out, TapState end, const BitVector* readMask);
    // XilIntf_shift over the scratch vectors (XilIntf_shiftMasked with
    // wanted); tracks state and TDI.
    void run(BitVector* tdo, const BitVector* wanted = nullptr);
    // One XilIntf_shift of the scratch's cycles [from, from + n).
    void shiftSlice(size_t from, uint32_t n, BitVector* tdo, const BitVector* wanted);
    // Appends the path from state `from` to `to` to the scratch vectors.
    TapState appendPath(TapState from, TapState to);

    XilIntf* intf_;
    TapState state_ = TapState::TestLogicReset;
    bool tdi_ = true;  // TDI is left where it was while only TMS matters
    uint64_t cycles_ = 0;
    Hook hook_ = nullptr;
    void* hookContext_ = nullptr;
    uint64_t hookDue_ = 0;
    BitVector tmsScratch_, tdiScratch_, tdoScratch_, wantScratch_;  // reused from call to call
};

// Resets the chain and reads what its data registers hold right after the
// reset: one entry per device, the device nearest TDO first; a device
// without an identification register (BYPASS after reset) gives 0. Empty
// when nothing answers: TDO stuck high, or stuck low (all entries 0).
// Leaves the controller in Run-Test/Idle.
std::vector<uint32_t> readIdcodes(Tap& tap, unsigned maxDevices = 32);

}  // namespace jtag
