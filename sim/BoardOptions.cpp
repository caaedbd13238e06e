#include "sim/BoardOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

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
                 "after the run, print \"sim stats: reads R writes W tck-cycles C\" on stderr: the register accesses "
                 "of the chip the chain hangs on, and the rising TCK edges the chain saw");
    app.add_option("--pin", o->pins, "the level on an input pin of a BSDL device that nothing drives (default 1)")
        ->type_name("POS.PORT=0|1")
        ->allow_extra_args(false);  // one value each time: never the arguments after it
    app.add_option("--net", o->nets, "a wire between two BSDL devices' pins: what one drives under EXTEST the other reads")
        ->type_name("POS.PORT=POS.PORT")
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
        sim::PinRef pin;
        std::string error = eq == std::string::npos || eq + 2 != p.size() || (p[eq + 1] != '0' && p[eq + 1] != '1')
                                ? "wants POS.PORT=0 or POS.PORT=1: " + p
                                : sim::parsePin(p.substr(0, eq), &pin);
        if (error.empty()) error = sim::checkPin(o->config.chain, pin);
        if (!error.empty()) throw CLI::ValidationError("--pin", error);
        o->config.pins[pin] = p[eq + 1] == '1';
    }
    for (const std::string& n : o->nets) {
        size_t eq = n.find('=');
        sim::PinRef a, b;
        std::string error = eq == std::string::npos ? "wants POS.PORT=POS.PORT: " + n : sim::parsePin(n.substr(0, eq), &a);
        if (error.empty()) error = sim::parsePin(n.substr(eq + 1), &b);
        if (error.empty()) error = sim::checkPin(o->config.chain, a);
        if (error.empty()) error = sim::checkPin(o->config.chain, b);
        if (!error.empty()) throw CLI::ValidationError("--net", error);
        o->config.nets.emplace_back(a, b);
    }
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
