// The PCI address of the chip a device's pins hang on, as every tool takes
// it on its command line: domain:bus:device.function in hex, as lspci and
// /sys/bus/pci/devices name it ("0000:03:00.0").
#pragma once
#include <cstdint>
#include <string>

namespace device {

struct PciAddress {
    uint16_t domain = 0;
    uint8_t bus = 0, device = 0, function = 0;
    bool operator==(const PciAddress& o) const {
        return domain == o.domain && bus == o.bus && device == o.device && function == o.function;
    }
};

// The address in *text, into *address; false when it is not one. Strict:
// one to four hex digits of domain, one or two of bus and of device (at most
// 1f), one digit of function (at most 7), nothing before or after.
bool parsePciAddress(const char* text, PciAddress* address);

// The kelvorn tool's reading, kept as its users have always had it: the
// four fields as scanf's "%hx:%hhx:%hhx.%hhx" converts them (leading blanks
// and a sign or 0x allowed, a field too wide keeps its low bits, whatever
// follows the function ignored).
bool parsePciAddressLeniently(const char* text, PciAddress* address);

// "dddd:bb:dd.f", as /sys/bus/pci/devices names the device.
std::string pciAddressText(const PciAddress& address);

// The one line every tool but kelvorn prints for an address it cannot read
// (without the program's name): "<text> is not a PCI address (dddd:bb:dd.f)".
std::string notAPciAddress(const char* text);

}  // namespace device
