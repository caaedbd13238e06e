// The simulated board's wiring between BSDL devices, through the options as
// kelvorn-sim and libkelvorn-sim take them: nets between two devices and
// the faults put in on purpose (an open pin, shorts of each kind, a stuck
// net, pulls) with the contention counted, and a netlist's option errors. The chain is driven at its pins: EXTEST on every
// device, then boundary scans whose captures show what input pins read.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "sim/BoardOptions.h"
#include "sim/Options.h"

namespace {

using jtag::bsdl::Cell;

const std::string kSource = KELVORN_SOURCE_DIR;
const std::string kBsdl = kSource + "/tests/data/bsdl/";
// kv_cpld64 in its CS48 package nearest TDO, KV_FPGA6 behind it.
const std::string kPair = "--chain bsdl=" + kBsdl + "kv_cpld64.bsd:package=CS48,bsdl=" + kBsdl + "KV_FPGA6.BSD ";
// led -> SW(1); OUT0 -> clk and SW(0); BUS -> d(0).
const std::string kNets = kPair + "--net 0.led=1.SW(1) --net 1.OUT0=0.clk --net 0.clk=1.SW(0) --net '1.BUS=0.d(0)' ";
// The input pins the wiring tests read: both ends of each of kNets' nets.
const char* const kPins = "0.clk 0.d(0) 1.SW(0) 1.SW(1) 1.BUS";
std::string optionError(const std::string& options) {
    sim::BoardConfig c;
    return sim::parseBoardOptions(options, &c);
}

struct Bench {
    explicit Bench(const std::string& options) {
        EXPECT_EQ(sim::parseBoardOptions(options, &config), "");
        chain.emplace(config.chain);
        chain->pinsAre(config.pins);
        chain->wavesAre(config.waves);
        chain->timeIs(0);
        chain->wiresAre(config.wires);
        std::vector<bool> ir;
        for (const sim::DeviceDesc& d : config.chain) {
            const jtag::bsdl::Device& b = *d.boundary.bsdl;
            offsets.push_back(update.size());
            update.resize(update.size() + b.boundaryLength);
            for (const Cell& c : b.boundary)  // every three-state output off
                if (c.controlCell >= 0)
                    update[offsets.back() + static_cast<size_t>(c.controlCell)] = c.disableValue == '1';
            const std::string& extest = b.instruction("EXTEST")->opcodes[0];
            for (size_t i = extest.size(); i-- > 0;) ir.push_back(extest[i] == '1');
        }
        for (int i = 0; i < 5; ++i) cycle(true);
        cycle(false);
        scan(true, ir);
    }
    bool cycle(bool tms, bool tdi = false) {
        bool tdo = chain->tdo();
        chain->tckIs(true, tms, tdi);
        chain->tckIs(false, tms, tdi);
        return tdo;
    }
    // From Run-Test/Idle through one IR or DR scan back to it; the bit nearest TDO first.
    std::vector<bool> scan(bool ir, const std::vector<bool>& in) {
        cycle(true);
        if (ir) cycle(true);
        cycle(false);
        cycle(false);
        std::vector<bool> out;
        for (size_t i = 0; i < in.size(); ++i) out.push_back(cycle(i + 1 == in.size(), in[i]));
        cycle(true);
        cycle(false);
        return out;
    }
    // The cell of a pin "POS.PORT" that drives it (out) or reads it, as a bit of the scan.
    size_t cell(const std::string& text, bool out, const Cell** found = nullptr) const {
        sim::PinRef pin;
        EXPECT_EQ(sim::parsePin(text, &pin), "");
        for (const Cell& c : config.chain[pin.position].boundary.bsdl->boundary) {
            bool drives = c.function == Cell::Function::output2 || c.function == Cell::Function::output3;
            bool reads = c.function == Cell::Function::input;
            bool fits = c.function == Cell::Function::bidir || (out ? drives : reads);
            if (fits && c.port != "*" && sim::PinRef{pin.position, c.port} == pin) {
                if (found) *found = &c;
                return offsets[pin.position] + c.number;
            }
        }
        ADD_FAILURE() << "no cell for " << text;
        return 0;
    }
    // "POS.PORT=0|1|z ..." into the update stages, then two scans: what the
    // input cells of "POS.PORT ..." captured with them in force, a character each.
    std::string reads(const std::string& drive, const std::string& pins) {
        std::istringstream words(drive);
        for (std::string w; words >> w;) {
            const Cell* c = nullptr;
            size_t bit = cell(w.substr(0, w.find('=')), true, &c);
            char level = w.back();
            if (c->controlCell >= 0)  // the control cell of the same device
                update[bit - c->number + static_cast<size_t>(c->controlCell)] =
                    (c->disableValue == '1') == (level == 'z');
            if (level != 'z') update[bit] = level == '1';
        }
        scan(false, update);
        std::vector<bool> captured = scan(false, update);
        std::istringstream names(pins);
        std::string s;
        for (std::string p; names >> p;) s += captured[cell(p, false)] ? '1' : '0';
        return s;
    }

