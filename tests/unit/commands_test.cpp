// The chain commands (jtag/Commands.h) on a simulated chain of two BSDL
// devices driven straight through the JTAG layer: the boundary register is
// loaded before EXTEST takes the pins, the release gives them up, devices
// are found by position or entity name, a net is told connected or stuck,
// USERCODE read. The refusals, in the tool's words and the library's, with
// no pin driven: chain_test.sh and libchain_test.sh. The live view's
// drives and samples on the same chain; its server and page: view_test.sh.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ChainIntf.h"
#include "TestSupport.h"
#include "jtag/Commands.h"
#include "jtag/LiveView.h"

namespace {

std::shared_ptr<const jtag::bsdl::Device> readData(const char* name) {
    return std::make_shared<const jtag::bsdl::Device>(bsdlData(name));
}

// The chain's devices, found with these files.
jtag::Discovery discoverWith(jtag::Tap& tap, std::initializer_list<std::shared_ptr<const jtag::bsdl::Device>> files) {
    jtag::BsdlCatalogue catalogue;
    for (const auto& file : files) catalogue.add(file);
    return jtag::discover(tap, catalogue, {});
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
    OnChain() {
        chain.netsAre({{{0, "led"}, {1, "SW(1)"}}});
        chain.pinsAre({{{1, "SW(2)"}, false}});
        intf->extest = static_cast<uint32_t>(jtag::bsdlOpcode(*cpld, {"EXTEST"}).value(0, cpld->irLength));
    }
    std::string driven(unsigned position, const char* port) const {
        bool level;
        return chain.boundary(position)->drives(port, &level) ? (level ? "1" : "0") : "z";
    }

    FakeBoard board;
    std::shared_ptr<const jtag::bsdl::Device> cpld = readData("kv_cpld64.bsd"), fpga = readData("KV_FPGA6.BSD");
    sim::JtagChain chain{{{0, 0, {}, {cpld, 0xcafe0001, ""}}, {0, 0, {}, {fpga, 0x12345678, ""}}}};
    WatchIntf* intf = new WatchIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};
    jtag::Discovery d = discoverWith(tap, {cpld, fpga});
    jtag::ChainCommands commands{tap, d, {cpld.get()}, false};  // the CPLD's file given, the FPGA's found
};

TEST(ChainCommands, ADriveLoadsTheRegisterBeforeExtestTakesThePinsAndTheReleaseOrAConnectGivesThemUp) {
    OnChain c;
    ASSERT_EQ(c.d.devices.size(), 2u);
    unsigned p = 99;
    ASSERT_TRUE(c.commands.resolve("KV_CPLD64", &p).ok());
    ASSERT_EQ(p, 0u);
    jtag::DrivePlan plan = c.commands.planDrive(p, {"led=1", "d(2)=0", "D(3)=1", "d(1)=z"});
    ASSERT_TRUE(plan.ok()) << plan.error;
    jtag::DriveResult r = c.commands.applyDrive(plan);
    // PRELOAD first: the pins go straight to the levels asked, never through the capture's.
    EXPECT_EQ(c.intf->atExtest, "led=1 d(2)=0 d(3)=1 ");
    EXPECT_EQ(c.driven(0, "led") + c.driven(0, "d(0)") + c.driven(0, "d(2)") + c.driven(0, "d(3)"), "1z01");
    EXPECT_TRUE(c.chain.pinLevel(1, "SW(1)"));  // the net carries led
    EXPECT_EQ(jtag::driveJson(r, 0.5),
              R"J({"device":0,"driving":{"led":1,"d(2)":0,"d(3)":1},"two_state_at_safe_level":[],"hold_s":0.5})J");
    c.commands.release();
    EXPECT_EQ(c.chain.state(), jtag::TapState::TestLogicReset);
    EXPECT_EQ(c.driven(0, "led") + c.driven(0, "d(2)") + c.driven(0, "d(3)"), "zzz");

    // A connect releases the pins it drove too. (The results of connect,
    // USERCODE and sample, as text and JSON, are kelvorn-chain's in chain_test.sh.)
    jtag::ConnectResult net = c.commands.connect("kv_cpld64.led", "1.SW(1)");
    EXPECT_EQ(net.result + " " + std::to_string(net.status), "connected 0");
    EXPECT_EQ(c.chain.state(), jtag::TapState::TestLogicReset);
    EXPECT_EQ(c.driven(0, "led"), "z");
}

