// kelvorn-play run in-process on a simulated SB820 board whose chain holds
// two IDCODE devices: what it prints, its exit status for each way a run
// ends, and the pins released after a mismatch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "os/Os.h"
#include "play/KelvornPlay.h"
#include "sim/Board.h"
#include "xilinx/XilIntfC.h"

using ::testing::MatchesRegex;

namespace {

struct Outcome {
    int status;
    std::string out, err;
};

class Play : public ::testing::Test {
  protected:
    Play() {
        char tmpl[] = "/tmp/kelvorn-play-test-XXXXXX";
        dir_ = ::mkdtemp(tmpl);
        board_.install();
    }
    ~Play() override { std::filesystem::remove_all(dir_); }

    std::string file(const std::string& name, const std::string& contents) {
        std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << contents;
        return path;
    }
    Outcome run(std::vector<std::string> args) {
        args.insert(args.begin(), "kelvorn-play");
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        int status = kelvornPlayMain(static_cast<int>(args.size()), argv.data());
        std::fflush(stdout);
        std::string out = ::testing::internal::GetCapturedStdout();
        return {status, out, ::testing::internal::GetCapturedStderr()};
    }
    static sim::BoardConfig config() {
        sim::BoardConfig c;
        c.device = "fodak";
        c.platform = "mosavo";
        return c;
    }

    std::string dir_;
    sim::Board board_{config()};
};

const char kIdcodes[] = "STATE RESET;\nSDR 64 TDI(0) TDO(1b4d2093 0a5c7035);\n";
const char kReleased[] = "TCK=z TDI=z TMS=z TDO=1 GPIO60=z GPIO41=z GPIO50=z";

}  // namespace

// A run that plays to its end: its summary (program_test.sh, with the
// cycles counted), the pins released (play_test.sh).

