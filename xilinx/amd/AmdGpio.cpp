#include "xilinx/amd/AmdGpio.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace {

using amd::kNoPin;

// ---- FCH GPIO registers ----

// Kabini: one control byte and one IOMUX byte per pin; the GPIO number is
// the pad number.
constexpr U32 kKabiniControlBase = 0x100;  // GPIO control of pin n at 0x100 + n
constexpr U32 kKabiniIomuxBase = 0xD00;    // IOMUX select of pin n at 0xD00 + n
constexpr U8 kKabiniOutputDisabled = 1u << 5;
constexpr U8 kKabiniOutputLevel = 1u << 6;
constexpr U8 kKabiniPinLevel = 1u << 7;
constexpr U8 kKabiniGpioFunction = 3;        // IOMUX function "GPIO" of every pin but one
constexpr U8 kKabiniPin65 = 65;              // ... which has it at function 1
constexpr U8 kKabiniPin65GpioFunction = 1;

// Steppe Eagle, R1000, V3000 and the mosavo boards: a 32-bit control
// register and an IOMUX byte per pad k, found through the pin tables.
constexpr U32 kPadIomuxBase = 0xD00;        // IOMUX select of pad k at 0xD00 + k
constexpr U32 kPadControlIndexBase = 0x540;  // control register index 0x540 + k: offset 0x1500 + 4k
constexpr U32 kPadPinLevel = 1u << 16;
constexpr U32 kPadOutputLevel = 1u << 22;
constexpr U32 kPadOutputEnable = 1u << 23;
constexpr U32 kSteppeEagleOutputEnable = kPadOutputEnable | 1u << 17;  // bit 17 goes with bit 23 there

// ---- pin tables ----

// One row per GPIO number. An empty row holds only its own number.
struct SocGpio {
    U32 gpio;                 // the row's own GPIO number, equal to its index
    U32 platformMask;         // platform classes that may use the GPIO; 0: empty row
    U32 iomuxOffset;          // window offset of the pad's IOMUX byte
    U32 iomuxValue;           // pad function that makes the pad a GPIO (low 8 bits written)
    U32 regIndex;             // the pad's 32-bit control register is at 4 * regIndex
    const char* description;  // the signal on the board; documentation only
};

// A populated row as the data sheet gives it. The descriptions name the
// JTAG role of the pin in the table's own numbering, where a device has one.
struct PinRow {
    U32 gpio;
    U32 platformMask;
    U32 pad;
    U32 iomuxValue;
    const char* description;
};

template <std::size_t N, std::size_t M>
constexpr std::array<SocGpio, N> pinTable(const PinRow (&rows)[M]) {
    std::array<SocGpio, N> table{};
    for (U32 i = 0; i < N; ++i) table[i] = SocGpio{i, 0, 0, 0, 0, ""};
    for (const PinRow& r : rows)
        table[r.gpio] =
            SocGpio{r.gpio, r.platformMask, kPadIomuxBase + r.pad, r.iomuxValue, kPadControlIndexBase + r.pad, r.description};
    return table;
}

// GPIO, platform classes, pad, IOMUX function, signal.
constexpr PinRow kV3000Rows[] = {
    {2,   0x01, 2,    1, ""},
    {9,   0x01, 9,    0, ""},
    {16,  0x01, 16,   0, ""},
    {18,  0x01, 18,   0, ""},
    {20,  0x01, 20,   1, ""},
    {23,  0x01, 23,   1, ""},
    {32,  0x01, 32,   0, ""},
    {38,  0x01, 38,   1, "JTAG control"},
    {39,  0x01, 39,   1, "JTAG control"},
    {40,  0x01, 40,   1, ""},
    {70,  0x01, 70,   1, ""},
    {91,  0x01, 91,   2, ""},
    {115, 0x01, 115,  1, "TDI"},
    {116, 0x01, 116,  1, "TCK"},
    {131, 0x01, 131,  3, "TDO"},
    {132, 0x01, 132,  3, "TMS"},
};

