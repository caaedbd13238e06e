// The Intel GbE backend over a fake BAR 0: the order and values of the
// CTRL, CTRL_EXT and LED control writes, the cached register copies, the
// LED restore from the default word, the level-2 register trace, and what
// happens before a successful select.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "TestSupport.h"
#include "xilinx/backends/IntelGbeControllerIntf.h"

using ::testing::ElementsAre;

namespace {

const char kResource[] = "/sys/bus/pci/devices/0000:03:00.0/resource0";

// CTRL with TCK's data bit (18) set and TDI's (19) clear; CTRL_EXT with
// TDO as an output (bit 11) and TDO data (bit 7) set; a busy LED register
// whose LED2 field has mode 0xE and no blink, and bit 5 clear.
constexpr U32 kCtrl = 0x81040241;
constexpr U32 kCtrlExt = 0x12340880;
constexpr U32 kLedCtl = 0x5a7e3c1f;

XilIntf* make() { return IntelGbeControllerFactory().newXilIntf(0, 0, 0, 3, 0, 0); }

// A board whose controller at 0000:03:00.0 holds the registers above.
struct GbeBoard {
    GbeBoard() {
        regs.poke(0x0, kCtrl);
        regs.poke(0x18, kCtrlExt);
        regs.poke(0xE000, kLedCtl);
    }
    FakeBoard board;
    FakeHamImpl& regs = board.hams[kResource];
};

class Gbe : public ::testing::Test, public GbeBoard {
  protected:
    XilIntf* selected() {
        XilIntf* intf = make();
        intf->select("ratumiScd");
        regs.clearLog();
        return intf;
    }
};

std::string access(const char* op, U32 offset, U32 value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s 0x%x=0x%x", op, offset, value);
    return buf;
}

// "<function>: <text>" of each trace line on stderr.
std::vector<std::string> traceLines(const std::string& err) {
    std::vector<std::string> out;
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);) {
        size_t at = line.find(' ', line.find(' ') + 1);
        out.push_back(line.substr(at + 1));
    }
    return out;
}

}  // namespace

TEST(GbeFactory, TakesExactlyItsTwoNames) {
    IntelGbeControllerFactory f;
    EXPECT_TRUE(f.manages("penetScd"));
    EXPECT_TRUE(f.manages("ratumiScd"));
    for (const char* n : {"penet", "penetScdX", "PenetScd", "ratumiSc", ""}) EXPECT_FALSE(f.manages(n)) << n;
}

TEST_F(Gbe, OpensOneMegabyteOfResource0NamedByTheLock) {
    make();
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_3_0_jtag", std::string("window 0_3_0_jtag ") + kResource));
    const HamDesc& s = board.hams.opened()[0];
    EXPECT_EQ(s.base, 0u);
    EXPECT_EQ(s.size, 0x100000u);
    EXPECT_TRUE(regs.log().empty());
}

TEST(GbeSelect, SetsLevelsBeforeDirectionsThenTheWarningLed) {
    for (const char* name : {"penetScd", "ratumiScd"}) {
        SCOPED_TRACE(name);
        GbeBoard b;
        make()->select(name);
        EXPECT_THAT(b.regs.log(), ElementsAre("R32 0x0=0x81040241", "R32 0x18=0x12340880",
                                         "W32 0x0=0x810c0241",    // TDI high
                                         "W32 0x18=0x123408c0",   // TMS high
                                         "W32 0x0=0x81080241",    // TCK low
                                         "W32 0x0=0x81880241",    // TDI output
                                         "W32 0x18=0x12340cc0",   // TMS output
                                         "W32 0x0=0x81c80241",    // TCK output
                                         "W32 0x18=0x123404c0",   // TDO input
                                         "R32 0xe000=0x5a7e3c1f",
                                         "W32 0xe000=0x5af13c1f",  // LED2 mode 1, blink
                                         "R32 0xe000=0x5af13c1f", "W32 0xe000=0x5af13c3f"));  // bit 5
    }
}

TEST_F(Gbe, PinChangesWriteFromTheCacheAndTdoRefreshesIt) {
    XilIntf* intf = selected();
    intf->tckIs(true);  // bits 18, 19, 22, 23 set, the rest as read
    intf->tdiIs(false);
    EXPECT_THAT(regs.log(), ElementsAre("W32 0x0=0x81cc0241", "W32 0x0=0x81c40241"));

    regs.clearLog();
    regs.poke(0x18, 0xf80);  // changed behind the backend's back
    EXPECT_TRUE(intf->tdo());
    intf->tmsIs(true);  // carries what tdo read
    regs.poke(0x18, 0xfffff7f);
    EXPECT_FALSE(intf->tdo());
    EXPECT_THAT(regs.log(), ElementsAre("R32 0x18=0xf80", "W32 0x18=0xfc0", "R32 0x18=0xfffff7f"));
    EXPECT_EQ(XilIntf_tdo(intf), 0);
}

TEST_F(Gbe, WarningSwitchesTheLed2ModeWithBlink) {
    XilIntf* intf = selected();
    intf->warningIs(true);
    intf->warningIs(false);
    EXPECT_THAT(regs.log(), ElementsAre("R32 0xe000=0x5af13c3f", "W32 0xe000=0x5af03c3f",  // mode 0
                                        "R32 0xe000=0x5af03c3f", "W32 0xe000=0x5af13c3f"));  // mode 1
}

