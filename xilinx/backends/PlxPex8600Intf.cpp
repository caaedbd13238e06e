#include "xilinx/backends/PlxPex8600Intf.h"

#include <cstdio>
#include <cstring>

#include "xilinx/XilTrace.h"
#include "xilinx/hal/Hal.h"
#include "xilinx/hal/HalWindow.h"

namespace {

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "pex8600";

// GPIO registers in BAR 0; each group of 16 GPIOs has its own register,
// the second group's 4 bytes above the first's. GPIO g is bit g % 16 of
// group g / 16.
constexpr U32 kDirectionControl = 0x62C;  // two bits per GPIO (2n+1..2n): 10 output, 00 input
constexpr U32 kInputData = 0x63C;
constexpr U32 kOutputData = 0x644;
constexpr U32 kGroupStride = 4;
constexpr unsigned kGpiosPerGroup = 16;

constexpr U32 kDirOutput = 0x2;
constexpr U32 kDirInput = 0x0;

constexpr U8 kNoPin = 255;

struct PinTable {
    const char* deviceName;
    U8 tck, tdi, tms, tdo, heldLow;
};

constexpr PinTable kPinTables[] = {
    {"rotanMotub", 21, 18, 20, 19, kNoPin},
    {"rotanSeret", 15, 12, 14, 13, 16},
    {"vopot", 15, 12, 14, 13, 16},
    {"rotanGuzik", 9, 6, 8, 7, kNoPin},
    {"selek", 9, 6, 8, 7, kNoPin},
    {"dimabuGen4Scd", 9, 6, 8, 7, kNoPin},
    {"mubarUplinkScd", 9, 6, 8, 7, kNoPin},
    {"lomipuScd", 9, 6, 8, 7, kNoPin},
    {"dimabuGen4LineScd", 9, 6, 8, 7, kNoPin},
};

const PinTable* pinTable(const char* deviceName) {
    for (const PinTable& t : kPinTables)
        if (std::strcmp(deviceName, t.deviceName) == 0) return &t;
    return nullptr;
}

unsigned group(U8 pin) { return pin / kGpiosPerGroup; }
U32 bit(U8 pin) { return U32(1) << (pin % kGpiosPerGroup); }
U32 groupRegister(U32 first, U8 pin) { return first + kGroupStride * group(pin); }

}  // namespace

PlxPex8600Intf::PlxPex8600Intf(U16, U16, U16 domain, U8 bus, U8 device, U8 function, const char* lockName)
    : XilIntf(lockName),
      tckPin(kNoPin),
      tdiPin(kNoPin),
      tmsPin(kNoPin),
      tdoPin(kNoPin),
      heldLowPin(kNoPin),
      cachedAddr{},
      cachedValue{},
      tdoCount(0),
      tdiCount(0),
      tmsCount(0),
      tckCount(0) {
    ham = Hal::sysfsWindow("theJamHam", "resource0", domain, bus, device, function, true, kWindowTag);
}

void PlxPex8600Intf::directionIs(U8 pin, U32 dir) {
    U32 offset = groupRegister(kDirectionControl, pin);
    U32 value;
    impl->read32(offset, &value);
    U16 n = pin % kGpiosPerGroup;
    Hal::bitsIs<U32>(value, static_cast<U16>(2 * n), static_cast<U16>(2 * n + 1), dir);
    impl->write32(offset, value);
}

void PlxPex8600Intf::setOutput(U8 pin) {
    XTRACE(1, "setOutput " << int(pin));
    directionIs(pin, kDirOutput);
}

void PlxPex8600Intf::setInput(U8 pin) {
    XTRACE(1, "setInput " << int(pin));
    directionIs(pin, kDirInput);
}

// Inline: it is the whole of a TCK edge.
inline void PlxPex8600Intf::drive(U8 pin, bool level, bool fromCache) {
    vec_.valid = false;
    unsigned g = group(pin);
    U32 value;
    if (fromCache && cachedAddr[g] != 0) {
        value = cachedValue[g];
    } else {
        cachedAddr[g] = groupRegister(kOutputData, pin);
        impl->read32(cachedAddr[g], &value);
    }
    value = level ? value | bit(pin) : value & ~bit(pin);
    cachedValue[g] = value;
    impl->write32(cachedAddr[g], value);
}