// The view keeps sampling while it drives: its samples shift the drive's
// register, so no pin moves but those asked for; one pin released puts the
// device back in SAMPLE, release() in Test-Logic-Reset.
TEST(LiveView, DrivesOnlyTheNamedPinsWhileItSamplesAndGivesThemBack) {
    OnChain c;
    jtag::LiveView view(c.commands, c.d, true);
    uint32_t sample = static_cast<uint32_t>(jtag::bsdlOpcode(*c.cpld, {"SAMPLE"}).value(0, c.cpld->irLength));
    EXPECT_TRUE(view.sample().empty());  // the first sample is the start
    EXPECT_EQ(view.levelsValue()["1"].dump(), R"J({"SW(0)":1,"SW(1)":1,"SW(2)":0,"SW(3)":1,"BUS":1})J");
    ASSERT_TRUE(view.drive(0, "led", '0').ok());
    EXPECT_EQ(c.intf->atExtest, "led=0 d(2)=z d(3)=z ");
    auto changes = view.sample();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(std::to_string(changes[0].position) + " " + changes[0].port + " " + std::to_string(changes[0].level), "1 SW(1) 0");
    EXPECT_EQ(c.driven(0, "led") + c.driven(0, "d(2)"), "0z");  // a sample shifts the drive's own register
    // d(2) shares its enable with d(3): refused, and nothing moved.
    jtag::CommandResult shared = view.drive(0, "d(2)", '1');
    EXPECT_EQ(shared.status, jtag::kChainDriveRefused) << shared.error;
    EXPECT_EQ(c.driven(0, "led") + c.driven(0, "d(2)") + c.driven(0, "d(3)"), "0zz");
    EXPECT_EQ(view.drivingValue().dump(), R"J({"0":{"led":"0"}})J");
    ASSERT_TRUE(view.drive(0, "LED", 'z').ok());
    EXPECT_EQ(c.chain.instruction(0), sample);
    EXPECT_EQ(c.driven(0, "led"), "z");
    EXPECT_EQ(view.drivingValue().dump(), "{}");
    ASSERT_TRUE(view.drive(0, "led", '1').ok());
    view.release();
    EXPECT_EQ(c.chain.state(), jtag::TapState::TestLogicReset);
    EXPECT_EQ(c.driven(0, "led"), "z");
    view.sample();
    EXPECT_EQ(c.chain.instruction(0), sample);
}

TEST(LiveView, RefusesADriveItMayNotMakeAndMovesNothing) {
    OnChain c;
    jtag::LiveView watching(c.commands, c.d, false), view(c.commands, c.d, true);
    auto refused = [&](jtag::LiveView& v, unsigned p, const char* port) {
        jtag::CommandResult r = v.drive(p, port, '1');
        return std::to_string(r.status) + " " + r.error;
    };
    EXPECT_EQ(refused(watching, 0, "led"), "6 drive refused: the view was started without --drive");
    EXPECT_EQ(refused(view, 1, "BUS").substr(0, 58), "6 drive refused: device 1's BSDL file was found, not given");
    EXPECT_EQ(refused(view, 2, "led"), "2 no device at position 2 (the chain has 2)");
    EXPECT_EQ(refused(view, 0, "clk").substr(0, 2), "6 ");
    EXPECT_EQ(c.driven(0, "led") + c.driven(1, "BUS"), "zz");
    EXPECT_NE(c.chain.instruction(0), c.intf->extest);
}

// Packages drawn as they are: a quad package's pins in number order, a ball
// grid's balls by row then column; the failing nets of a test report marked.
TEST(LiveView, DrawsQuadAndGridPackagesAndMarksFailingNets) {
    auto io = readData("kv_io48.bsd"), bga = readData("KV_BGA36.BSD");
    sim::JtagChain chain({{0, 0, {}, {io, 0x148300dd, ""}}, {0, 0, {}, {bga, 0x2b63603f, ""}}});
    jtag::Tap tap{new ChainIntf("0_1_0_jtag", &chain)};
    jtag::Discovery d = discoverWith(tap, {io, bga});
    jtag::ChainCommands commands(tap, d, {}, false);
    jtag::LiveView view(commands, d, false);
    view.sample();
    jtag::Json quad, grid;
    ASSERT_TRUE(view.pinsValue(0, &quad));
    ASSERT_TRUE(view.pinsValue(1, &grid));
    EXPECT_EQ(quad["shape"], "quad");
    ASSERT_EQ(quad["pins"].size(), 48u);
    EXPECT_EQ(quad["pins"][0].dump() + quad["pins"][1].dump(),
              R"J({"pin":"1","port":"gnd(1)","cell":null,"function":null,"level":null,"driven":null})J"
              R"J({"pin":"2","port":"io(0)","cell":9,"function":"bidir","level":1,"driven":null})J");
    EXPECT_EQ(grid["shape"], "grid");
    EXPECT_EQ(grid["rows"].dump() + grid["columns"].dump(), R"J(["A","B","C","D","E","F"][1,2,3,4,5,6])J");
    ASSERT_EQ(grid["pins"].size(), 36u);
    EXPECT_EQ(grid["pins"][0]["pin"].get<std::string>() + grid["pins"][6]["pin"].get<std::string>() +
                  grid["pins"][35]["pin"].get<std::string>(),
              "A1B1F6");
    jtag::Json report = jtag::Json::parse(R"J({"nets":[{"name":"N1","result":"fail","pins":["U1.2","U2.A3"]},
        {"name":"N2","result":"pass","pins":["U1.3"]}],"faults":[{"kind":"open"}]})J");
    ASSERT_TRUE(view.marks(report, {"U1=0", "U2=KV_BGA36"}).ok());
    EXPECT_EQ(view.marksValue().dump(), R"J({"marks":{"0":["2"],"1":["A3"]},"faults":[{"kind":"open"}]})J");
    EXPECT_EQ(view.marks(report, {"U1=7"}).status, jtag::kChainUsage);
}

}  // namespace