TEST_F(Play, AMismatchStopsWithOneLineAndReleasesThePins) {
    std::string path = file("bad.svf", "STATE RESET;\nSDR 64 TDI(0) TDO(1b4d2093 0a5c7034);\nSIR 14 TDI(3fff);\n");
    Outcome r = run({"--quiet", "fodak", "0000:00:14.0", path});
    EXPECT_EQ(r.status, kMismatch);
    EXPECT_EQ(r.err, "kelvorn-play: " + path +
                         ":2: SDR of 64 bits: TDO mismatch: expected 1b4d20930a5c7034 mask ffffffffffffffff actual "
                         "1b4d20930a5c7035\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(board_.chain().instruction(0), sim::kIdcodeInstruction);  // the SIR after it never ran
    EXPECT_EQ(board_.pins(), kReleased);
}

TEST_F(Play, IgnoreTdoReportsEachMismatchAndGoesOn) {
    std::string path = file("two.svf", "SDR 64 TDI(0) TDO(0);\nSTATE RESET;\nSDR 64 TDI(0) TDO(1b4d2093 0a5c7035);\n"
                                       "STATE RESET;\nSDR 32 TDI(0) TDO(1);\n");
    Outcome r = run({"--ignore-tdo", "fodak", "0000:00:14.0", path});
    EXPECT_EQ(r.status, kMismatch);
    EXPECT_EQ(r.err, "kelvorn-play: " + path +
                         ":1: SDR of 64 bits: TDO mismatch: expected 0000000000000000 mask ffffffffffffffff actual "
                         "1b4d20930a5c7035\n"
                         "kelvorn-play: " +
                         path + ":5: SDR of 32 bits: TDO mismatch: expected 00000001 mask ffffffff actual 0a5c7035\n");
    EXPECT_THAT(r.out, MatchesRegex(".*: 5 statements, 3 scans, 160 bits, [0-9]+ TCK cycles at [0-9.]+ [kM]?Hz, [0-9.]+ s, 2 TDO "
                                    "mismatches\n"));
}

TEST_F(Play, DryRunReadsEverythingAndTouchesNothing) {
    std::string path =
        file("dry.svf", "! \xc2\xa9 text with UTF-8 is still SVF\nFREQUENCY 1E6 HZ;\nSIR 8 TDI(ff);\nRUNTEST 100 TCK 1E-2 SEC;\nSDR 70 TDI(0) TDO(0);\n"
                        "RUNTEST 2E6 TCK;\n");
    Outcome r = run({"--dry-run", "fodak", "0000:00:14.0", path});
    EXPECT_EQ(r.status, kPlayed);
    EXPECT_EQ(r.out, "kelvorn-play: " + path +
                         ": 5 statements, 2 scans, 78 bits, at least 2.0 s of waits; nothing played (dry run)\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(board_.wiredChip(), nullptr);  // no window was opened
}

TEST_F(Play, EachFailureHasItsStatusAndLineAndTouchesNoDevice) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err;
    };
    std::string syntax = file("syntax.svf", "SIR 8 TDI(00);\nSDR 8 TDI(00) TDO(1);\nSDR 8\n TDI(0)\n");
    std::string trst = file("trst.svf", "! reset line\nTRST ON;\n");
    std::string xsvf = file("x.xsvf", std::string("\x12\x00\x00", 3));
    std::string truncated = file("t.xsvf", std::string("\x12\x00\x08\x00\x00", 5));
    std::string ok = file("ok.svf", kIdcodes);
    const Case cases[] = {
        {{"fodak", "0000:00:14.0", syntax}, kSyntax,
         "kelvorn-play: " + syntax + ":5: SDR: expected TDI, TDO, MASK, SMASK or ';', found the end of the file\n"},
        {{"fodak", "0000:00:14.0", trst}, kUnsupported,
         "kelvorn-play: " + trst + ":2: TRST ON: there is no TRST pin here (TRST OFF and ABSENT are accepted)\n"},
        {{"--format", "svf", "fodak", "0000:00:14.0", xsvf}, kSyntax,
         "kelvorn-play: " + xsvf + ":1: unexpected character byte 0x12\n"},
        {{"fodak", "0000:00:14.0", truncated}, kSyntax,
         "kelvorn-play: " + truncated + ": byte 2: XSDRSIZE: the file ends inside the command\n"},
        {{"fodak", "0000:00:14.0", dir_ + "/none.svf"}, kUnreadable,
         "kelvorn-play: " + dir_ + "/none.svf: cannot read: No such file or directory\n"},
        {{"fodak", "0000:00:14.0", dir_}, kUnreadable, "kelvorn-play: " + dir_ + ": byte 0: cannot read: Is a directory\n"},
        // The address parser's other refusals: chain_test.sh and sim_test.sh.
        {{"fodak", "0000:00:20.0", ok}, kUsage, "kelvorn-play: 0000:00:20.0 is not a PCI address (dddd:bb:dd.f)\n"},
        {{"fodak", "0000:00:14.0"}, kUsage, "file is required\nRun with --help for more information.\n"},
        {{"--format", "bit", "fodak", "0000:00:14.0", ok}, kUsage,
         "--format: bit not in {auto,svf,xsvf}\nRun with --help for more information.\n"},
        {{"nosuch", "0000:00:14.0", ok}, kNoBackend, "kelvorn-play: no backend serves nosuch on this board\n"},
    };
    for (const Case& c : cases) {
        Outcome r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.back();
        EXPECT_EQ(r.err, c.err);
    }
    EXPECT_EQ(board_.wiredChip(), nullptr);
}

TEST_F(Play, ALockHeldElsewhereEndsTheRunWithTheLibrarysStatus) {
    std::string path = file("ok.svf", kIdcodes);
    char* argv[] = {const_cast<char*>("kelvorn-play"), const_cast<char*>("fodak"), const_cast<char*>("0000:00:14.0"),
                    &path[0], nullptr};
    auto playLocked = [&] {
        XilIntf_bySystem("fodak", 0, 0, 0, 0, 0x14, 0);  // holds the device's lock
        kelvornPlayMain(4, argv);
    };
    EXPECT_EXIT(playLocked(), ::testing::ExitedWithCode(1), "^Lock file is locked by another process.$");
}

