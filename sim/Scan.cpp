#include "sim/Scan.h"

#include "device/PciAddress.h"
#include "device/Session.h"
#include "jtag/Tap.h"
#include "xilinx/XilIntfC.h"

namespace sim {

int scan(const char* device, const char* pciAddress, FILE* out) {
    ::device::PciAddress at;
    if (!::device::parsePciAddress(pciAddress, &at)) {
        std::fprintf(stderr, "kelvorn-sim: %s\n", ::device::notAPciAddress(pciAddress).c_str());
        return kScanUsage;
    }
    XilIntf* intf = ::device::openDevice("kelvorn-sim", device, at, false);
    if (!intf) return kScanNoBackend;
    ::device::SelectedDevice selected(intf, device);
    jtag::Tap tap(intf);
    std::vector<uint32_t> ids = jtag::readIdcodes(tap);
    selected.cleanup();
    std::fflush(stdout);
    for (uint32_t id : ids) std::fprintf(out, "0x%08x\n", id);
    std::fflush(out);
    if (ids.empty()) {
        std::fprintf(stderr, "kelvorn-sim: no device answers on %s\n", device);
        return kScanNoDevice;
    }
    return kScanFound;
}

}  // namespace sim
