#include "device/CleanupOnSignal.h"

#include <signal.h>

#include <cstddef>

#include "os/SignalGate.h"

namespace {

constexpr const auto& kSignals = Os::kEndingSignals;
constexpr size_t kCount = Os::kEndingSignalCount;

// The guarded devices; a handler reads them, so each field is written with
// the signals held off.
struct Slot {
    XilIntf* intf;
    const char* device;
    volatile sig_atomic_t used;
    volatile sig_atomic_t cleanedUp;
};
Slot slots[CleanupOnSignal::kMaxGuards];
int guards;  // alive
volatile sig_atomic_t handlersIn;
struct sigaction previous[kCount];
bool installed[kCount];

sigset_t guardedSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kSignals) sigaddset(&set, sig);
    return set;
}

void restoreHandlers() {
    for (size_t i = 0; i < kCount; ++i)
        if (installed[i]) sigaction(kSignals[i], &previous[i], nullptr);
    handlersIn = 0;
}

void onSignal(int sig) {
    if (Os::deferSignal(sig)) return;  // raised again between two accesses
    for (Slot& s : slots) {
        if (!s.used || s.cleanedUp) continue;
        s.cleanedUp = 1;
        XilIntf_cleanup(s.intf, s.device);
    }
    // What the signal did before the guards (the default action: the end
    // of the process), once the handler returns and the signal is unblocked.
    restoreHandlers();
    raise(sig);
}

// Signals held off for the life of a change to the slots.
class Held {
  public:
    Held() {
        sigset_t set = guardedSet();
        sigprocmask(SIG_BLOCK, &set, &old_);
    }
    ~Held() { sigprocmask(SIG_SETMASK, &old_, nullptr); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

  private:
    sigset_t old_;
};

}  // namespace

CleanupOnSignal::CleanupOnSignal(XilIntf* intf, const char* deviceName) : intf_(intf), deviceName_(deviceName) {
    Held held;
    for (int i = 0; i < kMaxGuards && slot_ < 0; ++i)
        if (!slots[i].used) slot_ = i;
    if (slot_ >= 0) slots[slot_] = {intf, deviceName, 1, 0};
    ++guards;
    if (handlersIn) return;
    struct sigaction act = {};
    act.sa_handler = onSignal;
    act.sa_mask = guardedSet();  // one handler at a time
    for (size_t i = 0; i < kCount; ++i) {
        sigaction(kSignals[i], nullptr, &previous[i]);
        // A signal the process was started to ignore (nohup) stays ignored.
        installed[i] = previous[i].sa_handler != SIG_IGN;
        if (installed[i]) sigaction(kSignals[i], &act, nullptr);
    }
    handlersIn = 1;
}

CleanupOnSignal::~CleanupOnSignal() { cleanup(); }

bool CleanupOnSignal::released() const { return slot_ >= 0 && slots[slot_].cleanedUp; }

void CleanupOnSignal::cleanup() {
    if (!active_) return;
    active_ = false;
    Held held;
    bool done = slot_ >= 0 && slots[slot_].cleanedUp;
    if (!done) XilIntf_cleanup(intf_, deviceName_);
    if (slot_ >= 0) slots[slot_].used = 0;
    if (--guards == 0 && handlersIn) restoreHandlers();
}
