#include "jtag/Player.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace jtag {

namespace {

// A slice of a run, in cycles: at full speed, and at most this fraction of
// a second's cycles under a ceiling.
constexpr uint64_t kFullSpeedSlice = 1 << 16;
constexpr double kSlicesPerSecond = 100;

// How a mismatch of a long scan is shown: this many bits around the first difference.
constexpr size_t kWindowBits = 64;

// From Exit1-DR after a mismatch, back to Run-Test/Idle for another try;
// the one cycle in Shift-DR moves the data off its place before Update-DR.
constexpr TapState kRetryPath[] = {TapState::PauseDr, TapState::Exit2Dr,  TapState::ShiftDr,
                                   TapState::Exit1Dr, TapState::UpdateDr, TapState::RunTestIdle};

class SystemClock : public Clock {
  public:
    uint64_t now() override {
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
                .count());
    }
    void sleep(uint64_t ns) override {
        timespec t{static_cast<time_t>(ns / 1000000000u), static_cast<long>(ns % 1000000000u)};
        while (nanosleep(&t, &t) != 0) {
        }
    }
};

// Seconds as nanoseconds, rounded up. Only for times the player has
// checked (at most kMaxWaitSeconds) or that a scan takes at a ceiling of at
// least kMinHz: both far inside 64 bits.
uint64_t nanoseconds(double seconds) {
    double ns = std::ceil(seconds * 1e9);
    return ns < 1.8e19 ? static_cast<uint64_t>(ns) : UINT64_MAX;
}

[[noreturn]] void refuse(const Action& a, const char* format, ...) __attribute__((format(printf, 2, 3)));
void refuse(const Action& a, const char* format, ...) {
    char what[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(what, sizeof what, format, args);
    va_end(args);
    throw FormatError(FormatError::unsupported, a.place, std::string(a.statement) + ": " + what);
}

}  // namespace

Clock& systemClock() {
    static SystemClock clock;
    return clock;
}

void Player::ceilingIs(double fileHz) {
    hz_ = cap_ && (!fileHz || fileHz > cap_) ? cap_ : fileHz;
    // The period in ns, rounded up: at least kMinHz, so at most a second.
    // A ceiling of a GHz and more is past any pin: nothing waits for it.
    if (tap_) tap_->ceilingHzIs(hz_);
}

// Adds the wait a statement asks for to the stats: its minimum time, or its
// cycles at the ceiling, the longer. Refused when that is longer than a day.
void Player::countWait(const Action& a, uint64_t cycles, double minSeconds) {
    if (minSeconds > kMaxWaitSeconds)
        refuse(a, "a wait of %g s is longer than the %g s (a day) one statement may wait", minSeconds,
               kMaxWaitSeconds);
    double atCeiling = hz_ ? cycles / hz_ : 0;
    if (atCeiling > kMaxWaitSeconds)
        refuse(a, "%llu TCK cycles at the ceiling of %g Hz take %g s, longer than the %g s (a day) one statement may wait",
               static_cast<unsigned long long>(cycles), hz_, atCeiling, kMaxWaitSeconds);
    uint64_t ns = nanoseconds(std::max(minSeconds, atCeiling));
    stats_.minRunNs = ns > UINT64_MAX - stats_.minRunNs ? UINT64_MAX : stats_.minRunNs + ns;
}

void Player::start(double resetHz) {
    ceilingIs(resetHz);
    if (tap_) {
        tap_->reset();
        stats_.cycles = tap_->cycles() - baseCycles_;
    }
    ceilingIs(0);
}

bool Player::play(const Action& a) {
    bool ok = true;
    switch (a.kind) {
        case Action::scan: ok = scan(a); break;
        case Action::state:
            if (!tap_) break;
            if (a.stepwise)
                tap_->walkTo(a.path.data(), a.path.size());
            else if (a.path.back() == TapState::TestLogicReset)
                tap_->reset();
            else
                tap_->moveTo(a.path.back());
            break;
        case Action::runTest:
            countWait(a, a.cycles, a.minSeconds);
            runTest(a.runState, a.cycles, nanoseconds(a.minSeconds), a.maxSeconds, a.end, &a);
            break;
        case Action::frequency:
            if (a.hz != 0 && !(a.hz >= kMinHz))
                refuse(a, "a ceiling of %g Hz is below the %g Hz this player paces TCK at", a.hz, kMinHz);
            ceilingIs(a.hz);
            if (a.hz && (!stats_.lowestHz || a.hz < stats_.lowestHz)) stats_.lowestHz = a.hz;
            break;
    }
    if (tap_) stats_.cycles = tap_->cycles() - baseCycles_;
    if (onProgress) onProgress();
    return ok;
}

