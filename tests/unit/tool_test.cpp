// The kelvorn command, run in-process against a recording backend: what it
// prints, what it asks of the interface, in which order, and its statuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "StubBackend.h"
#include "TestSupport.h"
#include "tool/Kelvorn.h"

using ::testing::ElementsAre;

namespace {

const char kUsage[] =
    "USAGE:  kelvorn <fpga> <pci address> { tck | tms | tdi | tdo } [ 0 | 1 ]\n"
    "sets the tck,tms,tdi jtag pin, reads tdo, returns value\n"
    "EXAMPLE:  kelvorn fodak 0000:00:14.0 tck 1\n";

struct ToolRun {
    int status;
    std::string out;
};

class Tool : public ::testing::Test {
  protected:
    ToolRun run(std::initializer_list<const char*> args) {
        std::vector<std::string> keep{"kelvorn"};
        keep.insert(keep.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& s : keep) argv.push_back(&s[0]);
        argv.push_back(nullptr);
        ::testing::internal::CaptureStdout();
        int status = kelvornMain(static_cast<int>(keep.size()), argv.data());
        std::fflush(stdout);
        return {status, ::testing::internal::GetCapturedStdout()};
    }

    FakeBoard board;
    std::vector<std::string> calls;
    StubFactory fpga{"fpga", &calls};
    RegistrySwap swap{{&fpga}};
};

}  // namespace

TEST_F(Tool, NoArgumentsPrintsUsage) {
    ToolRun r = run({});
    EXPECT_EQ(r.status, -4);
    EXPECT_EQ(r.out, std::string("Kelvorn\nmissing argument\n") + kUsage);
    EXPECT_TRUE(calls.empty());
}

TEST_F(Tool, PciAddressNeedsAllFourFields) {
    ToolRun r = run({"fpga", "0000:00:14", "tck", "1"});
    EXPECT_EQ(r.status, -2);
    EXPECT_EQ(r.out, "Kelvorn\ninternal error parsing pciAddr\n");
    EXPECT_TRUE(calls.empty());  // no backend asked
}

TEST_F(Tool, WideFieldsKeepTheirLowBitsAndTrailingTextIsIgnored) {
    run({"fpga", "10:1ff:3.2junk", "tdo"});
    EXPECT_EQ(calls[1], "new fpga 0 0 16_255_3_jtag fn 2");
}

TEST_F(Tool, UnknownDeviceName) {
    ToolRun r = run({"nosuch", "0000:00:14.0", "tck", "1"});
    EXPECT_EQ(r.status, -3);
    EXPECT_EQ(r.out, "Kelvorn\ninternal error setting up interfaces\n");
}

TEST_F(Tool, SetCommandHoldsTenSecondsThenCleansUp) {
    ToolRun r = run({"fpga", "0000:00:14.0", "tck", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "Kelvorn\n");
    EXPECT_THAT(calls, ElementsAre("manages fpga fpga", "new fpga 0 0 0_0_20_jtag fn 0", "select fpga", "warningIs 0",
                                   "tckIs 1", "cleanup fpga"));
    EXPECT_THAT(board.eventsStartingWith("sleep"), ElementsAre("sleep 10"));
}

TEST_F(Tool, SetValuesAreDecimalAndAnyNonZeroIsHigh) {
    EXPECT_EQ(run({"fpga", "0000:00:14.0", "tms", "256"}).status, 256);  // the shell sees 0
    EXPECT_EQ(calls[4], "tmsIs 1");
    calls.clear();
    EXPECT_EQ(run({"fpga", "0000:00:15.0", "tdi", "abc"}).status, 0);  // another device: its own lock
    EXPECT_EQ(calls[4], "tdiIs 0");
}

TEST_F(Tool, TdoPrintsTheLevelAndIgnoresAFourthArgument) {
    ToolRun r = run({"fpga", "0000:00:14.0", "tdo", "7"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "Kelvorn\ntdo result is 1\n");
    EXPECT_THAT(calls, ElementsAre("manages fpga fpga", "new fpga 0 0 0_0_20_jtag fn 0", "select fpga", "warningIs 0",
                                   "tdo", "cleanup fpga"));
    EXPECT_TRUE(board.eventsStartingWith("sleep").empty());
}

TEST_F(Tool, CommandsAreCaseSensitiveAndCleanedUp) {
    ToolRun r = run({"fpga", "0000:00:14.0", "TCK", "1"});
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.out, std::string("Kelvorn\nnot understood: TCK\n") + kUsage);
    EXPECT_EQ(calls.back(), "cleanup fpga");
}

TEST_F(Tool, SetCommandWithoutValue) {
    ToolRun r = run({"fpga", "0000:00:14.0", "tdi"});
    EXPECT_EQ(r.status, -5);
    EXPECT_EQ(r.out, std::string("Kelvorn\nmissing argument\n") + kUsage);
    EXPECT_THAT(calls, ElementsAre("manages fpga fpga", "new fpga 0 0 0_0_20_jtag fn 0", "select fpga", "warningIs 0",
                                   "cleanup fpga"));
}
