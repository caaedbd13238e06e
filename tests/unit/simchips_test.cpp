// The chip models on their own: register writes through the window
// interface give pin directions and levels, reads present pin levels, and
// muxes, use-selects and relocated blocks decide which registers count.
#include <gtest/gtest.h>

#include "sim/ChipModel.h"

using namespace sim;

namespace {

// A read through the window, 8 or 32 bits wide.
U32 r(ChipModel& c, U32 offset, int width = 32) {
    U8 byte = 0;
    U32 word = 0;
    width == 8 ? c.read8(offset, &byte) : c.read32(offset, &word);
    return width == 8 ? byte : word;
}

// What the chip does with each of pins: "1" or "0" driven, "z" left to the outside world.
std::string drives(const ChipModel& c, std::initializer_list<U32> pins) {
    std::string s;
    for (U32 pin : pins) s += c.drive(pin).driven ? (c.drive(pin).level ? '1' : '0') : 'z';
    return s;
}

// A write through the window, what a read of that register then sees, and
// what the chip then does with the test's pins. The pins are outside
// pulled high unless a test says otherwise.
struct Step {
    int width;
    U32 offset, value, reads;
    const char* drives;
};

void expectSteps(ChipModel& c, std::initializer_list<U32> pins, std::initializer_list<Step> steps) {
    for (const Step& s : steps) {
        SCOPED_TRACE(::testing::Message() << "W" << s.width << " 0x" << std::hex << s.offset << "=0x" << s.value);
        if (s.width == 8) c.write8(s.offset, static_cast<U8>(s.value));
        if (s.width == 32) c.write32(s.offset, s.value);
        EXPECT_EQ(r(c, s.offset, s.width), s.reads);
        EXPECT_EQ(drives(c, pins), s.drives);
    }
}

}  // namespace

TEST(SimChips, Sb820ControlByteBits) {
    Sb820Model c("theSb820Ham");
    EXPECT_EQ(r(c, 0x1bd, 8), 0xa0u);  // input out of reset; the pull-up reads high
    EXPECT_EQ(drives(c, {189}), "z");
    expectSteps(c, {189},
                {{8, 0x1bd, 0x80, 0x00, "0"},  // output disable cleared: its level bit; bit 7 the pin
                 {8, 0x1bd, 0x40, 0xc0, "1"},
                 {8, 0x1bd, 0x60, 0xe0, "z"}});  // output disabled again
    c.externalLevelIs(61, false);
    EXPECT_EQ(r(c, 0x13d, 8), 0x20u);
}

TEST(SimChips, KabiniDrivesOnlyThroughTheGpioIomuxFunction) {
    FchGpioModel c("gpioWindow", FchLayout::kabini);
    expectSteps(c, {57, 65},
                {{8, 0x100 + 57, 0x00, 0x80, "zz"},  // IOMUX still 0
                 {8, 0xD00 + 57, 3, 3, "0z"},
                 {8, 0x100 + 57, 0x40, 0xc0, "1z"},
                 {8, 0x100 + 65, 0x40, 0xc0, "1z"},
                 {8, 0xD00 + 65, 3, 3, "1z"},  // pin 65's GPIO function is 1
                 {8, 0xD00 + 65, 1, 1, "11"},
                 {8, 0x100 + 57, 0x20, 0xa0, "z1"}});
}

TEST(SimChips, SteppeEagleNeedsBits23And17AndTheTableFunction) {
    FchGpioModel c("gpioWindow", FchLayout::steppeEagle, {{0x1B, 1}});
    const U32 ctl = 0x1500 + 4 * 0x1B;
    expectSteps(c, {0x1B},
                {{8, 0xD00 + 0x1B, 1, 1, "z"},
                 {32, ctl, 0x00c00000, 0x00c10000, "z"},  // enable and level, bit 17 missing
                 {32, ctl, 0x00c20000, 0x00c30000, "1"},  // bit 16 reads the pin
                 {32, ctl, 0x00820000, 0x00820000, "0"},
                 {8, 0xD00 + 0x1B, 2, 2, "z"}});  // routed elsewhere
}

TEST(SimChips, OtherWideLayoutsDriveWithBit23Alone) {
    FchGpioModel c("gpioWindow", FchLayout::wide, {{131, 3}});
    expectSteps(c, {131},
                {{32, 0x1500 + 4 * 131, 0x00c00000, 0x00c10000, "z"},  // IOMUX 0: not its GPIO function
                 {8, 0xD00 + 131, 3, 3, "1"}});
    c.externalLevelIs(132, false);
    EXPECT_EQ(r(c, 0x1500 + 4 * 132), 0x0u);
}

TEST(SimChips, CaveCreekUseSelectAndIoSelectPerBank) {
    CaveCreekModel c("theCaveCreekPCHIOHam", 0x580);
    EXPECT_EQ(r(c, 0x584), 0xffffffffu);  // every pin an input out of reset
    // GPIO 44: bank 1, bit 12; GPIO 65: bank 2, bit 1. The level register
    // reads the pins: an output its own level, the inputs high.
    expectSteps(c, {44, 65},
                {{32, 0x5b4, 0xffffefff, 0xffffefff, "zz"},  // an output, but not yet a GPIO
                 {32, 0x5b0, 1u << 12, 1u << 12, "0z"},
                 {32, 0x5b8, 1u << 12, 0xffffffff, "1z"},
                 {32, 0x5b8, 0, 0xffffefff, "0z"},
                 {32, 0x5c0, 1u << 1, 1u << 1, "0z"}});  // a GPIO, still an input
    c.externalLevelIs(3, false);
    EXPECT_EQ(r(c, 0x58c), 0xfffffff7u);
}

