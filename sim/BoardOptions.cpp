#include "sim/BoardOptions.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "sim/Options.h"

namespace sim {

namespace {

// An option's file: "" when it can be written, else why not.
std::string writable(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) return "cannot write " + path + ": " + std::strerror(errno);
    std::fclose(f);
    return "";
}

// "NET=VALUE": the net's index and the value, or throws naming the option.
size_t netValue(const Wires& w, const std::string& text, const char* option, const char* values, std::string* value) {
    size_t eq = text.rfind('=');
    int net = eq == std::string::npos ? -1 : w.named(text.substr(0, eq));
    if (eq == std::string::npos) throw CLI::ValidationError(option, std::string("wants NET=") + values + ": " + text);
    if (net < 0) throw CLI::ValidationError(option, "no net " + text.substr(0, eq));
    *value = text.substr(eq + 1);
    return static_cast<size_t>(net);
}

// --open, --short, --stuck and --pull on the nets --netlist and --net made.
void finishWires(BoardOptions* o) {
    Wires& w = o->config.wires;
    std::string value;
    for (const std::string& p : o->pulls) {
        size_t net = netValue(w, p, "--pull", "up|down", &value);
        if (value != "up" && value != "down") throw CLI::ValidationError("--pull", "wants NET=up|down: " + p);
        w.nets[net].pull = value == "up";
    }
    for (const std::string& s : o->stucks) {
        size_t net = netValue(w, s, "--stuck", "0|1", &value);
        if (value != "0" && value != "1") throw CLI::ValidationError("--stuck", "wants NET=0|1: " + s);
        w.nets[net].stuck = value == "1";
    }
    std::vector<bool> shorted(w.nets.size(), false);
    for (const std::string& s : o->shorts) {
        size_t colon = s.rfind(':');
        std::string how = colon == std::string::npos ? "and" : s.substr(colon + 1);
        WireShort ws;
        size_t start = 0;
        for (size_t end = 0; end != std::string::npos && end < colon; start = end + 1) {
            end = s.find(',', start);
            std::string name = s.substr(start, std::min(end, colon) - start);
            int net = w.named(name);
            if (net < 0) throw CLI::ValidationError("--short", "no net " + name);
            if (shorted[static_cast<size_t>(net)]) throw CLI::ValidationError("--short", "net " + name + " is in two shorts");
            shorted[static_cast<size_t>(net)] = true;
            ws.nets.push_back(static_cast<size_t>(net));
        }
        if (ws.nets.size() < 2) throw CLI::ValidationError("--short", "wants two nets or more: " + s);
        int dominant = w.named(how);
        if (how == "and" || how == "or") {
            ws.kind = how == "and" ? WireShort::Kind::wiredAnd : WireShort::Kind::wiredOr;
        } else if (dominant >= 0 && std::count(ws.nets.begin(), ws.nets.end(), static_cast<size_t>(dominant))) {
            ws.kind = WireShort::Kind::dominant;
            ws.dominant = static_cast<size_t>(dominant);
        } else {
            throw CLI::ValidationError("--short", "ends with :and, :or or :NET, a net of the short: " + s);
        }
        w.shorts.push_back(ws);
    }
    for (const std::string& p : o->opens) {
        sim::PinRef pin;
        std::string error = sim::parsePin(p, &pin);
        if (error.empty()) error = sim::checkPin(o->config.chain, pin);
        if (!error.empty()) throw CLI::ValidationError("--open", error);
        w.open.push_back(pin);
    }
}

// "wave:MS", MS milliseconds in decimal, 1 to an hour.
bool wavePeriod(const std::string& value, unsigned long* ms) {
    const std::string prefix = "wave:";
    if (value.compare(0, prefix.size(), prefix) != 0 || value.size() == prefix.size() || value.size() > prefix.size() + 7)
        return false;
    unsigned long v = 0;
    for (size_t i = prefix.size(); i < value.size(); ++i) {
        if (value[i] < '0' || value[i] > '9') return false;
        v = v * 10 + static_cast<unsigned long>(value[i] - '0');
    }
    if (v < 1 || v > 3600000) return false;
    *ms = v;
    return true;
}

}  // namespace

BoardOptions::BoardOptions() : chain(chainText(config.chain)) {}

