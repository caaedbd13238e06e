// A process that must not end when a board refuses (a library) replaces
// the module's exit with a throw: the refusal then leaves nothing behind,
// the device's lock above all, and an interface that is deleted drops its
// lock. On the simulated board, whose lock files are nameless files.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "os/Os.h"
#include "sim/Board.h"
#include "xilinx/XilIntf.h"

namespace {

struct Refused {
    int status;
};

// The exit hook throws for the length of a test, as libkelvorn's calls do.
class ExitHook : public ::testing::Test {
  protected:
    void install(const char* device, const char* platform = "", unsigned family = 0x16, unsigned model = 0x30) {
        sim::BoardConfig c;
        c.device = device;
        c.platform = platform;
        c.family = family;
        c.model = model;
        board_ = std::make_unique<sim::Board>(std::move(c));
        board_->install();
        Os::hooks().exit = [](int status) { throw Refused{status}; };
    }
    void TearDown() override {
        board_.reset();  // puts the real hooks back, the exit's too
        Os::resetHooks();
    }
    // Whether another description holds the lock of the device at 0000:bus:dev.
    static bool locked(U8 bus, U8 device) {
        char name[256];
        xilLockName(name, 0, bus, device);
        int fd = Os::creat((std::string("/var/lock/") + name).c_str(), 0400);
        EXPECT_GE(fd, 0);
        bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        ::close(fd);
        return held;
    }
    std::unique_ptr<sim::Board> board_;
};

// Once the first is deleted the lock is free: it dropped its lock, and the
// refused one kept no descriptor of it.
TEST_F(ExitHook, ALockHeldThrowsAndKeepsNoDescriptorAndDeletingAnInterfaceDropsItsLock) {
    install("rotanMotub");
    XilIntf* first = XilIntf_bySystem("rotanMotub", 0, 0, 0, 3, 0, 0);
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(locked(3, 0));
    EXPECT_FALSE(locked(4, 0));  // another device's
    testing::internal::CaptureStderr();
    try {
        XilIntf_bySystem("rotanMotub", 0, 0, 0, 3, 0, 0);
        ADD_FAILURE() << "a second interface on a held lock";
    } catch (const Refused& r) {
        EXPECT_EQ(r.status, 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Lock file is locked by another process.");
    delete first;
    EXPECT_FALSE(locked(3, 0));
}

TEST_F(ExitHook, ABackendThatRefusesTheBoardKeepsNoLock) {
    // The SoC GPIO backend knows no SoC of this family: it refuses after
    // its lock is taken, while it checks its probe pin.
    install("fodak", "gozip", 0x10, 0x00);
    testing::internal::CaptureStdout();
    EXPECT_THROW(XilIntf_bySystem("fodak", 0, 0, 0, 0, 0x14, 0), Refused);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("Unsupported family 16 model 0", 0), 0u);
    EXPECT_FALSE(locked(0, 0x14));
}

}  // namespace