constexpr PinRow kR1000Rows[] = {
    {2,   0x07, 2,    1, ""},
    {9,   0x03, 9,    2, ""},
    {13,  0x04, 13,   1, "TMS"},
    {16,  0x04, 16,   1, "TDI"},
    {17,  0x07, 17,   1, "TDO"},
    {18,  0x05, 18,   1, "TCK"},
    {20,  0x07, 20,   0, ""},
    {24,  0x05, 24,   1, "JTAG control"},
    {32,  0x07, 32,   2, ""},
    {39,  0x01, 39,   0, ""},
    {40,  0x07, 40,   0, ""},
    {68,  0x04, 68,   0, ""},
    {84,  0x03, 84,   1, ""},
    {85,  0x03, 85,   1, ""},
    {86,  0x03, 86,   1, ""},
    {91,  0x06, 91,   1, ""},
    {115, 0x03, 115,  1, "TDI"},
    {116, 0x02, 116,  1, "TCK"},
    {120, 0x06, 120,  1, "JTAG control"},
    {121, 0x02, 121,  1, "JTAG control"},
    {131, 0x02, 131,  3, "TDO"},
    {132, 0x02, 132,  2, "TMS"},
};

constexpr PinRow kMosavoRows[] = {
    {2,   0x20, 2,    1, "JTAG control"},
    {9,   0x20, 9,    0, "TCK"},
    {20,  0x20, 20,   2, "TDO"},
    {23,  0x20, 23,   0, "JTAG control"},
    {24,  0x10, 24,   1, ""},
    {40,  0x20, 40,   0, "TMS"},
    {64,  0x10, 64,   0, "TDI"},
    {65,  0x10, 65,   0, "TDO"},
    {68,  0x10, 68,   0, "TMS"},
    {69,  0x10, 69,   0, "JTAG control"},
    {70,  0x20, 70,   0, "TDI"},
    {71,  0x10, 71,   0, "JTAG control"},
    {72,  0x10, 72,   0, "TDI"},
    {84,  0x10, 84,   1, "TDO"},
    {85,  0x10, 85,   1, "TCK"},
    {86,  0x30, 86,   1, "TMS"},
    {91,  0x10, 91,   1, "JTAG control"},
    {116, 0x10, 116,  1, "TCK"},
};

// Indexed by the Kabini GPIO number; each row names the Steppe Eagle pad
// that carries the same signal.
constexpr PinRow kSteppeEagleRows[] = {
    {32,  0x0D, 0x59, 0, "JTAG control"},
    {49,  0x0F, 0x40, 2, "TMS"},
    {50,  0x0D, 0x41, 2, "JTAG control"},
    {51,  0x0F, 0x42, 2, "TMS"},
    {56,  0x0D, 0x54, 1, "TCK"},
    {57,  0x0F, 0x44, 1, "TDI"},
    {58,  0x06, 0x45, 1, "TCK, TDO"},
    {60,  0x0D, 0x5C, 3, "JTAG control"},
    {61,  0x0D, 0x73, 2, "TDO"},
    {62,  0x0D, 0x74, 2, "TMS"},
    {64,  0x0F, 0x47, 2, "TDO, TCK"},
    {65,  0x0D, 0x84, 1, ""},
    {68,  0x0F, 0x48, 0, ""},
    {69,  0x0F, 0x49, 0, ""},
    {70,  0x0D, 0x4C, 0, "JTAG control"},
    {71,  0x04, 0x4D, 0, ""},
    {168, 0x09, 0x1B, 1, "TCK"},
    {174, 0x0D, 0x0A, 0, "TDI"},
};

constexpr auto v3000Pins = pinTable<149>(kV3000Rows);
constexpr auto r1000Pins = pinTable<256>(kR1000Rows);
constexpr auto mosavoPins = pinTable<256>(kMosavoRows);
constexpr auto steppeEaglePins = pinTable<256>(kSteppeEagleRows);

// ---- process-wide state ----

volatile U8* gpioWindow;   // the mapping of the FCH window
Ptr<HamImpl> gpioHam;      // or what stands in for it
const SocGpio* activePins;  // the active SoC's table; null on Kabini, where the number is the pad
std::size_t activePinCount;
bool gpioValidated[256];   // numbers the active SoC may drive on this board

// ---- window access ----

// Production: one plain load or store on the mapping per register access.
struct Mapped {
    static U8 read8(U32 offset) { return gpioWindow[offset]; }
    static void write8(U32 offset, U8 value) { gpioWindow[offset] = value; }
    static U32 read32(U32 offset) { return *reinterpret_cast<volatile U32*>(gpioWindow + offset); }
    static void write32(U32 offset, U32 value) { *reinterpret_cast<volatile U32*>(gpioWindow + offset) = value; }
};

