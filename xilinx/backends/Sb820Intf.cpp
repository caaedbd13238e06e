#include "xilinx/backends/Sb820Intf.h"

#include <cstring>

#include "os/Os.h"
#include "xilinx/XilTrace.h"
#include "xilinx/hal/HalWindow.h"

namespace {

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "sb820";

// GPIO n is controlled by the byte at kControlBase + n of resource5.
constexpr U32 kControlBase = 0x100;
constexpr U8 kInputLevel = 0x80;   // bit 7: level on the pin
constexpr U8 kOutputLevel = 0x40;  // bit 6: level driven, 1 = high
constexpr U8 kOutputOff = 0x20;    // bit 5: 1 = driver off, the pin is an input

constexpr U8 kNoPin = 255;

// The same wiring for both devices.
constexpr U8 kTckGpio = 189;  // 0x1bd
constexpr U8 kTdiGpio = 171;  // 0x1ab
constexpr U8 kTmsGpio = 49;   // 0x131
constexpr U8 kTdoGpio = 61;   // 0x13d
struct SetupPin {
    U8 gpio;
    bool level;
};
// Held at these levels while the device is selected.
constexpr SetupPin kSetupPins[3] = {{60, true}, {41, false}, {50, false}};  // 0x13c, 0x129, 0x132

constexpr unsigned kSettleMicroseconds = 1000;

// One past the highest control byte the backend touches (TCK's, GPIO 189).
constexpr U32 kRegistersEnd = [] {
    U8 top = kTckGpio > kTdiGpio ? kTckGpio : kTdiGpio;
    for (U8 g : {kTmsGpio, kTdoGpio, kSetupPins[0].gpio, kSetupPins[1].gpio, kSetupPins[2].gpio}) top = g > top ? g : top;
    return kControlBase + top + 1;
}();

// The control bytes as the vector path sees them.
struct ControlBytes {
    HamImpl* impl;
    U32 read(U32 offset) {
        U8 byte = 0;
        impl->read8(offset, &byte);
        return byte;
    }
    void write(U32 offset, U32 value) { impl->write8(offset, static_cast<U8>(value)); }
};

constexpr const char* kDeviceNames[] = {"fodak", "komefi"};
bool isDevice(const char* name) { return std::strcmp(name, kDeviceNames[0]) == 0 || std::strcmp(name, kDeviceNames[1]) == 0; }

}  // namespace

Sb820Intf::Sb820Intf(U16, U16, U16 domain, U8 bus, U8 device, U8 function, const char* lockName)
    : XilIntf(lockName), ham(Hal::sysfsWindow("theSb820Ham", "resource5", domain, bus, device, function, true, kWindowTag)) {}

void Sb820Intf::controlIs(U8 gpio, U8 clear, U8 set) {
    U8 byte;
    impl->read8(kControlBase + gpio, &byte);
    impl->write8(kControlBase + gpio, static_cast<U8>((byte & ~clear) | set));
}

void Sb820Intf::setOutput(U8 gpio) {
    XTRACE(1, "setOutput " << int(gpio));
    controlIs(gpio, kOutputOff, 0);
}

void Sb820Intf::setInput(U8 gpio) {
    XTRACE(1, "setInput " << int(gpio));
    controlIs(gpio, 0, kOutputOff);
}

void Sb820Intf::select(const char* deviceName) {
    if (!isDevice(deviceName)) xilUnknownDevice(deviceName);
    ham->reaches(kRegistersEnd);
    impl = ham->hamImpl();
    tckPin = kTckGpio;
    tdiPin = kTdiGpio;
    tmsPin = kTmsGpio;
    tdoPin = kTdoGpio;
    for (int i = 0; i < 3; ++i) {
        setupPins[i] = kSetupPins[i].gpio;
        setupLevels[i] = kSetupPins[i].level;
    }

    for (U8 gpio : {tckPin, tdiPin, tmsPin, setupPins[0], setupPins[1], setupPins[2]})
        if (gpio != kNoPin) setOutput(gpio);
    if (tdoPin != kNoPin) setInput(tdoPin);
    Os::usleep(kSettleMicroseconds);

    for (int i = 0; i < 3; ++i)
        if (setupPins[i] != kNoPin) controlIs(setupPins[i], kOutputLevel, setupLevels[i] ? kOutputLevel : 0);
    for (U8 gpio : {tckPin, tdiPin, tmsPin})
        if (gpio != kNoPin) controlIs(gpio, kOutputLevel, 0);
    Os::usleep(kSettleMicroseconds);

    vec_.clear();
    vec_.regOf(kControlBase + tckPin);
    vec_.tckMask = kOutputLevel;
    vec_.tmsReg = vec_.regOf(kControlBase + tmsPin);
    vec_.tmsMask = kOutputLevel;
    vec_.tdiReg = vec_.regOf(kControlBase + tdiPin);
    vec_.tdiMask = kOutputLevel;
    vec_.tdoOffset = kControlBase + tdoPin;
    vec_.tdoMask = kInputLevel;
}