void PlxPex8600Intf::select(const char* deviceName) {
    const PinTable* t = pinTable(deviceName);
    if (!t) xilUnknownDevice(deviceName);
    // The output-data register is the highest of a group's three.
    unsigned top = 0;
    for (U8 pin : {t->tck, t->tdi, t->tms, t->tdo, t->heldLow})
        if (pin != kNoPin && group(pin) > top) top = group(pin);
    ham->reaches(kOutputData + kGroupStride * top + 4);
    impl = ham->hamImpl();
    tckPin = t->tck;
    tdiPin = t->tdi;
    tmsPin = t->tms;
    tdoPin = t->tdo;
    heldLowPin = t->heldLow;

    for (U8 pin : {tckPin, tdiPin, tmsPin})
        if (pin != kNoPin) setOutput(pin);
    if (tdoPin != kNoPin) setInput(tdoPin);
    if (heldLowPin != kNoPin) setOutput(heldLowPin);

    for (U8 pin : {tckPin, tdiPin, tmsPin, heldLowPin})
        if (pin != kNoPin) drive(pin, false, false);

    vec_.clear();
    if (tckPin == kNoPin) return;
    vec_.regOf(groupRegister(kOutputData, tckPin));
    vec_.tckMask = bit(tckPin);
    if (tmsPin != kNoPin) vec_.tmsReg = vec_.regOf(groupRegister(kOutputData, tmsPin)), vec_.tmsMask = bit(tmsPin);
    if (tdiPin != kNoPin) vec_.tdiReg = vec_.regOf(groupRegister(kOutputData, tdiPin)), vec_.tdiMask = bit(tdiPin);
    if (tdoPin != kNoPin) vec_.tdoOffset = groupRegister(kInputData, tdoPin), vec_.tdoMask = bit(tdoPin);
}

// Vector path. On every board TCK, TMS and TDI are GPIOs of one group and so
// bits of one output-data register: a cycle is the two TCK writes, the
// falling one carrying the next TMS and TDI, and no read but TDO's, in the
// cycles that want it. A shift first reads the output-data register (one
// read per call).
void PlxPex8600Intf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::shiftVector(regs, vec_, vectorControl_, nbits, tms, tdi, tdoBits);
    cacheFromImage();
}

void PlxPex8600Intf::pinsIs(bool tck, bool tms, bool tdi) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::pinsVector(regs, vec_, vectorControl_, tck, tms, tdi);
    cacheFromImage();
}

// The per-pin operations go on from what the vector path last wrote.
void PlxPex8600Intf::cacheFromImage() {
    for (unsigned k = 0; k < vec_.count; ++k) {
        unsigned g = (vec_.regs[k].offset - kOutputData) / kGroupStride;
        cachedAddr[g] = vec_.regs[k].offset;
        cachedValue[g] = vec_.regs[k].image;
    }
}

void PlxPex8600Intf::tdiIs(bool value) {
    if (tdiPin != kNoPin) drive(tdiPin, value, false);
    ++tdiCount;
    XTRACE(1, "tdiIs " << value);
}

void PlxPex8600Intf::tmsIs(bool value) {
    if (tmsPin != kNoPin) drive(tmsPin, value, false);
    ++tmsCount;
    XTRACE(2, "tmsIs " << value);
}

void PlxPex8600Intf::tckIs(bool value) {
    U32 count = tckCount;
    if (tckPin != kNoPin) drive(tckPin, value, count % 8 != 0);
    tckCount = count + 1;
    XTRACE(3, "tckIs " << value);
}

bool PlxPex8600Intf::tdo() {
    ++tdoCount;
    bool result = false;
    if (tdoPin != kNoPin) {
        U32 value;
        impl->read32(groupRegister(kInputData, tdoPin), &value);
        result = (value & bit(tdoPin)) != 0;
    }
    XTRACE(0, "tdo " << result);
    return result;
}

void PlxPex8600Intf::cleanup(const char*) {
    // TDO stays an input, and the output-data registers keep their levels.
    for (U8 pin : {tckPin, tdiPin, tmsPin, heldLowPin})
        if (pin != kNoPin) setInput(pin);
    // The pin operations' counts, and the vector path's writes and reads.
    XTRACE(5, "jtag totals: tdo " << tdoCount + vec_.tdoReads << " tdi " << tdiCount + vec_.tdiWrites << " tms "
                                  << tmsCount + vec_.tmsWrites << " tck " << tckCount + vec_.tckWrites);
}

bool PlxPex8600Factory::manages(const char* deviceName) { return pinTable(deviceName) != nullptr; }

XilIntf* PlxPex8600Factory::newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    return new PlxPex8600Intf(pciVendor, pciDevice, domain, bus, device, function, lockName);
}

void PlxPex8600Factory::servedNames(std::vector<XilServedName>* out) {
    for (const auto& d : kPinTables) out->push_back({d.deviceName, "PLX PEX 8600 GPIO", "always"});
}