// A window that a provider stands in for (tests, the board simulator):
// every access is a call it sees, at the same offsets.
struct Substituted {
    static U8 read8(U32 offset) {
        U8 value = 0;
        gpioHam->read8(offset, &value);
        return value;
    }
    static void write8(U32 offset, U8 value) { gpioHam->write8(offset, value); }
    static U32 read32(U32 offset) {
        U32 value = 0;
        gpioHam->read32(offset, &value);
        return value;
    }
    static void write32(U32 offset, U32 value) { gpioHam->write32(offset, value); }
};

// ---- validation on the pin path ----

// A pin's first use: allowed on the board (or the end of the process) and
// a pad of the active SoC. A number that only another SoC's table allows
// has an empty row here, which would address offset 0 of the window: it is
// refused like an unsupported one.
__attribute__((noinline, cold)) void firstUse(U8 gpio) {
    amd::validateGpio(gpio);
    if (!gpioValidated[gpio]) amd::fatal("Unsupported gpio %d\n", gpio);
}

// Every pin operation starts here; once a pin has passed, one flag test.
inline void checkPin(U8 gpio) {
    if (__builtin_expect(!gpioValidated[gpio], 0)) firstUse(gpio);
}

bool drivable(U8 gpio) { return !activePins || (gpio < activePinCount && activePins[gpio].platformMask != 0); }

// ---- Kabini ----

template <class A, bool Output>
void kabiniDirectionIs(U8 gpio) {
    if (gpio == kNoPin) return;
    checkPin(gpio);
    A::write8(kKabiniIomuxBase + gpio, gpio == kKabiniPin65 ? kKabiniPin65GpioFunction : kKabiniGpioFunction);
    // The whole byte: output level 0, so an output drives low at once.
    A::write8(kKabiniControlBase + gpio, Output ? 0 : kKabiniOutputDisabled);
}

template <class A>
void kabiniSetBit(U8 gpio, bool level) {
    if (gpio == kNoPin) return;
    checkPin(gpio);
    U8 control = A::read8(kKabiniControlBase + gpio);
    A::write8(kKabiniControlBase + gpio,
              static_cast<U8>(level ? control | kKabiniOutputLevel : control & ~kKabiniOutputLevel));
}

template <class A, U8 Bit>
bool kabiniControlBit(U8 gpio) {
    if (gpio == kNoPin) return false;
    checkPin(gpio);
    return A::read8(kKabiniControlBase + gpio) & Bit;
}

template <class A>
constexpr amd::GetBitFn kabiniGetBit = kabiniControlBit<A, kKabiniPinLevel>;
template <class A>
constexpr amd::PinFn kabiniSetInput = kabiniDirectionIs<A, false>;
template <class A>
constexpr amd::PinFn kabiniSetOutput = kabiniDirectionIs<A, true>;
template <class A>
constexpr amd::GetBitFn kabiniDirectionInput = kabiniControlBit<A, kKabiniOutputDisabled>;

// ---- the 32-bit kinds ----

// What sets the 32-bit kinds apart: their pin table, and which bits enable
// the output driver.
struct SteppeEagle {
    static constexpr const auto& pins = steppeEaglePins;
    static constexpr U32 outputEnable = kSteppeEagleOutputEnable;
};
struct R1000 {
    static constexpr const auto& pins = r1000Pins;
    static constexpr U32 outputEnable = kPadOutputEnable;
};
struct V3000 {
    static constexpr const auto& pins = v3000Pins;
    static constexpr U32 outputEnable = kPadOutputEnable;
};
struct Mosavo {
    static constexpr const auto& pins = mosavoPins;
    static constexpr U32 outputEnable = kPadOutputEnable;
};

template <class L>
U32 controlOffset(U8 gpio) {
    return 4 * L::pins[gpio].regIndex;
}

template <class A, class L, bool Output>
void padDirectionIs(U8 gpio) {
    if (gpio == kNoPin) return;
    checkPin(gpio);
    const SocGpio& row = L::pins[gpio];
    A::write8(row.iomuxOffset, static_cast<U8>(row.iomuxValue));
    // The output level stays: an output drives its previous level until set.
    U32 control = A::read32(controlOffset<L>(gpio));
    A::write32(controlOffset<L>(gpio), Output ? control | L::outputEnable : control & ~L::outputEnable);
}

template <class A, class L>
void padSetLevel(U8 gpio, bool level) {
    if (gpio == kNoPin) return;
    checkPin(gpio);
    U32 control = A::read32(controlOffset<L>(gpio));
    A::write32(controlOffset<L>(gpio), level ? control | kPadOutputLevel : control & ~kPadOutputLevel);
}

