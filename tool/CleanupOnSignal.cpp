#include "tool/CleanupOnSignal.h"

#include <signal.h>

#include <cstddef>

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr size_t kCount = sizeof kSignals / sizeof kSignals[0];

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
    if (!cleanedUp) {
        cleanedUp = 1;
        XilIntf_cleanup(guardedIntf, guardedDevice);
    }
    // The default action, once the handler returns and the signal is unblocked.
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, nullptr);
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
