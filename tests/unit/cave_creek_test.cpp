// The Cave Creek backend over a fake I/O-port window: the GPIO base from the
// config file, bank and bit arithmetic, the exact port traffic of select,
// the pin operations and cleanup, and the set-up failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "xilinx/backends/CaveCreekPCHIntf.h"

using ::testing::ElementsAre;

namespace {

const char kConfig[] = "/sys/bus/pci/devices/0000:00:1f.0/config";

std::string configWithGpioBase(U32 value, size_t size = 0x100) {
    std::string c(0x100, '\0');
    for (int i = 0; i < 4; ++i) c[0x48 + i] = static_cast<char>(value >> (8 * i));
    c.resize(size);
    return c;
}

class CaveCreek : public ::testing::Test {
  protected:
    CaveCreekPCHIntf* make() {
        board.fileIs(kConfig, configWithGpioBase(0x0000f581));
        ::testing::internal::CaptureStdout();
        XilIntf* intf = CaveCreekPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0);
        std::fflush(stdout);
        out = ::testing::internal::GetCapturedStdout();
        return static_cast<CaveCreekPCHIntf*>(intf);
    }
    CaveCreekPCHIntf* selected(const char* name) {
        CaveCreekPCHIntf* intf = make();
        intf->select(name);
        ports.clearLog();
        return intf;
    }

    FakeBoard board;
    FakeHamImpl& ports = board.hams["theCaveCreekPCHIOHam"];
    std::string out;
};

}  // namespace

TEST_F(CaveCreek, FactoryKnowsSixNamesWithoutAskingThePlatform) {
    CaveCreekPCHFactory f;
    for (const char* name :
         {"zetizSwitchCpld", "zetizSwitchScd", "bevibLineScd", "posabuSwitchScd", "tomitShimScd", "mubarScd"})
        EXPECT_TRUE(f.manages(name)) << name;
    EXPECT_FALSE(f.manages("mubarscd"));
    EXPECT_FALSE(f.manages("fodak"));
    EXPECT_TRUE(board.events.empty());
}

TEST_F(CaveCreek, BaseFromConfigRegister48ThenAnIoPortWindow) {
    CaveCreekPCHIntf* intf = make();
    EXPECT_EQ(out, "GPIO Offset: 0xf580\n");
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_0_31_jtag", "fopen " + std::string(kConfig),
                                          "window theCaveCreekPCHIOHam "));
    ASSERT_EQ(board.hams.opened().size(), 1u);
    EXPECT_EQ(board.hams.opened()[0].type, HamType::ioPort);
    EXPECT_TRUE(ports.log().empty());
    // GPIO 44 is bit 12 of bank 1; GPIO 3 and 95 are in banks 0 and 2.
    EXPECT_EQ(intf->useSelectGpioReg(44), 0xf5b0u);
    EXPECT_EQ(intf->ioSelectGpioReg(44), 0xf5b4u);
    EXPECT_EQ(intf->readWriteGpioReg(44), 0xf5b8u);
    EXPECT_EQ(intf->readWriteGpioReg(3), 0xf58cu);
    EXPECT_EQ(intf->ioSelectGpioReg(95), 0xf5c4u);
    EXPECT_DEATH(intf->useSelectGpioReg(96), "GPIO without a bank");
}

TEST_F(CaveCreek, SelectMakesOutputsInputLowLevelsThenAuxAndSetup) {
    ports.poke(0xf584, 0xffffffff);  // every pin an input
    ports.poke(0xf5b4, 0xffffffff);
    ports.poke(0xf58c, 0x00001000);  // TCK (12) high
    ports.poke(0xf5b8, 0x00003000);  // TDI (44), TMS (45) high
    CaveCreekPCHIntf* intf = make();
    intf->select("zetizSwitchCpld");
    EXPECT_THAT(ports.log(),
                ElementsAre(  // outputs: TCK 12, TDI 44, TMS 45, setup 24
                    "R32 0xf580=0x0", "W32 0xf580=0x1000", "R32 0xf584=0xffffffff", "W32 0xf584=0xffffefff",
                    "R32 0xf5b0=0x0", "W32 0xf5b0=0x1000", "R32 0xf5b4=0xffffffff", "W32 0xf5b4=0xffffefff",
                    "R32 0xf5b0=0x1000", "W32 0xf5b0=0x3000", "R32 0xf5b4=0xffffefff", "W32 0xf5b4=0xffffcfff",
                    "R32 0xf580=0x1000", "W32 0xf580=0x1001000", "R32 0xf584=0xffffefff",
                    "W32 0xf584=0xfeffefff",
                    // TDO 22 an input
                    "R32 0xf580=0x1001000", "W32 0xf580=0x1401000", "R32 0xf584=0xfeffefff",
                    "W32 0xf584=0xfeffefff",
                    // TCK, TDI, TMS low
                    "R32 0xf58c=0x1000", "W32 0xf58c=0x0", "R32 0xf5b8=0x3000", "W32 0xf5b8=0x2000",
                    "R32 0xf5b8=0x2000", "W32 0xf5b8=0x0",
                    // aux 15: output, high
                    "R32 0xf580=0x1401000", "W32 0xf580=0x1409000", "R32 0xf584=0xfeffefff",
                    "W32 0xf584=0xfeff6fff", "R32 0xf58c=0x0", "W32 0xf58c=0x8000",
                    // setup 24 high
                    "R32 0xf58c=0x8000", "W32 0xf58c=0x1008000"));
}

