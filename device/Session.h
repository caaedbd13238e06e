// What every tool does with a device around its JTAG work, written once:
// find the backend that serves the name at the PCI address (taking the
// device's lock), select the device, and give the pins back (inputs again,
// routing undone) on every way out: the normal end, an early return, or a
// signal that ends the process (SIGINT, SIGTERM, SIGHUP, SIGQUIT).
#pragma once
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "device/CleanupOnSignal.h"
#include "device/PciAddress.h"
#include "xilinx/XilIntfC.h"

namespace device {

// The interface for fpga at the address, test mode first when asked;
// stdout is flushed around it so what the backends print stays in order.
// Null, with "<program>: no backend serves <fpga> on this board" on
// stderr, when no backend serves the name. An interface that refuses (a
// lock held by another process) ends the process itself, status 1.
XilIntf* openDevice(const char* program, const std::string& fpga, const PciAddress& at, bool testMode);

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

// A device selected for a tool's work: XilIntf_select at construction,
// XilIntf_cleanup once, at cleanup(), at destruction or on a signal.
class SelectedDevice {
  public:
    SelectedDevice(XilIntf* intf, const std::string& fpga);
    SelectedDevice(const SelectedDevice&) = delete;
    SelectedDevice& operator=(const SelectedDevice&) = delete;

    XilIntf* intf() const { return intf_; }
    // The pins given back now (what the destructor would do).
    void cleanup() { guard_.cleanup(); }

  private:
    XilIntf* intf_;
    struct Select {
        Select(XilIntf* intf, const char* fpga);
    } select_;
    CleanupOnSignal guard_;
};

}  // namespace device
