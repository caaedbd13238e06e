#include "jtag/Tap.h"

#include <algorithm>
#include <iterator>

namespace jtag {

namespace {

constexpr int kStates = 16;

// Next state for TMS low and TMS high, in the order of TapState.
constexpr TapState kNext[kStates][2] = {
    {TapState::RunTestIdle, TapState::TestLogicReset},  // Test-Logic-Reset
    {TapState::RunTestIdle, TapState::SelectDrScan},    // Run-Test/Idle
    {TapState::CaptureDr, TapState::SelectIrScan},      // Select-DR-Scan
    {TapState::ShiftDr, TapState::Exit1Dr},             // Capture-DR
    {TapState::ShiftDr, TapState::Exit1Dr},             // Shift-DR
    {TapState::PauseDr, TapState::UpdateDr},            // Exit1-DR
    {TapState::PauseDr, TapState::Exit2Dr},             // Pause-DR
    {TapState::ShiftDr, TapState::UpdateDr},            // Exit2-DR
    {TapState::RunTestIdle, TapState::SelectDrScan},    // Update-DR
    {TapState::CaptureIr, TapState::TestLogicReset},    // Select-IR-Scan
    {TapState::ShiftIr, TapState::Exit1Ir},             // Capture-IR
    {TapState::ShiftIr, TapState::Exit1Ir},             // Shift-IR
    {TapState::PauseIr, TapState::UpdateIr},            // Exit1-IR
    {TapState::PauseIr, TapState::Exit2Ir},             // Pause-IR
    {TapState::ShiftIr, TapState::UpdateIr},            // Exit2-IR
    {TapState::RunTestIdle, TapState::SelectDrScan},    // Update-IR
};

constexpr const char* kNames[kStates] = {
    "Test-Logic-Reset", "Run-Test/Idle", "Select-DR-Scan", "Capture-DR", "Shift-DR", "Exit1-DR",
    "Pause-DR",         "Exit2-DR",      "Update-DR",      "Select-IR-Scan", "Capture-IR", "Shift-IR",
    "Exit1-IR",         "Pause-IR",      "Exit2-IR",       "Update-IR",
};

// The TMS levels of a shortest path between every two states, found once
// by a breadth-first walk over the state graph: bit k of bits is the TMS
// of step k.
struct Path {
    uint8_t length;
    uint8_t bits;
};

struct Paths {
    Path table[kStates][kStates];

