// kelvorn-sim: the kelvorn tool, or an IDCODE scan, on a simulated board.
// The production code runs unchanged: the board stands behind every
// register window and OS call (sim/Board.h), so nothing here reaches this
// machine's hardware.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sim/Board.h"
#include "play/KelvornPlay.h"
#include "chain/KelvornChain.h"
#include "serve/KelvornServe.h"
#include "sim/Options.h"
#include "sim/Scan.h"
#include "tool/Kelvorn.h"

namespace {

// An option's file: "" when it can be written, else why not.
std::string writable(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) return "cannot write " + path + ": " + std::strerror(errno);
    std::fclose(f);
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    sim::BoardConfig config;
    std::string cpu = "0x16:0x30";
    std::string chain = sim::chainText(config.chain);
    std::vector<std::string> kelvornArgs;
    std::string scanDevice, scanAddress;

    CLI::App app{
        "Runs the kelvorn tool, or an IDCODE scan, on a simulated board: the production code drives\n"
        "register-level models of the GPIO chips, and a JTAG chain hangs on the pins that the named\n"
        "device is wired to. Every chip kind exists at every PCI address; nothing touches this\n"
        "machine's hardware.\n\n"
        "  kelvorn-sim [options] -- <fpga> <pci address> { tck | tms | tdi | tdo } [ 0 | 1 ]\n"
        "      the kelvorn tool itself: same output and exit statuses\n"
        "  kelvorn-sim [options] scan <fpga> <pci address>\n"
        "      prints the chain's IDCODEs, nearest TDO first; status 0, 1 when no device answers\n"
        "  kelvorn-sim [options] serve [serve options] <fpga> <pci address>\n"
        "      kelvorn-serve itself, on the simulated board (kelvorn-sim serve --help)\n"
        "  kelvorn-sim [options] play [play options] <fpga> <pci address> <file>\n"
        "      kelvorn-play itself, on the simulated board (kelvorn-sim play --help)\n"
        "  kelvorn-sim [options] chain [chain options] <fpga> <pci address> [command]\n"
        "      kelvorn-chain itself, on the simulated board (kelvorn-sim chain --help)\n",
        "kelvorn-sim"};
    app.set_version_flag("--version", "kelvorn-sim " KELVORN_VERSION);
    app.add_option("--platform", config.platform,
                   "the board's platform: the kernel command line holds platform=NAME (default: no platform word)");
    app.add_option("--cpu", cpu, "the processor's CPUID family and model, in C notation")
        ->capture_default_str()
        ->check([&](const std::string& s) { return sim::parseCpu(s, &config.family, &config.model); });
    app.add_option("--chain", chain,
                   "the devices on the chain, nearest TDO first, each IDCODE:IRLEN[:mem=ROWSxBITS[:erase=CYCLES]"
                   "[:program=CYCLES]] (IDCODE none: a device without one): mem= makes it programmable, ROWS rows of BITS bits, erased and "
                   "programmed in the TCK cycles given (default 1000 and 100) in Run-Test/Idle; or "
                   "bsdl=FILE[:package=NAME][:usercode=0xHHHHHHHH], the device a BSDL file describes")
        ->capture_default_str()
        ->check([&](const std::string& s) { return sim::parseChain(s, &config.chain); });
    app.add_option("--hold", config.holdSeconds, "seconds a set command holds its pin, instead of ten")
        ->capture_default_str();
    app.add_flag("--show-writes", config.showWrites,
                 "print every register write of the simulated chips on stderr, with what it did to the JTAG pins "
                 "(z: not driven) and the TAP state");
    app.add_option("--vcd", config.vcd,
                   "write the JTAG pins and the TAP state to FILE as a Value Change Dump, one time unit per register "
                   "access")
        ->type_name("FILE")
        ->check(writable);
    std::string vcdTime = "access";
    app.add_option("--vcd-time", vcdTime,
                   "the VCD's time: access, one unit a register access; real, nanoseconds on the monotonic clock since "
                   "the window opened")
        ->check(CLI::IsMember({"access", "real"}))
        ->capture_default_str();
    app.add_option("--dump-memory", config.dumpMemory,
                   "after the run, write the memory of the first programmable device on the chain to FILE, row after "
                   "row, bit 0 first (the bit order of an image)")
        ->type_name("FILE")
        ->check(writable);
    app.add_flag("--stats", config.stats,
                 "after the run, print \"sim stats: reads R writes W tck-cycles C\" on stderr: the register accesses "
                 "of the chip the chain hangs on, and the rising TCK edges the chain saw");
    std::vector<std::string> pins, nets;
    app.add_option("--pin", pins, "the level on an input pin of a BSDL device that nothing drives (default 1)")
        ->type_name("POS.PORT=0|1");
    app.add_option("--net", nets, "a wire between two BSDL devices' pins: what one drives under EXTEST the other reads")
        ->type_name("POS.PORT=POS.PORT");
    app.add_option("--dump-pins", config.dumpPins,
                   "after the run, write what BSDL devices' boundary registers last drove onto their pins under "
                   "EXTEST to FILE, one line per driven pin: POS.PORT LEVEL")
        ->type_name("FILE")
        ->check(writable);
    std::string tdo = "chain";
    app.add_option("--tdo", tdo, "TDO as the chip sees it: the chain's, or stuck at 0 or at 1 (a dead chain)")
        ->check(CLI::IsMember({"chain", "stuck-0", "stuck-1"}))
        ->capture_default_str();
    app.add_option("kelvorn", kelvornArgs, "the arguments of kelvorn, after --");
    CLI::App* scan = app.add_subcommand("scan", "reset the chain and print the IDCODEs on it");
    scan->add_option("fpga", scanDevice, "the device name")->required();
    scan->add_option("address", scanAddress, "the PCI address, dddd:bb:dd.f")->required();
    scan->fallthrough();
    CLI::App* serveCommand = app.add_subcommand("serve", "run kelvorn-serve; its options and arguments follow");
    serveCommand->prefix_command()->set_help_flag();
    CLI::App* playCommand = app.add_subcommand("play", "run kelvorn-play; its options and arguments follow");
    playCommand->prefix_command()->set_help_flag();
    CLI::App* chainCommand = app.add_subcommand("chain", "run kelvorn-chain; its options and arguments follow");
    chainCommand->prefix_command()->set_help_flag();
    try {
        app.parse(argc, argv);
        std::string noMemory = sim::needMemory(config.chain);
        if (!config.dumpMemory.empty() && !noMemory.empty()) throw CLI::ValidationError("--dump-memory", noMemory);
        for (const std::string& p : pins) {
            size_t eq = p.rfind('=');
            sim::PinRef pin;
            std::string error = eq == std::string::npos || eq + 2 != p.size() || (p[eq + 1] != '0' && p[eq + 1] != '1')
                                    ? "wants POS.PORT=0 or POS.PORT=1: " + p
                                    : sim::parsePin(p.substr(0, eq), &pin);
            if (error.empty()) error = sim::checkPin(config.chain, pin);
            if (!error.empty()) throw CLI::ValidationError("--pin", error);
            config.pins[pin] = p[eq + 1] == '1';
        }
        for (const std::string& n : nets) {
            size_t eq = n.find('=');
            sim::PinRef a, b;
            std::string error = eq == std::string::npos ? "wants POS.PORT=POS.PORT: " + n : sim::parsePin(n.substr(0, eq), &a);
            if (error.empty()) error = sim::parsePin(n.substr(eq + 1), &b);
            if (error.empty()) error = sim::checkPin(config.chain, a);
            if (error.empty()) error = sim::checkPin(config.chain, b);
            if (!error.empty()) throw CLI::ValidationError("--net", error);
            config.nets.emplace_back(a, b);
        }
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    config.vcdRealTime = vcdTime == "real";
    config.tdoStuck = tdo == "stuck-0" ? 0 : tdo == "stuck-1" ? 1 : -1;

    serve::Options serveOptions;
    if (serveCommand->parsed()) {
        std::vector<std::string> serveArgs = serveCommand->remaining();
        std::vector<char*> args{const_cast<char*>("kelvorn-serve")};
        for (std::string& a : serveArgs) args.push_back(&a[0]);
        int status;
        if (!serve::parseOptions(static_cast<int>(args.size()), args.data(), &serveOptions, &status)) return status;
    }
    // kelvorn-play's arguments: its options, then <fpga> <pci address> <file>. The
    // device is the first argument that is neither an option nor the value of
    // one (--format, --frequency).
    std::vector<std::string> playArgs{"kelvorn-play"};
    std::string playDevice;
    if (playCommand->parsed()) {
        for (const std::string& a : playCommand->remaining()) playArgs.push_back(a);
        for (size_t i = 1; i < playArgs.size() && playDevice.empty(); ++i) {
            if (playArgs[i] == "--format" || playArgs[i] == "--frequency")
                ++i;
            else if (playArgs[i][0] != '-')
                playDevice = playArgs[i];
        }
    }
    std::vector<std::string> chainArgs{"kelvorn-chain"};
    if (chainCommand->parsed())
        for (const std::string& a : chainCommand->remaining()) chainArgs.push_back(a);
    config.device = scan->parsed()           ? scanDevice
                    : serveCommand->parsed() ? serveOptions.fpga
                    : playCommand->parsed()  ? playDevice
                    : chainCommand->parsed() ? kelvornChainDevice({chainArgs.begin() + 1, chainArgs.end()})
                    : kelvornArgs.empty()    ? ""
                                             : kelvornArgs.front();
    sim::Board board(config);
    board.install();
    if (scan->parsed()) return sim::scan(scanDevice.c_str(), scanAddress.c_str(), stdout);
    if (serveCommand->parsed()) return serve::run(serveOptions);
    if (chainCommand->parsed()) {
        std::vector<char*> args;
        for (std::string& a : chainArgs) args.push_back(&a[0]);
        args.push_back(nullptr);
        return kelvornChainMain(static_cast<int>(args.size() - 1), args.data());
    }
    if (playCommand->parsed()) {
        std::vector<char*> args;
        for (std::string& a : playArgs) args.push_back(&a[0]);
        args.push_back(nullptr);
        return kelvornPlayMain(static_cast<int>(args.size() - 1), args.data());
    }

    std::vector<char*> args{const_cast<char*>("kelvorn")};
    for (std::string& a : kelvornArgs) args.push_back(&a[0]);
    args.push_back(nullptr);
    return kelvornMain(static_cast<int>(args.size() - 1), args.data());
}
