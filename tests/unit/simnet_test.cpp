// The simulated board's wiring between BSDL devices, through the options as
// kelvorn-sim and libkelvorn-sim take them: nets from a netlist read through
// each part's pin map, and the faults put in on purpose (an open pin,
// shorts of each kind, a stuck net, pulls), with the contention counted.
// The chain is driven at its pins: EXTEST on both devices, then boundary
// scans whose captures show what each input pin reads.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "sim/BoardOptions.h"

namespace {

const std::string kData = std::string(KELVORN_SOURCE_DIR) + "/tests/data/bsdl/";
// Position 0 (nearest TDO): kv_cpld64, 12 cells, IR 8. Position 1: KV_FPGA6, 8 cells, IR 6.
const std::string kChain = "--chain bsdl=" + kData + "kv_cpld64.bsd:package=CS48,bsdl=" + kData + "KV_FPGA6.BSD ";

std::string optionError(const std::string& options) {
    sim::BoardConfig c;
    return sim::parseBoardOptions(kChain + options, &c);
}

// A netlist in a file of the test's own.
std::string netlistFile(const std::string& text) {
    std::string path = ::testing::TempDir() + "simnet_board.net";
    std::ofstream(path) << text;
    return path;
}

// Boundary register contents: -1 a pin not driven. kv_cpld64: led (cell 3,
// control 2 disabling at 1), d(0) (cell 5, control 4), d(1)-d(3) kept off
// (controls 4 and 7). KV_FPGA6 from bit 12: OUT0 (cell 4, two-state), BUS
// (cell 6, control 5 disabling at 0).
uint64_t cpld(int led, int d0) {
    return (led < 0 ? 1u << 2 : 0) | (led == 1 ? 1u << 3 : 0) | (d0 < 0 ? 1u << 4 : 0) | (d0 == 1 ? 1u << 5 : 0) |
           1u << 7;
}
uint64_t fpga(int out0, int bus) {
    return static_cast<uint64_t>((out0 == 1 ? 1u << 4 : 0) | (bus >= 0 ? 1u << 5 : 0) | (bus == 1 ? 1u << 6 : 0))
           << 12;
}

struct Bench {
    explicit Bench(const std::string& options) : chain(config(options).chain) {
        chain.pinsAre(config_.pins);
        chain.wiresAre(config_.wires);
        for (int i = 0; i < 5; ++i) cycle(true);
        cycle(false);
        scan(true, 14, 0);  // EXTEST (all zeros) on both
    }
    const sim::BoardConfig& config(const std::string& options) {
        std::string error = sim::parseBoardOptions(kChain + options, &config_);
        EXPECT_EQ(error, "");
        return config_;
    }
    bool cycle(bool tms, bool tdi = false) {
        bool tdo = chain.tdo();
        chain.tckIs(true, tms, tdi);
        chain.tckIs(false, tms, tdi);
        return tdo;
    }
    // From Run-Test/Idle through one IR or DR scan back to it.
    uint64_t scan(bool ir, unsigned n, uint64_t in) {
        cycle(true);
        if (ir) cycle(true);
        cycle(false);
        cycle(false);
        uint64_t out = 0;
        for (unsigned i = 0; i < n; ++i) out |= static_cast<uint64_t>(cycle(i + 1 == n, (in >> i) & 1)) << i;
        cycle(true);
        cycle(false);
        return out;
    }
    // Loads both boundary registers, then captures what the pins read with
    // them in force: two Update-DRs.
    uint64_t drive(uint64_t bits) {
        scan(false, 20, bits);
        return scan(false, 20, bits);
    }
    // Input pins in the capture: kv_cpld64 clk, d(0); KV_FPGA6 SW(0), SW(1), BUS.
    std::string reads(uint64_t bits) {
        bits = drive(bits);
        std::string s;
        for (unsigned cell : {0, 5, 12, 13, 18}) s += (bits >> cell & 1) ? '1' : '0';
        return s;
    }

    sim::BoardConfig config_;
    sim::JtagChain chain;
};

// led -> SW(1); OUT0 -> clk and SW(0); BUS -> d(0).
const char kNets[] = "--net 0.led=1.SW(1) --net 1.OUT0=0.clk --net 0.clk=1.SW(0) --net '1.BUS=0.d(0)' ";

}  // namespace

TEST(SimNet, ANetlistWiresPackagePinsThroughEachPartsPinMapWithItsPullResistor) {
    std::string file = netlistFile(
        "# U1 in its CS48 package, U2 in FG256; J1 and R1 do nothing but pull /BUS down\n"
        "LED: U1.B1 U2.A2\n"
        "CLK: U2.B1 U1.A1 U2.A1 J1.1\n"
        "/BUS: U2.B2 U1.B2 R1.1\n"
        "GND: R1.2 J1.2 U2.G1\n"
        "TCK: U1.D1 U2.T1 J1.3\n");
    Bench b("--netlist " + file + " --part U1=0 --part U2=1 --pin 1.SW(1)=0");
    EXPECT_EQ(b.config_.wires.nets.size(), 3u);  // GND and TCK join no boundary cell: no net
    // clk d(0) SW(0) SW(1) BUS
    EXPECT_EQ(b.reads(cpld(1, -1) | fpga(0, -1)), "00010");  // /BUS undriven: pulled down
    EXPECT_EQ(b.reads(cpld(0, -1) | fpga(1, 1)), "11101");
    EXPECT_EQ(b.reads(cpld(-1, 1) | fpga(1, -1)), "11111");  // LED undriven: pulled up by default, not --pin
    EXPECT_EQ(b.chain.contention(), 0u);

    // The pin map of the file's default package (TQ44) has no pin B1.
    EXPECT_EQ(sim::parseBoardOptions("--chain bsdl=" + kData + "kv_cpld64.bsd,bsdl=" + kData +
                                         "KV_FPGA6.BSD --netlist " + file + " --part U1=0 --part U2=1",
                                     &b.config_),
              "--netlist: " + file + ":2: pin B1 of U1 is not in the pin map TQ44 of kv_cpld64");
    EXPECT_EQ(optionError("--netlist " + file + " --part U1=0 --part U9=1"),
              "--netlist: " + file + ": no component U9 (--part U9)");
}

