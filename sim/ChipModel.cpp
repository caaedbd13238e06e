#include "sim/ChipModel.h"

#include "os/SignalGate.h"

namespace sim {

namespace {

U8 withBit(U8 byte, unsigned bit, bool level) {
    return static_cast<U8>(level ? byte | (1u << bit) : byte & ~(1u << bit));
}

// The byte-wide GPIO control of the SB820 and of the Kabini FCH.
constexpr U32 kByteControl = 0x100;
constexpr unsigned kByteOutputOff = 5, kByteOutputLevel = 6, kBytePinLevel = 7;

Drive byteControlDrive(U8 control) {
    return {!((control >> kByteOutputOff) & 1), ((control >> kByteOutputLevel) & 1) != 0};
}

bool isByteControl(U32 offset) { return offset >= kByteControl && offset < kByteControl + 256; }

}  // namespace

// ---- registers ----

const ChipModel::Page* ChipModel::pageOf(U32 offset) const {
    U32 no = offset >> kPageShift;
    if (lastPage_ && lastPageNo_ == no) return lastPage_;
    auto it = pages_.find(no);
    if (it == pages_.end()) return nullptr;
    lastPageNo_ = no;
    return lastPage_ = &it->second;
}

U8 ChipModel::storedByte(U32 offset) const {
    U32 at = offset & ((1u << kPageShift) - 1);
    const Page* p = pageOf(offset);
    return p && p->written[at] ? p->bytes[at] : resetByte(offset);
}

U32 ChipModel::stored(U32 offset, int width) const {
    U32 v = 0, at = offset & ((1u << kPageShift) - 1);
    const Page* p = pageOf(offset);
    bool onePage = at + width / 8 <= (1u << kPageShift);
    for (int i = 0; i < width / 8; ++i) {
        U8 b = !onePage ? storedByte(offset + i)
               : p && p->written[at + i] ? p->bytes[at + i]
                                         : resetByte(offset + i);
        v |= static_cast<U32>(b) << (8 * i);
    }
    return v;
}

void ChipModel::poke(U32 offset, U32 value, int width) {
    for (int i = 0; i < width / 8; ++i) {
        U32 o = offset + i, at = o & ((1u << kPageShift) - 1);
        Page* p = const_cast<Page*>(pageOf(o));
        if (!p) p = &pages_[o >> kPageShift];
        p->bytes[at] = static_cast<U8>(value >> (8 * i));
        p->written[at] = true;
    }
}

std::map<U32, U8> ChipModel::contents() const {
    std::map<U32, U8> all;
    for (const auto& [no, page] : pages_)
        for (U32 at = 0; at < page.bytes.size(); ++at)
            if (page.written[at]) all[(no << kPageShift) | at] = page.bytes[at];
    return all;
}

U32 ChipModel::seen(U32 offset, int width) const {
    U32 v = 0;
    for (int i = 0; i < width / 8; ++i) v |= static_cast<U32>(byteSeen(offset + i)) << (8 * i);
    return v;
}

U32 ChipModel::read(U32 offset, int width) {
    Os::GateHold hold;  // a signal's handler waits for the end of the access
    U32 v = seen(offset, width);
    if (onAccess) onAccess({'R', width, offset, v, v});
    return v;
}

void ChipModel::write(U32 offset, U32 value, int width) {
    Os::GateHold hold;
    U32 before = seen(offset, width);
    poke(offset, value, width);
    if (onAccess) onAccess({'W', width, offset, value, before});
}

int ChipModel::read32(U32 offset, U32* out) {
    *out = read(offset, 32);
    return 0;
}
int ChipModel::write32(U32 offset, U32 value) {
    write(offset, value, 32);
    return 0;
}
int ChipModel::read16(U32 offset, U16* out) {
    *out = static_cast<U16>(read(offset, 16));
    return 0;
}
int ChipModel::read8(U32 offset, U8* out) {
    *out = static_cast<U8>(read(offset, 8));
    return 0;
}
int ChipModel::write8(U32 offset, U8 value) {
    write(offset, value, 8);
    return 0;
}

// ---- pins ----

Drive ChipModel::drive(U32) const { return {}; }

bool ChipModel::level(U32 pin) const {
    Drive d = drive(pin);
    if (d.driven) return d.level;
    auto it = external_.find(pin);
    return it == external_.end() || it->second;
}

U8 ChipModel::levelsByte(U32 offset, U32 pinBase, unsigned count) const {
    U8 b = storedByte(offset);
    for (unsigned i = 0; i < count; ++i) b = withBit(b, i, level(pinBase + i));
    return b;
}

// ---- SB820 ----

Drive Sb820Model::drive(U32 gpio) const {
    return gpio < 256 ? byteControlDrive(storedByte(kByteControl + gpio)) : Drive{};
}

U8 Sb820Model::byteSeen(U32 offset) const {
    U8 b = storedByte(offset);
    return isByteControl(offset) ? withBit(b, kBytePinLevel, level(offset - kByteControl)) : b;
}

U8 Sb820Model::resetByte(U32 offset) const {
    return isByteControl(offset) ? 1u << kByteOutputOff : 0;  // every GPIO starts as an input
}

// ---- FCH GPIO ----

namespace {
constexpr U32 kIomux = 0xD00;
constexpr U8 kKabiniGpioFunction = 3, kKabiniPin65Function = 1;
constexpr U32 kWideControl = 0x1500;
constexpr unsigned kWidePinLevel = 16, kSteppeEagleEnable = 17, kWideOutputLevel = 22, kWideOutputEnable = 23;
}  // namespace

FchGpioModel::FchGpioModel(std::string window, FchLayout layout, std::map<U32, U8> gpioFunction)
    : ChipModel(std::move(window)), layout_(layout), gpioFunction_(std::move(gpioFunction)) {}

bool FchGpioModel::routed(U32 pad) const {
    U8 mux = storedByte(kIomux + pad);
    if (layout_ == FchLayout::kabini) return mux == (pad == 65 ? kKabiniPin65Function : kKabiniGpioFunction);
    auto it = gpioFunction_.find(pad);
    return it == gpioFunction_.end() || mux == it->second;
}

Drive FchGpioModel::drive(U32 pad) const {
    if (pad >= 256 || !routed(pad)) return {};
    if (layout_ == FchLayout::kabini) return byteControlDrive(storedByte(kByteControl + pad));
    U32 control = stored(kWideControl + 4 * pad, 32);
    bool enabled = (control >> kWideOutputEnable) & 1;
    if (layout_ == FchLayout::steppeEagle) enabled = enabled && ((control >> kSteppeEagleEnable) & 1);
    return {enabled, ((control >> kWideOutputLevel) & 1) != 0};
}

U8 FchGpioModel::byteSeen(U32 offset) const {
    U8 b = storedByte(offset);
    if (layout_ == FchLayout::kabini)
        return isByteControl(offset) ? withBit(b, kBytePinLevel, level(offset - kByteControl)) : b;
    U32 levelByte = kWideControl + kWidePinLevel / 8;
    if (offset >= levelByte && offset < levelByte + 4 * 256 && (offset - levelByte) % 4 == 0)
        return withBit(b, kWidePinLevel % 8, level((offset - levelByte) / 4));
    return b;
}

U8 FchGpioModel::resetByte(U32 offset) const {
    return layout_ == FchLayout::kabini && isByteControl(offset) ? 1u << kByteOutputOff : 0;
}

// ---- Cave Creek ----

namespace {
constexpr U32 kUseSelect[3] = {0x00, 0x30, 0x40};
constexpr U32 kIoSelect[3] = {0x04, 0x34, 0x44};
constexpr U32 kLevel[3] = {0x0c, 0x38, 0x48};
}  // namespace

Drive CaveCreekModel::drive(U32 gpio) const {
    if (gpio >= 96) return {};
    U32 bank = gpio / 32, bit = gpio % 32;
    bool gpioUse = (stored(base_ + kUseSelect[bank], 32) >> bit) & 1;
    bool input = (stored(base_ + kIoSelect[bank], 32) >> bit) & 1;
    return {gpioUse && !input, ((stored(base_ + kLevel[bank], 32) >> bit) & 1) != 0};
}

U8 CaveCreekModel::byteSeen(U32 port) const {
    for (U32 bank = 0; bank < 3; ++bank)
        if (port >= base_ + kLevel[bank] && port < base_ + kLevel[bank] + 4)
            return levelsByte(port, 32 * bank + 8 * (port - base_ - kLevel[bank]));
    return storedByte(port);
}

U8 CaveCreekModel::resetByte(U32 port) const {
    for (U32 bank = 0; bank < 3; ++bank)
        if (port >= base_ + kIoSelect[bank] && port < base_ + kIoSelect[bank] + 4) return 0xff;  // inputs
    return 0;
}

// ---- Cedar Fork ----

namespace {
constexpr U32 kPadStride = 0x10;
constexpr unsigned kTxState = 0, kRxState = 1, kTxDisable = 8, kRxDisable = 9;
}  // namespace

Drive CedarForkModel::drive(U32 pad) const {
    if (pad % kPadStride) return {};
    U32 dw0 = stored(pad, 32);
    return {!((dw0 >> kTxDisable) & 1), ((dw0 >> kTxState) & 1) != 0};
}

U8 CedarForkModel::byteSeen(U32 offset) const {
    U8 b = storedByte(offset);
    if (offset % kPadStride) return b;
    bool rxOn = !storedBit(offset, kRxDisable);
    return withBit(b, kRxState, rxOn && level(offset));
}

U8 CedarForkModel::resetByte(U32 offset) const {
    return offset % kPadStride == kTxDisable / 8 ? 1u << (kTxDisable % 8) : 0;  // TX off, RX on: an input
}

// ---- PEX 8600 ----

namespace {
constexpr U32 kPex8600Dir = 0x62C, kPex8600In = 0x63C, kPex8600Out = 0x644;
}

Drive PlxPex8600Model::drive(U32 gpio) const {
    if (gpio >= 32) return {};
    U32 group = gpio / 16, n = gpio % 16;
    U32 dir = (stored(kPex8600Dir + 4 * group, 32) >> (2 * n)) & 3;
    return {dir == 2, ((stored(kPex8600Out + 4 * group, 32) >> n) & 1) != 0};
}

U8 PlxPex8600Model::byteSeen(U32 offset) const {
    if (offset >= kPex8600In && offset < kPex8600In + 8) {
        U32 group = (offset - kPex8600In) / 4, byte = (offset - kPex8600In) % 4;
        if (byte < 2) return levelsByte(offset, 16 * group + 8 * byte);
    }
    return storedByte(offset);
}

// ---- PEX 8700 ----

namespace {
constexpr U32 kPex8700Block = 0x354, kPex8700BlockMask = 0x1f, kPex8700BlockSize = 0x1000;
constexpr unsigned kPex8700Pins = 11, kPex8700Output = 4;
}  // namespace

PlxPex8700Model::PlxPex8700Model(std::string window, U32 blockRegister) : ChipModel(std::move(window)) {
    poke(kPex8700Block, blockRegister);
}

PlxPex8700Model::Block PlxPex8700Model::block(bool relocated) const {
    if (!relocated) return {0x600, 0x604, 0x61C, 0x624};
    U32 b = (stored(kPex8700Block, 32) & kPex8700BlockMask) * kPex8700BlockSize;
    return {b + 0xA34, b + 0xA38, b + 0xA44, b + 0xA48};
}

Drive PlxPex8700Model::drive(U32 pin) const {
    U32 p = pin & ~kRelocated;
    if (p >= kPex8700Pins) return {};
    Block r = block(pin & kRelocated);
    U32 dir = p == 10 ? stored(r.dir10, 32) & 7 : (stored(r.dir, 32) >> (3 * p)) & 7;
    return {dir == kPex8700Output, ((stored(r.out, 32) >> p) & 1) != 0};
}

U8 PlxPex8700Model::byteSeen(U32 offset) const {
    for (bool relocated : {false, true}) {
        U32 in = block(relocated).in;
        U32 pinBase = relocated ? kRelocated : 0;
        if (offset == in) return levelsByte(offset, pinBase);
        if (offset == in + 1) return levelsByte(offset, pinBase + 8, kPex8700Pins - 8);
    }
    return storedByte(offset);
}

// ---- Pericom Gen3 ----

namespace {
constexpr U32 kPericomDir = 0x31C, kPericomIn = 0x328, kPericomOut = 0x330;
}

Drive PericomGen3Model::drive(U32 pin) const {
    U32 base = pin & kSecondBlock, gpio = pin & ~kSecondBlock;
    if (gpio >= 32) return {};
    U32 bank = gpio / 16, n = gpio % 16;
    bool output = (stored(base + kPericomDir + 4 * bank, 32) >> (2 * n + 1)) & 1;
    return {output, ((stored(base + kPericomOut + 4 * bank, 32) >> n) & 1) != 0};
}

U8 PericomGen3Model::byteSeen(U32 offset) const {
    U32 base = offset & kSecondBlock, local = offset & ~kSecondBlock;
    if (local >= kPericomIn && local < kPericomIn + 8) {
        U32 bank = (local - kPericomIn) / 4, byte = (local - kPericomIn) % 4;
        if (byte < 2) return levelsByte(offset, base | (16 * bank + 8 * byte));
    }
    return storedByte(offset);
}

// ---- Intel GbE ----

namespace {
struct Sdp {
    U32 reg;
    unsigned data, dir;
};
constexpr Sdp kSdps[4] = {
    {IntelGbeModel::kCtrl, 18, 22},
    {IntelGbeModel::kCtrl, 19, 23},
    {IntelGbeModel::kCtrlExt, 6, 10},
    {IntelGbeModel::kCtrlExt, 7, 11},
};
// Contents out of reset, for registers other bits of which the pin code
// must carry along untouched: link settings in CTRL, LED defaults.
constexpr U32 kCtrlReset = 0x00100241;  // full duplex, set link up, auto speed, a reserved-as-one bit
constexpr U32 kLedDefault0 = 0x2003E, kLedDefault1 = 0x20038;
constexpr U16 kLedDefault0Word = 0x0e02;  // LED0 mode 2, LED2 mode 0xe
constexpr U16 kLedDefault1Word = 0x0003;  // LED1 mode 3
}  // namespace

IntelGbeModel::IntelGbeModel(std::string window) : ChipModel(std::move(window)) {
    poke(kCtrl, kCtrlReset);
    poke(kLedDefault0, kLedDefault0Word, 16);
    poke(kLedDefault1, kLedDefault1Word, 16);
    poke(kLedCtl, (kLedDefault0Word & 0xff) | (kLedDefault1Word & 0xff) << 8 | (kLedDefault0Word >> 8) << 16);
}

Drive IntelGbeModel::drive(U32 sdp) const {
    if (sdp >= 4) return {};
    const Sdp& s = kSdps[sdp];
    U32 reg = stored(s.reg, 32);
    return {((reg >> s.dir) & 1) != 0, ((reg >> s.data) & 1) != 0};
}

U8 IntelGbeModel::byteSeen(U32 offset) const {
    U8 b = storedByte(offset);
    for (U32 sdp = 0; sdp < 4; ++sdp)
        if (offset == kSdps[sdp].reg + kSdps[sdp].data / 8) b = withBit(b, kSdps[sdp].data % 8, level(sdp));
    return b;
}

}  // namespace sim
