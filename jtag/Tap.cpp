#include "jtag/Tap.h"

#include <array>
#include <deque>

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

// The TMS levels of a shortest path from one state to another: a
// breadth-first walk over the state graph.
Bits pathBetween(TapState from, TapState to) {
    std::array<int, kStates> prev;
    std::array<bool, kStates> viaTms{};
    prev.fill(-1);
    prev[static_cast<int>(from)] = static_cast<int>(from);
    std::deque<TapState> todo{from};
    while (!todo.empty() && prev[static_cast<int>(to)] < 0) {
        TapState s = todo.front();
        todo.pop_front();
        for (bool tms : {false, true}) {
            int n = static_cast<int>(nextState(s, tms));
            if (prev[n] >= 0) continue;
            prev[n] = static_cast<int>(s);
            viaTms[n] = tms;
            todo.push_back(static_cast<TapState>(n));
        }
    }
    Bits path;
    for (int s = static_cast<int>(to); s != static_cast<int>(from); s = prev[s]) path.insert(path.begin(), viaTms[s]);
    return path;
}

}  // namespace

TapState nextState(TapState s, bool tms) { return kNext[static_cast<int>(s)][tms]; }

const char* stateName(TapState s) { return kNames[static_cast<int>(s)]; }

Bits bitsOf(uint64_t value, unsigned count) {
    Bits b(count);
    for (unsigned i = 0; i < count; ++i) b[i] = i < 64 && ((value >> i) & 1);
    return b;
}

uint64_t valueOf(const Bits& bits, size_t first, unsigned count) {
    uint64_t v = 0;
    for (unsigned i = 0; i < count && i < 64 && first + i < bits.size(); ++i)
        v |= static_cast<uint64_t>(bits[first + i]) << i;
    return v;
}

bool Tap::cycle(bool tms, bool tdi) {
    XilIntf_tmsIs(intf_, tms);
    XilIntf_tdiIs(intf_, tdi);
    tdi_ = tdi;
    bool tdo = XilIntf_tdo(intf_) != 0;
    XilIntf_tckIs(intf_, 1);
    XilIntf_tckIs(intf_, 0);
    state_ = nextState(state_, tms);
    return tdo;
}

void Tap::reset() {
    for (int i = 0; i < 5; ++i) cycle(true, tdi_);
    state_ = TapState::TestLogicReset;
}

void Tap::moveTo(TapState target) {
    for (bool tms : pathBetween(state_, target)) cycle(tms, tdi_);
}

void Tap::idle(unsigned cycles) {
    moveTo(TapState::RunTestIdle);
    for (unsigned i = 0; i < cycles; ++i) cycle(false, tdi_);
}

Bits Tap::shiftIr(const Bits& in, TapState end) { return shift(TapState::ShiftIr, in, end); }
Bits Tap::shiftDr(const Bits& in, TapState end) { return shift(TapState::ShiftDr, in, end); }

Bits Tap::shift(TapState shiftState, const Bits& in, TapState end) {
    Bits out;
    if (!in.empty()) {
        moveTo(shiftState);
        out.reserve(in.size());
        for (size_t i = 0; i < in.size(); ++i) out.push_back(cycle(i + 1 == in.size(), in[i]));
    }
    moveTo(end);
    return out;
}

std::vector<uint32_t> readIdcodes(Tap& tap, unsigned maxDevices) {
    tap.reset();
    tap.moveTo(TapState::ShiftDr);
    // Ones shifted in from TDI come out as an all-ones code after the last device.
    std::vector<uint32_t> ids;
    bool answered = false;
    while (ids.size() < maxDevices) {
        if (!tap.cycle(false, true)) {
            ids.push_back(0);  // a one-bit BYPASS register
            continue;
        }
        uint32_t id = 1;
        for (unsigned i = 1; i < 32; ++i) id |= static_cast<uint32_t>(tap.cycle(false, true)) << i;
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
