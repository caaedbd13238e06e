#include "xilinx/hal/HalWindow.h"

#include <cstdio>

#include "xilinx/XilIntf.h"
#include "xilinx/XilTrace.h"

namespace Hal {

String sysfsPath(const char* resource, U16 domain, U8 bus, U8 device, U8 function) {
    char path[256];
    std::snprintf(path, sizeof path, "/sys/bus/pci/devices/%04x:%02x:%02x.%x/%s", domain, bus, device, function,
                  resource);
    return String(path);
}

Ptr<Ham> sysfsWindow(const char* hamName, const char* resource, U16 domain, U8 bus, U8 device, U8 function,
                     bool honourTestMode, const char* tag) {
    String path = sysfsPath(resource, domain, bus, device, function);
    if (!honourTestMode) return new Ham(hamName, HamType::mappedFile, nullptr, 0, 0, path, tag);
    XTRACE(1, "Ham fname is " << path);
    if (XilIntf::testMode) {
        path = XilIntf::testMemMapFile;
        XTRACE(1, "Using test ham fname " << path << " instead");
    }
    Ptr<Ham> ham = new Ham(hamName, HamType::mappedFile, nullptr, 0, 0, path, tag);
    XTRACE(1, "Ham created");
    return ham;
}

}  // namespace Hal
