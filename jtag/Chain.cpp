#include "jtag/Chain.h"

#include <algorithm>
#include <cstdio>

namespace jtag {

namespace {

// An IDCODE of all ones names no device (its manufacturer code 0x7f is the
// continuation code): it is the ones shifted in behind the last device.
constexpr uint32_t kNoIdcode = 0xffffffffu;

size_t firstOne(const BitVector& v, size_t from) {
    for (size_t i = from; i < v.size(); ++i)
        if (v[i]) return i;
    return SIZE_MAX;
}

bool allOnes(const BitVector& v) {
    for (size_t i = 0; i < v.size(); ++i)
        if (!v[i]) return false;
    return !v.empty();
}

// The data registers after Test-Logic-Reset, from bits shifted out ahead
// of ones: an IDCODE (bit 0 set, 32 bits) or a BYPASS bit (0) per device,
// until the all-ones code. False when the ones never came out.
bool walkIdcodes(const BitVector& out, std::vector<std::optional<uint32_t>>* ids) {
    ids->clear();
    for (size_t at = 0; at < out.size();) {
        if (!out[at]) {
            ids->push_back(std::nullopt);
            ++at;
            continue;
        }
        if (at + 32 > out.size()) return false;
        uint32_t id = static_cast<uint32_t>(out.value(at, 32));
        if (id == kNoIdcode) return true;
        ids->push_back(id);
        at += 32;
    }
    return false;
}

}  // namespace

ChainScan scanChain(Tap& tap, unsigned maxDevices) {
    ChainScan r;
    using Fault = ChainScan::Fault;
    const size_t span = size_t{maxDevices} + 1;

    // Device count: BYPASS everywhere, zeros through the BYPASS bits, then ones.
    tap.reset();
    tap.shiftIr(BitVector(kMaxIrBitsPerDevice * span, true), nullptr);
    BitVector in(2 * span, false), out;
    for (size_t i = span; i < in.size(); ++i) in.set(i, true);
    tap.shiftDr(in, &out);
    size_t counted = firstOne(out, span), first = firstOne(out, 0);
    if (allOnes(out)) {
        r.fault = Fault::tdoStuckHigh;
    } else if (first < span) {
        r.fault = Fault::inconsistent;
        r.detail = "TDO gave 1 while zeros went through the BYPASS registers: a device's BYPASS register "
                   "does not capture 0, or TDO is not the chain's";
    } else if (counted == span) {
        r.fault = Fault::noDevice;
    }
    if (r.fault != Fault::none) {
        tap.reset();
        return r;
    }
    size_t devices = counted == SIZE_MAX ? span : counted - span;

    // The IDCODE walk: as many codes as devices, then the ones.
    tap.reset();
    BitVector walk;
    tap.shiftDr(BitVector(32 * (devices + 1), true), &walk);
    bool ended = walkIdcodes(walk, &r.idcodes);
    if (counted == SIZE_MAX) {
        // No 1 ever came through: nothing drives TDO, or the chain is longer than looked for.
        r.fault = first == SIZE_MAX && firstOne(walk, 0) == SIZE_MAX ? Fault::tdoStuckLow : Fault::tooLong;
        r.idcodes.clear();
        tap.reset();
        return r;
    }
    if (!ended || r.idcodes.size() != devices) {
        char what[160];
        std::snprintf(what, sizeof what, "the IDCODE walk finds %s devices, BYPASS finds %zu",
                      ended ? std::to_string(r.idcodes.size()).c_str() : "no end to the", devices);
        r.fault = Fault::inconsistent;
        r.detail = what;
        tap.reset();
        return r;
    }

    // The instruction registers' capture: zeros behind it, then ones.
    const size_t room = kMaxIrBitsPerDevice * devices;
    in.assign(2 * room, false);
    for (size_t i = room; i < in.size(); ++i) in.set(i, true);
    tap.reset();
    tap.shiftIr(in, &out);
    tap.reset();
    size_t end = firstOne(out, room);
    if (end == SIZE_MAX) {
        r.fault = Fault::tooLong;
        return r;
    }
    r.irCapture.clear();
    r.irCapture.append(out, 0, end - room);
    if (r.irCapture.size() < 2 * devices || !r.irCapture[0] || r.irCapture[1]) {
        r.fault = Fault::inconsistent;
        r.detail = "the instruction registers captured " + std::to_string(r.irCapture.size()) +
                   " bits that do not begin with the 1 then 0 every IR captures";
    }
    return r;
}

IrSplit splitIr(const BitVector& capture, size_t devices, const std::vector<unsigned>& known) {
    IrSplit split;
    const size_t total = capture.size();
    if (devices == 0) return split;
    // fits[d][s]: how many ways devices d.. fill the capture from bit s
    // (counted up to 2: one, or more than one).
    std::vector<std::vector<uint8_t>> fits(devices + 1, std::vector<uint8_t>(total + 1, 0));
    fits[devices][total] = 1;
    auto lengthsAt = [&](size_t d, size_t s) {
        unsigned k = d < known.size() ? known[d] : 0;
        size_t lo = k ? k : 2, hi = k ? k : total - s;
        return std::make_pair(lo, std::min(hi, total - s));
    };
    for (size_t d = devices; d-- > 0;) {
        for (size_t s = 0; s + 2 <= total; ++s) {
            if (!capture[s] || capture[s + 1]) continue;  // an IR begins with the captured 1, then 0
            auto [lo, hi] = lengthsAt(d, s);
            unsigned ways = 0;
            for (size_t len = lo; len <= hi && ways < 2; ++len) ways += fits[d + 1][s + len];
            fits[d][s] = static_cast<uint8_t>(std::min(ways, 2u));
        }
    }
    if (!fits[0][0]) return split;
    split.unique = fits[0][0] == 1;
    // The split with the shortest registers first, among those that fit.
    for (size_t d = 0, s = 0; d < devices; ++d) {
        auto [lo, hi] = lengthsAt(d, s);
        size_t len = lo;
        while (len <= hi && !fits[d + 1][s + len]) ++len;
        split.lengths.push_back(static_cast<unsigned>(len));
        s += len;
    }
    return split;
}

std::string describe(ChainScan::Fault fault, unsigned maxDevices) {
    switch (fault) {
        case ChainScan::Fault::none: return "";
        case ChainScan::Fault::tdoStuckLow:
            return "TDO stuck at 0: nothing shifted in comes out; check that the pin the backend reads is the "
                   "chain's TDO, the devices' power and that TCK and TMS reach them";
        case ChainScan::Fault::tdoStuckHigh:
            return "TDO stuck at 1: no device drives it (a pull-up only); check the devices' power, that TCK and "
                   "TMS reach them, and the TDO wiring";
        case ChainScan::Fault::noDevice:
            return "no device: what goes into TDI comes straight out of TDO; check the chain's routing (a bypass "
                   "jumper or a multiplexer's select) and the devices' power";
        case ChainScan::Fault::tooLong:
            return "more than " + std::to_string(maxDevices) + " devices, or instruction registers longer than " +
                   std::to_string(kMaxIrBitsPerDevice) +
                   " bits each: raise --max-devices, or check for a floating or looped TDO";
        case ChainScan::Fault::inconsistent: return "the chain answers inconsistently";
    }
    return "";
}

}  // namespace jtag