TEST(SimChips, CedarForkTxAndRxBuffers) {
    CedarForkModel c("CedarForkGpioHam");
    const U32 pad = 0xC50910, tdo = 0xC50930;
    EXPECT_EQ(c.peek(pad), 0x100u);  // TX off, RX on
    expectSteps(c, {pad, tdo},
                {{32, pad, 0x44000201, 0x44000201, "1z"},  // RX off: RX state 0 though the pad is high
                 {32, tdo, 0x100, 0x102, "1z"},
                 {32, tdo, 0x300, 0x300, "1z"}});  // RX disabled: the input reads 0
}

TEST(SimChips, PlxPex8600DirectionPairs) {
    PlxPex8600Model c("theJamHam");
    expectSteps(c, {21},
                {{32, 0x630, 0x2u << 10, 0x2u << 10, "0"},  // GPIO 21: group 1, n 5, binary 10
                 {32, 0x648, 1u << 5, 1u << 5, "1"},
                 {32, 0x630, 0x1u << 10, 0x1u << 10, "z"},
                 {32, 0x630, 0x3u << 10, 0x3u << 10, "z"}});
    c.externalLevelIs(19, false);
    EXPECT_EQ(r(c, 0x640), 0xfff7u);  // only 16 pins per group
}

TEST(SimChips, PlxPex8700DefaultAndRelocatedBlocks) {
    PlxPex8700Model c("PlxPex8700Ham", 0x63);  // block 3, bits above it set
    const U32 moved = PlxPex8700Model::kRelocated;
    expectSteps(c, {9, moved | 9, 10, moved | 10},
                {{32, 0x600, 4u << 27, 4u << 27, "0zzz"},  // GPIO 9 an output
                 {32, 0x624, 1u << 9, 1u << 9, "1zzz"},
                 {32, 0x604, 4, 4, "1z0z"},  // GPIO 10's register, whole
                 {32, 0x604, 0, 0, "1zzz"},
                 // The relocated block: 3 x 0x1000 + 0xA34 ...
                 {32, 0x3A38, 4, 4, "1zz0"},
                 {32, 0x3A48, 1u << 10, 1u << 10, "1zz1"},
                 // where an unmasked block number would put it: nothing
                 {32, 0x63A48, 0, 0, "1zz1"}});
    c.externalLevelIs(moved | 6, false);
    EXPECT_EQ(r(c, 0x3A44) & 0x7ff, 0x7ffu & ~(1u << 6));
    EXPECT_EQ(r(c, 0x61C) & 0x7ff, 0x7ffu);  // undriven pins read high
}

TEST(SimChips, PericomBlocksAreSeparate) {
    PericomGen3Model c("PericomGen3Ham");
    const U32 second = PericomGen3Model::kSecondBlock;
    expectSteps(c, {second | 0, 0},
                {{32, second + 0x31C, 0x2, 0x2, "0z"},  // GPIO 0 of the second block: bit 2n+1
                 {32, second + 0x330, 0x1, 0x1, "1z"},
                 {32, second + 0x31C, 0x1, 0x1, "zz"}});  // bit 2n alone does not drive
    c.externalLevelIs(3, false);
    EXPECT_EQ(r(c, 0x328) & 0xf, 0x7u);
    EXPECT_EQ(r(c, second + 0x328) & 0xf, 0xfu);
}

TEST(SimChips, GbeSdpBitsAndLedDefaults) {
    IntelGbeModel c("0_3_0_jtag");
    EXPECT_EQ(c.peek(IntelGbeModel::kCtrl), 0x00100241u);
    EXPECT_EQ(drives(c, {0, 1, 2, 3}), "zzzz");
    // SDP0 out high, SDP1 an input pulled up; SDP2 out low, SDP3 an input.
    expectSteps(c, {0, 1, 2, 3},
                {{32, IntelGbeModel::kCtrl, 0x00500241 | 1u << 18, 0x005c0241, "1zzz"},
                 {32, IntelGbeModel::kCtrlExt, 1u << 10, 1u << 10 | 1u << 7, "1z0z"}});
    c.externalLevelIs(3, false);
    EXPECT_EQ(r(c, IntelGbeModel::kCtrlExt), 1u << 10);
    // LED control as the NVM defaults set it: LED0 2, LED1 3, LED2 0xe.
    EXPECT_EQ(c.peek(IntelGbeModel::kLedCtl), 0x000e0302u);
    U16 word;
    c.read16(0x2003E, &word);
    EXPECT_EQ(word, 0x0e02);
}

// The bytes a model keeps: a byte never written reads as the chip's reset
// value, and a register may straddle the model's internal pages (4 KiB)
// without a byte of it lost or taken from the wrong page.
TEST(SimChips, StoredBytesAcrossPagesAndResetValues) {
    struct Chip : ChipModel {
        using ChipModel::ChipModel;
        U8 resetByte(U32 offset) const override { return static_cast<U8>(offset); }
    } c("test");
    c.write8(0x1fff, 0x5a);
    EXPECT_EQ(c.peek(0x1ffe), 0x01005afeu);  // reset, written, reset from the next page
    c.write32(0x40000, 0xcafef00d);
    c.write32(0x1ffe, 0x11223344);
    EXPECT_EQ(r(c, 0x1ffe), 0x11223344u);
    EXPECT_EQ(r(c, 0x2000, 8), 0x22u);
    EXPECT_EQ(c.peek(0x1ffc), 0x3344fdfcu);
    std::map<U32, U8> want{{0x1ffe, 0x44}, {0x1fff, 0x33}, {0x2000, 0x22}, {0x2001, 0x11},
                           {0x40000, 0x0d}, {0x40001, 0xf0}, {0x40002, 0xfe}, {0x40003, 0xca}};
    EXPECT_EQ(c.contents(), want);
}