void addBoardOptions(CLI::App& app, BoardOptions* o) {
    app.add_option("--platform", o->config.platform,
                   "the board's platform: the kernel command line holds platform=NAME (default: no platform word)");
    app.add_option("--cpu", o->cpu, "the processor's CPUID family and model, in C notation")
        ->capture_default_str()
        ->check([o](const std::string& s) { return sim::parseCpu(s, &o->config.family, &o->config.model); });
    app.add_option("--chain", o->chain,
                   "the devices on the chain, nearest TDO first, each IDCODE:IRLEN[:mem=ROWSxBITS[:erase=CYCLES]"
                   "[:program=CYCLES]] (IDCODE none: a device without one): mem= makes it programmable, ROWS rows of BITS bits, erased and "
                   "programmed in the TCK cycles given (default 1000 and 100) in Run-Test/Idle; or "
                   "bsdl=FILE[:package=NAME][:usercode=0xHHHHHHHH], the device a BSDL file describes")
        ->capture_default_str()
        ->check([o](const std::string& s) { return sim::parseChain(s, &o->config.chain); });
    app.add_option("--hold", o->config.holdSeconds, "seconds a set command holds its pin, instead of ten")
        ->capture_default_str();
    app.add_flag("--show-writes", o->config.showWrites,
                 "print every register write of the simulated chips on stderr, with what it did to the JTAG pins "
                 "(z: not driven) and the TAP state");
    app.add_option("--vcd", o->config.vcd,
                   "write the JTAG pins and the TAP state to FILE as a Value Change Dump, one time unit per register "
                   "access")
        ->type_name("FILE")
        ->check(writable);
    app.add_option("--vcd-time", o->vcdTime,
                   "the VCD's time: access, one unit a register access; real, nanoseconds on the monotonic clock since "
                   "the window opened")
        ->check(CLI::IsMember({"access", "real"}))
        ->capture_default_str();
    app.add_option("--dump-memory", o->config.dumpMemory,
                   "after the run, write the memory of the first programmable device on the chain to FILE, row after "
                   "row, bit 0 first (the bit order of an image)")
        ->type_name("FILE")
        ->check(writable);
    app.add_flag("--stats", o->config.stats,
                 "after the run, print \"sim stats: reads R writes W tck-cycles C contention N\" on stderr: the "
                 "register accesses of the chip the chain hangs on, the rising TCK edges the chain saw, and the "
                 "updates after which drivers fought on a net");
    app.add_option("--pin", o->pins,
                   "the level on an input pin of a BSDL device that nothing drives (default 1); wave:MS toggles it "
                   "every MS milliseconds (1 to 3600000), 0 first, from the simulator's start")
        ->type_name("POS.PORT=0|1|wave:MS")
        ->allow_extra_args(false);  // one value each time: never the arguments after it
    app.add_option("--net", o->nets, "a wire between two BSDL devices' pins (joining the nets either is on already)")
        ->type_name("POS.PORT=POS.PORT")
        ->allow_extra_args(false);
    app.add_option("--netlist", o->netlist, "the board's netlist: its nets between pins of the parts --part names")
        ->type_name("FILE");
    app.add_option("--part", o->parts, "the netlist's component REF is the BSDL device at position POS of the chain")
        ->type_name("REF=POS")
        ->allow_extra_args(false);
    app.add_option("--open", o->opens, "cut the pin from its net")->type_name("POS.PORT")->allow_extra_args(false);
    app.add_option("--short", o->shorts,
                   "join nets into one node, resolved wired-AND (and, the default), wired-OR (or), or by the drivers of "
                   "the net named last when one of them is enabled")
        ->type_name("NET,NET[,NET...][:and|:or|:NET]")
        ->allow_extra_args(false);
    app.add_option("--stuck", o->stucks, "the net reads this level whatever drives it")
        ->type_name("NET=0|1")
        ->allow_extra_args(false);
    app.add_option("--pull", o->pulls, "the level of the net when nothing drives it (default up)")
        ->type_name("NET=up|down")
        ->allow_extra_args(false);
    app.add_option("--dump-pins", o->config.dumpPins,
                   "after the run, write what BSDL devices' boundary registers last drove onto their pins under "
                   "EXTEST to FILE, one line per driven pin: POS.PORT LEVEL")
        ->type_name("FILE")
        ->check(writable);
    app.add_option("--tdo", o->tdo, "TDO as the chip sees it: the chain's, or stuck at 0 or at 1 (a dead chain)")
        ->check(CLI::IsMember({"chain", "stuck-0", "stuck-1"}))
        ->capture_default_str();
}

