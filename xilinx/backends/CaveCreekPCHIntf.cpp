#include "xilinx/backends/CaveCreekPCHIntf.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os/Os.h"
#include "xilinx/hal/HalWindow.h"

namespace {

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "cave-creek-gpio";

// LPC configuration register with the I/O base of the GPIO block; bits 15..7.
constexpr long kGpioBaseConfigReg = 0x48;
constexpr U32 kGpioBaseMask = 0xff80;

// Register offsets from the GPIO base, per bank of 32 GPIOs.
struct Bank {
    U32 useSelect;  // 1: the pin is a GPIO, not its native function
    U32 ioSelect;   // 1: input, 0: output
    U32 level;      // output level written, pin level read
};
constexpr Bank kBanks[] = {
    {0x00, 0x04, 0x0c},  // GPIO 0..31
    {0x30, 0x34, 0x38},  // GPIO 32..63
    {0x40, 0x44, 0x48},  // GPIO 64..95
};
constexpr unsigned kBankWidth = 32;

constexpr U8 kNoPin = 255;

struct Device {
    const char* name;
    U8 tck, tdi, tms, tdo;
    U8 aux;  // made an output once TCK, TDI and TMS are low
    bool auxLevel;
    U8 setup;  // held at setupLevel while selected
    bool setupLevel;
};
constexpr Device kDevices[] = {
    {"zetizSwitchCpld", 12, 44, 45, 22, 15, true, 24, true},
    {"zetizSwitchScd", 12, 44, 45, 22, 15, true, 24, false},
    {"bevibLineScd", 17, 14, 48, 27, 39, false, 24, true},
    {"mubarScd", 17, 14, 15, 27, kNoPin, false, 24, false},
    {"posabuSwitchScd", 12, 44, 45, 3, 48, true, 18, false},
    {"tomitShimScd", 12, 44, 45, 3, 48, true, 18, false},
};

const Device* findDevice(const char* name) {
    for (const Device& d : kDevices)
        if (std::strcmp(name, d.name) == 0) return &d;
    return nullptr;
}

const Bank& bankOf(U8 gpio) {
    assert(gpio < kBankWidth * 3 && "GPIO without a bank");
    return kBanks[gpio / kBankWidth];
}

// The little-endian 32-bit value at config register 0x48, or the end of
// the process with the file and the reason on stderr.
U32 readGpioBaseReg(const char* path) {
    U8 b[4];
    const char* reason = nullptr;
    FILE* f = Os::fopen(path, "rb");
    if (!f) {
        reason = std::strerror(errno);
    } else {
        if (std::fseek(f, kGpioBaseConfigReg, SEEK_SET) != 0)
            reason = std::strerror(errno);
        else if (std::fread(b, 1, sizeof b, f) != sizeof b)
            reason = std::ferror(f) ? std::strerror(errno) : "short read, fewer than 4 bytes at offset 0x48";
        std::fclose(f);
    }
    if (reason) {
        std::fflush(stdout);
        std::fprintf(stderr, "cannot read GPIO base from %s: %s\n", path, reason);
        Os::exit(1);
    }
    return U32(b[0]) | U32(b[1]) << 8 | U32(b[2]) << 16 | U32(b[3]) << 24;
}

}  // namespace

CaveCreekPCHIntf::CaveCreekPCHIntf(U16, U16, U16 domain, U8 bus, U8 device, U8 function, const char* lockName)
    : XilIntf(lockName) {
    gpioBase = readGpioBaseReg(Hal::sysfsPath("config", domain, bus, device, function).c_str()) & kGpioBaseMask;
    std::printf("GPIO Offset: 0x%x\n", gpioBase);
    ham = new Ham("theCaveCreekPCHIOHam", HamType::ioPort, nullptr, 0, 0, "", kWindowTag);
}

U32 CaveCreekPCHIntf::useSelectGpioReg(U8 gpio) const { return gpioBase + bankOf(gpio).useSelect; }
U32 CaveCreekPCHIntf::ioSelectGpioReg(U8 gpio) const { return gpioBase + bankOf(gpio).ioSelect; }
U32 CaveCreekPCHIntf::readWriteGpioReg(U8 gpio) const { return gpioBase + bankOf(gpio).level; }

void CaveCreekPCHIntf::bitIs(U32 port, U8 gpio, bool set) {
    vec_.valid = false;
    U32 bit = 1u << (gpio % kBankWidth);
    U32 value;
    impl->read32(port, &value);
    impl->write32(port, set ? value | bit : value & ~bit);
}

void CaveCreekPCHIntf::directionIs(U8 gpio, bool output) {
    bitIs(useSelectGpioReg(gpio), gpio, true);
    bitIs(ioSelectGpioReg(gpio), gpio, !output);
}

void CaveCreekPCHIntf::levelIs(U8 gpio, bool level) { bitIs(readWriteGpioReg(gpio), gpio, level); }

