#include "sim/Scan.h"

#include "device/PciAddress.h"
#include "jtag/Tap.h"
#include "xilinx/XilIntfC.h"

namespace sim {

int scan(const char* device, const char* pciAddress, FILE* out) {
    ::device::PciAddress at;
    if (!::device::parsePciAddress(pciAddress, &at)) {
        std::fprintf(stderr, "kelvorn-sim: %s\n", ::device::notAPciAddress(pciAddress).c_str());
        return kScanCannot;
    }
    std::fflush(stdout);  // what the backends print follows what came before
    XilIntf* intf = XilIntf_bySystem(device, 0, 0, at.domain, at.bus, at.device, at.function);
    if (!intf) {
        std::fflush(stdout);
        std::fprintf(stderr, "kelvorn-sim: no backend serves %s on this board\n", device);
        return kScanCannot;
    }
    XilIntf_select(intf, device);
    jtag::Tap tap(intf);
    std::vector<uint32_t> ids = jtag::readIdcodes(tap);
    XilIntf_cleanup(intf, device);
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
