// The pin interface base: lock file, test mode, registry, plain-named
// functions, bit-field helpers, tracing and the register-window layer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "StubBackend.h"
#include "TestSupport.h"
#include "ham/FakeHam.h"
#include "xilinx/XilTrace.h"
#include "xilinx/hal/Hal.h"

using ::testing::ElementsAre;

// ---- lock file (its name, taken before any window: the backends' tests;
// its mode, a stale one between processes, truncated and not blocking:
// lock_test.sh) ----

// Standard output on /dev/full, with a line waiting in its buffer.
void onFullDisk() {
    if (!std::freopen("/dev/full", "w", stdout)) std::abort();
    std::printf("waiting to be written\n");
}

// With stdout on a full disk and something waiting to go there the flush
// before each message fails, and the message still says why (the lock's
// message alone: lock_test.sh).
TEST(Lock, SecondInterfaceForTheSameDeviceOrAFailedCreationEndsTheRunSayingWhy) {
    FakeBoard board;
    std::vector<std::string> calls;
    new StubIntf("0_0_20_jtag", &calls);
    new StubIntf("0_0_21_jtag", &calls);  // another device: its own lock
    EXPECT_EXIT((onFullDisk(), new StubIntf("0_0_20_jtag", &calls)), ::testing::ExitedWithCode(1),
                "^Lock file is locked by another process\\.$");
    Os::hooks().creat = [](const char*, mode_t) {
        errno = EACCES;
        return -1;
    };
    EXPECT_EXIT((onFullDisk(), new StubIntf("0_0_22_jtag", &calls)), ::testing::ExitedWithCode(1),
                "^Failed to create lock file: Permission denied\n$");
}

// Test mode's lock file /tmp/xilinxTestLockFile: the PLX, SB820 and Pericom
// factory tests.

// ---- registry and plain-named functions ----

// The order the factories are asked in shows where it matters: the SoC
// backend ahead of the SB820 would take "fodak" on an SB820 board
// (simscan_test, sim_test.sh), the Cedar Fork one ahead of another would
// print its CHECKING line for that one's names (sim_test.sh). Through the
// plain-named functions on what it made, non-zero is high and TDO 0 or 1.
TEST(Registry, FirstAcceptingFactoryWinsAndLaterOnesAreNotAskedThenPlainFunctionsPassLevels) {
    FakeBoard board;
    std::vector<std::string> calls;
    StubFactory a("alpha", &calls), b("beta", &calls), b2("beta", &calls), c("gamma", &calls);
    RegistrySwap swap({&a, &b, &b2, &c});
    EXPECT_EQ(XilIntfFactory::factory("beta"), &b);
    EXPECT_THAT(calls, ElementsAre("manages alpha beta", "manages beta beta"));
    calls.clear();
    XilIntf* intf = XilIntf_bySystem("beta", 0x8086, 0x1533, 0, 0x1a, 0x14, 3);
    EXPECT_EQ(intf, b.last);
    EXPECT_THAT(calls, ElementsAre("manages alpha beta", "manages beta beta", "new beta 32902 5427 0_26_20_jtag fn 3"));
    calls.clear();
    XilIntf_tdiIs(intf, 2);
    XilIntf_tdiIs(intf, -1);
    XilIntf_tmsIs(intf, 0);
    XilIntf_tckIs(intf, 256);
    XilIntf_ledIs(intf, 5);
    XilIntf_select(intf, "x");
    XilIntf_cleanup(intf, "y");
    EXPECT_THAT(calls, ElementsAre("tdiIs 1", "tdiIs 1", "tmsIs 0", "tckIs 1", "warningIs 1", "select x", "cleanup y"));
    EXPECT_EQ(XilIntf_tdo(intf), 1);
    b.last->tdoLevel = false;
    EXPECT_EQ(XilIntf_tdo(intf), 0);
    // An unknown name asks every factory and gives null.
    calls.clear();
    EXPECT_EQ(XilIntf_bySystem("zeta", 0, 0, 0, 0, 0, 0), nullptr);
    EXPECT_THAT(calls, ElementsAre("manages alpha zeta", "manages beta zeta", "manages beta zeta", "manages gamma zeta"));
}

// ---- bit fields ----

// Fields inside a register are pinned by every backend's register sequences;
// here the whole-width fields, where a shift by the width would go wrong.
TEST(Hal, WholeWidthFields) {
    EXPECT_EQ(Hal::bitmask<U32>(0, 31), 0xffffffffu);
    EXPECT_EQ(Hal::bitmask<U16>(0, 15), 0xffffu);
    U32 whole = 0xdeadbeef;
    Hal::bitsIs<U32>(whole, 0, 31, 0x01234567u);
    EXPECT_EQ(whole, 0x01234567u);
    EXPECT_EQ(Hal::bits<U32>(0x80000000u, 31, 31), 1u);
}

TEST(HalDeathTest, PreconditionsGuardTheCallersTables) {
    SKIP_WITHOUT_ASSERTIONS();
    EXPECT_DEATH(Hal::bitmask<U32>(5, 4), "from <= to");
    U32 v = 0;
    EXPECT_DEATH(Hal::bitsIs<U32>(v, 0, 3, 0x10), "\\(newValue & ~mask\\) == 0");
}

