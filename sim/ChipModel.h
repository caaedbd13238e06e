// Register-level models of the chips whose GPIO pins carry JTAG. Each is a
// HamImpl, so it stands behind a register window and sees every access the
// production code makes. A model keeps the registers as bytes, presents pin
// levels in the bits that read them, and tells from its direction, mux and
// output bits what it does with each pin: drive it high or low, or leave it
// to the outside world.
#pragma once
#include <array>
#include <bitset>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>

#include "ham/Ham.h"

namespace sim {

// What a chip does with one pin.
struct Drive {
    bool driven = false;
    bool level = false;
};

class ChipModel : public HamImpl {
  public:
    explicit ChipModel(std::string window) : window_(std::move(window)) {}

    int read32(U32 offset, U32* out) override;
    int write32(U32 offset, U32 value) override;
    int read16(U32 offset, U16* out) override;
    int read8(U32 offset, U8* out) override;
    int write8(U32 offset, U8 value) override;

    // The chip's own use of a pin, in the chip's pin numbering. A model
    // without pins (a window nobody modelled) drives nothing.
    virtual Drive drive(U32 pin) const;
    // The level that the outside world puts on a pin the chip does not
    // drive; high until told otherwise, as pull-ups make it.
    void externalLevelIs(U32 pin, bool level) { external_[pin] = level; }
    // The level on the pin: the chip's drive, else the outside world's.
    bool level(U32 pin) const;

    // Register contents as stored, without logging: set-up and inspection.
    void poke(U32 offset, U32 value, int width = 32);
    U32 peek(U32 offset, int width = 32) const { return stored(offset, width); }
    // What a read would see now (pin levels included), without logging.
    U32 seen(U32 offset, int width = 32) const;
    // Every byte written so far, by offset.
    std::map<U32, U8> contents() const;

    struct Access {
        char op;    // 'R' or 'W'
        int width;  // 8, 16 or 32
        U32 offset;
        U32 value;   // what was read or written
        U32 before;  // what a read saw just before a write
    };
    // Called after every access through the window.
    std::function<void(const Access&)> onAccess;
    const std::string& window() const { return window_; }

  protected:
    // What a read of one byte sees: the stored byte, unless the chip
    // presents pin levels there.
    virtual U8 byteSeen(U32 offset) const { return storedByte(offset); }
    // A register's content before anything is written to it.
    virtual U8 resetByte(U32) const { return 0; }

    U8 storedByte(U32 offset) const;
    U32 stored(U32 offset, int width) const;
    bool storedBit(U32 offset, unsigned bit) const { return (stored(offset + bit / 8, 8) >> (bit % 8)) & 1; }
    // The byte at offset as read when its bits 0 to count-1 present the
    // levels of pins pinBase, pinBase+1, ...; the other bits as stored.
    U8 levelsByte(U32 offset, U32 pinBase, unsigned count = 8) const;

  private:
    U32 read(U32 offset, int width);
    void write(U32 offset, U32 value, int width);

    // The bytes written so far, in pages of the window: a model is consulted
    // dozens of times per access (every pin's drive and level), and nearly
    // always in the page it was last, so that page is kept at hand.
    static constexpr unsigned kPageShift = 12;
    struct Page {
        std::array<U8, 1u << kPageShift> bytes{};
        std::bitset<1u << kPageShift> written;
    };
    const Page* pageOf(U32 offset) const;

    std::string window_;
    std::unordered_map<U32, Page> pages_;  // by offset >> kPageShift; nodes never move
    mutable const Page* lastPage_ = nullptr;
    mutable U32 lastPageNo_ = 0;
    std::unordered_map<U32, bool> external_;
};

// AMD SB820 GPIO: GPIO n has the control byte at 0x100 + n.
// Bit 5 output disabled, bit 6 output level, bit 7 pin level (read).
class Sb820Model : public ChipModel {
  public:
    using ChipModel::ChipModel;
    Drive drive(U32 gpio) const override;

  protected:
    U8 byteSeen(U32 offset) const override;
    U8 resetByte(U32 offset) const override;
};

// The AMD FCH GPIO block, in one of its SoC layouts:
// - byte-wide (Kabini): the SB820 control byte at 0x100 + n, and the pad's
//   IOMUX byte at 0xD00 + n, which must hold 3 (1 for pin 65) to route the
//   pad to GPIO; pins are numbered by GPIO number;
// - 32-bit (Steppe Eagle, R1000, V3000, the board-specific SoC): pad k has
//   its control register at 0x1500 + 4k (bit 16 pin level, bit 22 output
//   level, bit 23 output enable; Steppe Eagle's driver needs bit 17 as
//   well) and its IOMUX byte at 0xD00 + k; pins are numbered by pad.
enum class FchLayout { kabini, steppeEagle, wide };

class FchGpioModel : public ChipModel {
  public:
    // gpioFunction: the IOMUX value that routes each pad to GPIO, for the
    // 32-bit layouts; a pad not listed counts as routed whatever it holds.
    FchGpioModel(std::string window, FchLayout layout, std::map<U32, U8> gpioFunction = {});
    Drive drive(U32 pad) const override;
    FchLayout layout() const { return layout_; }

