// The board test's plan and patterns on the test board (tests/data/netlist,
// tests/data/bsdl) against a board model in the test: what each pattern
// drives is read from the registers shifted, and no pattern may drive a net
// from two pins, a power net, or an output the netlist does not name.
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "jtag/Boundary.h"
#include "jtag/Interconnect.h"

namespace {

using namespace jtag;
const std::string kData = std::string(KELVORN_SOURCE_DIR) + "/tests/data/";

struct TestBoard {
    bsdl::Device u1 = bsdlData("kv_io48.bsd"), u2 = bsdlData("KV_BGA36.BSD");
    netlist::Netlist netlist;
    TestBoard() {
        std::string error;
        EXPECT_TRUE(netlist::readFile(kData + "netlist/board.net", &netlist, &error)) << error;
    }
    std::vector<interconnect::Part> parts() const { return {{"U1", 0, &u1, ""}, {"U2", 2, &u2, ""}}; }
    // Plans the board into p (its own parts unless given others): "" or the refusal.
    std::string plan(const interconnect::Options& o = {}, std::vector<interconnect::Part> with = {}) {
        std::string error;
        p = {};
        return interconnect::plan(netlist, with.empty() ? parts() : with, o, &p, &error) ? "" : error;
    }
    interconnect::Plan p;
};

// A good board: each net's level is its enabled driver's, else its pull
// (up unless planned down). Records every pattern's drivers and checks them.
class Model : public interconnect::Board {
  public:
    explicit Model(const interconnect::Plan& p) : p_(p) {}
    std::vector<BitVector> scan(const std::vector<BitVector>& regs) override {
        std::vector<BitVector> captured(regs.size());
        for (size_t i = 0; i < regs.size(); ++i) captured[i].assign(regs[i].size(), false);
        if (extest_) check(inForce_);
        for (const interconnect::PlannedNet& net : p_.nets) {
            bool level = net.pulled ? net.pullUp : true;
            for (size_t i : net.scanPins) {
                const interconnect::Pin& pin = p_.pins[i];
                if (pin.output >= 0 && driving(inForce_, pin)) level = inForce_[pin.part][pin.output];
            }
            for (size_t i : net.scanPins)
                if (p_.pins[i].input >= 0) captured[p_.pins[i].part].set(p_.pins[i].input, level);
        }
        inForce_ = regs;  // Update-DR
        return captured;
    }
    void extest() override { extest_ = true; }
    unsigned checked = 0;

