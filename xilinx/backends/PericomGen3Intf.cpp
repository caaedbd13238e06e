#include "xilinx/backends/PericomGen3Intf.h"

#include <algorithm>
#include <cstring>

#include "xilinx/XilTrace.h"
#include "xilinx/hal/HalWindow.h"

namespace {

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "pericom-gen3";

// GPIO registers of a block, per bank (GPIO 0..15, GPIO 16..31), at
// blockBase + offset. Direction: two bits per GPIO, bit 2n+1 set = output
// (bit 2n is left alone). Input and output data: bit n per GPIO.
constexpr U16 gpioDirOffset[2] = {0x31C, 0x320};
constexpr U16 gpioInOffset[2] = {0x328, 0x32C};
constexpr U16 gpioOutOffset[2] = {0x330, 0x334};

struct Device {
    const char* name;
    U32 blockBase;
    U32 tckPin, tdiPin, tmsPin, tdoPin;
};

constexpr Device devices[] = {
    {"togif", 0x10000, 0, 2, 1, 3},
    {"togif_scd", 0x10000, 0, 2, 1, 3},
    {"togif_fan", 0, 0, 2, 1, 3},
};

const Device* findDevice(const char* name) {
    for (const Device& d : devices)
        if (std::strcmp(name, d.name) == 0) return &d;
    return nullptr;
}

U32 bitOf(U32 pin) { return pin % 16; }

}  // namespace

PericomGen3Intf::PericomGen3Intf(U16, U16, U16 domain, U8 bus, U8 device, U8 function, const char* lockName)
    : XilIntf(lockName) {
    XTRACE(1, "sysfs path: " << Hal::sysfsPath("resource0", domain, bus, device, function));
    ham = Hal::sysfsWindow("PericomGen3Ham", "resource0", domain, bus, device, function, false, kWindowTag);
}

U32 PericomGen3Intf::bankReg(const U16 (&offsets)[2], U32 pin) const { return blockBase + offsets[pin > 15]; }

void PericomGen3Intf::bitIs(U32 offset, U32 bit, bool level) {
    if (!impl) return;
    vec_.valid = false;
    U32 value;
    impl->read32(offset, &value);
    value = level ? value | (1u << bit) : value & ~(1u << bit);
    impl->write32(offset, value);
}

void PericomGen3Intf::outputIs(U32 pin, bool output) {
    bitIs(bankReg(gpioDirOffset, pin), 2 * bitOf(pin) + 1, output);
}

void PericomGen3Intf::levelIs(U32 pin, bool level) { bitIs(bankReg(gpioOutOffset, pin), bitOf(pin), level); }

void PericomGen3Intf::select(const char* deviceName) {
    const Device* d = findDevice(deviceName);
    if (!d) xilUnknownDevice(deviceName);
    // The output-data register is the highest of a bank's three.
    U32 top = std::max({d->tckPin, d->tdiPin, d->tmsPin, d->tdoPin});
    ham->reaches(U64(d->blockBase) + gpioOutOffset[top > 15] + 4);
    blockBase = d->blockBase;
    impl = ham->hamImpl();
    tckPin = d->tckPin;
    tdiPin = d->tdiPin;
    tmsPin = d->tmsPin;
    tdoPin = d->tdoPin;
    outputIs(tckPin, true);
    outputIs(tdiPin, true);
    outputIs(tmsPin, true);
    outputIs(tdoPin, false);
    levelIs(tckPin, false);
    levelIs(tdiPin, false);
    levelIs(tmsPin, false);

    vec_.clear();
    vec_.regOf(bankReg(gpioOutOffset, tckPin));
    vec_.tckMask = 1u << bitOf(tckPin);
    vec_.tmsReg = vec_.regOf(bankReg(gpioOutOffset, tmsPin));
    vec_.tmsMask = 1u << bitOf(tmsPin);
    vec_.tdiReg = vec_.regOf(bankReg(gpioOutOffset, tdiPin));
    vec_.tdiMask = 1u << bitOf(tdiPin);
    vec_.tdoOffset = bankReg(gpioInOffset, tdoPin);
    vec_.tdoMask = 1u << bitOf(tdoPin);
}

// Vector path. TCK, TMS and TDI are GPIOs 0 to 2, bits of one output-data
// register: a cycle is the two TCK writes, the falling one carrying the next
// TMS and TDI, and no read but TDO's, in the cycles that want it (the
// per-pin path reads before every write). A shift first reads the
// output-data register (one read per call).
void PericomGen3Intf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::shiftVector(regs, vec_, vectorControl_, nbits, tms, tdi, tdoBits);
}

void PericomGen3Intf::pinsIs(bool tck, bool tms, bool tdi) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::pinsVector(regs, vec_, vectorControl_, tck, tms, tdi);
}

void PericomGen3Intf::tckIs(bool value) { levelIs(tckPin, value); }
void PericomGen3Intf::tdiIs(bool value) { levelIs(tdiPin, value); }
void PericomGen3Intf::tmsIs(bool value) { levelIs(tmsPin, value); }

bool PericomGen3Intf::tdo() {
    if (!impl) return false;
    U32 value;
    impl->read32(bankReg(gpioInOffset, tdoPin), &value);
    return (value >> bitOf(tdoPin)) & 1;
}

// The driven pins become inputs again; their output levels and TDO stay.
void PericomGen3Intf::cleanup(const char*) {
    outputIs(tckPin, false);
    outputIs(tdiPin, false);
    outputIs(tmsPin, false);
}

bool PericomGen3Factory::manages(const char* deviceName) { return findDevice(deviceName) != nullptr; }

XilIntf* PericomGen3Factory::newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    return new PericomGen3Intf(pciVendor, pciDevice, domain, bus, device, function, lockName);
}

void PericomGen3Factory::servedNames(std::vector<XilServedName>* out) {
    for (const auto& d : devices) out->push_back({d.name, "Pericom Gen3 PCIe switch GPIO", "always"});
}