void CaveCreekPCHIntf::select(const char* deviceName) {
    const Device* d = findDevice(deviceName);
    if (!d) xilUnknownDevice(deviceName);
    impl = ham->hamImpl();
    tckPin = d->tck;
    tdiPin = d->tdi;
    tmsPin = d->tms;
    tdoPin = d->tdo;
    auxPin = d->aux;
    auxLevel = d->auxLevel;
    setupPins[0] = d->setup;
    setupLevels[0] = d->setupLevel;
    setupPins[1] = setupPins[2] = kNoPin;
    setupLevels[1] = setupLevels[2] = false;

    for (U8 gpio : {tckPin, tdiPin, tmsPin, setupPins[0], setupPins[1], setupPins[2]})
        if (gpio != kNoPin) directionIs(gpio, true);
    if (tdoPin != kNoPin) directionIs(tdoPin, false);
    for (U8 gpio : {tckPin, tdiPin, tmsPin})
        if (gpio != kNoPin) levelIs(gpio, false);
    if (auxPin != kNoPin) {
        directionIs(auxPin, true);
        levelIs(auxPin, auxLevel);
    }
    for (int i = 0; i < 3; ++i)
        if (setupPins[i] != kNoPin) levelIs(setupPins[i], setupLevels[i]);
    lastTdi = false;
    lastTms = false;

    vec_.clear();
    if (tckPin == kNoPin) return;
    auto mask = [](U8 gpio) { return gpio == kNoPin ? 0u : 1u << (gpio % kBankWidth); };
    vec_.regOf(readWriteGpioReg(tckPin));
    vec_.tckMask = mask(tckPin);
    if (tmsPin != kNoPin) vec_.tmsReg = vec_.regOf(readWriteGpioReg(tmsPin)), vec_.tmsMask = mask(tmsPin);
    if (tdiPin != kNoPin) vec_.tdiReg = vec_.regOf(readWriteGpioReg(tdiPin)), vec_.tdiMask = mask(tdiPin);
    if (tdoPin != kNoPin) vec_.tdoOffset = readWriteGpioReg(tdoPin), vec_.tdoMask = mask(tdoPin);
}

// Vector path. The level register of a bank of 32 GPIOs holds TCK and
// whichever of TMS and TDI lie in TCK's bank: a cycle is the two TCK writes,
// the falling one carrying the next TMS and TDI of that bank, plus one write
// for each change of a TMS or TDI in another bank (on "zetizSwitch*",
// "posabu" and "tomit" both sit in bank 1, TCK in bank 0); no read but TDO's,
// in the cycles that want it (the per-pin path reads on every TCK edge). A
// shift first reads the level registers involved (one or two I/O reads per
// call).
void CaveCreekPCHIntf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    Hal::Registers32 ports{impl.ptr()};
    Hal::shiftVector(ports, vec_, vectorControl_, nbits, tms, tdi, tdoBits);
    lastLevelsFromImage();
}

void CaveCreekPCHIntf::pinsIs(bool tck, bool tms, bool tdi) {
    Hal::Registers32 ports{impl.ptr()};
    Hal::pinsVector(ports, vec_, vectorControl_, tck, tms, tdi);
    lastLevelsFromImage();
}

// tdiIs and tmsIs skip a level equal to the last one: it must be the pin's.
void CaveCreekPCHIntf::lastLevelsFromImage() {
    if (vec_.count == 0) return;
    if (vec_.tmsMask) lastTms = vec_.regs[vec_.tmsReg].image & vec_.tmsMask;
    if (vec_.tdiMask) lastTdi = vec_.regs[vec_.tdiReg].image & vec_.tdiMask;
}

// TCK is written on every call.
void CaveCreekPCHIntf::tckIs(bool value) {
    if (tckPin != kNoPin) levelIs(tckPin, value);
}

void CaveCreekPCHIntf::changedLevelIs(U8 gpio, bool& last, bool level) {
    if (level == last) return;
    if (gpio != kNoPin) levelIs(gpio, level);
    last = level;
}

void CaveCreekPCHIntf::tdiIs(bool value) { changedLevelIs(tdiPin, lastTdi, value); }
void CaveCreekPCHIntf::tmsIs(bool value) { changedLevelIs(tmsPin, lastTms, value); }

bool CaveCreekPCHIntf::tdo() {
    if (tdoPin == kNoPin) return false;
    U32 value;
    impl->read32(readWriteGpioReg(tdoPin), &value);
    return (value >> (tdoPin % kBankWidth)) & 1;
}

// The pins stay GPIOs but stop driving; levels and TDO are left as they are.
void CaveCreekPCHIntf::cleanup(const char*) {
    for (U8 gpio : {tckPin, tdiPin, tmsPin, auxPin, setupPins[0], setupPins[1], setupPins[2]})
        if (gpio != kNoPin) directionIs(gpio, false);
}

bool CaveCreekPCHFactory::manages(const char* deviceName) { return findDevice(deviceName) != nullptr; }

XilIntf* CaveCreekPCHFactory::newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device,
                                         U8 function) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    return new CaveCreekPCHIntf(pciVendor, pciDevice, domain, bus, device, function, lockName);
}

void CaveCreekPCHFactory::servedNames(std::vector<XilServedName>* out) {
    for (const auto& d : kDevices) out->push_back({d.name, "Intel Cave Creek PCH GPIO", "always"});
}