  private:
    bool driving(const std::vector<BitVector>& regs, const interconnect::Pin& pin) const {
        return extest_ && (pin.control < 0 || regs[pin.part][pin.control] == pin.enable);
    }
    // Every output the registers enable is its net's one driver (or a
    // two-state output the netlist does not name, at its safe level).
    void check(const std::vector<BitVector>& regs) {
        for (size_t part = 0; part < regs.size(); ++part) {
            const bsdl::Device& d = *p_.parts[part].device;
            for (const boundary::PortDrive& port : boundary::drivenBy(d, regs[part])) {
                if (port.level == 'z') continue;
                const interconnect::PlannedNet* on = nullptr;
                for (const interconnect::PlannedNet& net : p_.nets)
                    for (size_t i : net.scanPins)
                        if (p_.pins[i].part == part && boundary::sameName(p_.pins[i].port, port.port)) on = &net;
                if (!on) {
                    EXPECT_EQ(port.level, boundary::outputCell(d, port.port)->safe) << port.port << " unnamed";
                    continue;
                }
                ASSERT_GE(on->driver, 0) << port.port << " drives " << on->name << ", which has no driver";
                EXPECT_TRUE(boundary::sameName(p_.pins[on->driver].port, port.port) && p_.pins[on->driver].part == part)
                    << port.port << " drives " << on->name << " beside its driver";
                EXPECT_NE(on->cls, interconnect::NetClass::power) << on->name;
            }
        }
        ++checked;
    }
    const interconnect::Plan& p_;
    std::vector<BitVector> inForce_;
    bool extest_ = false;
};

TEST(Interconnect, PlansEveryNetOfTheTestBoardAndRefusesAPackageThePartDoesNotHave) {
    TestBoard b;
    ASSERT_EQ(b.plan(), "");
    const interconnect::Plan& p = b.p;
    std::map<std::string, std::string> got;
    for (const interconnect::PlannedNet& n : p.nets)
        got[n.name] = std::string(interconnect::className(n.cls)) + (n.driver >= 0 ? " from " + p.pins[n.driver].name : "") +
                      (n.reason.empty() ? "" : ": " + n.reason);
    EXPECT_EQ(got["D0"], "testable from U1.2");            // io(0), its own control: the first of two bidirectionals
    EXPECT_EQ(got["B0"], "testable from U2.D1");           // only U2 drives it
    EXPECT_EQ(got["OE0"], "testable from U1.39");          // oe_out(0) and (1) share a control cell:
    EXPECT_EQ(got["OE1"], "testable from U1.40");          // enabled together, each its net's driver
    EXPECT_EQ(got["LED"], "testable from U1.41");          // two-state: it drives whatever happens
    EXPECT_EQ(got["PU0"], "pulled from U1.18");
    EXPECT_EQ(got["PD0"], "pulled from U2.D2");
    EXPECT_EQ(got["EXT0"], "untestable: one boundary-scan pin");
    EXPECT_EQ(got["EXT1"], "untestable: no boundary-scan pin");
    EXPECT_EQ(got["GND"], "power: a power net");
    EXPECT_EQ(got["+3V3"], "power: a power net");

    // A package the part does not have. (A pin not in the part's pin map, with file and line: interconnect_test.sh.)
    std::vector<interconnect::Part> parts = b.parts();
    parts[1].package = "QFN9";
    EXPECT_EQ(b.plan({}, parts), b.netlist.file + ": U2 (KV_BGA36) has no package QFN9");
}

TEST(Interconnect, AGoodBoardPassesInCountingPatternsWithNoNetDrivenTwice) {
    TestBoard b;
    for (bool d9Power : {false, true}) {
        interconnect::Options o;
        if (d9Power) o.power.insert("D9");
        ASSERT_EQ(b.plan(o), "");
        Model board(b.p);
        interconnect::Report r = interconnect::run(b.p, board);
        EXPECT_TRUE(r.faults.empty());
        // 16 (15) driven nets: 5 bits, a pattern of each and of its
        // complement, one scan each and the preload.
        EXPECT_EQ(r.patterns, 10u);
        EXPECT_EQ(r.scans, 11u);
        EXPECT_EQ(board.checked, 10u);
        EXPECT_EQ(r.passed(), d9Power ? 17u : 18u);
    }
}

// The text and JSON of a report, and JUnit XML against its schema:
// interconnect_test.sh. Here names that XML must escape.
TEST(Interconnect, JunitEscapesNamesAndGivesEachNetItsCase) {
    interconnect::Report r;
    r.nets = {{"D0", interconnect::NetClass::testable, "fail", "", {"U1.2", "U2.A2"}},
              {"D1", interconnect::NetClass::testable, "fail", "", {"U1.3", "U2.A3"}},
              {"X<&>", interconnect::NetClass::untestable, "untestable", "one boundary-scan pin", {"J1.1"}}};
    r.faults = {{"short", {"D0", "D1"}, {"U1.2", "U2.A2", "U1.3", "U2.A3"}, "wired-and"}};
    std::string xml = interconnect::junit(r, "b<>.net");
    EXPECT_NE(xml.find(R"x(<testcase name="D1" classname="b&lt;&gt;.net" time="0"><failure message="short: D0, D1 (wired-and)" type="short">)x"),
              std::string::npos) << xml;
    EXPECT_NE(xml.find(R"(<testcase name="X&lt;&amp;&gt;" classname="b&lt;&gt;.net" time="0"><skipped message="untestable: one boundary-scan pin"/>)"),
              std::string::npos) << xml;
}

}  // namespace