  protected:
    U8 byteSeen(U32 offset) const override;
    U8 resetByte(U32 offset) const override;

  private:
    bool routed(U32 pad) const;

    FchLayout layout_;
    std::map<U32, U8> gpioFunction_;
};

// Intel Cave Creek GPIO in I/O space: three banks of 32 at gpioBase, each
// with use-select (1: GPIO), I/O-select (1: input) and level registers at
// +0x00/0x04/0x0c, +0x30/0x34/0x38 and +0x40/0x44/0x48. A pin drives only
// as a GPIO and an output.
class CaveCreekModel : public ChipModel {
  public:
    CaveCreekModel(std::string window, U32 gpioBase) : ChipModel(std::move(window)), base_(gpioBase) {}
    Drive drive(U32 gpio) const override;

  protected:
    U8 byteSeen(U32 port) const override;
    U8 resetByte(U32 port) const override;

  private:
    U32 base_;
};

// Intel Cedar Fork pads: the DW0 register of each pad (16-byte stride),
// named by its offset in the window. Bit 0 TX state (output level), bit 1
// RX state (pin level, 0 while the input buffer is off), bit 8 TX disable,
// bit 9 RX disable. Pads start as inputs.
class CedarForkModel : public ChipModel {
  public:
    using ChipModel::ChipModel;
    Drive drive(U32 pad) const override;

  protected:
    U8 byteSeen(U32 offset) const override;
    U8 resetByte(U32 offset) const override;
};

// PLX PEX 8600 GPIO 0-31, in groups of 16: direction at 0x62C + 4g (two
// bits per pin, binary 10 = output), input data at 0x63C + 4g, output data
// at 0x644 + 4g.
class PlxPex8600Model : public ChipModel {
  public:
    using ChipModel::ChipModel;
    Drive drive(U32 gpio) const override;

  protected:
    U8 byteSeen(U32 offset) const override;
};

// PLX PEX 8700 GPIO 0-10: direction at 0x600 (three bits per pin 0-9,
// binary 100 = output) and 0x604 (pin 10, low three bits), input data at
// 0x61C, output data at 0x624. On boards that relocate the block, the
// same registers sit at b x 0x1000 + 0xA34, 0xA38, 0xA44 and 0xA48, b being
// bits 4-0 of the register at 0x354; those pins are numbered
// kRelocated | p.
class PlxPex8700Model : public ChipModel {
  public:
    static constexpr U32 kRelocated = 0x100;
    PlxPex8700Model(std::string window, U32 blockRegister);
    Drive drive(U32 pin) const override;

  protected:
    U8 byteSeen(U32 offset) const override;

  private:
    struct Block {
        U32 dir, dir10, in, out;
    };
    Block block(bool relocated) const;
};

// Pericom Gen3 GPIO 0-31 in two register blocks, at 0 and 0x10000: for
// bank b (GPIO / 16), direction at 0x31C + 4b (bit 2n+1 set = output),
// input data at 0x328 + 4b, output data at 0x330 + 4b. Pins are numbered
// blockBase | gpio.
class PericomGen3Model : public ChipModel {
  public:
    static constexpr U32 kSecondBlock = 0x10000;
    using ChipModel::ChipModel;
    Drive drive(U32 pin) const override;

  protected:
    U8 byteSeen(U32 offset) const override;
};

// Intel GbE software-definable pins SDP0-3: SDP0 and SDP1 in CTRL (0x0000,
// data bits 18 and 19, direction bits 22 and 23), SDP2 and SDP3 in CTRL_EXT
// (0x0018, data bits 6 and 7, direction bits 10 and 11); a set direction
// bit makes the pin an output. The LED control register at 0xE000 has an
// 8-bit field per LED (mode in the low four bits, blink in the top bit);
// it comes out of reset as the default words at 0x2003E (LED0 low byte,
// LED2 high byte) and 0x20038 (LED1 low byte) say.
class IntelGbeModel : public ChipModel {
  public:
    static constexpr U32 kCtrl = 0x0000, kCtrlExt = 0x0018, kLedCtl = 0xE000;
    explicit IntelGbeModel(std::string window);
    Drive drive(U32 sdp) const override;

  protected:
    U8 byteSeen(U32 offset) const override;
};

}  // namespace sim