// The default word gives LED2's mode in bits 11..8, its blink in bit 15 and
// the global bit 5; its other bits must not leak into the register.
TEST(GbeCleanup, MakesInputsAndRestoresTheLedFromItsDefaultWord) {
    struct Case {
        U16 word;
        U32 ledBefore, ledRestored, ledFinal;
    };
    for (Case c : {Case{0x7a2f, 0x5af13c1f, 0x5a7a3c1f, 0x5a7a3c3f}, Case{0x8510, 0x5af13c3f, 0x5af53c3f, 0x5af53c1f}}) {
        SCOPED_TRACE(c.word);
        GbeBoard b;
        FakeHamImpl& r = b.regs;
        r.poke(0x2003E, c.word, 16);
        r.poke(0x20038, 0xffff, 16);  // LED1's word: not LED2's
        XilIntf* intf = make();
        intf->select("penetScd");
        r.poke(0xE000, c.ledBefore);
        r.clearLog();
        intf->cleanup("penetScd");
        EXPECT_THAT(r.log(), ElementsAre("W32 0x0=0x81480241",   // TDI input
                                         "W32 0x18=0x123400c0",  // TMS input
                                         "W32 0x0=0x81080241",   // TCK input
                                         "W32 0x18=0x123400c0",  // TDO input
                                         access("R32", 0xe000, c.ledBefore), access("R16", 0x2003e, c.word),
                                         access("W32", 0xe000, c.ledRestored), access("R32", 0xe000, c.ledRestored),
                                         access("R16", 0x2003e, c.word), access("W32", 0xe000, c.ledFinal)));
    }
}

TEST_F(Gbe, RegisterTrafficAndPinChangesAreTracedAtLevel2) {
    TraceLevels levels(0x4);
    regs.poke(0x2003E, 0x7a2f, 16);
    ::testing::internal::CaptureStderr();
    XilIntf* intf = make();
    intf->select("penetScd");
    intf->warningIs(true);
    intf->tckIs(true);
    intf->tmsIs(false);
    intf->tdo();
    intf->cleanup("penetScd");
    IntelGbeControllerFactory().newXilIntf(0x8086, 0x1533, 1, 0x1a, 2, 3);
    std::vector<std::string> lines = traceLines(::testing::internal::GetCapturedStderr());
    EXPECT_THAT(lines,
                ElementsAre("IntelGbeControllerIntf: IntelGbeControllerIntf name '0_3_0_jtag' pciVendor 0x0 pciDevice "
                            "0x0 pciAddr 0000:03:00.0",
                            "read32: read32 [0x0] => 0x81040241", "read32: read32 [0x18] => 0x12340880",
                            "write32: write32 [0x0] <= 0x810c0241", "write32: write32 [0x18] <= 0x123408c0",
                            "write32: write32 [0x0] <= 0x81080241", "write32: write32 [0x0] <= 0x81880241",
                            "write32: write32 [0x18] <= 0x12340cc0", "write32: write32 [0x0] <= 0x81c80241",
                            "write32: write32 [0x18] <= 0x123404c0",  // the LED writes are not traced
                            "write32: write32 [0x0] <= 0x81cc0241", "tckIs: tckIs 1 reg[0] 0x81cc0241",
                            "write32: write32 [0x18] <= 0x12340480", "tmsIs: tmsIs 0 reg[1] 0x12340480",
                            "read32: read32 [0x18] => 0x12340480", "tdo: tdo reg[1] 0x12340480 Tdo 1",
                            "write32: write32 [0x0] <= 0x814c0241", "write32: write32 [0x18] <= 0x12340080",
                            "write32: write32 [0x0] <= 0x810c0241", "write32: write32 [0x18] <= 0x12340080",
                            "read32: read32 [0xe000] => 0x5af03c3f", "read16: read16 [0x2003e] => 0x7a2f",
                            "write32: write32 [0xe000] <= 0x5a7a3c3f", "read32: read32 [0xe000] => 0x5a7a3c3f",
                            "read16: read16 [0x2003e] => 0x7a2f", "write32: write32 [0xe000] <= 0x5a7a3c3f",
                            "IntelGbeControllerIntf: IntelGbeControllerIntf name '1_26_2_jtag' pciVendor 0x8086 "
                            "pciDevice 0x1533 pciAddr 0001:1a:02.3"));
}

TEST_F(Gbe, NothingIsTouchedBeforeSelect) {
    XilIntf* intf = make();
    intf->warningIs(true);
    intf->tckIs(true);
    intf->tdiIs(true);
    intf->tmsIs(true);
    EXPECT_FALSE(intf->tdo());
    intf->cleanup("penetScd");
    EXPECT_TRUE(regs.log().empty());
}

// With the register trace on, stderr holding only the message shows that
// no register was read or written first.
using GbeDeathTest = Gbe;
TEST_F(GbeDeathTest, UnknownNameEndsTheRunBeforeAnyRegisterAccess) {
    XilIntf* intf = make();
    TraceLevels levels(0x4);
    EXPECT_EXIT(intf->select("penetScdX"), ::testing::ExitedWithCode(1), "^Unknown device: penetScdX\n$");
}