TEST(SimNet, AnOpenPinReadsItsOwnDriverOrItsPinLevelAndDrivesNothing) {
    Bench b(std::string(kNets) + "--open 1.SW(1) --pin 1.SW(1)=0 --open 0.d(0)");
    // clk d(0) SW(0) SW(1) BUS: SW(1) keeps its --pin level; BUS and d(0) never meet.
    EXPECT_EQ(b.reads(cpld(1, 0) | fpga(1, 1)), "10101");
    EXPECT_EQ(b.reads(cpld(1, -1) | fpga(0, -1)), "01001");  // d(0) reads the default 1, BUS its pull-up
    EXPECT_EQ(b.chain.contention(), 0u);
}

TEST(SimNet, ShortsResolveWiredAndWiredOrOrByTheDecidingNetAndCountTheirFights) {
    // led (net 0.led) and OUT0 (net 1.OUT0) fight: both nets read the node.
    Bench wiredAnd(std::string(kNets) + "--short 0.led,1.OUT0");
    EXPECT_EQ(wiredAnd.reads(cpld(1, -1) | fpga(0, -1)), "01001");
    EXPECT_EQ(wiredAnd.chain.contention(), 2u);  // each Update-DR once, though two nets fight
    EXPECT_EQ(wiredAnd.reads(cpld(1, -1) | fpga(1, -1)), "11111");
    EXPECT_EQ(wiredAnd.chain.contention(), 2u);  // counted after each update: this one ends the fight

    Bench wiredOr(std::string(kNets) + "--short 0.led,1.OUT0:or");
    EXPECT_EQ(wiredOr.reads(cpld(0, -1) | fpga(1, -1)), "11111");

    Bench decides(std::string(kNets) + "--short '1.OUT0,0.led:0.led' --stuck 1.BUS=0");
    EXPECT_EQ(decides.reads(cpld(1, 1) | fpga(0, 1)), "10110");  // BUS and d(0) read the stuck 0
    EXPECT_EQ(decides.reads(cpld(-1, 1) | fpga(0, 1)), "00000");  // led off: OUT0 decides
    EXPECT_EQ(decides.reads(cpld(-1, -1) | fpga(1, -1)), "10110");
}

TEST(SimNet, StuckAndPulledNetsAndContentionOnAPlainNet) {
    Bench b(std::string(kNets) + "--stuck 1.OUT0=1 --pull 0.led=down --pull '1.BUS=down'");
    EXPECT_EQ(b.reads(cpld(-1, -1) | fpga(0, -1)), "10100");
    EXPECT_EQ(b.reads(cpld(1, 1) | fpga(0, 1)), "11111");
    EXPECT_EQ(b.chain.contention(), 0u);
    // d(0) at 0 against BUS at 1: both read the wired-AND, once per Update-DR.
    EXPECT_EQ(b.reads(cpld(1, 0) | fpga(0, 1)), "10110");
    EXPECT_EQ(b.chain.contention(), 2u);
    // EXTEST leaving with the fight in force: nothing drives, nothing counts.
    b.scan(true, 14, 0x3fff);
    EXPECT_EQ(b.chain.contention(), 2u);
}

TEST(SimNet, OptionErrorsNameTheOptionAndWhatIsWrong) {
    std::string file = netlistFile("A: U1.A1 U2.A1\n");
    EXPECT_EQ(optionError("--part U1=0"), "--part: names parts of a --netlist");
    EXPECT_EQ(optionError("--netlist " + file), "--netlist: wants --part REF=POS for each device on it");
    EXPECT_EQ(optionError("--netlist " + file + " --part U1=2"), "--part: no BSDL device at position 2 of the chain");
    EXPECT_EQ(optionError("--netlist " + file + " --part U1"), "--part: wants REF=POS: U1");
    EXPECT_EQ(optionError("--netlist /nonexistent/board.net --part U1=0").rfind("--netlist: /nonexistent/board.net: ", 0),
              0u);
    EXPECT_EQ(optionError(std::string(kNets) + "--stuck 0.led=2"), "--stuck: wants NET=0|1: 0.led=2");
    EXPECT_EQ(optionError(std::string(kNets) + "--pull LED=up"), "--pull: no net LED");
    EXPECT_EQ(optionError(std::string(kNets) + "--short 0.led"), "--short: wants two nets or more: 0.led");
    EXPECT_EQ(optionError(std::string(kNets) + "--short 0.led,1.OUT0:1.BUS"),
              "--short: ends with :and, :or or :NET, a net of the short: 0.led,1.OUT0:1.BUS");
    EXPECT_EQ(optionError(std::string(kNets) + "--short 0.led,1.OUT0 --short 1.BUS,0.LED"),
              "--short: net 0.LED is in two shorts");
    EXPECT_EQ(optionError("--open 1.TCK"), "--open: KV_FPGA6 has no boundary cell for TCK");
}
