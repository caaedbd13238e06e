#include "xilinx/backends/PlxPex8700Intf.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xilinx/hal/Hal.h"
#include "xilinx/hal/HalWindow.h"
#include "os/Os.h"

namespace {

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "pex8700";

// GPIO registers in BAR 0, at their default place.
constexpr U32 kDirection = 0x600;    // GPIOs 0 to 9: three bits per GPIO (3p+2..3p)
constexpr U32 kDirection10 = 0x604;  // GPIO 10: the whole register
constexpr U32 kInputData = 0x61C;    // bit p: level on GPIO p
constexpr U32 kOutputData = 0x624;   // bit p: level driven on GPIO p

// The relocated block: bits 4..0 of kBlockSelect name a 4 KB block, and
// the GPIO registers sit at these offsets inside it.
constexpr U32 kBlockSelect = 0x354;
constexpr U16 kBlockSelectFirst = 0;
constexpr U16 kBlockSelectLast = 4;
constexpr U32 kBlockSize = 0x1000;
constexpr U32 kBlockDirection = 0xA34;
constexpr U32 kBlockDirection10 = 0xA38;
constexpr U32 kBlockInputData = 0xA44;
constexpr U32 kBlockOutputData = 0xA48;

constexpr U32 kDirOutput = 4;
constexpr U32 kDirInput = 0;

constexpr U8 kGpio10 = 10;
constexpr U8 kNoPin = 255;

struct PinTable {
    const char* deviceName;
    U8 heldLow, heldHigh, tck, tms, tdi, tdo;
    bool relocated;  // GPIO registers in the block named at kBlockSelect
};

constexpr PinTable kPinTables[] = {
    {"gemufScd", 2, 6, 7, 8, 10, 9, false},
    {"lomifScd", 2, 6, 7, 8, 10, 9, false},
    {"zegomoScd", 2, 6, 7, 8, 10, 9, false},
    {"tilegScd", kNoPin, 10, 9, 8, 7, 6, false},
    {"nipigScd", kNoPin, 10, 9, 8, 7, 6, false},
    {"vebekScd", kNoPin, 10, 9, 8, 7, 6, false},
    {"nipig2Scd", kNoPin, 10, 9, 8, 7, 6, true},
    {"gurideScd", kNoPin, 10, 9, 8, 7, 6, true},
    {"bakonScd", kNoPin, kNoPin, 6, 2, 5, 9, false},
    {"memivScd", kNoPin, kNoPin, 6, 2, 5, 9, false},
    {"mofidiPlusLcScd", kNoPin, kNoPin, 9, 8, 6, 7, false},
    {"mubarplusUplinkScd", kNoPin, kNoPin, 7, 8, 9, 10, false},
};

const PinTable* pinTable(const char* deviceName) {
    for (const PinTable& t : kPinTables)
        if (std::strcmp(deviceName, t.deviceName) == 0) return &t;
    return nullptr;
}

}  // namespace

PlxPex8700Intf::PlxPex8700Intf(U16, U16, U16 domain, U8 bus, U8 device, U8 function, const char* lockName)
    : XilIntf(lockName),
      dirOffset(kDirection),
      dir10Offset(kDirection10),
      inputOffset(kInputData),
      outputOffset(kOutputData),
      ham(Hal::sysfsWindow("PlxPex8700Ham", "resource0", domain, bus, device, function, false, kWindowTag)),
      impl(ham->hamImpl()),
      heldLowPin(kNoPin),
      heldHighPin(kNoPin),
      tckPin(kNoPin),
      tmsPin(kNoPin),
      tdiPin(kNoPin),
      tdoPin(kNoPin),
      tckCount(0),
      cachedOut(0) {}

void PlxPex8700Intf::setDir(U8 pin, U32 dir) {
    checkPin(pin);
    if (pin == kGpio10) {
        impl->write32(dir10Offset, dir);
        return;
    }
    U32 value;
    impl->read32(dirOffset, &value);
    Hal::bitsIs<U32>(value, static_cast<U16>(3 * pin), static_cast<U16>(3 * pin + 2), dir);
    impl->write32(dirOffset, value);
}

bool PlxPex8700Intf::getPin(U8 pin) {
    checkPin(pin);
    U32 value;
    impl->read32(inputOffset, &value);
    return (value >> pin) & 1u;
}

