// The Cedar Fork backend over a fake /dev/mem window: the platform test and
// its CHECKING line, the window, and the exact pad DW0 traffic of select,
// the pin operations and cleanup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "xilinx/backends/CedarForkPCHIntf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

class CedarFork : public ::testing::Test {
  protected:
    CedarFork() { board.cmdline = "console=ttyS0 platform=disal"; }

    XilIntf* make() { return CedarForkPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 2); }

    // Pads start as inputs (bits 9..8 = 01b) with their output level bit set
    // and bits 30 and 26 set, which must survive every write.
    void padsAre(std::initializer_list<U32> pads, U32 dw0 = 0x44000101) {
        for (U32 pad : pads) regs.poke(pad, dw0);
    }

    FakeBoard board;
    FakeHamImpl& regs = board.hams["/dev/mem"];
};

std::string managed(CedarForkPCHFactory& f, const char* name, bool& result) {
    ::testing::internal::CaptureStdout();
    result = f.manages(name);
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace

TEST_F(CedarFork, FactoryPrintsEveryNameAndTestsThePlatform) {
    CedarForkPCHFactory f;
    bool ok;
    for (const char* name : {"disalSwitchJtagMuxSel0False", "disalSwitchJtagMuxSel0True", "kubezShimScd"}) {
        EXPECT_EQ(managed(f, name, ok), std::string("CHECKING FPGA ") + name + "\n");
        EXPECT_TRUE(ok) << name;
    }
    EXPECT_EQ(managed(f, "kubezshimscd", ok), "CHECKING FPGA kubezshimscd\n");
    EXPECT_FALSE(ok);
    EXPECT_EQ(board.events.back(), "shell /bin/grep -qE \"platform=(sosepi|disal|kubez)\" /proc/cmdline");
    for (const char* cmdline : {"platform=sosepi2", "quiet platform=kubez"}) {
        board.cmdline = cmdline;
        managed(f, "kubezShimScd", ok);
        EXPECT_TRUE(ok) << cmdline;
    }
    board.cmdline = "platform=mosavo sosepi";
    EXPECT_EQ(managed(f, "kubezShimScd", ok), "CHECKING FPGA kubezShimScd\n");
    EXPECT_FALSE(ok);
}

TEST_F(CedarFork, UnknownNameReachesTheFactoryAndPrintsOnlyItsLine) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(XilIntf_bySystem("noSuchDevice", 0, 0, 0, 0, 0x14, 0), nullptr);
    std::fflush(stdout);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "CHECKING FPGA noSuchDevice\n");
}

TEST_F(CedarFork, WindowIsWholePagesOfDevMemAndNothingIsTouchedBeforeSelect) {
    Os::hooks().pageSize = [] { return 0x100000L; };
    XilIntf* intf = make();
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_0_31_jtag", "window CedarForkGpioHam /dev/mem"));
    ASSERT_EQ(board.hams.opened().size(), 1u);
    EXPECT_EQ(board.hams.opened()[0].base, 0xFD000000u);
    EXPECT_EQ(board.hams.opened()[0].size, 0xD00000u);  // 0xC60000 rounded up to 1 MiB pages
    intf->tckIs(true);
    intf->tdiIs(true);
    intf->tmsIs(true);
    EXPECT_FALSE(intf->tdo());
    intf->warningIs(true);
    intf->cleanup("kubezShimScd");
    EXPECT_TRUE(regs.log().empty());
}

TEST_F(CedarFork, SelectSwitchesOutputsThenTdoThenDrivesLowThenTheMuxLevel) {
    XilIntf* intf = make();
    for (bool high : {false, true}) {
        SCOPED_TRACE(high);
        const char* name = high ? "disalSwitchJtagMuxSel0True" : "disalSwitchJtagMuxSel0False";
        padsAre({0xC50910, 0xC20AF0, 0xC50920, 0xC50930, 0xC50940});
        padsAre({0xC20B90}, high ? 0x44000100 : 0x44000101);  // mux select at the other level
        intf->select(name);
        // The mux select pad: as found, switched to output, driven, switched back to input.
        const std::string found = high ? "0x44000100" : "0x44000101";
        const std::string output = high ? "0x44000200" : "0x44000201";
        const std::string driven = high ? "0x44000201" : "0x44000200";
        const std::string input = high ? "0x44000101" : "0x44000100";
        EXPECT_THAT(regs.log(),
                    ElementsAreArray(std::vector<std::string>{
                        // outputs: TCK, TDI, TMS, aux, mux select
                        "R32 0xc50910=0x44000101", "W32 0xc50910=0x44000201", "R32 0xc20af0=0x44000101",
                        "W32 0xc20af0=0x44000201", "R32 0xc50920=0x44000101", "W32 0xc50920=0x44000201",
                        "R32 0xc50940=0x44000101", "W32 0xc50940=0x44000201", "R32 0xc20b90=" + found,
                        "W32 0xc20b90=" + output,
                        // TDO an input
                        "R32 0xc50930=0x44000101", "W32 0xc50930=0x44000101",
                        // TCK, TDI, TMS low
                        "R32 0xc50910=0x44000201", "W32 0xc50910=0x44000200", "R32 0xc20af0=0x44000201",
                        "W32 0xc20af0=0x44000200", "R32 0xc50920=0x44000201", "W32 0xc50920=0x44000200",
                        // mux select level
                        "R32 0xc20b90=" + output, "W32 0xc20b90=" + driven}));
        regs.clearLog();
        intf->warningIs(true);
        intf->warningIs(false);
        intf->cleanup(high ? "kubezShimScd" : "");
        EXPECT_THAT(regs.log(),
                    ElementsAre("R32 0xc50910=0x44000200", "W32 0xc50910=0x44000100", "R32 0xc20af0=0x44000200",
                                "W32 0xc20af0=0x44000100", "R32 0xc50920=0x44000200", "W32 0xc50920=0x44000100",
                                "R32 0xc50940=0x44000201", "W32 0xc50940=0x44000101",
                                "R32 0xc20b90=" + driven, "W32 0xc20b90=" + input));
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
    EXPECT_THAT(regs.log(), ElementsAre("R32 0xc20b40=0x200", "W32 0xc20b40=0x201", "R32 0xc20b20=0x200",
                                        "W32 0xc20b20=0x201", "R32 0xc20b50=0x200", "W32 0xc20b50=0x200"));
    regs.clearLog();
    regs.poke(0xC20B60, 0x2);
    EXPECT_EQ(XilIntf_tdo(intf), 1);
    regs.poke(0xC20B60, ~0x2u);
    EXPECT_EQ(XilIntf_tdo(intf), 0);
    EXPECT_THAT(regs.log(), ElementsAre("R32 0xc20b60=0x2", "R32 0xc20b60=0xfffffffd"));
    EXPECT_EXIT(intf->select("kubez"), ::testing::ExitedWithCode(1), "^Unknown device: kubez\n$");
}