template <class A, class L, U32 Bit, bool WhenSet>
bool padControlBit(U8 gpio) {
    if (gpio == kNoPin) return false;
    checkPin(gpio);
    return ((A::read32(controlOffset<L>(gpio)) & Bit) != 0) == WhenSet;
}

template <class A, class L>
constexpr amd::GetBitFn padGetLevel = padControlBit<A, L, kPadPinLevel, true>;
template <class A, class L>
constexpr amd::GetBitFn padDirectionInput = padControlBit<A, L, kPadOutputEnable, false>;

template <class A>
constexpr amd::GetBitFn steppeEagleGetBit = padGetLevel<A, SteppeEagle>;
template <class A>
constexpr amd::SetBitFn steppeEagleSetBit = padSetLevel<A, SteppeEagle>;
template <class A>
constexpr amd::PinFn steppeEagleSetInput = padDirectionIs<A, SteppeEagle, false>;
template <class A>
constexpr amd::PinFn steppeEagleSetOutput = padDirectionIs<A, SteppeEagle, true>;
template <class A>
constexpr amd::GetBitFn steppeEagleDirectionInput = padDirectionInput<A, SteppeEagle>;

template <class A>
constexpr amd::GetBitFn r1000GetPinStatus = padGetLevel<A, R1000>;
template <class A>
constexpr amd::SetBitFn r1000SetBit = padSetLevel<A, R1000>;
template <class A>
constexpr amd::PinFn r1000SetInput = padDirectionIs<A, R1000, false>;
template <class A>
constexpr amd::PinFn r1000SetOutput = padDirectionIs<A, R1000, true>;
template <class A>
constexpr amd::GetBitFn r1000DirectionInput = padDirectionInput<A, R1000>;

template <class A>
constexpr amd::GetBitFn v3000GetPinStatus = padGetLevel<A, V3000>;
template <class A>
constexpr amd::SetBitFn v3000SetBit = padSetLevel<A, V3000>;
template <class A>
constexpr amd::PinFn v3000SetInput = padDirectionIs<A, V3000, false>;
template <class A>
constexpr amd::PinFn v3000SetOutput = padDirectionIs<A, V3000, true>;
template <class A>
constexpr amd::GetBitFn v3000DirectionInput = padDirectionInput<A, V3000>;

template <class A>
constexpr amd::GetBitFn mosavoGetPinStatus = padGetLevel<A, Mosavo>;
template <class A>
constexpr amd::SetBitFn mosavoSetBit = padSetLevel<A, Mosavo>;
template <class A>
constexpr amd::PinFn mosavoSetInput = padDirectionIs<A, Mosavo, false>;
template <class A>
constexpr amd::PinFn mosavoSetOutput = padDirectionIs<A, Mosavo, true>;
template <class A>
constexpr amd::GetBitFn mosavoDirectionInput = padDirectionInput<A, Mosavo>;

// ---- the vector path ----

// Every pin has a control register of its own (a byte on Kabini, a 32-bit
// word on the others), so nothing can be combined: a cycle costs the two
// TCK writes, plus one write for each change of TMS or TDI; no read but
// TDO's, in the cycles that want it (the per-pin path reads before every
// write). A shift first reads the three control registers.
template <class A>
struct ControlBytes {
    U32 read(U32 offset) { return A::read8(offset); }
    void write(U32 offset, U32 value) { A::write8(offset, static_cast<U8>(value)); }
};
template <class A>
struct ControlWords {
    U32 read(U32 offset) { return A::read32(offset); }
    void write(U32 offset, U32 value) { A::write32(offset, value); }
};

template <class W>
void shiftOn(Hal::VectorPins& pins, Hal::VectorControl& control, U32 nbits, const U8* tms, const U8* tdi, U8* tdo) {
    W window;
    Hal::shiftVector(window, pins, control, nbits, tms, tdi, tdo);
}
template <class W>
void pinsOn(Hal::VectorPins& pins, Hal::VectorControl& control, bool tck, bool tms, bool tdi) {
    W window;
    Hal::pinsVector(window, pins, control, tck, tms, tdi);
}

