#include "device/Session.h"

#include <unistd.h>

#include <cstdio>

#include "os/Os.h"

namespace device {

XilIntf* openDevice(const char* program, const std::string& fpga, const PciAddress& at, bool testMode) {
    if (testMode) XilIntf_testModeIs(1);
    std::fflush(stdout);  // keep what came before ahead of what the backends print
    XilIntf* intf = XilIntf_bySystem(fpga.c_str(), 0, 0, at.domain, at.bus, at.device, at.function);
    std::fflush(stdout);
    if (!intf) std::fprintf(stderr, "%s: no backend serves %s on this board\n", program, fpga.c_str());
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

SelectedDevice::Select::Select(XilIntf* intf, const char* fpga) {
    XilIntf_select(intf, fpga);
    std::fflush(stdout);
}

SelectedDevice::SelectedDevice(XilIntf* intf, const std::string& fpga)
    : intf_(intf), select_(intf, fpga.c_str()), guard_(intf, fpga.c_str()) {}

}  // namespace device
