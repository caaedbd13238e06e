#include "device/PciAddress.h"

#include <cstdio>

namespace device {

namespace {

constexpr unsigned kMaxDevice = 0x1f;   // five bits of device number
constexpr unsigned kMaxFunction = 0x7;  // three bits of function number

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One to maxDigits hex digits at *p, then the character end; *p moves past both.
bool field(const char** p, int maxDigits, char end, unsigned* value) {
    unsigned v = 0;
    int digits = 0;
    for (int d; (d = hexDigit(**p)) >= 0; ++*p) {
        if (++digits > maxDigits) return false;
        v = v * 16 + static_cast<unsigned>(d);
    }
    if (digits == 0 || **p != end) return false;
    if (end) ++*p;
    *value = v;
    return true;
}

}  // namespace

bool parsePciAddress(const char* text, PciAddress* address) {
    unsigned domain, bus, dev, function;
    const char* p = text;
    if (!field(&p, 4, ':', &domain) || !field(&p, 2, ':', &bus) || !field(&p, 2, '.', &dev) ||
        !field(&p, 1, '\0', &function) || dev > kMaxDevice || function > kMaxFunction)
        return false;
    *address = {static_cast<uint16_t>(domain), static_cast<uint8_t>(bus), static_cast<uint8_t>(dev),
                static_cast<uint8_t>(function)};
    return true;
}

bool parsePciAddressLeniently(const char* text, PciAddress* address) {
    PciAddress a;
    if (std::sscanf(text, "%hx:%hhx:%hhx.%hhx", &a.domain, &a.bus, &a.device, &a.function) != 4) return false;
    *address = a;
    return true;
}

std::string pciAddressText(const PciAddress& a) {
    char text[16];
    std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", a.domain, a.bus, a.device, a.function);
    return text;
}

std::string notAPciAddress(const char* text) {
    return std::string(text) + " is not a PCI address (dddd:bb:dd.f)";
}

}  // namespace device