// A regular file that changes between its check and its play (here while
// the backend is being found, after the check) is refused, and the device
// is left as it was found: nothing of the file is played. Its size, or its
// modification time alone.
class PlayChanged : public Play, public ::testing::WithParamInterface<bool> {};

TEST_P(PlayChanged, AFileChangedAfterItsCheckIsNotPlayed) {
    std::string path = file("changing.svf", "STATE RESET;\nSIR 14 TDI(3fff);\n");
    std::function<int(const char*)> shell = Os::hooks().system;
    Os::hooks().system = [&, shell](const char* command) {
        if (GetParam()) {
            struct timespec later[2] = {{0, UTIME_OMIT}, {2000000000, 0}};
            ::utimensat(AT_FDCWD, path.c_str(), later, 0);
        } else {
            std::ofstream(path, std::ios::app) << "SIR 14 TDI(0);\n";
        }
        return shell(command);
    };
    Outcome r = run({"--quiet", "fodak", "0000:00:14.0", path});
    Os::hooks().system = shell;
    EXPECT_EQ(r.status, kUnreadable);
    EXPECT_EQ(r.err, "kelvorn-play: " + path + ": changed since it was checked (size or modification time); nothing played\n");
    EXPECT_EQ(board_.chain().instruction(0), sim::kIdcodeInstruction);  // the SIR never ran
    EXPECT_EQ(board_.pins(), kReleased);
}

INSTANTIATE_TEST_SUITE_P(SizeOrTime, PlayChanged, ::testing::Bool());

// A regular file whose bytes change while it is played, from the play's
// first TCK edge on (the TCK ceiling's wait is the hook, so the change comes
// after the check, the look at its size and time, and the reset). The play
// stops with status 3 at the first block that differs, before any statement
// from it: the SIR that loads BYPASS, past the first block, never runs, and
// what came from the first block (the IDCODE compared) did. Each kind of
// change (cut, grown, rewritten) and its wording: playinput_test.
TEST_F(Play, AFileChangedDuringThePlayStopsBeforeTheFirstBlockThatDiffers) {
    // Block 0: the IDCODEs, then comments to byte 65536 and 4000 more bytes.
    std::string text = kIdcodes;
    while (text.size() < 65536 + 4000) text += "! padding padding padding padding padding padding padding padding\n";
    text += "SIR 14 TDI(3fff);\n";
    std::string path = file("changing.svf", text);
    std::function<void(uint64_t)> wait = Os::hooks().waitUntilNs;
    bool changed = false;
    Os::hooks().waitUntilNs = [&, wait](uint64_t deadline) {
        if (!changed) std::fstream(path, std::ios::in | std::ios::out).seekp(65600) << "X";
        changed = true;
        wait(deadline);
    };
    Outcome r = run({"--frequency", "1e6", "fodak", "0000:00:14.0", path});
    Os::hooks().waitUntilNs = wait;
    ASSERT_TRUE(changed);
    EXPECT_EQ(r.status, kUnreadable);
    EXPECT_EQ(r.err, "kelvorn-play: " + path + ": byte 65536: changed since it was checked (its bytes 65536 to " +
                         std::to_string(text.size() - 1) + " differ); nothing from here on was played\n");
    // How far it got: the one statement of the first block.
    EXPECT_THAT(r.out, MatchesRegex("kelvorn-play: .*: 2 statements, 1 scans, 64 bits, .*\n"));
    EXPECT_EQ(board_.chain().instruction(0), sim::kIdcodeInstruction);
    EXPECT_EQ(board_.pins(), kReleased);
}
