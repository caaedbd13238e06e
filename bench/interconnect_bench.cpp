// The board test (kelvorn-chain test) on a generated board of four BSDL
// devices, each with 260 bidirectional pins and 16 inputs, and a netlist of
// over 500 nets (two-pin and three-pin nets, pulled nets, nets with one
// boundary-scan pin, GND and VCC), run in-process through the JTAG layer on
// the simulated chain wired from the same netlist. A good board, and one
// with opens, shorts of each kind and stuck nets put in from a fixed
// random draw. Counters: the nets, the driven nets, the patterns and
// scans, the TCK cycles of the test alone against the floor (each scan
// through every boundary register once), the contention the simulated board
// counted, and the host time per pattern.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "ChainIntf.h"
#include "jtag/Commands.h"
#include "jtag/Discovery.h"
#include "os/Os.h"
#include "sim/Options.h"

namespace {

constexpr unsigned kDevices = 4;
constexpr unsigned kBidirs = 260;
constexpr unsigned kInputs = 16;
constexpr unsigned kBoundary = 2 * kBidirs + kInputs;  // a data and a control cell per bidirectional pin

std::string bits(uint32_t v, unsigned n) {
    std::string s;
    for (unsigned i = n; i-- > 0;) s += (v >> i & 1) ? '1' : '0';
    return s;
}

// Package pins: IO(i) on P(i+1), IN(j) after them, then TCK, TDI, TMS, TDO,
// VCC and GND.
std::string ioPin(unsigned i) { return "P" + std::to_string(i + 1); }
std::string inPin(unsigned j) { return "P" + std::to_string(kBidirs + j + 1); }
constexpr unsigned kVccPin = kBidirs + kInputs + 5, kGndPin = kBidirs + kInputs + 6;

std::string bsdlText(unsigned k) {
    std::string name = "KV_NB" + std::to_string(k);
    std::string t = "ENTITY " + name + " IS\n";
    t += "GENERIC (PHYSICAL_PIN_MAP : STRING := \"PKG\");\n";
    t += "PORT (IO: INOUT BIT_VECTOR (0 TO " + std::to_string(kBidirs - 1) + "); IN0: IN BIT_VECTOR (0 TO " +
         std::to_string(kInputs - 1) +
         "); TCK: IN BIT; TDI: IN BIT; TMS: IN BIT; TDO: OUT BIT; VCC: LINKAGE BIT; GND: LINKAGE BIT);\n";
    t += "USE STD_1149_1_2001.ALL;\n";
    t += "ATTRIBUTE COMPONENT_CONFORMANCE OF " + name + " : ENTITY IS \"STD_1149_1_2001\";\n";
    t += "ATTRIBUTE PIN_MAP OF " + name + " : ENTITY IS PHYSICAL_PIN_MAP;\n";
    t += "CONSTANT PKG : PIN_MAP_STRING := \"IO:(";
    for (unsigned i = 0; i < kBidirs; ++i) t += (i ? "," : "") + ioPin(i);
    t += "), \" & \"IN0:(";
    for (unsigned j = 0; j < kInputs; ++j) t += (j ? "," : "") + inPin(j);
    unsigned p = kBidirs + kInputs + 1;
    t += "), TCK:P" + std::to_string(p) + ", TDI:P" + std::to_string(p + 1) + ", TMS:P" + std::to_string(p + 2) +
         ", TDO:P" + std::to_string(p + 3) + ", VCC:P" + std::to_string(kVccPin) + ", GND:P" +
         std::to_string(kGndPin) + "\";\n";
    t += "ATTRIBUTE TAP_SCAN_IN OF TDI : SIGNAL IS TRUE;\nATTRIBUTE TAP_SCAN_OUT OF TDO : SIGNAL IS TRUE;\n"
         "ATTRIBUTE TAP_SCAN_MODE OF TMS : SIGNAL IS TRUE;\nATTRIBUTE TAP_SCAN_CLOCK OF TCK : SIGNAL IS (1.0E7, BOTH);\n";
    t += "ATTRIBUTE INSTRUCTION_LENGTH OF " + name + " : ENTITY IS 8;\n";
    t += "ATTRIBUTE INSTRUCTION_OPCODE OF " + name +
         " : ENTITY IS \"BYPASS (11111111), EXTEST (00000000), SAMPLE (00000001), PRELOAD (00000001), "
         "IDCODE (00000010)\";\n";
    t += "ATTRIBUTE INSTRUCTION_CAPTURE OF " + name + " : ENTITY IS \"XXXXXX01\";\n";
    t += "ATTRIBUTE IDCODE_REGISTER OF " + name + " : ENTITY IS \"" + bits(1, 4) + bits(0x6b00 + k, 16) +
         bits(0x21, 11) + "1\";\n";
    t += "ATTRIBUTE REGISTER_ACCESS OF " + name +
         " : ENTITY IS \"BOUNDARY (EXTEST, SAMPLE, PRELOAD), BYPASS (BYPASS), DEVICE_ID (IDCODE)\";\n";
    t += "ATTRIBUTE BOUNDARY_LENGTH OF " + name + " : ENTITY IS " + std::to_string(kBoundary) + ";\n";
    t += "ATTRIBUTE BOUNDARY_REGISTER OF " + name + " : ENTITY IS\n";
    for (unsigned i = 0; i < kBidirs; ++i) {
        std::string c = std::to_string(2 * i + 1);
        t += "\"" + std::to_string(2 * i) + " (BC_7, IO(" + std::to_string(i) + "), BIDIR, X, " + c + ", 0, Z), \" &\n";
        t += "\"" + c + " (BC_2, *, CONTROL, 0), \" &\n";
    }
    for (unsigned j = 0; j < kInputs; ++j)
        t += "\"" + std::to_string(2 * kBidirs + j) + " (BC_4, IN0(" + std::to_string(j) + "), INPUT, X)" +
             (j + 1 < kInputs ? ", \" &\n" : "\";\n");
    t += "END " + name + ";\n";
    return t;
}

std::shared_ptr<const jtag::bsdl::Device> device(unsigned k) {
    auto d = std::make_shared<jtag::bsdl::Device>();
    jtag::bsdl::Error error;
    if (!jtag::bsdl::read(bsdlText(k), "KV_NB" + std::to_string(k) + ".bsd", d.get(), &error)) {
        std::fprintf(stderr, "%s\n", error.text().c_str());
        std::abort();
    }
    return d;
}

// The generated netlist: U1..U4 are the chain's positions 0..3.
struct Board {
    std::string text;
    std::vector<std::string> plain;  // two-pin nets with no pull: where faults go
    std::map<std::string, std::vector<std::pair<unsigned, unsigned>>> ioOf;  // net -> (position, IO index)
};

Board generate() {
    Board b;
    std::vector<unsigned> nextIo(kDevices, 0), nextIn(kDevices, 0);
    auto ref = [](unsigned d) { return "U" + std::to_string(d + 1); };
    auto io = [&](unsigned d, const std::string& net) {
        unsigned i = nextIo[d]++;
        b.ioOf[net].push_back({d, i});
        return " " + ref(d) + "." + ioPin(i);
    };
    std::string vcc = "VCC:", gnd = "GND:";
    for (unsigned d = 0; d < kDevices; ++d) {
        vcc += " " + ref(d) + ".P" + std::to_string(kVccPin);
        gnd += " " + ref(d) + ".P" + std::to_string(kGndPin);
    }
    unsigned n = 0, resistors = 0, connector = 0;
    // Three-pin nets: two bidirectional pins and an input, on three devices.
    for (unsigned j = 0; j < kInputs * kDevices; ++j, ++n) {
        std::string net = "T" + std::to_string(n);
        unsigned d = j % kDevices;
        b.text += net + ":" + io(d, net) + io((d + 1) % kDevices, net);
        unsigned r = (d + 2) % kDevices;
        b.text += " " + ref(r) + "." + inPin(nextIn[r]++) + "\n";
    }
    // Nets with one boundary-scan pin: untestable.
    for (unsigned j = 0; j < 8; ++j, ++n) {
        std::string net = "X" + std::to_string(n);
        b.text += net + ": J1." + std::to_string(++connector) + io(j % kDevices, net) + "\n";
    }
    // Two-pin nets between neighbouring devices; every 40th pulled up or
    // down through a resistor.
    for (unsigned j = 0;; ++j, ++n) {
        unsigned d = j % kDevices, e = (d + 1 + j / kDevices % 3) % kDevices;
        if (nextIo[d] >= kBidirs || nextIo[e] >= kBidirs) {
            d = std::min_element(nextIo.begin(), nextIo.end()) - nextIo.begin();
            e = d;
            for (unsigned x = 0; x < kDevices; ++x)
                if (x != d && nextIo[x] < kBidirs && (e == d || nextIo[x] < nextIo[e])) e = x;
            if (e == d || nextIo[d] >= kBidirs) break;
        }
        std::string net = "N" + std::to_string(n);
        b.text += net + ":" + io(d, net) + io(e, net);
        if (j % 40 == 7) {
            std::string r = "R" + std::to_string(++resistors);
            b.text += " " + r + ".1";
            (j % 80 == 7 ? vcc : gnd) += " " + r + ".2";
        } else {
            b.plain.push_back(net);
        }
        b.text += "\n";
    }
    b.text = "# A generated board: four devices, U1..U4\n" + b.text + vcc + "\n" + gnd + "\n";
    return b;
}

struct Planted {
    std::vector<std::string> opens;             // "NET REF.PIN"
    std::vector<std::vector<std::string>> shorts;  // nets, then the behaviour
    std::vector<std::pair<std::string, int>> stuck;
};

// A few opens, a wired-AND, a wired-OR and a dominant short, a net stuck at
// each level, on distinct plain nets drawn from a fixed generator.
Planted plant(const Board& b, const std::map<std::string, unsigned>& parts, const std::vector<sim::DeviceDesc>& descs,
              sim::Wires* w) {
    std::mt19937 random(20261125);
    std::vector<std::string> nets = b.plain;
    std::shuffle(nets.begin(), nets.end(), random);
    size_t next = 0;
    Planted p;
    (void)parts;
    (void)descs;
    for (int i = 0; i < 3; ++i) {
        const std::string& net = nets[next++];
        auto pin = b.ioOf.at(net)[random() % 2];
        w->open.push_back({pin.first, "IO(" + std::to_string(pin.second) + ")"});
        p.opens.push_back(net + " U" + std::to_string(pin.first + 1) + "." + ioPin(pin.second));
    }
    for (const char* how : {"wired-and", "wired-or", "dominant"}) {
        std::string a = nets[next++], c = nets[next++];
        sim::WireShort s;
        s.nets = {static_cast<size_t>(w->named(a)), static_cast<size_t>(w->named(c))};
        std::string behaviour = how;
        if (behaviour == "wired-and") s.kind = sim::WireShort::Kind::wiredAnd;
        if (behaviour == "wired-or") s.kind = sim::WireShort::Kind::wiredOr;
        if (behaviour == "dominant") {
            s.kind = sim::WireShort::Kind::dominant;
            s.dominant = s.nets[0];
            behaviour = a;
        }
        w->shorts.push_back(s);
        p.shorts.push_back({a, c, behaviour});
    }
    for (int level : {0, 1}) {
        const std::string& net = nets[next++];
        w->nets[static_cast<size_t>(w->named(net))].stuck = level;
        p.stuck.push_back({net, level});
    }
    return p;
}

bool hasFault(const jtag::interconnect::Report& r, const std::string& kind, std::vector<std::string> nets,
              const std::string& behaviour, const std::string& pin) {
    std::sort(nets.begin(), nets.end());
    for (const auto& f : r.faults) {
        std::vector<std::string> got = f.nets;
        std::sort(got.begin(), got.end());
        if (f.kind != kind || got != nets || f.behaviour != behaviour) continue;
        if (!pin.empty() && std::find(f.pins.begin(), f.pins.end(), pin) == f.pins.end()) continue;
        return true;
    }
    return false;
}

// What the report should name and does not; "" when it names every
// planted fault and nothing else.
std::string missing(const jtag::interconnect::Report& r, const Planted& p) {
    std::string out;
    size_t expected = p.opens.size() + p.shorts.size() + p.stuck.size();
    for (const std::string& o : p.opens) {
        size_t space = o.find(' ');
        // On a two-pin net an open at either pin looks the same from the
        // chain: the receiver never sees the driver. The report may name
        // either pin.
        if (!hasFault(r, "open", {o.substr(0, space)}, "", "")) out += "open " + o + "; ";
    }
    for (const auto& s : p.shorts)
        if (!hasFault(r, "short", {s[0], s[1]}, s[2], "")) out += "short " + s[0] + "," + s[1] + " " + s[2] + "; ";
    for (const auto& s : p.stuck)
        if (!hasFault(r, s.second ? "stuck-1" : "stuck-0", {s.first}, "", ""))
            out += "stuck-" + std::to_string(s.second) + " " + s.first + "; ";
    if (out.empty() && r.faults.size() != expected)
        out = std::to_string(r.faults.size()) + " faults, not " + std::to_string(expected);
    if (!out.empty()) out += "\n" + jtag::interconnect::text(r);
    return out;
}

void runTest(benchmark::State& state, bool faulty) {
    // The interface's lock is a file of the benchmark's own, never one
    // under /var/lock.
    std::string lock = "/var/tmp/kelvorn_interconnect_bench_" + std::to_string(getpid()) + ".lock";
    auto realCreat = Os::hooks().creat;
    Os::hooks().creat = [&lock](const char*, mode_t m) { return ::creat(lock.c_str(), m); };
    Board b = generate();
    std::string path = "/var/tmp/kelvorn_interconnect_bench_" + std::to_string(getpid()) + ".net";
    std::ofstream(path) << b.text;

    std::vector<std::shared_ptr<const jtag::bsdl::Device>> devices;
    std::vector<sim::DeviceDesc> descs;
    std::map<std::string, unsigned> parts;
    jtag::TestRequest q;
    q.netlist = path;
    jtag::BsdlCatalogue catalogue;
    for (unsigned k = 0; k < kDevices; ++k) {
        devices.push_back(device(k));
        descs.push_back({0, 0, {}, {devices.back(), 0, ""}});
        parts["U" + std::to_string(k + 1)] = k;
        q.parts.push_back("U" + std::to_string(k + 1) + "=" + std::to_string(k));
        catalogue.add(devices.back());
    }
    jtag::netlist::Netlist netlist;
    std::string error;
    sim::Wires wires;
    if (!jtag::netlist::read(b.text, path, &netlist, &error) ||
        !(error = sim::netlistWires(netlist, parts, descs, &wires)).empty()) {
        state.SkipWithError(error.c_str());
        std::remove(path.c_str());
        return;
    }
    Planted planted;
    if (faulty) planted = plant(b, parts, descs, &wires);

    sim::JtagChain chain(descs);
    chain.wiresAre(wires);
    ChainIntf* intf = new ChainIntf("0_1_0_jtag", &chain);
    jtag::Tap tap(intf);
    jtag::Discovery d = jtag::discover(tap, catalogue, {});
    std::set<const void*> given;
    for (const auto& dev : devices) given.insert(dev.get());
    jtag::ChainCommands commands(tap, d, given, false);

    // One run outside the timed loop: its cycles, its contention, and
    // whether its report names what was planted.
    unsigned before = intf->cycles;
    uint64_t fights = chain.contention();
    jtag::TestResult r = commands.test(q);
    unsigned cycles = intf->cycles - before;
    fights = chain.contention() - fights;
    int want = faulty ? jtag::kChainFaultFound : jtag::kChainOk;
    std::string wrong = r.status != want ? "status " + std::to_string(r.status) + ": " + r.error
                        : faulty         ? missing(r.report, planted)
                                         : (r.report.faults.empty() ? "" : jtag::interconnect::text(r.report));
    if (!wrong.empty()) {
        std::fprintf(stderr, "%s\n", wrong.c_str());
        state.SkipWithError("the report does not name the board's faults");
    }
    for (auto _ : state) {
        if (!wrong.empty()) break;
        benchmark::DoNotOptimize(commands.test(q));
    }
    std::remove(path.c_str());
    delete intf;
    std::remove(lock.c_str());
    Os::hooks().creat = realCreat;

    unsigned driven = 0;
    for (const auto& n : r.report.nets) driven += n.cls == jtag::interconnect::NetClass::testable || n.cls == jtag::interconnect::NetClass::pulled;
    double floor = static_cast<double>(r.report.scans) * (kDevices * kBoundary);  // every part in EXTEST: no BYPASS bit
    state.counters["nets"] = static_cast<double>(r.report.nets.size());
    state.counters["driven_nets"] = driven;
    state.counters["patterns"] = r.report.patterns;
    state.counters["scans"] = r.report.scans;
    state.counters["tck_cycles"] = cycles;
    state.counters["floor"] = floor;
    state.counters["ratio"] = cycles / floor;
    state.counters["contention"] = static_cast<double>(fights);
    state.counters["faults"] = static_cast<double>(r.report.faults.size());
    state.counters["time_per_pattern"] =
        benchmark::Counter(r.report.patterns, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_GoodBoard(benchmark::State& state) { runTest(state, false); }
void BM_FaultyBoard(benchmark::State& state) { runTest(state, true); }
BENCHMARK(BM_GoodBoard)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FaultyBoard)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
