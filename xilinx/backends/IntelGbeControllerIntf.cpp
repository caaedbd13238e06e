#include "xilinx/backends/IntelGbeControllerIntf.h"

#include <cstring>

#include "xilinx/XilTrace.h"
#include "xilinx/hal/Hal.h"

namespace {

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "intel-gbe";

// Device control registers that carry the SDP bits.
constexpr U32 ctrlOffset = 0x0000;     // CTRL
constexpr U32 ctrlExtOffset = 0x0018;  // CTRL_EXT
constexpr U32 windowSize = 0x100000;   // BAR 0

// SDPn_DATA and SDPn_IODIR bits, by SDP number.
constexpr IntelGbeControllerIntf::SdpPin sdpPins[4] = {
    {0, 18, 22},  // SDP0: CTRL
    {0, 19, 23},  // SDP1: CTRL
    {1, 6, 10},   // SDP2: CTRL_EXT
    {1, 7, 11},   // SDP3: CTRL_EXT
};

// LED control register: one 8-bit field per LED. Within a field (and within
// the LED's field of its default word in the NVM image) bits low..low+3 are
// the mode and bit high is blink. Bit 5 of the register is global and has
// its default at bit 5 of the warning LED's default word.
constexpr U32 ledCtlOffset = 0xE000;
constexpr U16 ledGlobalBit = 5;

struct Field {
    U8 low, high;
};

struct Led {
    Field ctlField;
    U32 defaultOffset;  // 16-bit default word
    Field defaultField;
};

constexpr Led leds[3] = {
    {{0, 7}, 0x2003E, {0, 7}},
    {{8, 15}, 0x20038, {0, 7}},
    {{16, 23}, 0x2003E, {8, 15}},
};

// One past the highest register byte the backend touches: the 16-bit LED
// default words lie above CTRL, CTRL_EXT and the LED control register.
constexpr U32 registersEnd = [] {
    U32 end = ledCtlOffset + 4;
    for (const Led& led : leds) end = led.defaultOffset + 2 > end ? led.defaultOffset + 2 : end;
    return end;
}();

// The warning LED blinks in mode 0x0 while the warning is on and in mode 0x1
// otherwise.
constexpr U32 ledModeWarning = 0x0;
constexpr U32 ledModeQuiet = 0x1;

void ledFieldIs(U32& value, const Field& f, U32 mode, U32 blink) {
    Hal::bitsIs<U32>(value, f.low, static_cast<U16>(f.low + 3), mode);
    Hal::bitsIs<U32>(value, f.high, f.high, blink);
}

struct Device {
    const char* name;
    int tdiPin, tmsPin, tckPin, tdoPin;
    int warningLed;
};

constexpr Device devices[] = {
    {"penetScd", 1, 2, 0, 3, 2},
    {"ratumiScd", 1, 2, 0, 3, 2},
};

const Device* findDevice(const char* name) {
    for (const Device& d : devices)
        if (std::strcmp(name, d.name) == 0) return &d;
    return nullptr;
}

}  // namespace

IntelGbeControllerIntf::IntelGbeControllerIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device,
                                               U8 function, const char* lockName)
    : XilIntf(lockName), reg{{ctrlOffset, 0}, {ctrlExtOffset, 0}} {
    XTRACE(2, "IntelGbeControllerIntf name '" << lockName << "' pciVendor 0x" << std::hex << pciVendor
                                              << " pciDevice 0x" << pciDevice << " pciAddr "
                                              << _fmt("%04x:%02x:%02x.%01x", domain, bus, device, function));
    Ptr<Ham> window = new PciHam(lockName, 0, windowSize, "resource0", "", "",
                                 PciAddress{domain, bus, device, function}, 0, true, kWindowTag);
    window->reaches(registersEnd);
    ham = window->hamImpl();
}

U32 IntelGbeControllerIntf::read32(U32 offset) {
    U32 value = 0;
    ham->read32(offset, &value);
    XTRACE(2, "read32 [0x" << std::hex << offset << "] => 0x" << value);
    return value;
}

