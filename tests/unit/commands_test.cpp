// The chain commands (jtag/Commands.h) on a simulated chain of two BSDL
// devices driven straight through the JTAG layer: the boundary register is
// loaded before EXTEST takes the pins, the release gives them up, devices
// are found by position or entity name, a net is told connected or stuck,
// USERCODE read. The refusals, in the tool's words and the library's, with
// no pin driven: chain_test.sh and libchain_test.sh.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ChainIntf.h"
#include "TestSupport.h"
#include "jtag/Commands.h"

namespace {

std::shared_ptr<const jtag::bsdl::Device> readData(const char* name) {
    return std::make_shared<const jtag::bsdl::Device>(bsdlData(name));
}

// The pins of device 0 as they are on the first TCK edge that finds its
// EXTEST in force: what the pins see the moment EXTEST takes them.
struct WatchIntf : ChainIntf {
    using ChainIntf::ChainIntf;
    void tckIs(bool v) override {
        ChainIntf::tckIs(v);
        if (!extestSeen && chain->instruction(0) == extest) {
            extestSeen = true;
            for (const char* port : {"led", "d(2)", "d(3)"}) {
                bool level;
                atExtest += std::string(port) + "=" +
                            (chain->boundary(0)->drives(port, &level) ? (level ? "1 " : "0 ") : "z ");
            }
        }
    }
    uint32_t extest = 0;
    bool extestSeen = false;
    std::string atExtest;
};

struct OnChain {
    explicit OnChain(bool giveCpld = true) : chain(devices()) {
        chain.netsAre({{{0, "led"}, {1, "SW(1)"}}});
        chain.pinsAre({{{1, "SW(2)"}, false}});
        jtag::BsdlCatalogue catalogue;
        catalogue.add(cpld);
        catalogue.add(fpga);
        d = jtag::discover(tap, catalogue, {});
        if (giveCpld) given.insert(cpld.get());
        intf->extest = static_cast<uint32_t>(jtag::bsdlOpcode(*cpld, {"EXTEST"}).value(0, cpld->irLength));
    }
    std::vector<sim::DeviceDesc> devices() {
        return {{0, 0, {}, {cpld, 0xcafe0001, ""}}, {0, 0, {}, {fpga, 0x12345678, ""}}};
    }
    std::string driven(unsigned position, const char* port) const {
        bool level;
        return chain.boundary(position)->drives(port, &level) ? (level ? "1" : "0") : "z";
    }

    FakeBoard board;
    std::shared_ptr<const jtag::bsdl::Device> cpld = readData("kv_cpld64.bsd"), fpga = readData("KV_FPGA6.BSD");
    sim::JtagChain chain;
    WatchIntf* intf = new WatchIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};
    jtag::Discovery d;
    std::set<const void*> given;
};

TEST(ChainCommands, ADriveLoadsTheRegisterBeforeExtestTakesThePinsAndTheReleaseGivesThemUp) {
    OnChain c;
    ASSERT_EQ(c.d.devices.size(), 2u);
    jtag::ChainCommands commands(c.tap, c.d, c.given, false);
    unsigned p = 99;
    ASSERT_TRUE(commands.resolve("KV_CPLD64", &p).ok());
    ASSERT_EQ(p, 0u);
    jtag::DrivePlan plan = commands.planDrive(p, {"led=1", "d(2)=0", "D(3)=1", "d(1)=z"});
    ASSERT_TRUE(plan.ok()) << plan.error;
    jtag::DriveResult r = commands.applyDrive(plan);
    // PRELOAD first: the pins go straight to the levels asked, never through the capture's.
    EXPECT_EQ(c.intf->atExtest, "led=1 d(2)=0 d(3)=1 ");
    EXPECT_EQ(c.driven(0, "led") + c.driven(0, "d(0)") + c.driven(0, "d(2)") + c.driven(0, "d(3)"), "1z01");
    EXPECT_TRUE(c.chain.pinLevel(1, "SW(1)"));  // the net carries led
    EXPECT_EQ(jtag::driveJson(r, 0.5),
              R"J({"device":0,"driving":{"led":1,"d(2)":0,"d(3)":1},"two_state_at_safe_level":[],"hold_s":0.5})J");
    commands.release();
    EXPECT_EQ(c.chain.state(), jtag::TapState::TestLogicReset);
    EXPECT_EQ(c.driven(0, "led") + c.driven(0, "d(2)") + c.driven(0, "d(3)"), "zzz");
}

// The results of connect, USERCODE and sample, as text and JSON, are
// kelvorn-chain's in chain_test.sh; here what a connect leaves on the chain.
TEST(ChainCommands, AConnectReleasesThePinsItDrove) {
    OnChain c;
    jtag::ChainCommands commands(c.tap, c.d, c.given, false);
    jtag::ConnectResult net = commands.connect("kv_cpld64.led", "1.SW(1)");
    EXPECT_EQ(net.result + " " + std::to_string(net.status), "connected 0");
    EXPECT_EQ(c.chain.state(), jtag::TapState::TestLogicReset);
    EXPECT_EQ(c.driven(0, "led"), "z");
}

}  // namespace