TEST_F(CaveCreek, TdiAndTmsSkipRepeatsTckAlwaysWrites) {
    CaveCreekPCHIntf* intf = selected("posabuSwitchScd");
    intf->tdiIs(false);
    intf->tmsIs(false);
    EXPECT_TRUE(ports.log().empty());
    intf->tckIs(false);
    intf->tckIs(false);
    intf->tdiIs(true);
    intf->tdiIs(true);
    intf->tmsIs(true);
    EXPECT_THAT(ports.log(), ElementsAre("R32 0xf58c=0x0", "W32 0xf58c=0x0", "R32 0xf58c=0x0", "W32 0xf58c=0x0",
                                         "R32 0xf5b8=0x10000", "W32 0xf5b8=0x11000", "R32 0xf5b8=0x11000",
                                         "W32 0xf5b8=0x13000"));  // aux 48 (bit 16) stays high
    ports.clearLog();
    ports.poke(0xf58c, 0x8);  // TDO is GPIO 3: bit 3 of bank 0
    EXPECT_TRUE(intf->tdo());
    ports.poke(0xf58c, ~0x8u);
    EXPECT_FALSE(intf->tdo());
    EXPECT_THAT(ports.log(), ElementsAre("R32 0xf58c=0x8", "R32 0xf58c=0xfffffff7"));
}

TEST_F(CaveCreek, MubarHasNoAuxPinAndCleanupUsesSelectsPins) {
    CaveCreekPCHIntf* intf = make();
    intf->select("mubarScd");
    EXPECT_EQ(ports.log().size(), 4u * 4 + 4 + 3 * 2 + 2);  // outputs, TDO input, low levels, setup level
    EXPECT_EQ(ports.log().back(), "W32 0xf58c=0x0");       // setup 24 low, no aux step before it
    ports.clearLog();
    intf->cleanup("zetizSwitchCpld");
    EXPECT_THAT(ports.log(),
                ElementsAre(  // TCK 17, TDI 14, TMS 15, setup 24: GPIO and input; no aux
                    "R32 0xf580=0x902c000", "W32 0xf580=0x902c000", "R32 0xf584=0x8000000", "W32 0xf584=0x8020000",
                    "R32 0xf580=0x902c000", "W32 0xf580=0x902c000", "R32 0xf584=0x8020000", "W32 0xf584=0x8024000",
                    "R32 0xf580=0x902c000", "W32 0xf580=0x902c000", "R32 0xf584=0x8024000", "W32 0xf584=0x802c000",
                    "R32 0xf580=0x902c000", "W32 0xf580=0x902c000", "R32 0xf584=0x802c000",
                    "W32 0xf584=0x902c000"));
}

TEST_F(CaveCreek, UnknownDeviceEndsTheRun) {
    CaveCreekPCHIntf* intf = make();
    EXPECT_EXIT(intf->select("mubar"), ::testing::ExitedWithCode(1), "^Unknown device: mubar\n$");
}

// The backend cannot work without the base: one line naming the file and
// the reason, status 1, and no window (a window made would show on stderr).
TEST_F(CaveCreek, UnreadableConfigEndsTheRunBeforeAnyWindow) {
    board.hams.onOpen = [](const HamDesc& s) { std::fprintf(stderr, "window %s\n", s.name.c_str()); };
    EXPECT_EXIT(CaveCreekPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0), ::testing::ExitedWithCode(1),
                "^cannot read GPIO base from /sys/bus/pci/devices/0000:00:1f.0/config: "
                "No such file or directory\n$");
    board.fileIs(kConfig, configWithGpioBase(0xf581, 0x4a));
    EXPECT_EXIT(CaveCreekPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0), ::testing::ExitedWithCode(1),
                "^cannot read GPIO base from /sys/bus/pci/devices/0000:00:1f.0/config: "
                "short read, fewer than 4 bytes at offset 0x48\n$");
}