// Inline, like sdpBitIs: both are on the pin path.
inline void IntelGbeControllerIntf::write32(U32 offset, U32 value) {
    ham->write32(offset, value);
    XTRACE(2, "write32 [0x" << std::hex << offset << "] <= 0x" << value);
}

U16 IntelGbeControllerIntf::read16(U32 offset) {
    U16 value = 0;
    ham->read16(offset, &value);
    XTRACE(2, "read16 [0x" << std::hex << offset << "] => 0x" << value);
    return value;
}

inline U8 IntelGbeControllerIntf::sdpBitIs(int pin, U8 SdpPin::*bit, bool level) {
    vec_.valid = false;
    const SdpPin& p = sdpPins[static_cast<U8>(pin)];
    Reg& r = reg[p.reg];
    U32 mask = 1u << (p.*bit);
    r.cached = level ? r.cached | mask : r.cached & ~mask;
    write32(r.offset, r.cached);
    return p.reg;
}

void IntelGbeControllerIntf::pinIs(const char* op, int pin, bool level) {
    if (pin < 0) return;
    U8 r = sdpBitIs(pin, &SdpPin::dataBit, level);
    // XTRACE names the enclosing function; this line names the pin operation.
    TraceHandle& handle = _defaultTraceHandle();
    if (__builtin_expect(handle.enabled(2), 0)) {
        TraceHelper trace(handle, 2, XILINX_TRACE_FILE, __LINE__, op);
        trace.stream() << op << " " << int(level) << " reg[" << int(r) << "] 0x" << std::hex << reg[r].cached;
    }
}

void IntelGbeControllerIntf::tdiIs(bool value) { pinIs("tdiIs", tdiPin, value); }
void IntelGbeControllerIntf::tmsIs(bool value) { pinIs("tmsIs", tmsPin, value); }
void IntelGbeControllerIntf::tckIs(bool value) { pinIs("tckIs", tckPin, value); }

// Reads the TDO register afresh; the next write to it carries what was read.
bool IntelGbeControllerIntf::tdo() {
    if (tdoPin < 0) return false;
    const SdpPin& p = sdpPins[static_cast<U8>(tdoPin)];
    Reg& r = reg[p.reg];
    r.cached = read32(r.offset);
    vec_.valid = false;  // the pin operations now write what was just read
    int result = (r.cached >> p.dataBit) & 1;
    XTRACE(2, "tdo reg[" << int(p.reg) << "] 0x" << std::hex << r.cached << " Tdo " << result);
    return result;
}

// Loads both registers, sets the levels (TDI and TMS high, TCK low) before
// turning the lines into outputs so they never glitch, makes TDO an input,
// and puts the warning LED in its quiet blinking mode.
void IntelGbeControllerIntf::select(const char* deviceName) {
    const Device* d = findDevice(deviceName);
    if (!d) xilUnknownDevice(deviceName);
    warningLed = d->warningLed;
    tdiPin = d->tdiPin;
    tmsPin = d->tmsPin;
    tckPin = d->tckPin;
    tdoPin = d->tdoPin;
    for (Reg& r : reg) r.cached = read32(r.offset);
    sdpBitIs(tdiPin, &SdpPin::dataBit, true);
    sdpBitIs(tmsPin, &SdpPin::dataBit, true);
    sdpBitIs(tckPin, &SdpPin::dataBit, false);
    sdpBitIs(tdiPin, &SdpPin::dirBit, true);
    sdpBitIs(tmsPin, &SdpPin::dirBit, true);
    sdpBitIs(tckPin, &SdpPin::dirBit, true);
    sdpBitIs(tdoPin, &SdpPin::dirBit, false);

    vec_.clear();
    auto regOf = [this](int pin) { return vec_.regOf(reg[sdpPins[pin].reg].offset); };
    auto mask = [](int pin) { return U32(1) << sdpPins[pin].dataBit; };
    regOf(tckPin);
    vec_.tckMask = mask(tckPin);
    vec_.tmsReg = regOf(tmsPin);
    vec_.tmsMask = mask(tmsPin);
    vec_.tdiReg = regOf(tdiPin);
    vec_.tdiMask = mask(tdiPin);
    vec_.tdoOffset = reg[sdpPins[tdoPin].reg].offset;
    vec_.tdoMask = mask(tdoPin);

    if (warningLed < 0) return;
    warningIs(false);
    U32 value;
    ham->read32(ledCtlOffset, &value);
    ham->write32(ledCtlOffset, value | (1u << ledGlobalBit));
}

