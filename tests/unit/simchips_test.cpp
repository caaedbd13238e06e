// The chip models on their own: register writes through the window
// interface give pin directions and levels, reads present pin levels, and
// muxes, use-selects and relocated blocks decide which registers count.
#include <gtest/gtest.h>

#include "sim/ChipModel.h"

using namespace sim;

namespace {

std::string driveOf(const ChipModel& c, U32 pin) {
    Drive d = c.drive(pin);
    return d.driven ? (d.level ? "1" : "0") : "z";
}

U8 r8(ChipModel& c, U32 offset) {
    U8 v;
    c.read8(offset, &v);
    return v;
}
U32 r32(ChipModel& c, U32 offset) {
    U32 v;
    c.read32(offset, &v);
    return v;
}

}  // namespace

TEST(SimChips, Sb820ControlByteBits) {
    Sb820Model c("theSb820Ham");
    EXPECT_EQ(r8(c, 0x1bd), 0xa0);  // input out of reset; the pull-up reads high
    EXPECT_EQ(driveOf(c, 189), "z");
    c.write8(0x1bd, 0x80);  // output disable cleared: drives its level bit, 0
    EXPECT_EQ(driveOf(c, 189), "0");
    EXPECT_EQ(r8(c, 0x1bd), 0x00);  // bit 7 reads the pin, now low
    c.write8(0x1bd, 0x40);
    EXPECT_EQ(driveOf(c, 189), "1");
    c.write8(0x1bd, 0x60);  // output disabled again
    EXPECT_EQ(driveOf(c, 189), "z");
    c.externalLevelIs(61, false);
    EXPECT_EQ(r8(c, 0x13d), 0x20);
    c.externalLevelIs(61, true);
    EXPECT_EQ(r8(c, 0x13d), 0xa0);
}

TEST(SimChips, KabiniDrivesOnlyThroughTheGpioIomuxFunction) {
    FchGpioModel c("gpioWindow", FchLayout::kabini);
    c.write8(0x100 + 57, 0x00);
    EXPECT_EQ(driveOf(c, 57), "z");  // IOMUX still 0
    c.write8(0xD00 + 57, 3);
    EXPECT_EQ(driveOf(c, 57), "0");
    c.write8(0x100 + 57, 0x40);
    EXPECT_EQ(driveOf(c, 57), "1");
    EXPECT_EQ(r8(c, 0x100 + 57), 0xc0);
    c.write8(0x100 + 65, 0x40);
    c.write8(0xD00 + 65, 3);
    EXPECT_EQ(driveOf(c, 65), "z");  // pin 65's GPIO function is 1
    c.write8(0xD00 + 65, 1);
    EXPECT_EQ(driveOf(c, 65), "1");
    c.write8(0x100 + 57, 0x20);
    EXPECT_EQ(driveOf(c, 57), "z");
}

TEST(SimChips, SteppeEagleNeedsBits23And17AndTheTableFunction) {
    FchGpioModel c("gpioWindow", FchLayout::steppeEagle, {{0x1B, 1}});
    const U32 ctl = 0x1500 + 4 * 0x1B;
    c.write8(0xD00 + 0x1B, 1);
    c.write32(ctl, 0x00c00000);  // enable and level, bit 17 missing
    EXPECT_EQ(driveOf(c, 0x1B), "z");
    c.write32(ctl, 0x00c20000);
    EXPECT_EQ(driveOf(c, 0x1B), "1");
    EXPECT_EQ(r32(c, ctl), 0x00c30000u);  // bit 16 reads the pin
    c.write32(ctl, 0x00820000);
    EXPECT_EQ(driveOf(c, 0x1B), "0");
    EXPECT_EQ(r32(c, ctl), 0x00820000u);
    c.write8(0xD00 + 0x1B, 2);
    EXPECT_EQ(driveOf(c, 0x1B), "z");  // routed elsewhere
}