void Player::runTest(TapState state, uint64_t cycles, uint64_t minNs, double maxSeconds, TapState end,
                     const Action* a) {
    if (!tap_) return;
    tap_->moveTo(state);
    uint64_t since = minNs || maxSeconds ? clock_.now() : 0;
    uint64_t slice = kFullSpeedSlice;
    if (hz_) slice = std::max<uint64_t>(1, static_cast<uint64_t>(std::min<double>(hz_ / kSlicesPerSecond, slice)));
    for (uint64_t left = cycles; left > 0;) {
        uint64_t n = std::min(left, slice);
        tap_->stay(state, n);
        left -= n;
        if (onProgress) onProgress();
    }
    // Then on, in slices about as long as the time still to go, until it has gone.
    for (uint64_t now; minNs && (now = clock_.now()) - since < minNs;) {
        uint64_t n = std::clamp<uint64_t>((minNs - (now - since)) / nsPerCycle_, 1, slice);
        tap_->stay(state, n);
        nsPerCycle_ = std::max<uint64_t>(1, (clock_.now() - now) / n);
        if (onProgress) onProgress();
    }
    if (maxSeconds) {
        uint64_t took = clock_.now() - since;
        if (took * 1e-9 > maxSeconds) {
            ++stats_.overruns;
            char s[160];
            std::snprintf(s, sizeof s, "stayed %.6f s in %s, longer than its MAXIMUM of %.6f s", took * 1e-9,
                          stateName(state), maxSeconds);
            warning_ = s;
            if (onOverrun && a) onOverrun(*a);
        }
    }
    tap_->moveTo(end);
}

bool Player::scan(const Action& a) {
    if (a.waitUs) countWait(a, a.waitUs, a.waitUs * 1e-6);
    ++stats_.scans;
    stats_.bits += a.tdi.size();
    if (!tap_) return true;
    BitVector* out = a.check ? &tdo_ : nullptr;
    auto shift = [&](TapState end) {
        // TDO is read only where the mask compares it.
        const BitVector* mask = a.check ? &a.mask : nullptr;
        a.ir ? tap_->shiftIr(a.tdi, out, end, mask) : tap_->shiftDr(a.tdi, out, end, mask);
    };
    auto wait = [&] {
        if (a.waitUs) runTest(TapState::RunTestIdle, a.waitUs, a.waitUs * 1000, 0, TapState::RunTestIdle, nullptr);
    };
    if (a.check && a.retries > 0 && !a.ir) {
        // Compared in Exit1-DR, before Update-DR takes the data.
        for (unsigned tries = 1;; ++tries) {
            shift(TapState::Exit1Dr);
            bool matches = tdo_.matches(a.tdo, a.mask);
            if (matches || tries > a.retries) {
                tap_->moveTo(a.end);
                if (!matches) {
                    describeMismatch(a, tries);
                    return false;
                }
                wait();
                return true;
            }
            ++stats_.retries;
            tap_->walkTo(kRetryPath, sizeof kRetryPath / sizeof kRetryPath[0]);
            wait();
        }
    }
    shift(a.end);
    wait();
    if (a.check && !tdo_.matches(a.tdo, a.mask)) {
        describeMismatch(a, 1);
        return false;
    }
    return true;
}

void Player::describeMismatch(const Action& a, unsigned tries) {
    ++stats_.mismatches;
    size_t n = tdo_.size(), first = 0;
    for (size_t i = 0; i < tdo_.byteCount(); ++i) {
        unsigned d = (tdo_.data()[i] ^ a.tdo.data()[i]) & a.mask.data()[i];
        if (d) {
            first = 8 * i + static_cast<size_t>(__builtin_ctz(d));
            break;
        }
    }
    char s[256];
    if (n <= kWindowBits) {
        std::snprintf(s, sizeof s, "TDO mismatch: expected %s mask %s actual %s", a.tdo.hex().c_str(),
                      a.mask.hex().c_str(), tdo_.hex().c_str());
    } else {
        size_t from = first >= kWindowBits / 2 ? first - kWindowBits / 2 : 0;
        from = std::min(from, n - kWindowBits);
        unsigned w = kWindowBits;
        std::snprintf(s, sizeof s, "TDO mismatch at bit %zu of %zu, bits %zu..%zu: expected %016llx mask %016llx actual %016llx",
                      first, n, from + kWindowBits - 1, from, static_cast<unsigned long long>(a.tdo.value(from, w)),
                      static_cast<unsigned long long>(a.mask.value(from, w)),
                      static_cast<unsigned long long>(tdo_.value(from, w)));
    }
    mismatch_ = s;
    if (tries > 1) mismatch_ += " after " + std::to_string(tries) + " tries";
}

}  // namespace jtag