struct IntelGbeControllerIntf::TracedRegisters {
    IntelGbeControllerIntf* intf;
    U32 read(U32 offset) { return intf->read32(offset); }
    void write(U32 offset, U32 value) { intf->write32(offset, value); }
};

// Vector path. TCK (SDP0) and TDI (SDP1) are bits of CTRL, TMS (SDP2) and
// TDO (SDP3) bits of CTRL_EXT: a cycle is the two CTRL writes, the falling
// one carrying the next TDI, plus one CTRL_EXT write for each change of TMS,
// and no read but TDO's (CTRL_EXT), in the cycles that want it. A shift
// first reads CTRL and CTRL_EXT (two reads per call). Each access is traced
// at level 2 like the pin operations' own.
void IntelGbeControllerIntf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    TracedRegisters regs{this};
    Hal::shiftVector(regs, vec_, vectorControl_, nbits, tms, tdi, tdoBits);
    cachedFromImage();
}

void IntelGbeControllerIntf::pinsIs(bool tck, bool tms, bool tdi) {
    TracedRegisters regs{this};
    Hal::pinsVector(regs, vec_, vectorControl_, tck, tms, tdi);
    cachedFromImage();
}

// The pin operations write whole registers from the cached copies: they go
// on from what the vector path last read or wrote.
void IntelGbeControllerIntf::cachedFromImage() {
    for (unsigned k = 0; k < vec_.count; ++k)
        for (Reg& r : reg)
            if (r.offset == vec_.regs[k].offset) r.cached = vec_.regs[k].image;
}

void IntelGbeControllerIntf::warningIs(bool on) {
    if (warningLed < 0) return;
    U32 value;
    ham->read32(ledCtlOffset, &value);
    ledFieldIs(value, leds[warningLed].ctlField, on ? ledModeWarning : ledModeQuiet, 1);
    ham->write32(ledCtlOffset, value);
}

// All four SDPs become inputs (their data bits keep the last levels), and
// the warning LED gets its mode, blink and the global bit back from its
// default word.
void IntelGbeControllerIntf::cleanup(const char*) {
    for (int pin : {tdiPin, tmsPin, tckPin, tdoPin})
        if (pin >= 0) sdpBitIs(pin, &SdpPin::dirBit, false);
    vec_.valid = false;
    if (warningLed < 0) return;
    const Led& led = leds[warningLed];
    const Field& def = led.defaultField;
    U32 value = read32(ledCtlOffset);
    U16 word = read16(led.defaultOffset);
    ledFieldIs(value, led.ctlField, Hal::bits<U16>(word, def.low, static_cast<U16>(def.low + 3)),
               Hal::bits<U16>(word, def.high, def.high));
    write32(ledCtlOffset, value);
    value = read32(ledCtlOffset);
    word = read16(led.defaultOffset);
    Hal::bitsIs<U32>(value, ledGlobalBit, ledGlobalBit, Hal::bits<U16>(word, ledGlobalBit, ledGlobalBit));
    write32(ledCtlOffset, value);
}

bool IntelGbeControllerFactory::manages(const char* deviceName) { return findDevice(deviceName) != nullptr; }

XilIntf* IntelGbeControllerFactory::newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device,
                                               U8 function) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    return new IntelGbeControllerIntf(pciVendor, pciDevice, domain, bus, device, function, lockName);
}

void IntelGbeControllerFactory::servedNames(std::vector<XilServedName>* out) {
    for (const auto& d : devices) out->push_back({d.name, "Intel GbE controller SDP pins", "always"});
}