    sim::BoardConfig config;
    std::optional<sim::JtagChain> chain;
    std::vector<size_t> offsets;  // of each device's boundary register in a DR scan
    std::vector<bool> update;
};

}  // namespace

// The interconnect test's board wired from its netlist, good and with each
// kind of fault, is tests/e2e/interconnect_test.sh: every net passes, or the
// fault planted is named exactly. Here the rules the wiring follows.
TEST(SimNet, AnOpenPinReadsItsOwnDriverOrItsPinLevelAndDrivesNothing) {
    Bench b(kNets + "--open 1.SW(1) --pin 1.SW(1)=0 --open 0.d(0)");
    // SW(1) keeps its --pin level; BUS and d(0) never meet.
    EXPECT_EQ(b.reads("0.led=1 0.d(0)=0 1.OUT0=1 1.BUS=1", kPins), "10101");
    EXPECT_EQ(b.reads("0.d(0)=z 1.OUT0=0 1.BUS=z", kPins), "01001");  // d(0) reads the default 1, BUS its pull-up
    EXPECT_EQ(b.chain->contention(), 0u);
}

TEST(SimNet, ShortsResolveWiredAndWiredOrOrByTheDecidingNetAndCountTheirFights) {
    // led (net 0.led) and OUT0 (net 1.OUT0) fight on the short, d(0) and BUS on their net.
    Bench wiredAnd(kNets + "--short 0.led,1.OUT0");
    EXPECT_EQ(wiredAnd.reads("0.led=1 1.OUT0=0 0.d(0)=0 1.BUS=1", kPins), "00000");
    EXPECT_EQ(wiredAnd.chain->contention(), 2u);  // each Update-DR once, not once a node
    EXPECT_EQ(wiredAnd.reads("1.OUT0=1 1.BUS=z", kPins), "10110");
    EXPECT_EQ(wiredAnd.chain->contention(), 2u);  // counted after each update: this one ends the fights

    Bench wiredOr(kNets + "--short 0.led,1.OUT0:or");
    EXPECT_EQ(wiredOr.reads("0.led=0 1.OUT0=1", kPins), "11111");

    Bench decides(kNets + "--short '1.OUT0,0.led:0.led' --stuck 1.BUS=0");
    EXPECT_EQ(decides.reads("0.led=1 0.d(0)=1 1.OUT0=0 1.BUS=1", kPins), "10110");  // BUS and d(0) read the stuck 0
    EXPECT_EQ(decides.reads("0.led=z", kPins), "00000");                           // led off: OUT0 decides
    EXPECT_EQ(decides.reads("0.d(0)=z 1.OUT0=1 1.BUS=z", kPins), "10110");
}

TEST(SimNet, StuckAndPulledNetsAndContentionOnAPlainNet) {
    Bench b(kNets + "--stuck 1.OUT0=1 --pull 0.led=down --pull '1.BUS=down'");
    EXPECT_EQ(b.reads("1.OUT0=0", kPins), "10100");
    EXPECT_EQ(b.reads("0.led=1 0.d(0)=1 1.BUS=1", kPins), "11111");
    EXPECT_EQ(b.chain->contention(), 0u);
    // d(0) at 0 against BUS at 1: both read the wired-AND, once per Update-DR.
    EXPECT_EQ(b.reads("0.d(0)=0", kPins), "10110");
    EXPECT_EQ(b.chain->contention(), 2u);
    // Leaving EXTEST with the fight in force: nothing drives, nothing counts.
    b.scan(true, std::vector<bool>(14, true));
    EXPECT_EQ(b.chain->contention(), 2u);
}