TEST(SimChips, OtherWideLayoutsDriveWithBit23Alone) {
    FchGpioModel c("gpioWindow", FchLayout::wide, {{131, 3}});
    c.write32(0x1500 + 4 * 131, 0x00c00000);
    EXPECT_EQ(driveOf(c, 131), "z");  // IOMUX 0 is not this pad's GPIO function
    c.write8(0xD00 + 131, 3);
    EXPECT_EQ(driveOf(c, 131), "1");
    c.externalLevelIs(132, false);
    EXPECT_EQ(r32(c, 0x1500 + 4 * 132), 0x0u);
    c.externalLevelIs(132, true);
    EXPECT_EQ(r32(c, 0x1500 + 4 * 132), 0x00010000u);
}

TEST(SimChips, CaveCreekUseSelectAndIoSelectPerBank) {
    CaveCreekModel c("theCaveCreekPCHIOHam", 0x580);
    EXPECT_EQ(r32(c, 0x584), 0xffffffffu);  // every pin an input out of reset
    c.write32(0x5b4, 0xffffefff);           // GPIO 44: bank 1, bit 12 an output...
    EXPECT_EQ(driveOf(c, 44), "z");         // ...but not yet a GPIO
    c.write32(0x5b0, 1u << 12);
    EXPECT_EQ(driveOf(c, 44), "0");
    c.write32(0x5b8, 1u << 12);
    EXPECT_EQ(driveOf(c, 44), "1");
    c.write32(0x5c0, 1u << 1);  // bank 2 (GPIO 65) use-select, still an input
    EXPECT_EQ(driveOf(c, 65), "z");
    // The level register reads inputs as the outside world sets them.
    c.externalLevelIs(3, false);
    EXPECT_EQ(r32(c, 0x58c) & 0x8, 0x0u);
    c.externalLevelIs(3, true);
    EXPECT_EQ(r32(c, 0x58c) & 0x8, 0x8u);
    EXPECT_EQ(r32(c, 0x5b8) & (1u << 12), 1u << 12);  // an output reads its own level
}

TEST(SimChips, CedarForkTxAndRxBuffers) {
    CedarForkModel c("CedarForkGpioHam");
    const U32 pad = 0xC50910, tdo = 0xC50930;
    EXPECT_EQ(c.peek(pad), 0x100u);  // TX off, RX on
    EXPECT_EQ(driveOf(c, pad), "z");
    c.write32(pad, 0x44000201);
    EXPECT_EQ(driveOf(c, pad), "1");
    EXPECT_EQ(r32(c, pad), 0x44000201u);  // RX off: RX state reads 0 though the pad is high
    c.write32(tdo, 0x100);
    c.externalLevelIs(tdo, true);
    EXPECT_EQ(r32(c, tdo), 0x102u);
    c.write32(tdo, 0x300);  // RX disabled: the input reads 0
    EXPECT_EQ(r32(c, tdo), 0x300u);
}

TEST(SimChips, PlxPex8600DirectionPairs) {
    PlxPex8600Model c("theJamHam");
    c.write32(0x630, 0x2u << 10);  // GPIO 21: group 1, n 5, binary 10
    EXPECT_EQ(driveOf(c, 21), "0");
    c.write32(0x648, 1u << 5);
    EXPECT_EQ(driveOf(c, 21), "1");
    for (U32 dir : {0x1u, 0x3u}) {
        c.write32(0x630, dir << 10);
        EXPECT_EQ(driveOf(c, 21), "z") << dir;
    }
    c.externalLevelIs(19, false);
    EXPECT_EQ(r32(c, 0x640) & (1u << 3), 0u);
    c.externalLevelIs(19, true);
    EXPECT_EQ(r32(c, 0x640) & (1u << 3), 1u << 3);
    EXPECT_EQ(r32(c, 0x640) & 0xffff0000u, 0u);  // only 16 pins per group
}

