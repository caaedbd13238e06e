// The PCI address parser every tool but kelvorn uses, fed any bytes (cut at
// the first NUL, as a command line's argument is). An address it takes is
// one scanf reads the same and in whole, is written back as dddd:bb:dd.f
// and read again as itself, and has a device and a function a PCI bus can
// carry; kelvorn's lenient reading takes it too, with the same fields.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzTarget.h"
#include "device/PciAddress.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(text.find('\0') == std::string::npos ? size : text.find('\0'));
    device::PciAddress lenient;
    bool leniently = device::parsePciAddressLeniently(text.c_str(), &lenient);
    device::PciAddress a;
    if (!device::parsePciAddress(text.c_str(), &a)) return 0;

    unsigned short domain;
    unsigned char bus, dev, function;
    int end = -1;
    if (std::sscanf(text.c_str(), "%hx:%hhx:%hhx.%hhx%n", &domain, &bus, &dev, &function, &end) != 4 ||
        end != static_cast<int>(text.size()) || domain != a.domain || bus != a.bus || dev != a.device ||
        function != a.function)
        std::abort();  // taken, but scanf reads something else
    if (a.device > 0x1f || a.function > 7) std::abort();
    if (!leniently || !(lenient == a)) std::abort();
    std::string canonical = device::pciAddressText(a);
    device::PciAddress again;
    if (canonical.size() != 12 || !device::parsePciAddress(canonical.c_str(), &again) || !(again == a)) std::abort();
    return 0;
}