// Vector path. Every pin has a control byte of its own, so nothing can be
// combined: a cycle costs the two TCK writes, plus one write for each change
// of TMS or TDI; no read but TDO's, in the cycles that want it. A shift
// first reads the three control bytes (three reads per call).
void Sb820Intf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    ControlBytes bytes{impl.ptr()};
    Hal::shiftVector(bytes, vec_, vectorControl_, nbits, tms, tdi, tdoBits);
    cachesFromImage();
}

void Sb820Intf::pinsIs(bool tck, bool tms, bool tdi) {
    ControlBytes bytes{impl.ptr()};
    Hal::pinsVector(bytes, vec_, vectorControl_, tck, tms, tdi);
    cachesFromImage();
}

void Sb820Intf::cachesFromImage() {
    if (vec_.count == 0) return;
    auto take = [this](PinCache& cache, unsigned reg) {
        U8 byte = static_cast<U8>(vec_.regs[reg].image);
        cache = {vec_.regs[reg].offset, static_cast<U8>(byte | kOutputLevel), static_cast<U8>(byte & ~kOutputLevel),
                 (byte & kOutputLevel) != 0};
    };
    take(tckCache, 0);
    take(tmsCache, vec_.tmsReg);
    take(tdiCache, vec_.tdiReg);
}

// The first call for a pin reads its control byte (the driver is on since
// select) and always writes; later calls write only when the level changes.
// Inline: it is the whole of a pin change.
inline void Sb820Intf::levelIs(PinCache& cache, U8 gpio, bool level, U32& count) {
    vec_.valid = false;
    if (cache.offset == 0) {
        if (gpio == kNoPin) return;  // before select: no pin, no register
        cache.offset = kControlBase + gpio;
        U8 byte;
        impl->read8(cache.offset, &byte);
        cache.highByte = static_cast<U8>(byte | kOutputLevel);
        cache.lowByte = static_cast<U8>(byte & ~kOutputLevel);
        cache.lastLevel = !level;
    }
    if (cache.lastLevel != level) {
        ++count;
        cache.lastLevel = level;
        impl->write8(cache.offset, level ? cache.highByte : cache.lowByte);
    }
}

void Sb820Intf::tdiIs(bool value) {
    levelIs(tdiCache, tdiPin, value, tdiCount);
    XTRACE(1, "tdiIs " << value);
}

void Sb820Intf::tmsIs(bool value) {
    levelIs(tmsCache, tmsPin, value, tmsCount);
    XTRACE(2, "tmsIs " << value);
}

void Sb820Intf::tckIs(bool value) {
    levelIs(tckCache, tckPin, value, tckCount);
    XTRACE(3, "tckIs " << value);
}

bool Sb820Intf::tdo() {
    ++tdoCount;
    bool level = false;
    if (tdoPin != kNoPin) {
        U8 byte;
        impl->read8(kControlBase + tdoPin, &byte);
        level = byte & kInputLevel;
    }
    XTRACE(0, "tdo " << level);
    return level;
}

// Every pin select drove stops driving; TDO is an input already.
void Sb820Intf::cleanup(const char*) {
    for (U8 gpio : {tckPin, tdiPin, tmsPin, setupPins[0], setupPins[1], setupPins[2]})
        if (gpio != kNoPin) setInput(gpio);
    vec_.valid = false;
    // The pin operations' counts, and the vector path's writes and reads.
    XTRACE(5, "jtag totals: tdo " << tdoCount + vec_.tdoReads << " tdi " << tdiCount + vec_.tdiWrites << " tms "
                                  << tmsCount + vec_.tmsWrites << " tck " << tckCount + vec_.tckWrites);
}

bool Sb820Factory::manages(const char* deviceName) {
    if (Os::system("/bin/grep -qE \"platform=(gozip|bupul)\" /proc/cmdline") == 0) return false;
    return isDevice(deviceName);
}

XilIntf* Sb820Factory::newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    return new Sb820Intf(pciVendor, pciDevice, domain, bus, device, function, lockName);
}

void Sb820Factory::servedNames(std::vector<XilServedName>* out) {
    for (const char* name : kDeviceNames)
        out->push_back({name, "AMD SB820 GPIO", "kernel command line has no platform=(gozip|bupul)"});
}