TEST(SimChips, PlxPex8700DefaultAndRelocatedBlocks) {
    PlxPex8700Model c("PlxPex8700Ham", 0x63);  // block 3, bits above it set
    c.write32(0x600, 4u << 27);                // GPIO 9 an output
    c.write32(0x624, 1u << 9);
    EXPECT_EQ(driveOf(c, 9), "1");
    EXPECT_EQ(driveOf(c, PlxPex8700Model::kRelocated | 9), "z");
    c.write32(0x604, 4);  // GPIO 10's register, whole
    EXPECT_EQ(driveOf(c, 10), "0");
    c.write32(0x604, 0);
    EXPECT_EQ(driveOf(c, 10), "z");
    // The relocated block: 3 x 0x1000 + 0xA34 ...
    c.write32(0x3A38, 4);
    c.write32(0x3A48, 1u << 10);
    EXPECT_EQ(driveOf(c, PlxPex8700Model::kRelocated | 10), "1");
    c.write32(0x63A48, 0);  // where an unmasked block number would put it: nothing
    EXPECT_EQ(driveOf(c, PlxPex8700Model::kRelocated | 10), "1");
    c.externalLevelIs(PlxPex8700Model::kRelocated | 6, false);
    EXPECT_EQ(r32(c, 0x3A44) & 0x7ff, 0x7ffu & ~(1u << 6));
    EXPECT_EQ(r32(c, 0x61C) & 0x7ff, 0x7ffu);  // undriven pins read high
}

TEST(SimChips, PericomBlocksAreSeparate) {
    PericomGen3Model c("PericomGen3Ham");
    const U32 second = PericomGen3Model::kSecondBlock;
    c.write32(second + 0x31C, 0x2);  // GPIO 0 of the second block: bit 2n+1
    EXPECT_EQ(driveOf(c, second | 0), "0");
    EXPECT_EQ(driveOf(c, 0), "z");
    c.write32(second + 0x330, 0x1);
    EXPECT_EQ(driveOf(c, second | 0), "1");
    c.write32(second + 0x31C, 0x1);  // bit 2n alone does not drive
    EXPECT_EQ(driveOf(c, second | 0), "z");
    c.externalLevelIs(3, false);
    EXPECT_EQ(r32(c, 0x328) & 0xf, 0x7u);
    EXPECT_EQ(r32(c, second + 0x328) & 0xf, 0xfu);
}

TEST(SimChips, GbeSdpBitsAndLedDefaults) {
    IntelGbeModel c("0_3_0_jtag");
    EXPECT_EQ(c.peek(IntelGbeModel::kCtrl), 0x00100241u);
    for (U32 sdp = 0; sdp < 4; ++sdp) EXPECT_EQ(driveOf(c, sdp), "z");
    c.write32(IntelGbeModel::kCtrl, 0x00100241 | 1u << 22 | 1u << 18);  // SDP0 out, high
    EXPECT_EQ(driveOf(c, 0), "1");
    c.write32(IntelGbeModel::kCtrlExt, 1u << 10);  // SDP2 out, low
    EXPECT_EQ(driveOf(c, 2), "0");
    c.externalLevelIs(3, false);
    EXPECT_EQ(r32(c, IntelGbeModel::kCtrlExt), 1u << 10);
    c.externalLevelIs(3, true);
    EXPECT_EQ(r32(c, IntelGbeModel::kCtrlExt), 1u << 10 | 1u << 7);
    EXPECT_EQ(r32(c, IntelGbeModel::kCtrl) & (1u << 19), 1u << 19);  // SDP1 an input, pulled up
    // LED control as the NVM defaults set it: LED0 2, LED1 3, LED2 0xe.
    EXPECT_EQ(c.ledMode(0), 2u);
    EXPECT_EQ(c.ledMode(1), 3u);
    EXPECT_EQ(c.ledMode(2), 0xeu);
    EXPECT_FALSE(c.ledBlinks(2));
    c.write32(IntelGbeModel::kLedCtl, 0x00810302);
    EXPECT_EQ(c.ledMode(2), 1u);
    EXPECT_TRUE(c.ledBlinks(2));
    U16 word;
    c.read16(0x2003E, &word);
    EXPECT_EQ(word, 0x0e02);
}

TEST(SimChips, AccessesAreReportedWithWhatTheyReplaced) {
    Sb820Model c("theSb820Ham");
    std::vector<std::string> log;
    c.onAccess = [&](const ChipModel::Access& a) {
        log.push_back(std::string(1, a.op) + std::to_string(a.width) + " " + std::to_string(a.offset) + " " +
                      std::to_string(a.before) + "->" + std::to_string(a.value));
    };
    r8(c, 0x100);
    c.write8(0x100, 0x40);
    EXPECT_EQ(log, (std::vector<std::string>{"R8 256 160->160", "W8 256 160->64"}));
}
