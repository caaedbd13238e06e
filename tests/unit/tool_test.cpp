// The kelvorn command, run in-process against a recording backend: what it
// prints, what it asks of the interface, in which order, and its statuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <initializer_list>
#include <string>
#include <utility>
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

class Tool : public ::testing::Test {
  protected:
    // The status and what it printed.
    std::pair<int, std::string> run(std::initializer_list<const char*> args) {
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

// Each command line: the status kelvornMain returns (the shell sees it
// modulo 256), what it prints, every call on the interface in order, and
// whether it holds its pin for ten seconds.
TEST_F(Tool, StatusOutputAndCallsOfEachCommandLine) {
    auto opened = [](std::initializer_list<const char*> then) {
        std::vector<std::string> c{"manages fpga fpga", "new fpga 0 0 0_0_20_jtag fn 0", "select fpga", "warningIs 0"};
        c.insert(c.end(), then.begin(), then.end());
        return c;
    };
    const struct {
        std::initializer_list<const char*> args;
        int status;
        std::string out;
        std::vector<std::string> calls;
        bool holds;
    } cases[] = {
        {{}, -4, std::string("Kelvorn\nmissing argument\n") + kUsage, {}, false},
        {{"fpga", "0000:00:14", "tck", "1"}, -2, "Kelvorn\ninternal error parsing pciAddr\n", {}, false},
        {{"nosuch", "0000:00:14.0", "tck", "1"}, -3, "Kelvorn\ninternal error setting up interfaces\n",
         {"manages fpga nosuch"}, false},
        {{"fpga", "0000:00:14.0", "tck", "1"}, 1, "Kelvorn\n", opened({"tckIs 1", "cleanup fpga"}), true},
        {{"fpga", "0000:00:14.0", "tdo", "7"}, 1, "Kelvorn\ntdo result is 1\n", opened({"tdo", "cleanup fpga"}), false},
        {{"fpga", "0000:00:14.0", "TCK", "1"}, -1, std::string("Kelvorn\nnot understood: TCK\n") + kUsage,
         opened({"cleanup fpga"}), false},
        {{"fpga", "0000:00:14.0", "tdi"}, -5, std::string("Kelvorn\nmissing argument\n") + kUsage,
         opened({"cleanup fpga"}), false},
        // A value in decimal (a leading 0 is not octal), any non-zero high (the shell sees 256 as 0), text 0.
        {{"fpga", "0000:00:14.0", "tms", "0256"}, 256, "Kelvorn\n", opened({"tmsIs 1", "cleanup fpga"}), true},
        {{"fpga", "0000:00:14.0", "tdi", "abc"}, 0, "Kelvorn\n", opened({"tdiIs 0", "cleanup fpga"}), true},
        // Wide address fields keep their low bits; text after the function is ignored.
        {{"fpga", "10:1ff:3.2junk", "tdo"}, 1, "Kelvorn\ntdo result is 1\n",
         {"manages fpga fpga", "new fpga 0 0 16_255_3_jtag fn 2", "select fpga", "warningIs 0", "tdo", "cleanup fpga"},
         false},
    };
    for (const auto& c : cases) {
        calls.clear();
        board.events.clear();
        std::remove((board.lockDir + "/0_0_20_jtag").c_str());  // each run a process of its own
        auto [status, out] = run(c.args);
        EXPECT_EQ(status, c.status) << out;
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(calls, c.calls) << out;
        EXPECT_EQ(board.eventsStartingWith("sleep"), std::vector<std::string>(c.holds, "sleep 10")) << out;
    }
}