// Indexed by amd::SocKind.
template <class A>
constexpr amd::Family kFamilies[] = {
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {kabiniGetBit<A>, kabiniSetBit<A>, kabiniSetInput<A>, kabiniSetOutput<A>, kabiniDirectionInput<A>,
     shiftOn<ControlBytes<A>>, pinsOn<ControlBytes<A>>},
    {steppeEagleGetBit<A>, steppeEagleSetBit<A>, steppeEagleSetInput<A>, steppeEagleSetOutput<A>,
     steppeEagleDirectionInput<A>, shiftOn<ControlWords<A>>, pinsOn<ControlWords<A>>},
    {mosavoGetPinStatus<A>, mosavoSetBit<A>, mosavoSetInput<A>, mosavoSetOutput<A>, mosavoDirectionInput<A>,
     shiftOn<ControlWords<A>>, pinsOn<ControlWords<A>>},
    {r1000GetPinStatus<A>, r1000SetBit<A>, r1000SetInput<A>, r1000SetOutput<A>, r1000DirectionInput<A>,
     shiftOn<ControlWords<A>>, pinsOn<ControlWords<A>>},
    {v3000GetPinStatus<A>, v3000SetBit<A>, v3000SetInput<A>, v3000SetOutput<A>, v3000DirectionInput<A>,
     shiftOn<ControlWords<A>>, pinsOn<ControlWords<A>>},
};

template <class L>
void usePins() {
    activePins = L::pins.data();
    activePinCount = L::pins.size();
}

}  // namespace

namespace amd {

GetBitFn getBitFn;
SetBitFn setBitFn;
PinFn setInputFn;
PinFn setOutputFn;
ShiftFn shiftFn;
PinsFn pinsFn;

void vectorPinsOf(U8 tck, U8 tms, U8 tdi, U8 tdo, Hal::VectorPins* p) {
    p->clear();
    if (tck == kNoPin) return;
    // Kabini: the control byte of the pin; the others: the pad's control word.
    auto control = [](U8 gpio) { return activePins ? 4 * activePins[gpio].regIndex : kKabiniControlBase + gpio; };
    U32 level = activePins ? kPadOutputLevel : kKabiniOutputLevel;
    p->regOf(control(tck));
    p->tckMask = level;
    if (tms != kNoPin) p->tmsReg = p->regOf(control(tms)), p->tmsMask = level;
    if (tdi != kNoPin) p->tdiReg = p->regOf(control(tdi)), p->tdiMask = level;
    if (tdo != kNoPin) p->tdoOffset = control(tdo), p->tdoMask = activePins ? kPadPinLevel : kKabiniPinLevel;
}

const Family& family(SocKind kind, bool substituted) {
    auto index = static_cast<std::size_t>(kind);
    return substituted ? kFamilies<Substituted>[index] : kFamilies<Mapped>[index];
}

void useSoc(SocKind kind, volatile U8* mapped, Ptr<HamImpl> substituted) {
    gpioWindow = mapped;
    gpioHam = substituted;
    const Family& f = family(kind, substituted != nullptr);
    getBitFn = f.getBit;
    setBitFn = f.setBit;
    setInputFn = f.setInput;
    setOutputFn = f.setOutput;
    shiftFn = f.shift;
    pinsFn = f.pins;
    activePins = nullptr;
    activePinCount = 0;
    switch (kind) {
        case SocKind::steppeEagle: usePins<SteppeEagle>(); break;
        case SocKind::mosavo: usePins<Mosavo>(); break;
        case SocKind::r1000: usePins<R1000>(); break;
        case SocKind::v3000: usePins<V3000>(); break;
        case SocKind::kabini:
        case SocKind::none: break;
    }
    std::fill(std::begin(gpioValidated), std::end(gpioValidated), false);
}

void validateGpio(U8 gpio) {
    if (gpioValidated[gpio]) return;
    if (steppeEaglePins[gpio].gpio != gpio || mosavoPins[gpio].gpio != gpio || r1000Pins[gpio].gpio != gpio)
        fatal("Internal gpio error, exiting\n");
    U32 platformClass = static_cast<U32>(validatePlatform());
    // Any table that allows the number on this class will do; V3000 has
    // rows for GPIO 0 to 148 only.
    bool allowed = (steppeEaglePins[gpio].platformMask & platformClass) ||
                   (mosavoPins[gpio].platformMask & platformClass) || (r1000Pins[gpio].platformMask & platformClass) ||
                   (gpio < v3000Pins.size() && (v3000Pins[gpio].platformMask & platformClass));
    if (!allowed) fatal("Unsupported gpio %d\n", gpio);
    gpioValidated[gpio] = drivable(gpio);
}

bool validated(U8 gpio) { return gpioValidated[gpio]; }

}  // namespace amd
