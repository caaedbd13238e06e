#include "device/Session.h"

#include <unistd.h>

#include <cstdio>

#include "os/Os.h"

namespace device {

std::string noBackend(const std::string& fpga) { return "no backend serves " + fpga + " on this board"; }

XilIntf* findDevice(const std::string& fpga, const PciAddress& at, bool testMode, bool askFirst, Refusal* why) {
    *why = Refusal::none;
    // Test mode for this open only, whatever ends it (a backend's refusal
    // may leave by an exception in the library).
    struct TestMode {
        explicit TestMode(bool on) : on_(on) { if (on_) XilIntf_testModeIs(1); }
        ~TestMode() { if (on_) XilIntf_testModeIs(0); }
        bool on_;
    } mode(testMode);
    std::fflush(stdout);  // keep what came before ahead of what the backends print
    if (askFirst && !XilIntf_served(fpga.c_str())) {
        std::fflush(stdout);
        *why = Refusal::noBackend;
        return nullptr;
    }
    if (askFirst && XilIntf_lockHeld(at.domain, at.bus, at.device)) {
        *why = Refusal::lockHeld;
        return nullptr;
    }
    XilIntf* intf = XilIntf_bySystem(fpga.c_str(), 0, 0, at.domain, at.bus, at.device, at.function);
    std::fflush(stdout);
    if (!intf) *why = Refusal::noBackend;
    return intf;
}

XilIntf* openDevice(const char* program, const std::string& fpga, const PciAddress& at, bool testMode) {
    // A tool's whole run is in test mode when asked, as the module's files are.
    if (testMode) XilIntf_testModeIs(1);
    Refusal why;
    XilIntf* intf = findDevice(fpga, at, false, false, &why);
    if (!intf) std::fprintf(stderr, "%s: %s\n", program, noBackend(fpga).c_str());
    return intf;
}

std::vector<XilIntf_servedName> servedNames() {
    std::vector<XilIntf_servedName> names(XilIntf_servedNames(nullptr, 0));
    names.resize(XilIntf_servedNames(names.data(), names.size()));
    return names;
}

BeforeRefusalExit::BeforeRefusalExit(std::function<void(int)> before) : saved_(Os::hooks().exit) {
    Os::hooks().exit = [before = std::move(before), saved = saved_](int status) {
        before(status);
        if (saved) saved(status);
    };
}

BeforeRefusalExit::~BeforeRefusalExit() { Os::hooks().exit = saved_; }

StdoutToStderr::StdoutToStderr() : saved_(::dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    if (saved_ >= 0) ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

StdoutToStderr::~StdoutToStderr() {
    std::fflush(stdout);
    if (saved_ < 0) return;
    ::dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
}

SelectedDevice::SelectedDevice(XilIntf* intf, const std::string& fpga, OnSignal onSignal)
    : intf_(intf), fpga_(fpga.c_str()), selected_(true) {
    XilIntf_select(intf, fpga_);  // a backend that refuses ends here, nothing yet to give back
    std::fflush(stdout);
    if (onSignal == OnSignal::release) guard_.emplace(intf, fpga_);
}

void SelectedDevice::cleanup() {
    if (!selected_) return;
    selected_ = false;
    if (guard_)
        guard_->cleanup();
    else
        XilIntf_cleanup(intf_, fpga_);
}

}  // namespace device
