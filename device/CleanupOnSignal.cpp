#include "device/CleanupOnSignal.h"

#include <signal.h>

#include <cstddef>

#include "os/SignalGate.h"

namespace {

constexpr const auto& kSignals = Os::kEndingSignals;
constexpr size_t kCount = Os::kEndingSignalCount;

XilIntf* guardedIntf;
const char* guardedDevice;
volatile sig_atomic_t cleanedUp;
struct sigaction previous[kCount];
bool installed[kCount];

sigset_t guardedSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kSignals) sigaddset(&set, sig);
    return set;
}

void onSignal(int sig) {
    if (Os::deferSignal(sig)) return;  // raised again between two accesses
    if (!cleanedUp) {
        cleanedUp = 1;
        XilIntf_cleanup(guardedIntf, guardedDevice);
    }
    // What the signal did before the guard (the default action: the end of
    // the process), once the handler returns and the signal is unblocked.
    for (size_t i = 0; i < kCount; ++i)
        if (kSignals[i] == sig) sigaction(sig, &previous[i], nullptr);
    raise(sig);
}

}  // namespace

CleanupOnSignal::CleanupOnSignal(XilIntf* intf, const char* deviceName) {
    guardedIntf = intf;
    guardedDevice = deviceName;
    cleanedUp = 0;
    struct sigaction act = {};
    act.sa_handler = onSignal;
    act.sa_mask = guardedSet();  // one handler at a time
    for (size_t i = 0; i < kCount; ++i) {
        sigaction(kSignals[i], nullptr, &previous[i]);
        // A signal the process was started to ignore (nohup) stays ignored.
        installed[i] = previous[i].sa_handler != SIG_IGN;
        if (installed[i]) sigaction(kSignals[i], &act, nullptr);
    }
}

CleanupOnSignal::~CleanupOnSignal() { cleanup(); }

void CleanupOnSignal::cleanup() {
    if (!active_) return;
    active_ = false;
    sigset_t set = guardedSet(), old;
    sigprocmask(SIG_BLOCK, &set, &old);
    if (!cleanedUp) {
        cleanedUp = 1;
        XilIntf_cleanup(guardedIntf, guardedDevice);
    }
    for (size_t i = 0; i < kCount; ++i)
        if (installed[i]) sigaction(kSignals[i], &previous[i], nullptr);
    sigprocmask(SIG_SETMASK, &old, nullptr);
}