TEST(SimNet, ATogglingPinReadsItsHalfPeriodAndDrivesAnUndrivenNet) {
    // SW(2) on no net every 100 ms; SW(1) on led's net every 30 ms, where the
    // wave stands in for the pull and loses to an enabled driver.
    Bench b(kNets + "--pin '1.SW(2)=wave:100' --pin '1.SW(1)=wave:30' --pin 1.SW(3)=0");
    const char* pins = "1.SW(2) 1.SW(1) 1.SW(3) 1.BUS";
    EXPECT_EQ(b.reads("", pins), "0001");
    std::string seen;
    for (uint64_t ms : {29, 30, 59, 60, 99, 100, 199, 200, 7230}) {
        b.chain->timeIs(ms);
        seen += b.reads("", pins) + " ";
    }
    EXPECT_EQ(seen, "0001 0101 0101 0001 0101 1101 1001 0001 0101 ");
    b.chain->timeIs(90);
    EXPECT_EQ(b.reads("0.led=0", pins), "0001");
    EXPECT_EQ(b.reads("0.led=1", "1.SW(1)"), "1");
    b.chain->timeIs(60);
    EXPECT_EQ(b.reads("0.led=1", "1.SW(1)"), "1");
    EXPECT_FALSE(b.chain->pinLevel(1, "sw(2)"));  // the clock frozen at 60 ms: still the first half
    b.chain->timeIs(160);
    EXPECT_TRUE(b.chain->pinLevel(1, "sw(2)"));

    // The last --pin for a pin decides.
    sim::BoardConfig c;
    EXPECT_EQ(sim::parseBoardOptions(kPair + "--pin 1.SW(2)=wave:5 --pin 1.SW(2)=0 --pin 1.SW(3)=1 "
                                             "--pin 1.SW(3)=wave:3600000",
                                     &c),
              "");
    EXPECT_EQ(c.pins.size(), 1u);
    EXPECT_FALSE(c.pins.at({1, "SW(2)"}));
    EXPECT_EQ(c.waves.size(), 1u);
    EXPECT_EQ(c.waves.at({1, "SW(3)"}), 3600000u);
}

TEST(SimNet, OptionErrorsNameTheOptionAndWhatIsWrong) {
    const std::string wants = "--pin: wants POS.PORT=0, POS.PORT=1 or POS.PORT=wave:MS: ";
    for (const char* bad : {"0.clk=wave:0", "0.clk=wave:x", "0.clk=wave:", "0.clk=wave:3600001", "0.clk=wave:0x10",
                            "0.clk=wave:-5", "0.clk=2", "0.clk"})
        EXPECT_EQ(optionError(kPair + "--pin " + bad), wants + bad);
    EXPECT_EQ(optionError(kPair + "--pin 0.nothere=wave:10"), optionError(kPair + "--pin 0.nothere=1"));
    std::string file = ::testing::TempDir() + "simnet_board.net";
    std::ofstream(file) << "# U1 in its default TQ44 package\nLED: U1.B1 U2.A2\n";
    std::string tq44 = "--chain bsdl=" + kBsdl + "kv_cpld64.bsd,bsdl=" + kBsdl + "KV_FPGA6.BSD --netlist " + file;
    EXPECT_EQ(optionError(tq44 + " --part U1=0 --part U2=1"),
              "--netlist: " + file + ":2: pin B1 of U1 is not in the pin map TQ44 of kv_cpld64");
    EXPECT_EQ(optionError(tq44 + " --part U1=0 --part U9=1"), "--netlist: " + file + ": no component U9 (--part U9)");
    EXPECT_EQ(optionError(tq44 + " --part U1=2"), "--part: no BSDL device at position 2 of the chain");
    EXPECT_EQ(optionError(kPair + "--part U1=0"), "--part: names parts of a --netlist");
    EXPECT_EQ(optionError(kNets + "--stuck 0.led=2"), "--stuck: wants NET=0|1: 0.led=2");
    EXPECT_EQ(optionError(kNets + "--pull LED=up"), "--pull: no net LED");
    EXPECT_EQ(optionError(kNets + "--short 0.led,1.OUT0:1.BUS"),
              "--short: ends with :and, :or or :NET, a net of the short: 0.led,1.OUT0:1.BUS");
    EXPECT_EQ(optionError(kNets + "--short 0.led,1.OUT0 --short 1.BUS,0.LED"), "--short: net 0.LED is in two shorts");
}
