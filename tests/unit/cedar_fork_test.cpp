// The Cedar Fork backend over a fake /dev/mem window: the platform test and
// its CHECKING line, the window, and the exact pad DW0 traffic of select,
// the pin operations and cleanup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"
#include "xilinx/backends/CedarForkPCHIntf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

class CedarFork : public ::testing::Test {
  protected:
    CedarFork() { board.cmdline = "console=ttyS0 platform=disal"; }

    XilIntf* make() { return CedarForkPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 2); }

    // The factory's answer, after checking the line it prints whatever it answers.
    bool manages(const char* name) {
        ::testing::internal::CaptureStdout();
        bool result = CedarForkPCHFactory().manages(name);
        std::fflush(stdout);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), std::string("CHECKING FPGA ") + name + "\n");
        return result;
    }

    FakeBoard board;
    FakeHamImpl& regs = board.hams["/dev/mem"];
};

}  // namespace

// Asked through the registry for a name no backend serves, it prints its
// line all the same: sim_test.sh.
TEST_F(CedarFork, FactoryPrintsEveryNameAndTestsThePlatformThenMapsWholePagesOfDevMem) {
    for (const char* name : {"disalSwitchJtagMuxSel0False", "disalSwitchJtagMuxSel0True", "kubezShimScd"})
        EXPECT_TRUE(manages(name)) << name;
    EXPECT_FALSE(manages("kubezshimscd"));
    EXPECT_EQ(board.events.back(), "shell /bin/grep -qE \"platform=(sosepi|disal|kubez)\" /proc/cmdline");
    for (const char* cmdline : {"platform=sosepi2", "quiet platform=kubez"}) {
        board.cmdline = cmdline;
        EXPECT_TRUE(manages("kubezShimScd")) << cmdline;
    }
    board.cmdline = "platform=mosavo sosepi";
    EXPECT_FALSE(manages("kubezShimScd"));

    // Its window is whole pages of /dev/mem. Nothing before select reaches a
    // register: pinpath_test, for every backend.
    board.events.clear();
    Os::hooks().pageSize = [] { return 0x100000L; };
    make();
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_0_31_jtag", "window CedarForkGpioHam /dev/mem"));
    ASSERT_EQ(board.hams.opened().size(), 1u);
    EXPECT_EQ(board.hams.opened()[0].base, 0xFD000000u);
    EXPECT_EQ(board.hams.opened()[0].size, 0xD00000u);  // 0xC60000 rounded up to 1 MiB pages
}

// Pads start as inputs (bits 9..8 = 01b) with their output level bit set and
// bits 30 and 26 set, which must survive every write; the mux select pad
// starts at the level other than the one the name asks for.
TEST_F(CedarFork, SelectSwitchesOutputsThenTdoThenDrivesLowThenTheMuxLevel) {
    struct {
        const char* name;
        U32 found, output, driven, input;  // the mux select pad 0xC20B90
    } rows[] = {{"disalSwitchJtagMuxSel0False", 0x44000101, 0x44000201, 0x44000200, 0x44000100},
                {"disalSwitchJtagMuxSel0True", 0x44000100, 0x44000200, 0x44000201, 0x44000101}};
    XilIntf* intf = make();
    for (auto& r : rows) {
        SCOPED_TRACE(r.name);
        for (U32 pad : {0xC50910, 0xC20AF0, 0xC50920, 0xC50930, 0xC50940}) regs.poke(pad, 0x44000101);
        regs.poke(0xC20B90, r.found);
        intf->select(r.name);
        intf->warningIs(true);
        intf->warningIs(false);
        intf->cleanup("kubezShimScd");  // the selected pads, whatever the name
        Accesses expected;  // outputs: TCK, TDI, TMS, aux, mux select; TDO an input
        for (U32 pad : {0xC50910, 0xC20AF0, 0xC50920, 0xC50940}) expected.rmw(pad, {0x44000101, 0x44000201});
        expected.rmw(0xC20B90, {r.found, r.output}).rmw(0xC50930, {0x44000101, 0x44000101});
        // TCK, TDI, TMS low, then the mux select level
        for (U32 pad : {0xC50910, 0xC20AF0, 0xC50920}) expected.rmw(pad, {0x44000201, 0x44000200});
        expected.rmw(0xC20B90, {r.output, r.driven});
        // cleanup: inputs again with their levels kept, TDO left alone
        for (U32 pad : {0xC50910, 0xC20AF0, 0xC50920}) expected.rmw(pad, {0x44000200, 0x44000100});
        expected.rmw(0xC50940, {0x44000201, 0x44000101}).rmw(0xC20B90, {r.driven, r.input});
        EXPECT_THAT(regs.log(), ElementsAreArray(expected));
        regs.clearLog();
    }
}

TEST_F(CedarFork, PinOperationsChangeBit0AndTdoReadsBit1) {
    XilIntf* intf = make();
    intf->select("kubezShimScd");
    regs.clearLog();
    intf->tckIs(true);
    intf->tdiIs(true);
    intf->tmsIs(false);
    expectTdoFollows(regs, intf, 0xC20B60, 0x2);
    Accesses expected;
    expected.rmw(0xC20B40, {0x200, 0x201}).rmw(0xC20B20, {0x200, 0x201}).rmw(0xC20B50, {0x200, 0x200});
    EXPECT_THAT(regs.log(), ElementsAreArray(expected.read(0xC20B60, 0x2).read(0xC20B60, 0xfffffffd)));
}
