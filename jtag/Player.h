// Carries out the actions of an SVF or XSVF reader (Action.h) on a Tap.
//
// TDO is read only for scans that compare it. Waits are measured with a
// monotonic clock and TCK keeps running through them, since many devices
// count their busy time in TCK cycles: a RUNTEST clocks its cycles in the
// run state, then goes on clocking there until its minimum time has passed
// since it got there; a time-only RUNTEST clocks for the whole time; an
// XSVF wait of n microseconds clocks at least n cycles and lasts at least
// n microseconds.
//
// FREQUENCY is a ceiling on TCK that holds on every edge: the Tap's
// interface is told the period (XilIntf_tckPeriodIs), and no TCK high or
// low phase is then shorter than half of it; where the register accesses
// are slower, nothing waits. A cap (kelvorn-play --frequency) lowers every
// ceiling to it, and stands for one where the file sets none. Without
// either, or after FREQUENCY with no value, nothing waits.
//
// Every timing value is honoured as given or refused (FormatError,
// unsupported) before anything is played for its statement: a ceiling below
// kMinHz, and a wait longer than kMaxWaitSeconds (a minimum time, or a run
// count at the ceiling in force). A MAXIMUM of any size is honoured: it is
// compared, never converted.
//
// The clock and the sleep are a Clock, so tests can run time without waiting.
#pragma once
#include <cstdint>
#include <functional>
#include <string>

#include "jtag/Action.h"
#include "jtag/Tap.h"

namespace jtag {

class Clock {
  public:
    virtual ~Clock() = default;
    // Nanoseconds on a monotonic clock.
    virtual uint64_t now() = 0;
    virtual void sleep(uint64_t ns) = 0;
};

// steady_clock and nanosleep.
Clock& systemClock();

struct PlayStats {
    uint64_t scans = 0;
    uint64_t bits = 0;       // shifted in scans, headers and trailers included
    uint64_t cycles = 0;     // TCK cycles made by this player (0 in a dry run)
    uint64_t minRunNs = 0;   // the waits the file asks for: RUNTEST (its count at the
                             // ceiling, or its minimum time, the longer), XRUNTEST, XWAIT;
                             // UINT64_MAX when they add up to more than that
    uint64_t mismatches = 0;
    uint64_t retries = 0;    // XSVF scans tried again after a mismatch
    uint64_t overruns = 0;   // RUNTEST stays that took longer than their MAXIMUM
    double lowestHz = 0;     // the lowest ceiling a FREQUENCY set; 0: none
};

class Player {
  public:
    // The lowest TCK ceiling this player paces at, in Hz.
    static constexpr double kMinHz = 1;
    // The longest one statement may ask to wait: a day.
    static constexpr double kMaxWaitSeconds = 86400;

    // tap null: a dry run, which only counts.
    Player(Tap* tap, Clock& clock) : tap_(tap), clock_(clock), baseCycles_(tap ? tap->cycles() : 0) {}

    // A ceiling on TCK over every FREQUENCY the file sets (0: none), before start().
    void capIs(double hz) { cap_ = hz; }
    // Five cycles with TMS high: the chain in Test-Logic-Reset, where the
    // readers start; under resetHz as a ceiling when not 0 (the lowest the
    // file sets: its devices may not take more, even before its FREQUENCY).
    void start(double resetHz = 0);
    // Carries out one action; false on a TDO mismatch, which mismatch()
    // then describes. The chain is then in the scan's end state.
    bool play(const Action& a);

    // "TDO mismatch: expected 1b4d2093 mask ffffffff actual 0a5c7035". A
    // scan longer than 64 bits shows the 64 bits around the first
    // difference: "TDO mismatch at bit 1234 of 4096, bits 1265..1202:
    // expected ... mask ... actual ...". After retries, "after N tries" follows.
    const std::string& mismatch() const { return mismatch_; }
    // What TDO gave in the last scan that compared it (after a mismatch:
    // the actual bits mismatch() describes), first bit first.
    const BitVector& tdo() const { return tdo_; }
    // A RUNTEST that stayed longer than its MAXIMUM: what warning() then says.
    const std::string& warning() const { return warning_; }
    const PlayStats& stats() const { return stats_; }

    // Called after each action and each slice of a long run, for progress.
    std::function<void()> onProgress;
    // Called for a RUNTEST that took longer than its MAXIMUM.
    std::function<void(const Action&)> onOverrun;

  private:
    // The file's ceiling (hz_) under the cap, to the Tap.
    void ceilingIs(double fileHz);
    bool scan(const Action& a);
    void runTest(TapState state, uint64_t cycles, uint64_t minNs, double maxSeconds, TapState end, const Action* a);
    void describeMismatch(const Action& a, unsigned tries);
    void countWait(const Action& a, uint64_t cycles, double minSeconds);

    Tap* tap_;
    Clock& clock_;
    double hz_ = 0;   // the ceiling in force, the cap's included; 0: none
    double cap_ = 0;
    uint64_t baseCycles_;  // the Tap's count when this player took it: what came before is not this play's
    uint64_t nsPerCycle_ = 1000;  // how long a cycle took in the last slice of a run
    BitVector tdo_;
    std::string mismatch_, warning_;
    PlayStats stats_;
};

}  // namespace jtag