void finishBoardOptions(BoardOptions* o) {
    std::string noMemory = sim::needMemory(o->config.chain);
    if (!o->config.dumpMemory.empty() && !noMemory.empty()) throw CLI::ValidationError("--dump-memory", noMemory);
    for (const std::string& p : o->pins) {
        size_t eq = p.rfind('=');
        std::string value = eq == std::string::npos ? "" : p.substr(eq + 1);
        unsigned long period = 0;
        sim::PinRef pin;
        std::string error = value != "0" && value != "1" && !wavePeriod(value, &period)
                                ? "wants POS.PORT=0, POS.PORT=1 or POS.PORT=wave:MS: " + p
                                : sim::parsePin(p.substr(0, eq), &pin);
        if (error.empty()) error = sim::checkPin(o->config.chain, pin);
        if (!error.empty()) throw CLI::ValidationError("--pin", error);
        // The last --pin for a pin decides.
        o->config.pins.erase(pin);
        o->config.waves.erase(pin);
        if (period)
            o->config.waves[pin] = static_cast<uint32_t>(period);
        else
            o->config.pins[pin] = value == "1";
    }
    if (o->netlist.empty() && !o->parts.empty()) throw CLI::ValidationError("--part", "names parts of a --netlist");
    if (!o->netlist.empty()) {
        std::map<std::string, unsigned> parts;
        for (const std::string& p : o->parts) {
            size_t eq = p.find('=');
            unsigned long position;
            if (eq == std::string::npos || eq == 0 || !sim::parseNumber(p.substr(eq + 1), 0xffff, &position))
                throw CLI::ValidationError("--part", "wants REF=POS: " + p);
            std::string error = sim::checkPin(o->config.chain, {static_cast<unsigned>(position), "*"});
            if (error.rfind("no BSDL device", 0) == 0) throw CLI::ValidationError("--part", error);
            if (!parts.emplace(p.substr(0, eq), static_cast<unsigned>(position)).second)
                throw CLI::ValidationError("--part", p.substr(0, eq) + " given twice");
        }
        if (parts.empty()) throw CLI::ValidationError("--netlist", "wants --part REF=POS for each device on it");
        jtag::netlist::Netlist netlist;
        std::string error;
        if (!jtag::netlist::readFile(o->netlist, &netlist, &error) ||
            !(error = sim::netlistWires(netlist, parts, o->config.chain, &o->config.wires)).empty())
            throw CLI::ValidationError("--netlist", error);
    }
    for (const std::string& n : o->nets) {
        size_t eq = n.find('=');
        sim::PinRef a, b;
        std::string error = eq == std::string::npos ? "wants POS.PORT=POS.PORT: " + n : sim::parsePin(n.substr(0, eq), &a);
        if (error.empty()) error = sim::parsePin(n.substr(eq + 1), &b);
        if (error.empty()) error = sim::checkPin(o->config.chain, a);
        if (error.empty()) error = sim::checkPin(o->config.chain, b);
        if (!error.empty()) throw CLI::ValidationError("--net", error);
        o->config.wires.join(a, b);
    }
    finishWires(o);
    o->config.vcdRealTime = o->vcdTime == "real";
    o->config.tdoStuck = o->tdo == "stuck-0" ? 0 : o->tdo == "stuck-1" ? 1 : -1;
}

std::string parseBoardOptions(const std::string& text, BoardConfig* config) {
    CLI::App app{"the simulated board", "kelvorn-sim"};
    BoardOptions o;
    addBoardOptions(app, &o);
    try {
        app.parse(text, false);
        if (!app.remaining().empty()) return "not a board option: " + app.remaining().front();
        finishBoardOptions(&o);
    } catch (const CLI::ParseError& e) {
        return e.what();
    }
    *config = o.config;
    return "";
}

}  // namespace sim