    Paths() {
        for (int from = 0; from < kStates; ++from) {
            int prev[kStates];
            bool viaTms[kStates] = {};
            std::fill(std::begin(prev), std::end(prev), -1);
            prev[from] = from;
            int queue[kStates], head = 0, tail = 0;
            queue[tail++] = from;
            while (head < tail) {
                int s = queue[head++];
                for (bool tms : {false, true}) {
                    int n = static_cast<int>(kNext[s][tms]);
                    if (prev[n] >= 0) continue;
                    prev[n] = s;
                    viaTms[n] = tms;
                    queue[tail++] = n;
                }
            }
            for (int to = 0; to < kStates; ++to) {
                Path p{0, 0};
                for (int s = to; s != from; s = prev[s]) p.bits = static_cast<uint8_t>(p.bits << 1 | viaTms[s]), ++p.length;
                table[from][to] = p;
            }
        }
    }
};

const Path& pathBetween(TapState from, TapState to) {
    static const Paths paths;
    return paths.table[static_cast<int>(from)][static_cast<int>(to)];
}

}  // namespace

TapState nextState(TapState s, bool tms) { return kNext[static_cast<int>(s)][tms]; }

const char* stateName(TapState s) { return kNames[static_cast<int>(s)]; }

TapState walk(TapState s, const BitVector& tms) {
    for (size_t i = 0; i < tms.size(); ++i) s = nextState(s, tms[i]);
    return s;
}

TapState Tap::appendPath(TapState from, TapState to) {
    const Path& p = pathBetween(from, to);
    for (unsigned k = 0; k < p.length; ++k) {
        tmsScratch_.append(static_cast<bool>((p.bits >> k) & 1));
        tdiScratch_.append(tdi_);
    }
    return to;
}

void Tap::shiftSlice(size_t from, uint32_t n, BitVector* tdo, const BitVector* wanted) {
    size_t at = from / 8;
    if (tdo && wanted)
        XilIntf_shiftMasked(intf_, n, tmsScratch_.data() + at, tdiScratch_.data() + at, tdo->data() + at,
                            wanted->data() + at);
    else
        XilIntf_shift(intf_, n, tmsScratch_.data() + at, tdiScratch_.data() + at, tdo ? tdo->data() + at : nullptr);
}

void Tap::run(BitVector* tdo, const BitVector* wanted) {
    size_t n = tmsScratch_.size();
    if (n == 0) {
        if (tdo) tdo->clear();
        return;
    }
    if (tdo) tdo->resize(n);
    state_ = walk(state_, tmsScratch_);
    tdi_ = tdiScratch_[n - 1];
    if (!hook_) {
        shiftSlice(0, static_cast<uint32_t>(n), tdo, wanted);
        cycles_ += n;
    } else {
        try {
            for (size_t done = 0; done < n;) {
                uint32_t slice = static_cast<uint32_t>(std::min<size_t>(n - done, kHookCycles));
                shiftSlice(done, slice, tdo, wanted);
                done += slice;
                cycles_ += slice;
                if (cycles_ >= hookDue_) {
                    hookDue_ = cycles_ + kHookCycles;
                    hook_(hookContext_);
                }
            }
        } catch (...) {
            tmsScratch_.clear();
            tdiScratch_.clear();
            throw;
        }
    }
    tmsScratch_.clear();
    tdiScratch_.clear();
}

bool Tap::cycle(bool tms, bool tdi) {
    tmsScratch_.append(tms);
    tdiScratch_.append(tdi);
    run(&tdoScratch_);
    return tdoScratch_[0];
}

void Tap::clock(const BitVector& tms, const BitVector& tdi, BitVector* tdo) {
    tmsScratch_.clear();
    tdiScratch_.clear();
    tmsScratch_.append(tms);
    tdiScratch_.append(tdi, 0, tms.size());
    tdiScratch_.resize(tms.size(), tdi_);
    run(tdo);
}

void Tap::reset() {
    for (int i = 0; i < 5; ++i) {
        tmsScratch_.append(true);
        tdiScratch_.append(tdi_);
    }
    run(nullptr);
    state_ = TapState::TestLogicReset;
}

void Tap::moveTo(TapState target) {
    appendPath(state_, target);
    run(nullptr);
}

bool Tap::stepTo(TapState next) {
    for (bool tms : {false, true}) {
        if (nextState(state_, tms) != next) continue;
        tmsScratch_.append(tms);
        tdiScratch_.append(tdi_);
        run(nullptr);
        return true;
    }
    return false;
}

bool Tap::walkTo(const TapState* path, size_t count) {
    TapState s = state_;
    for (size_t i = 0; i < count; ++i) {
        bool low = nextState(s, false) == path[i];
        if (!low && nextState(s, true) != path[i]) {
            tmsScratch_.clear();
            tdiScratch_.clear();
            return false;
        }
        tmsScratch_.append(!low);
        tdiScratch_.append(tdi_);
        s = path[i];
    }
    run(nullptr);
    return true;
}

void Tap::stay(TapState stable, uint64_t count) {
    appendPath(state_, stable);
    bool tms = stable == TapState::TestLogicReset;  // the level that keeps a stable state
    // In chunks, so a long run needs no long buffer.
    constexpr uint64_t kChunk = 1u << 16;
    while (count > 0) {
        uint64_t n = count < kChunk ? count : kChunk;
        tmsScratch_.resize(tmsScratch_.size() + n, tms);
        tdiScratch_.resize(tdiScratch_.size() + n, tdi_);
        run(nullptr);
        count -= n;
    }
    run(nullptr);  // the path alone, when count was 0
}

void Tap::shiftIr(const BitVector& in, BitVector* out, TapState end, const BitVector* readMask) {
    shift(TapState::ShiftIr, in, out, end, readMask);
}
void Tap::shiftDr(const BitVector& in, BitVector* out, TapState end, const BitVector* readMask) {
    shift(TapState::ShiftDr, in, out, end, readMask);
}

BitVector Tap::shiftIr(const BitVector& in, TapState end) {
    BitVector out;
    shift(TapState::ShiftIr, in, &out, end, nullptr);
    return out;
}

BitVector Tap::shiftDr(const BitVector& in, TapState end) {
    BitVector out;
    shift(TapState::ShiftDr, in, &out, end, nullptr);
    return out;
}

void Tap::shift(TapState shiftState, const BitVector& in, BitVector* out, TapState end, const BitVector* readMask) {
    if (in.empty()) {
        if (out) out->clear();
        moveTo(end);
        return;
    }
    size_t first = tmsScratch_.size();  // 0: the scratch is empty between calls
    appendPath(state_, shiftState);
    size_t lead = tmsScratch_.size() - first;
    // In the shift state, TMS low but for the last bit, which leaves it for
    // Exit1, unless the shift goes on later.
    bool stays = end == shiftState;
    tmsScratch_.resize(tmsScratch_.size() + in.size() - 1, false);
    tmsScratch_.append(!stays);
    tdiScratch_.append(in);
    tdi_ = in[in.size() - 1];
    if (!stays) appendPath(nextState(shiftState, true), end);
    const BitVector* wanted = nullptr;
    if (out && readMask) {
        // No TDO in the moves around the scan; in it, where the mask says.
        wantScratch_.assign(lead, false);
        wantScratch_.append(*readMask, 0, in.size());
        wantScratch_.resize(tmsScratch_.size(), false);
        wanted = &wantScratch_;
    }
    run(out ? &tdoScratch_ : nullptr, wanted);
    if (out) {
        out->assign(in.size(), false);
        copyBits(tdoScratch_.data(), lead, out->data(), 0, in.size());
    }
}

std::vector<uint32_t> readIdcodes(Tap& tap, unsigned maxDevices) {
    tap.reset();
    tap.moveTo(TapState::ShiftDr);
    // Ones shifted in from TDI come out as an all-ones code after the last
    // device: a code of 32 bits per device, and one more for the ones, in
    // one call, staying in Shift-DR.
    size_t n = 32 * (static_cast<size_t>(maxDevices) + 1);
    BitVector out;
    tap.clock(BitVector(n, false), BitVector(n, true), &out);
    std::vector<uint32_t> ids;
    bool answered = false;
    size_t at = 0;
    while (ids.size() < maxDevices && at < n) {
        if (!out[at]) {
            ids.push_back(0);  // a one-bit BYPASS register
            ++at;
            continue;
        }
        if (at + 32 > n) break;
        uint32_t id = static_cast<uint32_t>(out.value(at, 32));
        at += 32;
        if (id == 0xffffffffu) break;
        ids.push_back(id);
        answered = true;
    }
    tap.cycle(true, true);  // to Exit1-DR; IDCODE and BYPASS do nothing on update
    tap.moveTo(TapState::RunTestIdle);
    if (!answered) ids.clear();
    return ids;
}

}  // namespace jtag
