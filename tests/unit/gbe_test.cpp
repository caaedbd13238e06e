// The Intel GbE backend over a fake BAR 0: the order and values of the
// CTRL, CTRL_EXT and LED control writes, the cached register copies, the
// LED restore from the default word, and the level-2 register trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xilinx/backends/IntelGbeControllerIntf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

const char kResource[] = "/sys/bus/pci/devices/0000:03:00.0/resource0";

// A controller at 0000:03:00.0 whose CTRL has TCK's data bit (18) set and
// TDI's (19) clear; whose CTRL_EXT has TDO as an output (bit 11) and TDO
// data (bit 7) set; and whose busy LED register has mode 0xE and no blink in
// the LED2 field, and bit 5 clear.
class Gbe : public ::testing::Test {
  protected:
    Gbe() { registersAreReset(); }

    void registersAreReset() {
        regs.poke(0x0, 0x81040241);
        regs.poke(0x18, 0x12340880);
        regs.poke(0xE000, 0x5a7e3c1f);
    }
    XilIntf* make() { return IntelGbeControllerFactory().newXilIntf(0, 0, 0, 3, 0, 0); }
    XilIntf* selected() {
        XilIntf* intf = make();
        intf->select("ratumiScd");
        regs.clearLog();
        return intf;
    }

    FakeBoard board;
    FakeHamImpl& regs = board.hams[kResource];
};

}  // namespace

// Its two names: simscan_test; a name near them refused at select: pinpath_test.
// Nothing before select reaches a register: pinpath_test, for every backend.
TEST_F(Gbe, FactoryRefusesNamesNearItsOwnAndOpensOneMegabyteOfResource0NamedByTheLock) {
    IntelGbeControllerFactory f;
    for (const char* n : {"penet", "penetScdX", "PenetScd", "ratumiSc", ""}) EXPECT_FALSE(f.manages(n)) << n;
    make();
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_3_0_jtag", std::string("window 0_3_0_jtag ") + kResource));
    EXPECT_EQ(board.hams.opened()[0].base, 0u);
    EXPECT_EQ(board.hams.opened()[0].size, 0x100000u);
}

TEST_F(Gbe, SelectSetsLevelsBeforeDirectionsThenTheWarningLed) {
    XilIntf* intf = make();
    for (const char* name : {"penetScd", "ratumiScd"}) {
        SCOPED_TRACE(name);
        registersAreReset();
        regs.clearLog();
        intf->select(name);
        // CTRL, CTRL_EXT read; TDI, TMS high, TCK low; TDI, TMS, TCK outputs, TDO an input; LED2 mode 1
        // with blink, then bit 5.
        Accesses expected;
        expected.read(0x0, 0x81040241).read(0x18, 0x12340880).write(0x0, 0x810c0241).write(0x18, 0x123408c0);
        expected.write(0x0, 0x81080241).write(0x0, 0x81880241).write(0x18, 0x12340cc0).write(0x0, 0x81c80241);
        expected.write(0x18, 0x123404c0).rmw(0xe000, {0x5a7e3c1f, 0x5af13c1f, 0x5af13c3f});
        EXPECT_THAT(regs.log(), ElementsAreArray(expected));
    }
}

TEST_F(Gbe, PinChangesWriteFromTheCacheTdoRefreshesItAndWarningSwitchesTheLed2Mode) {
    XilIntf* intf = selected();
    intf->tckIs(true);  // bits 18, 19, 22, 23 set, the rest as read
    intf->tdiIs(false);
    regs.poke(0x18, 0xf80);  // changed behind the backend's back
    EXPECT_TRUE(intf->tdo());
    intf->tmsIs(true);  // carries what tdo read
    regs.poke(0x18, 0xfffff7f);
    EXPECT_EQ(XilIntf_tdo(intf), 0);
    intf->warningIs(true);
    intf->warningIs(false);
    EXPECT_THAT(regs.log(), ElementsAre("W32 0x0=0x81cc0241", "W32 0x0=0x81c40241", "R32 0x18=0xf80", "W32 0x18=0xfc0",
                                        "R32 0x18=0xfffff7f", "R32 0xe000=0x5af13c3f",
                                        "W32 0xe000=0x5af03c3f",                             // mode 0
                                        "R32 0xe000=0x5af03c3f", "W32 0xe000=0x5af13c3f"));  // mode 1
}

// The default word gives LED2's mode in bits 11..8, its blink in bit 15 and
// the global bit 5; its other bits must not leak into the register.
TEST_F(Gbe, CleanupMakesInputsAndRestoresTheLedFromItsDefaultWord) {
    struct {
        U16 word;
        U32 ledBefore, ledRestored, ledFinal;
    } rows[] = {{0x7a2f, 0x5af13c1f, 0x5a7a3c1f, 0x5a7a3c3f}, {0x8510, 0x5af13c3f, 0x5af53c3f, 0x5af53c1f}};
    regs.poke(0x20038, 0xffff, 16);  // LED1's word: not LED2's
    XilIntf* intf = make();
    for (auto& r : rows) {
        SCOPED_TRACE(r.word);
        regs.poke(0x2003E, r.word, 16);
        registersAreReset();
        intf->select("penetScd");
        regs.poke(0xE000, r.ledBefore);
        regs.clearLog();
        intf->cleanup("penetScd");
        Accesses expected;  // TDI, TMS, TCK, TDO inputs; then the LED from its default word, in two steps
        expected.write(0x0, 0x81480241).write(0x18, 0x123400c0).write(0x0, 0x81080241).write(0x18, 0x123400c0);
        expected.read(0xe000, r.ledBefore).read(0x2003e, r.word, 16).write(0xe000, r.ledRestored);
        expected.read(0xe000, r.ledRestored).read(0x2003e, r.word, 16).write(0xe000, r.ledFinal);
        EXPECT_THAT(regs.log(), ElementsAreArray(expected));
    }
}

// Select's writes are traced the same way; its sequence is pinned above.
TEST_F(Gbe, RegisterTrafficAndPinChangesAreTracedAtLevel2) {
    XilIntf* intf = selected();
    TraceLevels levels(0x4);
    intf->warningIs(true);
    intf->tckIs(true);
    intf->tmsIs(false);
    intf->tdo();
    IntelGbeControllerFactory().newXilIntf(0x8086, 0x1533, 1, 0x1a, 2, 3);
    std::vector<std::string> expected = {
        "write32: write32 [0x0] <= 0x81cc0241",  // the warning LED is not traced
        "tckIs: tckIs 1 reg[0] 0x81cc0241", "write32: write32 [0x18] <= 0x12340480",
        "tmsIs: tmsIs 0 reg[1] 0x12340480", "read32: read32 [0x18] => 0x12340480",
        "tdo: tdo reg[1] 0x12340480 Tdo 1",
        "IntelGbeControllerIntf: IntelGbeControllerIntf name '1_26_2_jtag' pciVendor 0x8086 "
        "pciDevice 0x1533 pciAddr 0001:1a:02.3"};
    for (std::string& line : expected) line.insert(0, "Xilinx/2 ");
    EXPECT_THAT(traceLines(levels.text()), ElementsAreArray(expected));
}
