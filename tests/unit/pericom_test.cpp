// The Pericom Gen3 backend over a fake BAR 0: which register block each
// device name reaches, and the exact read-modify-write sequences of select,
// the pin operations, tdo and cleanup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xilinx/XilTrace.h"
#include "xilinx/backends/PericomGen3Intf.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

const char kResource[] = "/sys/bus/pci/devices/0000:05:00.1/resource0";

XilIntf* newPericom() { return PericomGen3Factory().newXilIntf(0x12d8, 0x2608, 0, 5, 0, 1); }

std::string hexReg(const char* op, U32 offset, U32 value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s 0x%x=0x%x", op, offset, value);
    return buf;
}

}  // namespace

TEST(Pericom, FactoryTakesExactlyItsThreeNames) {
    PericomGen3Factory f;
    for (const char* n : {"togif", "togif_scd", "togif_fan"}) EXPECT_TRUE(f.manages(n)) << n;
    for (const char* n : {"togi", "togif_", "togif_fanx", "Togif", ""}) EXPECT_FALSE(f.manages(n)) << n;
}

TEST(Pericom, LocksThenOpensResource0EvenInTestMode) {
    FakeBoard board;
    TraceLevels levels(0x2);
    XilIntf_testModeIs(1);
    ::testing::internal::CaptureStderr();
    newPericom();
    std::string err = ::testing::internal::GetCapturedStderr();
    XilIntf_testModeIs(0);
    EXPECT_THAT(board.events,
                ElementsAre("lock /tmp/xilinxTestLockFile", std::string("window PericomGen3Ham ") + kResource));
    EXPECT_THAT(err, HasSubstr(std::string(" PericomGen3Intf: sysfs path: ") + kResource + "\n"));
    EXPECT_EQ(board.hams.opened()[0].size, 0u);  // the whole resource
}

// Direction preloaded with bits 1, 3, 5 clear and 7 set, the other bits
// mixed; output data all ones: select must flip exactly the JTAG bits.
TEST(Pericom, EachNameReachesItsBlockWithTheExactSequence) {
    struct Case {
        const char* name;
        U32 base;
    };
    for (Case c : {Case{"togif", 0x10000}, Case{"togif_scd", 0x10000}, Case{"togif_fan", 0}}) {
        SCOPED_TRACE(c.name);
        FakeBoard board;
        FakeHamImpl& regs = board.hams[kResource];
        const U32 dir = c.base + 0x31C, in = c.base + 0x328, out = c.base + 0x330;
        regs.poke(dir, 0x5a5a5a91);
        regs.poke(out, 0xffffffff);
        XilIntf* intf = newPericom();
        EXPECT_TRUE(regs.log().empty());

        intf->select(c.name);
        EXPECT_THAT(regs.log(),
                    ElementsAre(hexReg("R32", dir, 0x5a5a5a91), hexReg("W32", dir, 0x5a5a5a93),  // TCK out
                                hexReg("R32", dir, 0x5a5a5a93), hexReg("W32", dir, 0x5a5a5ab3),  // TDI out
                                hexReg("R32", dir, 0x5a5a5ab3), hexReg("W32", dir, 0x5a5a5abb),  // TMS out
                                hexReg("R32", dir, 0x5a5a5abb), hexReg("W32", dir, 0x5a5a5a3b),  // TDO in
                                hexReg("R32", out, 0xffffffff), hexReg("W32", out, 0xfffffffe),  // TCK low
                                hexReg("R32", out, 0xfffffffe), hexReg("W32", out, 0xfffffffa),  // TDI low
                                hexReg("R32", out, 0xfffffffa), hexReg("W32", out, 0xfffffff8)));  // TMS low

        regs.clearLog();
        intf->tckIs(true);
        intf->tdiIs(true);
        intf->tmsIs(true);
        intf->tckIs(false);
        EXPECT_THAT(regs.log(), ElementsAre(hexReg("R32", out, 0xfffffff8), hexReg("W32", out, 0xfffffff9),
                                            hexReg("R32", out, 0xfffffff9), hexReg("W32", out, 0xfffffffd),
                                            hexReg("R32", out, 0xfffffffd), hexReg("W32", out, 0xffffffff),
                                            hexReg("R32", out, 0xffffffff), hexReg("W32", out, 0xfffffffe)));

        regs.clearLog();
        regs.poke(in, 0x00000008);
        EXPECT_TRUE(intf->tdo());
        regs.poke(in, 0xfffffff7);
        EXPECT_FALSE(intf->tdo());
        EXPECT_THAT(regs.log(), ElementsAre(hexReg("R32", in, 0x8), hexReg("R32", in, 0xfffffff7)));

        // Clean-up turns TCK, TDI, TMS into inputs and touches nothing else.
        regs.clearLog();
        regs.poke(dir, 0xffffffff);
        intf->warningIs(true);
        intf->cleanup(c.name);
        EXPECT_THAT(regs.log(), ElementsAre(hexReg("R32", dir, 0xffffffff), hexReg("W32", dir, 0xfffffffd),
                                            hexReg("R32", dir, 0xfffffffd), hexReg("W32", dir, 0xffffffdd),
                                            hexReg("R32", dir, 0xffffffdd), hexReg("W32", dir, 0xffffffd5)));
        EXPECT_EQ(regs.peek(out), 0xfffffffeu);
    }
}

TEST(Pericom, OperationsBeforeSelectTouchNothing) {
    FakeBoard board;
    FakeHamImpl& regs = board.hams[kResource];
    regs.poke(0x10328, 0xffffffff);
    XilIntf* intf = newPericom();
    intf->tckIs(true);
    intf->tdiIs(true);
    intf->tmsIs(true);
    EXPECT_FALSE(intf->tdo());
    intf->cleanup("togif");
    EXPECT_TRUE(regs.log().empty());
}

TEST(PericomDeathTest, UnknownNameEndsTheRun) {
    FakeBoard board;
    XilIntf* intf = newPericom();
    EXPECT_EXIT(intf->select("togif_fanx"), ::testing::ExitedWithCode(1), "^Unknown device: togif_fanx\n$");
}
