// A handler of SIGINT, SIGTERM, SIGHUP or SIGQUIT that does real work (a
// tool's clean-up of the pins, the board simulator's records) must not run
// in the middle of an access to a window that is not plain memory: the
// simulator's chip models allocate and write files while they answer one,
// and a handler entering them then would find them half changed. Such a
// window holds the gate while it answers an access. A handler that finds the
// gate held keeps its signal for later and returns; the window raises the
// signal again once the access is done, and the handler then does its work
// between two accesses. Register windows of real hardware never hold it.
#pragma once
#include <signal.h>

#include <cstddef>

namespace Os {

// The signals that end a process from a terminal or a supervisor: Ctrl-C,
// Ctrl-\, kill, a hang-up. Every tool that drives pins, and the simulator
// that records them, handles all four alike.
inline constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
inline constexpr size_t kEndingSignalCount = sizeof kEndingSignals / sizeof kEndingSignals[0];

struct SignalGate {
    volatile sig_atomic_t held = 0;     // accesses under way
    volatile sig_atomic_t pending = 0;  // a signal kept for later, or 0
};

SignalGate& signalGate();

// In a handler: true when the gate is held, the signal then kept for later.
inline bool deferSignal(int sig) {
    SignalGate& g = signalGate();
    if (!g.held) return false;
    g.pending = sig;
    return true;
}

// Holds the gate for one access; on release, raises a signal kept meanwhile.
class GateHold {
  public:
    GateHold() { ++signalGate().held; }
    ~GateHold() {
        SignalGate& g = signalGate();
        if (--g.held == 0 && g.pending) {
            int sig = g.pending;
            g.pending = 0;
            raise(sig);
        }
    }
    GateHold(const GateHold&) = delete;
    GateHold& operator=(const GateHold&) = delete;
};

}  // namespace Os
