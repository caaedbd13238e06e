#include "serve/Xvc.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace serve {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kGetinfo[] = "getinfo:";
constexpr char kSettck[] = "settck:";
constexpr char kShift[] = "shift:";
constexpr const char* kCommands[] = {kGetinfo, kSettck, kShift};
constexpr char kInfoFormat[] = "xvcServer_v1.0:%u\n";

// A shift at least this long measures the full-speed period.
constexpr uint32_t kMeasuringBits = 64;
// Rounds of the accesses a cycle makes that time the full speed before any shift.
constexpr int kCalibrationRounds = 32;
// A shift under a held period goes in pieces of this many bits, so that a
// stop is seen between them.
constexpr uint32_t kPacedPieceBits = 1024;

void appendWord(uint32_t v, std::vector<uint8_t>* out) {
    for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t nanosecondsPer(Clock::duration d, uint32_t count) {
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count() / count;
    return static_cast<uint32_t>(std::clamp<decltype(ns)>(ns, 1, UINT32_MAX));
}

}  // namespace

Xvc::Xvc(XilIntf* intf, uint32_t maxVectorBytes, const volatile std::sig_atomic_t* stop, uint32_t ceilingNs)
    : intf_(intf), maxVector_(maxVectorBytes), stop_(stop), ceilingNs_(ceilingNs), vectors_(2 * size_t{maxVectorBytes}) {}

void Xvc::begin() {
    cycles_ = 0;
    period_ = 0;
    heldNs_ = ceilingNs_;
    XilIntf_tckPeriodIs(intf_, heldNs_);
    state_ = State::name;
    nameLength_ = 0;
    word_ = 0;
    wordLength_ = 0;
}

const char* Xvc::partial() const {
    switch (state_) {
        case State::name:
            return nameLength_ ? "a command name" : nullptr;
        case State::settckPeriod:
            return "settck";
        case State::shiftLength:
        case State::shiftVectors:
            return "shift";
    }
    return nullptr;
}

Verdict Xvc::feed(const uint8_t* data, size_t n, std::vector<uint8_t>* out) {
    size_t i = 0;
    while (i < n && !stopped()) {
        switch (state_) {
            case State::name: {
                name_[nameLength_++] = static_cast<char>(data[i++]);
                const char* whole = nullptr;
                bool known = false;
                for (const char* c : kCommands) {
                    if (std::strncmp(c, name_, nameLength_) != 0) continue;
                    known = true;
                    if (c[nameLength_] == '\0') whole = c;
                }
                if (!known) {
                    error_ = "unknown XVC command " + quoted(reinterpret_cast<uint8_t*>(name_), nameLength_);
                    return Verdict::malformed;
                }
                if (whole) command(whole, out);
                break;
            }
            case State::settckPeriod: {
                uint32_t requested;
                if (!word(data, n, &i, &requested)) break;
                // A requested period is held on every edge even where the
                // registers are slower on average: an average hides the odd
                // pair of quick accesses, and the device's rating is per edge.
                heldNs_ = requested > ceilingNs_ ? std::min(requested, kSlowestPeriodNs) : ceilingNs_;
                period_ = std::max(heldNs_, nativePeriod());
                XilIntf_tckPeriodIs(intf_, heldNs_);
                appendWord(period_, out);
                state_ = State::name;
                break;
            }
            case State::shiftLength:
                if (!word(data, n, &i, &bits_)) break;
                if ((uint64_t{bits_} + 7) / 8 > maxVector_) {
                    char what[96];
                    std::snprintf(what, sizeof what, "shift of %u bits: longer than the %u-byte maximum vector",
                                  bits_, maxVector_);
                    error_ = what;
                    return Verdict::malformed;
                }
                vectorBytes_ = (size_t{bits_} + 7) / 8;
                received_ = 0;
                state_ = bits_ ? State::shiftVectors : State::name;
                break;
            case State::shiftVectors: {
                size_t take = std::min(2 * vectorBytes_ - received_, n - i);
                std::memcpy(vectors_.data() + received_, data + i, take);
                received_ += take;
                i += take;
                if (received_ < 2 * vectorBytes_) break;
                shift(out);
                state_ = State::name;
                break;
            }
        }
    }
    return Verdict::more;
}

void Xvc::command(const char* name, std::vector<uint8_t>* out) {
    nameLength_ = 0;
    if (name == kGetinfo) {
        char info[32];
        int length = std::snprintf(info, sizeof info, kInfoFormat, maxVector_);
        out->insert(out->end(), info, info + length);
    } else {
        state_ = name == kSettck ? State::settckPeriod : State::shiftLength;
    }
}

// Collects the bytes of a 4-byte argument, least significant first; true,
// with *value, once all four are there.
bool Xvc::word(const uint8_t* data, size_t n, size_t* i, uint32_t* value) {
    for (; wordLength_ < 4 && *i < n; ++wordLength_) word_ |= uint32_t{data[(*i)++]} << (8 * wordLength_);
    if (wordLength_ < 4) return false;
    *value = word_;
    word_ = 0;
    wordLength_ = 0;
    return true;
}

uint32_t Xvc::nativePeriod() {
    if (nativeNs_) return nativeNs_;
    // What a cycle costs, without a TCK edge: TMS and TDI written low and
    // high (TCK stays low, so no controller moves) and TDO read. The
    // register image is read first, as a shift does.
    // The accesses at full speed: no ceiling while they are timed.
    static const uint8_t kNoBits = 0;
    XilIntf_tckPeriodIs(intf_, 0);
    XilIntf_shift(intf_, 0, &kNoBits, &kNoBits, nullptr);
    Clock::time_point start = Clock::now();
    for (int r = 0; r < kCalibrationRounds; ++r) {
        XilIntf_pinsIs(intf_, 0, 0, 0);
        XilIntf_pinsIs(intf_, 0, 1, 1);
        (void)XilIntf_tdo(intf_);
    }
    nativeNs_ = nanosecondsPer(Clock::now() - start, kCalibrationRounds);
    XilIntf_tckPeriodIs(intf_, heldNs_);
    return nativeNs_;
}

void Xvc::shift(std::vector<uint8_t>* out) {
    size_t at = out->size();
    out->resize(at + vectorBytes_);  // zeros
    const uint8_t* tms = vectors_.data();
    const uint8_t* tdi = tms + vectorBytes_;
    uint8_t* tdo = out->data() + at;
    if (heldNs_) {
        for (uint32_t done = 0; done < bits_ && !stopped(); done += kPacedPieceBits) {
            uint32_t n = std::min(bits_ - done, kPacedPieceBits);
            XilIntf_shift(intf_, n, tms + done / 8, tdi + done / 8, tdo + done / 8);
            cycles_ += n;
        }
        return;
    }
    Clock::time_point start = Clock::now();
    XilIntf_shift(intf_, bits_, tms, tdi, tdo);
    if (bits_ >= kMeasuringBits) nativeNs_ = nanosecondsPer(Clock::now() - start, bits_);
    cycles_ += bits_;
}

}  // namespace serve