// ---- tracing ----

TEST(Trace, LevelSpecificationsAndADisabledStatementEvaluatesNothing) {
    EXPECT_EQ(TraceHandle::maskFromSetting("Xilinx/0-3,5", "Xilinx"), 0x2fu);
    EXPECT_EQ(TraceHandle::maskFromSetting("Other/1 Xilinx/2", "Xilinx"), 0x4u);
    EXPECT_EQ(TraceHandle::maskFromSetting("1;3", "Xilinx"), 0xau);
    EXPECT_EQ(TraceHandle::maskFromSetting("*/*", "Xilinx"), 0xffffffffu);
    EXPECT_EQ(TraceHandle::maskFromSetting("Xilinx/x,40,2", "Xilinx"), 0x4u);  // nonsense is ignored
    EXPECT_EQ(TraceHandle::maskFromSetting(nullptr, "Xilinx"), 0u);
    // A statement of a level that is off evaluates nothing.
    TraceLevels levels(0x1);
    int evaluated = 0;
    auto piece = [&] { return ++evaluated; };
    XTRACE(3, "tckIs " << piece());
    XTRACE(0, "tdo " << piece() << " " << true << std::hex << " 0x" << 255u << " " << _fmt("%04x", 0x14));
    std::string err = levels.text();
    EXPECT_EQ(evaluated, 1);
    EXPECT_THAT(err, ::testing::MatchesRegex("Xilinx/0 xilinx/XilIntf.cpp:[0-9]+ TestBody: tdo 1 true 0xff 0014\n"));
}

// ---- register windows (PciHam, the GbE backend's: its path and size in
// gbe_test, every access through it in the GbE register sequences) ----

namespace {
// A sparse file of this test's own, of that many bytes.
std::string fileOf(off_t bytes) {
    char path[] = "/tmp/kelvorn-ham-XXXXXX";
    int fd = ::mkstemp(path);
    EXPECT_EQ(::ftruncate(fd, bytes), 0);
    ::close(fd);
    return path;
}
}  // namespace

// Windows on files of this test's own, and on one that is not there.
TEST(Window, MappedFileReadsAndWritesLittleEndianAndAMissingOrShortOneIsRefusedNotFaulted) {
    // The window past 2 GiB, as the Cedar Fork pads are in /dev/mem.
    std::string path = fileOf(0xFD002000);
    Ptr<Ham> big = new Ham("fileHam", HamType::mappedFile, nullptr, 0xFD000000, 0, path);
    Ptr<HamImpl> impl = big->hamImpl();
    impl->write32(0x10, 0x11223344);
    impl->write8(0x20, 0xab);
    U8 b = 0;
    U16 h = 0;
    U32 w = 0;
    impl->read8(0x10, &b);
    impl->read16(0x12, &h);
    impl->read32(0x20, &w);
    EXPECT_EQ(b, 0x44);
    EXPECT_EQ(h, 0x1122);
    EXPECT_EQ(w, 0xabu);
    std::ifstream in(path, std::ios::binary);
    in.seekg(0xFD000010);
    EXPECT_EQ(in.get(), 0x44);
    ::unlink(path.c_str());

    EXPECT_EXIT(new Ham("theJamHam", HamType::mappedFile, nullptr, 0, 0, "/nonexistent/resource0"),
                ::testing::ExitedWithCode(1),
                "^register window theJamHam: cannot open /nonexistent/resource0: No such file or directory\n$");

    // Accesses past the end of a short file end the process with the
    // window's line instead of SIGBUS, and an empty file maps nothing and
    // reaches nothing.
    path = fileOf(0x10);
    Ptr<Ham> ham = new Ham("shortHam", HamType::mappedFile, nullptr, 0, 0, path);
    EXPECT_EQ(ham->hamImpl()->extent(), 0x10u);
    ham->reaches(0x10);  // returns
    ham->hamImpl()->write32(0xC, 0x12345678);
    U32 v = 0;
    ham->hamImpl()->read32(0xC, &v);
    EXPECT_EQ(v, 0x12345678u);
    std::string line = std::string("^register window shortHam: ") + path + " holds 0x10 bytes, its registers need ";
    EXPECT_EXIT(ham->reaches(0x11), ::testing::ExitedWithCode(1), line + "0x11\n$");
    EXPECT_EXIT(ham->hamImpl()->read32(0xD, &v), ::testing::ExitedWithCode(1), line + "0x11\n$");
    EXPECT_EXIT(ham->hamImpl()->write8(0x4000, 1), ::testing::ExitedWithCode(1), line + "0x4001\n$");

    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    Ptr<Ham> empty = new Ham("emptyHam", HamType::mappedFile, nullptr, 0, 0, path);
    EXPECT_EQ(empty->hamImpl()->extent(), 0u);
    EXPECT_EXIT(empty->reaches(1), ::testing::ExitedWithCode(1),
                std::string("^register window emptyHam: ") + path + " holds 0x0 bytes, its registers need 0x1\n$");
    ::unlink(path.c_str());
}
