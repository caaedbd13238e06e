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
using ::testing::ElementsAreArray;

namespace {

const char kConfig[] = "/sys/bus/pci/devices/0000:00:1f.0/config";

// Config space, cut to `size` bytes, whose register 0x48 holds 0x0000f581.
std::string config(size_t size = 0x100) {
    std::string c(0x100, '\0');
    c[0x48] = '\x81', c[0x49] = '\xf5';
    return c.substr(0, size);
}

class CaveCreek : public ::testing::Test {
  protected:
    CaveCreekPCHIntf* make() {
        board.fileIs(kConfig, config());
        ::testing::internal::CaptureStdout();
        XilIntf* intf = CaveCreekPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0);
        std::fflush(stdout);
        out = ::testing::internal::GetCapturedStdout();
        return static_cast<CaveCreekPCHIntf*>(intf);
    }

    FakeBoard board;
    FakeHamImpl& ports = board.hams["theCaveCreekPCHIOHam"];
    std::string out;
};

}  // namespace

// The factory refuses other names without asking the platform (no shell
// command among the events); its six names: simscan_test.
TEST_F(CaveCreek, FactoryRefusesOtherNamesThenBaseFromConfigRegister48ThenAnIoPortWindow) {
    EXPECT_FALSE(CaveCreekPCHFactory().manages("mubarscd") || CaveCreekPCHFactory().manages("fodak"));
    CaveCreekPCHIntf* intf = make();
    EXPECT_EQ(out, "GPIO Offset: 0xf580\n");
    EXPECT_THAT(board.events, ElementsAre("lock /var/lock/0_0_31_jtag", "fopen " + std::string(kConfig),
                                          "window theCaveCreekPCHIOHam "));
    ASSERT_EQ(board.hams.opened().size(), 1u);
    EXPECT_EQ(board.hams.opened()[0].type, HamType::ioPort);
    EXPECT_TRUE(ports.log().empty());
    // Use select, I/O select and level registers of GPIO 95, bank 2 (banks 0
    // and 1: the select sequences below).
    EXPECT_THAT((std::vector<U32>{intf->useSelectGpioReg(95), intf->ioSelectGpioReg(95), intf->readWriteGpioReg(95)}),
                ElementsAre(0xf5c0u, 0xf5c4u, 0xf5c8u));
}

TEST_F(CaveCreek, GpioWithoutABankStopsAtItsAssertion) {
    SKIP_WITHOUT_ASSERTIONS();
    CaveCreekPCHIntf* intf = make();
    EXPECT_DEATH(intf->useSelectGpioReg(96), "GPIO without a bank");
}

TEST_F(CaveCreek, SelectMakesOutputsInputLowLevelsThenAuxAndSetup) {
    ports.poke(0xf584, 0xffffffff);  // every pin an input
    ports.poke(0xf5b4, 0xffffffff);
    ports.poke(0xf58c, 0x00001000);  // TCK (12) high
    ports.poke(0xf5b8, 0x00003000);  // TDI (44), TMS (45) high
    CaveCreekPCHIntf* intf = make();
    intf->select("zetizSwitchCpld");
    Accesses expected;  // outputs TCK 12, TDI 44, TMS 45, setup 24: a GPIO, then an output
    expected.rmw(0xf580, {0x0, 0x1000}).rmw(0xf584, {0xffffffff, 0xffffefff});
    expected.rmw(0xf5b0, {0x0, 0x1000}).rmw(0xf5b4, {0xffffffff, 0xffffefff});
    expected.rmw(0xf5b0, {0x1000, 0x3000}).rmw(0xf5b4, {0xffffefff, 0xffffcfff});
    expected.rmw(0xf580, {0x1000, 0x1001000}).rmw(0xf584, {0xffffefff, 0xfeffefff});
    // TDO 22 an input
    expected.rmw(0xf580, {0x1001000, 0x1401000}).rmw(0xf584, {0xfeffefff, 0xfeffefff});
    // TCK, TDI, TMS low
    expected.rmw(0xf58c, {0x1000, 0x0}).rmw(0xf5b8, {0x3000, 0x2000}).rmw(0xf5b8, {0x2000, 0x0});
    // aux 15: output, high; then setup 24 high
    expected.rmw(0xf580, {0x1401000, 0x1409000}).rmw(0xf584, {0xfeffefff, 0xfeff6fff});
    expected.rmw(0xf58c, {0x0, 0x8000}).rmw(0xf58c, {0x8000, 0x1008000});
    EXPECT_THAT(ports.log(), ElementsAreArray(expected));
}

TEST_F(CaveCreek, TdiAndTmsSkipRepeatsTckAlwaysWrites) {
    CaveCreekPCHIntf* intf = make();
    intf->select("posabuSwitchScd");
    ports.clearLog();
    intf->tdiIs(false);
    intf->tmsIs(false);
    EXPECT_TRUE(ports.log().empty());
    intf->tckIs(false);
    intf->tckIs(false);
    intf->tdiIs(true);
    intf->tdiIs(true);
    intf->tmsIs(true);
    expectTdoFollows(ports, intf, 0xf58c, 0x8);  // TDO is GPIO 3: bit 3 of bank 0
    Accesses expected;  // aux 48 (bit 16) stays high
    expected.rmw(0xf58c, {0x0, 0x0}).rmw(0xf58c, {0x0, 0x0}).rmw(0xf5b8, {0x10000, 0x11000, 0x13000});
    EXPECT_THAT(ports.log(), ElementsAreArray(expected.read(0xf58c, 0x8).read(0xf58c, 0xfffffff7)));
}

TEST_F(CaveCreek, MubarHasNoAuxPinAndCleanupUsesSelectsPins) {
    CaveCreekPCHIntf* intf = make();
    intf->select("mubarScd");
    EXPECT_EQ(ports.log().size(), 4u * 4 + 4 + 3 * 2 + 2);  // outputs, TDO input, low levels, setup level
    EXPECT_EQ(ports.log().back(), "W32 0xf58c=0x0");       // setup 24 low, no aux step before it
    ports.clearLog();
    intf->cleanup("zetizSwitchCpld");
    Accesses expected;  // TCK 17, TDI 14, TMS 15, setup 24: still GPIOs, now inputs; no aux
    const U32 inputs[] = {0x8000000, 0x8020000, 0x8024000, 0x802c000, 0x902c000};  // 0xf584 after each
    for (int i = 0; i < 4; ++i) expected.rmw(0xf580, {0x902c000, 0x902c000}).rmw(0xf584, {inputs[i], inputs[i + 1]});
    EXPECT_THAT(ports.log(), ElementsAreArray(expected));
}

// The backend cannot work without the base: one line naming the file and
// the reason, status 1, and no window (a window made would show on stderr).
TEST_F(CaveCreek, UnreadableConfigEndsTheRunBeforeAnyWindow) {
    board.hams.onOpen = [](const HamDesc& s) { std::fprintf(stderr, "window %s\n", s.name.c_str()); };
    EXPECT_EXIT(CaveCreekPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0), ::testing::ExitedWithCode(1),
                "^cannot read GPIO base from /sys/bus/pci/devices/0000:00:1f.0/config: "
                "No such file or directory\n$");
    board.fileIs(kConfig, config(0x4a));
    EXPECT_EXIT(CaveCreekPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0), ::testing::ExitedWithCode(1),
                "^cannot read GPIO base from /sys/bus/pci/devices/0000:00:1f.0/config: "
                "short read, fewer than 4 bytes at offset 0x48\n$");
}
