// While a program drives a device's pins, the signals that end a process
// from a terminal or a supervisor (SIGINT, SIGTERM, SIGHUP, SIGQUIT) must
// not leave TCK, TMS, TDI and the routing pins driven. A CleanupOnSignal,
// made once XilIntf_select has run, installs handlers that run the
// backend's clean-up of every device guarded at that moment, once each, and
// then give the signal to what handled it before (by default: the end of
// the process by that signal, so the shell still sees 128 + n; a program's
// own handler, such as Python's for Ctrl-C, then runs as it would have).
// cleanup() runs it the normal way instead, with those signals held off
// until it is done; the last guard to go puts the old handlers back, and a
// signal that came meanwhile then does what it would have done.
//
// The handler runs the clean-up itself: the program is then asleep or
// between register accesses, and the clean-up makes register accesses only
// (and trace lines when tracing is on). Several guards may live at once
// (the library holds one per open device); they are made and ended from
// one thread at a time.
#pragma once
#include <csignal>

#include "xilinx/XilIntfC.h"

class CleanupOnSignal {
  public:
    // Devices guarded at once, at most; past that a guard guards nothing
    // (its cleanup() still gives the pins back).
    static constexpr int kMaxGuards = 64;

    CleanupOnSignal(XilIntf* intf, const char* deviceName);
    ~CleanupOnSignal();  // cleanup(), if it has not run
    CleanupOnSignal(const CleanupOnSignal&) = delete;
    CleanupOnSignal& operator=(const CleanupOnSignal&) = delete;

    // XilIntf_cleanup, unless a signal already ran it.
    void cleanup();
    // Whether a signal's handler gave the pins back (the program went on:
    // its own handler took the signal). The pins must be taken again.
    bool released() const;

  private:
    XilIntf* intf_;
    const char* deviceName_;
    int slot_ = -1;
    bool active_ = true;
};
