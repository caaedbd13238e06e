// What every program does with a device around its JTAG work, written
// once (the tools, the server, the simulator's forms and libkelvorn): find
// the backend that serves the name at the PCI address (taking the device's
// lock), select the device, and give the pins back (inputs again, routing
// undone) on every way out: the normal end, an early return, or a signal
// that ends the process (SIGINT, SIGTERM, SIGHUP, SIGQUIT).
#pragma once
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "device/CleanupOnSignal.h"
#include "device/PciAddress.h"
#include "xilinx/XilIntfC.h"

namespace device {

// Why a device was not opened.
enum class Refusal {
    none,
    noBackend,  // no backend serves the name on this board
    lockHeld,   // another process holds the device's lock (asked first only)
};

// The interface for fpga at the address, in test mode when asked (for this
// open only: test mode is off again after it); stdout is flushed around it
// so what the backends print stays in order. Null with *why when no backend
// serves the name. With askFirst, the name and the lock are asked about
// before anything is built, so a caller that must not end (the library)
// gets lockHeld instead of the backend's exit; a backend that refuses
// otherwise ends the process itself, status 1.
XilIntf* findDevice(const std::string& fpga, const PciAddress& at, bool testMode, bool askFirst, Refusal* why);

// findDevice for a tool: null, with "<program>: no backend serves <fpga>
// on this board" on stderr, when no backend serves the name.
XilIntf* openDevice(const char* program, const std::string& fpga, const PciAddress& at, bool testMode);
std::string noBackend(const std::string& fpga);

// The device names the backends serve, in the order they are asked, each
// with its backend and the platform condition under which it is asked.
std::vector<XilIntf_servedName> servedNames();

// While it lives, a refusal that ends the process from inside a backend
// (exit status 1: a lock held, an unknown name, a platform it cannot use)
// first runs before(status): a tool whose answer is a JSON document still
// prints one. Whatever ran at exit before still runs after it.
class BeforeRefusalExit {
  public:
    explicit BeforeRefusalExit(std::function<void(int)> before);
    ~BeforeRefusalExit();
    BeforeRefusalExit(const BeforeRefusalExit&) = delete;
    BeforeRefusalExit& operator=(const BeforeRefusalExit&) = delete;

  private:
    std::function<void(int)> saved_;
};

// While it lives, what is written to stdout goes to stderr: a tool whose
// stdout is a JSON document keeps the lines some backends print while a
// device is found and selected out of it.
class StdoutToStderr {
  public:
    StdoutToStderr();
    ~StdoutToStderr();
    StdoutToStderr(const StdoutToStderr&) = delete;
    StdoutToStderr& operator=(const StdoutToStderr&) = delete;
    // Where stdout went before: a document that must reach it meanwhile.
    int stdoutFd() const { return saved_ < 0 ? STDOUT_FILENO : saved_; }

  private:
    int saved_;
};

// What an ending signal does while a device is selected.
enum class OnSignal {
    release,      // the pins given back at once, then the signal does what it did before
    callerStops,  // the program's own handler ends its work, which then releases the normal way
};

// A device selected for a program's work: XilIntf_select at construction,
// XilIntf_cleanup once, at cleanup(), at destruction or on a signal. The
// name must outlive it.
class SelectedDevice {
  public:
    SelectedDevice(XilIntf* intf, const std::string& fpga, OnSignal onSignal = OnSignal::release);
    SelectedDevice(const SelectedDevice&) = delete;
    SelectedDevice& operator=(const SelectedDevice&) = delete;

    XilIntf* intf() const { return intf_; }
    // The pins given back now (what the destructor would do).
    void cleanup();
    // Whether a signal gave the pins back while the program went on.
    bool released() const { return guard_ && guard_->released(); }
    ~SelectedDevice() { cleanup(); }

  private:
    XilIntf* intf_;
    const char* fpga_;
    bool selected_;
    std::optional<CleanupOnSignal> guard_;
};

}  // namespace device
