// The SB820 backend over a fake resource5: the exact control-byte traffic of
// select, the pin cache, cleanup, the counters and the platform test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "xilinx/XilTrace.h"
#include "xilinx/backends/Sb820Intf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

class Sb820 : public ::testing::Test {
  protected:
    Sb820() {
        board.cmdline = "console=ttyS0 platform=mosavo";
        // Every control byte starts as an input with bits 3, 1, 0 set, which must survive.
        for (U32 gpio : {189, 171, 49, 61, 60, 41, 50}) regs.poke(0x100 + gpio, 0x2b, 8);
        Os::hooks().usleep = [this](unsigned us) {
            trail = takeLog();
            trail.push_back("usleep " + std::to_string(us));
            return 0;
        };
    }

    // Register accesses and waits since the last call, in one trail.
    std::vector<std::string> takeLog() {
        for (auto& a : regs.log()) trail.push_back(a);
        regs.clearLog();
        return std::exchange(trail, {});
    }

    XilIntf* selected() {
        XilIntf* intf = XilIntf_bySystem("fodak", 0, 0, 0, 0, 0x14, 0);
        intf->select("fodak");
        takeLog();
        return intf;
    }

    FakeBoard board;
    FakeHamImpl& regs = board.hams["/sys/bus/pci/devices/0000:00:14.0/resource5"];
    std::vector<std::string> trail;
};

}  // namespace

TEST_F(Sb820, FactoryTestsThePlatformBeforeTheName) {
    Sb820Factory f;
    EXPECT_TRUE(f.manages("fodak") && f.manages("komefi"));
    EXPECT_FALSE(f.manages("Fodak") || f.manages("fodak2"));
    EXPECT_EQ(board.events.front(), "shell /bin/grep -qE \"platform=(gozip|bupul)\" /proc/cmdline");
    for (const char* platform : {"platform=gozip", "quiet platform=bupul"}) {
        board.cmdline = platform;
        EXPECT_FALSE(f.manages("fodak") || f.manages("komefi")) << platform;
    }
}

TEST_F(Sb820, LockThenWindowOnResource5OrTheTestFile) {
    XilIntf_bySystem("komefi", 0, 0, 0, 0x1a, 0x14, 3);
    XilIntf_testModeIs(1);  // until the board goes
    XilIntf_bySystem("fodak", 0, 0, 0, 0, 0x14, 0);
    EXPECT_THAT(board.eventsStartingWith("lock"),
                ElementsAre("lock /var/lock/0_26_20_jtag", "lock /tmp/xilinxTestLockFile"));
    EXPECT_THAT(board.eventsStartingWith("window"),
                ElementsAre("window theSb820Ham /sys/bus/pci/devices/0000:1a:14.3/resource5",
                            "window theSb820Ham /tmp/xilinxTestMemMapFile"));
    EXPECT_TRUE(regs.log().empty());  // nothing touched before select
}

// After select the first call of each pin always writes, then only changes do.
TEST_F(Sb820, SelectDrivesOutputsThenLevelsBetweenTwoWaitsThenPinsWriteOnChange) {
    regs.poke(0x13d, 0xab, 8);  // TDO pin high
    XilIntf* intf = XilIntf_bySystem("fodak", 0, 0, 0, 0, 0x14, 0);
    intf->select("komefi");
    Accesses expected(8);  // drivers on: TCK, TDI, TMS, the three setup pins; TDO an input
    for (U32 control : {0x1bd, 0x1ab, 0x131, 0x13c, 0x129, 0x132}) expected.rmw(control, {0x2b, 0xb});
    expected.rmw(0x13d, {0xab, 0xab}).push_back("usleep 1000");
    // setup levels high, low, low; TCK, TDI, TMS low
    expected.rmw(0x13c, {0xb, 0x4b}).rmw(0x129, {0xb, 0xb}).rmw(0x132, {0xb, 0xb});
    for (U32 control : {0x1bd, 0x1ab, 0x131}) expected.rmw(control, {0xb, 0xb});
    expected.push_back("usleep 1000");
    EXPECT_THAT(takeLog(), ElementsAreArray(expected));
    intf->tckIs(false);  // already low, still written
    intf->tckIs(false);
    intf->tdiIs(true);
    intf->tdiIs(false);
    intf->tmsIs(true);
    intf->tmsIs(true);
    EXPECT_THAT(takeLog(), ElementsAre("R8 0x1bd=0xb", "W8 0x1bd=0xb", "R8 0x1ab=0xb", "W8 0x1ab=0x4b",
                                       "W8 0x1ab=0xb", "R8 0x131=0xb", "W8 0x131=0x4b"));
}

// tckIs(true) three times is one write and one count but three traces; tdo
// counts every call. Cleanup turns every driven pin into an input, TDO aside.
TEST_F(Sb820, RepeatedLevelIsWrittenOnceTdoReadsBit7AndCleanupCounts) {
    XilIntf* intf = selected();
    TraceLevels levels(0x8 | 0x20);
    for (int i = 0; i < 3; ++i) intf->tckIs(true);
    expectTdoFollows(regs, intf, 0x13d, 0x80, 8);
    EXPECT_THAT(takeLog(), ElementsAre("R8 0x1bd=0xb", "W8 0x1bd=0x4b", "R8 0x13d=0x80", "R8 0x13d=0x7f"));
    XilIntf_cleanup(intf, "fodak");
    Accesses expected(8);  // TCK and setup pin 60 were high
    expected.rmw(0x1bd, {0x4b, 0x6b}).rmw(0x1ab, {0xb, 0x2b}).rmw(0x131, {0xb, 0x2b});
    expected.rmw(0x13c, {0x4b, 0x6b}).rmw(0x129, {0xb, 0x2b}).rmw(0x132, {0xb, 0x2b});
    EXPECT_THAT(takeLog(), ElementsAreArray(expected));
    EXPECT_THAT(levels.text(),
                ::testing::MatchesRegex("(Xilinx/3 [^\n]* tckIs: tckIs true\n){3}"
                                        "Xilinx/5 [^\n]* cleanup: jtag totals: tdo 2 tdi 0 tms 0 tck 1\n"));
}
