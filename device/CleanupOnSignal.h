// While a tool drives a device's pins, the signals that end a process from
// a terminal or a supervisor (SIGINT, SIGTERM, SIGHUP, SIGQUIT) must not
// leave TCK, TMS, TDI and the routing pins driven. A CleanupOnSignal, made
// once XilIntf_select has run, installs handlers that run the backend's
// clean-up once and then give the signal to what handled it before (by
// default: the end of the process by that signal, so the shell still sees
// 128 + n). cleanup() runs it the normal way instead, with those
// signals held off until it is done, and puts the old handlers back; a
// signal that came meanwhile then ends the process as it would have.
//
// The handler runs the clean-up itself: the tool is then asleep or between
// register accesses, and the clean-up makes register accesses only (and
// trace lines when tracing is on). One guard at a time per process.
#pragma once
#include "xilinx/XilIntfC.h"

class CleanupOnSignal {
  public:
    CleanupOnSignal(XilIntf* intf, const char* deviceName);
    ~CleanupOnSignal();  // cleanup(), if it has not run
    CleanupOnSignal(const CleanupOnSignal&) = delete;
    CleanupOnSignal& operator=(const CleanupOnSignal&) = delete;

    // XilIntf_cleanup, unless a signal already ran it; then the old handlers.
    void cleanup();

  private:
    bool active_ = true;
};