void PlxPex8700Intf::select(const char* deviceName) {
    const PinTable* t = pinTable(deviceName);
    if (!t) {
        std::fflush(stdout);
        std::fprintf(stderr, "Unknown fpga: %s\n", deviceName);
        Os::exit(1);
    }
    heldLowPin = t->heldLow;
    heldHighPin = t->heldHigh;
    tckPin = t->tck;
    tmsPin = t->tms;
    tdiPin = t->tdi;
    tdoPin = t->tdo;

    if (t->relocated) {
        ham->reaches(kBlockSelect + 4);
        U32 blockSelect;
        impl->read32(kBlockSelect, &blockSelect);
        U32 block = Hal::bits<U32>(blockSelect, kBlockSelectFirst, kBlockSelectLast) * kBlockSize;
        // The block comes from the switch: the file must hold it before it is used.
        ham->reaches(block + kBlockOutputData + 4);
        dirOffset = block + kBlockDirection;
        dir10Offset = block + kBlockDirection10;
        inputOffset = block + kBlockInputData;
        outputOffset = block + kBlockOutputData;
    }
    ham->reaches(outputOffset + 4);  // the highest of the four registers

    if (heldLowPin != kNoPin) {
        setDir(heldLowPin, kDirOutput);
        setPin(heldLowPin, false, false);
    }
    for (U8 pin : {tckPin, tdiPin, tmsPin})
        if (pin != kNoPin) setDir(pin, kDirOutput);
    if (tdoPin != kNoPin) setDir(tdoPin, kDirInput);
    if (heldHighPin != kNoPin) {
        setDir(heldHighPin, kDirOutput);
        setPin(heldHighPin, true, false);
    }

    vec_.clear();
    if (tckPin == kNoPin) return;
    vec_.regOf(outputOffset);
    vec_.tckMask = U32(1) << tckPin;
    vec_.tmsMask = tmsPin == kNoPin ? 0 : U32(1) << tmsPin;
    vec_.tdiMask = tdiPin == kNoPin ? 0 : U32(1) << tdiPin;
    vec_.tdoOffset = inputOffset;
    vec_.tdoMask = tdoPin == kNoPin ? 0 : U32(1) << tdoPin;
}

// Vector path. All eleven GPIOs are bits of one output-data register: a
// cycle is the two TCK writes, the falling one carrying the next TMS and
// TDI, and no read but TDO's, in the cycles that want it. A shift first
// reads the output-data register (one read per call).
void PlxPex8700Intf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::shiftVector(regs, vec_, vectorControl_, nbits, tms, tdi, tdoBits);
    if (vec_.count) cachedOut = vec_.regs[0].image;  // the per-pin operations go on from it
}

void PlxPex8700Intf::pinsIs(bool tck, bool tms, bool tdi) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::pinsVector(regs, vec_, vectorControl_, tck, tms, tdi);
    if (vec_.count) cachedOut = vec_.regs[0].image;
}

void PlxPex8700Intf::tdiIs(bool value) {
    if (tdiPin != kNoPin) setPin(tdiPin, value, false);
}

void PlxPex8700Intf::tmsIs(bool value) {
    if (tmsPin != kNoPin) setPin(tmsPin, value, false);
}

void PlxPex8700Intf::tckIs(bool value) {
    U32 count = tckCount;
    if (tckPin != kNoPin) setPin(tckPin, value, count % 8 != 0);
    tckCount = count + 1;
}

bool PlxPex8700Intf::tdo() { return tdoPin != kNoPin && getPin(tdoPin); }

void PlxPex8700Intf::cleanup(const char*) {
    // The held-low pin stays an output driven low, TDO an input, and the
    // output-data register keeps its levels.
    for (U8 pin : {tckPin, tdiPin, tmsPin, heldHighPin})
        if (pin != kNoPin) setDir(pin, kDirInput);
    vec_.valid = false;
}

bool PlxPex8700Factory::manages(const char* deviceName) { return pinTable(deviceName) != nullptr; }

XilIntf* PlxPex8700Factory::newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    return new PlxPex8700Intf(pciVendor, pciDevice, domain, bus, device, function, lockName);
}

void PlxPex8700Factory::servedNames(std::vector<XilServedName>* out) {
    for (const auto& d : kPinTables) out->push_back({d.deviceName, "PLX PEX 8700 GPIO", "always"});
}
