#include "chain/KelvornChain.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "chain/ViewServer.h"
#include "device/Listen.h"
#include "device/PciAddress.h"
#include "device/Session.h"
#include "os/SignalGate.h"
#include "jtag/Boundary.h"
#include "jtag/ChainAccess.h"
#include "jtag/Discovery.h"
#include "jtag/Jep106.h"
#include "jtag/Json.h"
#include "jtag/LiveView.h"

namespace {


constexpr unsigned kDefaultMaxDevices = 64;
constexpr unsigned kMostDevices = 1024;
constexpr long kWatchIntervalNs = 100000000;  // watch samples ten times a second
constexpr long kViewIntervalNs = 50000000;    // view samples twenty times a second: a change shows within 100 ms

struct Options {
    std::string fpga, address;
    std::vector<std::string> words;  // the command and its arguments
    bool json = false, testMode = false, iKnowTheBoard = false, listDevices = false;
    std::vector<std::string> bsdl, irlen;
    std::string bsdlPath;
    unsigned maxDevices = kDefaultMaxDevices;
    double frequency = 0;
    double hold = -1;  // seconds; < 0: until a signal
    jtag::TestRequest test;  // the test command's parts, packages, pulls and power nets
    std::string junit;       // test: the JUnit XML file
    std::string listen = "127.0.0.1:0", listenHost = "127.0.0.1", listenPort = "0";  // view: where it serves
    bool drive = false;      // view: clicks drive pins
    std::string result;      // view: a board test's JSON report, its failing nets marked
};

using jtag::defaultBsdlPath;
using jtag::hex32;

void describeOptions(CLI::App& app, Options* o) {
    app.set_version_flag("--version", "kelvorn-chain " KELVORN_VERSION);
    // Both are needed but for --list-devices, which kelvornChainMain checks.
    app.add_option("fpga", o->fpga, "the device name");
    app.add_option("address", o->address, "the PCI address, dddd:bb:dd.f");
    app.add_option("command", o->words,
                   "sample DEV | watch DEV | drive DEV PORT=0|1|z... | connect DEV.PORT DEV.PORT | usercode DEV | "
                   "test NETLIST | view "
                   "(DEV: a position or a BSDL entity name); none: discover the chain");
    app.add_flag("--json", o->json, "every command's answer, or its failure, as JSON");
    app.add_flag("--list-devices", o->listDevices,
                 "list the device names the backends serve, each with its backend and the platform condition "
                 "under which it is served; no device is opened");
    // Each occurrence takes one value: a repeated option never swallows the positional arguments after it.
    app.add_option("--bsdl", o->bsdl, "a BSDL file, or POS=FILE for the device at that position (repeatable)")
        ->type_name("FILE")
        ->allow_extra_args(false);
    app.add_option("--bsdl-path", o->bsdlPath, "directories of BSDL files, found by IDCODE")
        ->type_name("DIR[:DIR...]")
        ->default_str(defaultBsdlPath());
    app.add_option("--irlen", o->irlen, "the instruction register length of the device at POS (repeatable)")
        ->type_name("POS=N")
        ->allow_extra_args(false);
    app.add_option("--max-devices", o->maxDevices, "the most devices looked for")
        ->capture_default_str()
        ->check(CLI::Range(1u, kMostDevices));
    app.add_option("--frequency", o->frequency, "a ceiling on TCK in Hz, on every edge")
        ->type_name("HZ")
        ->check(CLI::Range(1.0, 1e12));
    app.add_option("--hold", o->hold, "drive: seconds to hold the pins (default: until Ctrl-C)")
        ->type_name("S")
        ->check(CLI::Range(0.0, 86400.0));
    app.add_option("--part", o->test.parts, "test: the netlist's component REF is the chain device DEV (repeatable)")
        ->type_name("REF=DEV")
        ->allow_extra_args(false);
    app.add_option("--package", o->test.packages, "test: the package of the device at POS, instead of its file's default")
        ->type_name("POS=NAME")
        ->allow_extra_args(false);
    app.add_option("--pull", o->test.pulls, "test: NET has a pull-up or pull-down the netlist does not show")
        ->type_name("NET=up|down")
        ->allow_extra_args(false);
    app.add_option("--power", o->test.power, "test: NET is a power net, never driven")
        ->type_name("NET")
        ->allow_extra_args(false);
    app.add_option("--junit", o->junit, "test: write the result as JUnit XML to FILE, one testcase per net")
        ->type_name("FILE");
    app.add_option("--listen", o->listen, "view: the address and port to serve on (port 0: a free one)")
        ->type_name("ADDR:PORT")
        ->capture_default_str()
        ->check([o](const std::string& s) { return device::parseListen(s, &o->listenHost, &o->listenPort); });
    app.add_flag("--drive", o->drive, "view: a click on a pin drives it under EXTEST (the BSDL file given, as for drive)");
    app.add_option("--result", o->result, "view: mark the pins of the failing nets of this test --json report (with --part)")
        ->type_name("FILE");
    app.add_flag("--i-know-the-board", o->iKnowTheBoard,
                 "allow drive, connect and test on a device whose BSDL file was found, not given with --bsdl");
    app.add_flag("--test-mode", o->testMode, "the lock file (and register files) of test mode, under /tmp");
}

const char* kDescription =
    "Finds, names and probes the devices on the JTAG chain of a logic device's pins. Without a\n"
    "command: one line per device, nearest TDO first (position, IDCODE, IR length and where it came\n"
    "from, manufacturer, part and version), then the count and total IR length.\n"
    "Statuses: 0 done; 1 the interface refused (lock held, unknown device); 2 usage; 3 no backend\n"
    "serves the name on this board; 4 a dead or inconsistent chain; 5 a BSDL file cannot be read or\n"
    "none describes the device; 6 a drive refused; 7 connect: the net is not connected; 8 test: a\n"
    "fault found; 9 test: the netlist cannot be read or does not fit the chain; 10 view: the\n"
    "address cannot be listened on.\n\n"
    "  kelvorn-chain [options] <fpga> <pci address> [command]\n"
    "  kelvorn-chain --list-devices [--json]\n";

// ---- output ----

// Set from the command line before anything can fail: with --json every
// failure is also a JSON document on stdout.
bool jsonOut = false;

// One line on stderr naming what failed and why; with --json also
// {"status":N,"error":"..."} on stdout. Returns the status.
int fail(int status, const std::string& what) {
    std::fprintf(stderr, "kelvorn-chain: %s\n", what.c_str());
    if (jsonOut) std::printf("%s\n", jtag::jsonText(jtag::Json{{"status", status}, {"error", what}}).c_str());
    return status;
}

void printDiscovery(const jtag::Discovery& d, bool json) {
    if (json) {
        std::printf("%s\n", jtag::discoveryJson(d).c_str());
        return;
    }
    for (const jtag::DeviceFacts& f : d.devices) {
        std::string line = std::to_string(f.position) + ": ";
        if (f.idcode) {
            line += "IDCODE " + hex32(*f.idcode);
        } else {
            line += "no IDCODE (BYPASS after reset)";
        }
        line += ", IR " + std::to_string(f.irLength) + " bits (" + jtag::irFromName(f.irFrom) + ")";
        if (f.idcode) {
            line += ", " + jtag::manufacturerText(*f.idcode);
            if (f.bsdl) line += ", " + f.bsdl->entity;
            line += ", version " + std::to_string(*f.idcode >> jtag::kIdcodeVersionShift);
        } else if (f.bsdl) {
            line += ", " + f.bsdl->entity;
        }
        std::printf("%s\n", line.c_str());
    }
    size_t n = d.devices.size();
    std::printf("%zu device%s, IR %u bits in all\n", n, n == 1 ? "" : "s", d.irTotal);
}

// ---- the device's test logic, from its BSDL file ----

// The pins of a port (or of an element "NAME(i)") in the default package, as text.
std::string pinsOf(const jtag::bsdl::Device& d, const std::string& port) {
    std::string text;
    for (const std::string& p : jtag::packagePins(d, port)) text += (text.empty() ? "" : ",") + p;
    return text;
}

// Signals held off while the chain is in EXTEST (a signal then must not end
// the process before the devices are back at their function), and the wait
// of a hold or a watch, which a signal ends.
class SignalsHeld {
  public:
    SignalsHeld() {
        sigemptyset(&set_);
        for (int s : Os::kEndingSignals) sigaddset(&set_, s);  // they end a hold or a watch, and wait while in EXTEST
        sigprocmask(SIG_BLOCK, &set_, &old_);
    }
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &old_, nullptr); }
    // Whether an ending signal waits to be taken.
    bool pending() const {
        sigset_t now;
        sigpending(&now);
        for (int s : Os::kEndingSignals)
            if (sigismember(&now, s)) return true;
        return false;
    }
    // Waits ns (< 0: for ever); true when a signal ended the wait (it is then taken).
    bool wait(long long ns) {
        if (ns < 0) {
            int got;
            return sigwait(&set_, &got) == 0;
        }
        timespec t{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        return sigtimedwait(&set_, nullptr, &t) > 0;
    }

  private:
    sigset_t set_, old_;
};

double secondsSince(const timespec& start) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) + (now.tv_nsec - start.tv_nsec) * 1e-9;
}

class Program {
  public:
    Program(const Options& o, jtag::Tap& tap, const jtag::Discovery& d, const std::set<const void*>& given)
        : o_(o), d_(d), chain_(tap, d, given, o.iKnowTheBoard) {}

    int run() {
        const std::string& command = o_.words[0];
        size_t args = o_.words.size() - 1;
        if ((command == "sample" || command == "watch" || command == "usercode") && args == 1)
            return command == "usercode" ? usercode(o_.words[1]) : sample(o_.words[1], command == "watch");
        if (command == "drive" && args >= 2) return drive();
        if (command == "connect" && args == 2) return connect(o_.words[1], o_.words[2]);
        if (command == "test" && args == 1) return test(o_.words[1]);
        if (command == "view" && args == 0) return view();
        return fail(kChainUsage, "not understood: " + command + " with " + std::to_string(args) +
                                     " argument" + (args == 1 ? "" : "s") + " (see --help)");
    }

  private:
    static int failWith(const jtag::CommandResult& r) { return fail(r.status, r.error); }

    int sample(const std::string& dev, bool watch) {
        unsigned p;
        jtag::CommandResult named = chain_.resolve(dev, &p);
        if (!named.ok()) return failWith(named);
        jtag::SampleResult first = chain_.sample(p, !watch);
        if (!first.ok()) return failWith(first);
        if (!watch) {
            printSample(first);
            return kChainOk;
        }
        SignalsHeld held;
        timespec start;
        clock_gettime(CLOCK_MONOTONIC, &start);
        printSample(first);
        std::fflush(stdout);
        auto levels = first.levels;
        while (!held.wait(kWatchIntervalNs)) {
            auto now = chain_.sample(p, false).levels;
            for (size_t i = 0; i < now.size(); ++i) {
                if (now[i].second == levels[i].second) continue;
                if (o_.json)
                    std::printf("%s\n", jtag::jsonText(jtag::Json{{"s", std::round(secondsSince(start) * 1000) / 1000},
                                                                 {"port", now[i].first},
                                                                 {"from", levels[i].second ? 1 : 0},
                                                                 {"to", now[i].second ? 1 : 0}})
                                           .c_str());
                else
                    std::printf("%.3f s %s %d -> %d\n", secondsSince(start), now[i].first.c_str(), levels[i].second,
                                now[i].second);
            }
            std::fflush(stdout);
            levels = now;
        }
        chain_.release();
        return kChainOk;
    }

    void printSample(const jtag::SampleResult& r) {
        if (o_.json) {
            std::printf("%s\n", jtag::sampleJson(r).c_str());
            return;
        }
        for (const auto& [port, level] : r.levels) {
            std::string pins = pinsOf(*r.bsdl, port);
            std::printf("%s %d%s\n", port.c_str(), level, pins.empty() ? "" : (" (pin " + pins + ")").c_str());
        }
    }

    int usercode(const std::string& dev) {
        unsigned p;
        jtag::CommandResult named = chain_.resolve(dev, &p);
        if (!named.ok()) return failWith(named);
        jtag::UsercodeResult r = chain_.usercode(p);
        if (!r.ok()) return failWith(r);
        if (o_.json)
            std::printf("%s\n", jtag::usercodeJson(r).c_str());
        else
            std::printf("%u: USERCODE %s\n", p, hex32(r.usercode).c_str());
        return kChainOk;
    }

    int drive() {
        unsigned p;
        jtag::CommandResult named = chain_.resolve(o_.words[1], &p);
        if (!named.ok()) return failWith(named);
        jtag::DrivePlan plan = chain_.planDrive(p, std::vector<std::string>(o_.words.begin() + 2, o_.words.end()));
        if (!plan.ok()) return failWith(plan);
        SignalsHeld held;
        jtag::DriveResult r = chain_.applyDrive(plan);
        if (o_.json) {
            std::printf("%s\n", jtag::driveJson(r, o_.hold).c_str());
        } else {
            std::string driving, unnamed;
            for (const jtag::boundary::PortDrive& port : r.driving)
                driving += (driving.empty() ? "" : " ") + port.port + "=" + port.level;
            for (const std::string& port : r.unnamed) unnamed += (unnamed.empty() ? "" : ", ") + port;
            if (!unnamed.empty()) driving += " (" + unnamed + ": two-state, at the safe level)";
            char hold[64];
            std::snprintf(hold, sizeof hold, o_.hold < 0 ? "holding until Ctrl-C" : "holding %g s", o_.hold);
            std::printf("%u: EXTEST driving %s, every other output released; %s\n", p,
                        driving.empty() ? "nothing" : driving.c_str(), hold);
        }
        std::fflush(stdout);
        held.wait(o_.hold < 0 ? -1 : static_cast<long long>(std::llround(o_.hold * 1e9)));
        chain_.release();
        if (!o_.json) std::printf("%u: released (Test-Logic-Reset)\n", p);
        return kChainOk;
    }

    int connect(const std::string& from, const std::string& to) {
        jtag::ConnectResult r;
        {
            SignalsHeld held;  // the devices in EXTEST until it ends
            r = chain_.connect(from, to);
        }
        if (r.result.empty()) return failWith(r);
        if (o_.json)
            std::printf("%s\n", jtag::connectJson(r).c_str());
        else
            std::printf("%s -> %s: %s\n", r.from.c_str(), r.to.c_str(), r.result.c_str());
        return r.status;
    }

    int test(const std::string& netlist) {
        jtag::TestRequest q = o_.test;
        q.netlist = netlist;
        jtag::TestResult r;
        {
            SignalsHeld held;  // the parts in EXTEST until it ends; a signal ends it between scans
            r = chain_.test(q, [&held] { return held.pending(); });
        }
        if (r.report.stopped) return kChainOk;  // the signal taken now ends the program
        if (!r.ok() && r.status != jtag::kChainFaultFound) return failWith(r);
        if (!o_.junit.empty()) {
            FILE* f = std::fopen(o_.junit.c_str(), "w");
            std::string xml = jtag::interconnect::junit(r.report, netlist);
            if (!f || std::fwrite(xml.data(), 1, xml.size(), f) != xml.size() || std::fclose(f) != 0)
                return fail(jtag::kChainBadNetlist, "cannot write " + o_.junit);
        }
        if (o_.json)
            std::printf("%s\n", jtag::testJson(r).c_str());
        else
            std::printf("%s", jtag::interconnect::text(r.report).c_str());
        return r.status;
    }

    int view() {
        jtag::LiveView live(chain_, d_, o_.drive);
        if (!o_.result.empty()) {
            std::FILE* f = std::fopen(o_.result.c_str(), "r");
            jtag::Json report = f ? jtag::Json::parse(f, nullptr, false) : jtag::Json();
            if (f) std::fclose(f);
            if (!f || report.is_discarded())
                return fail(kChainUsage, "--result " + o_.result + ": " + (f ? "not JSON" : std::strerror(errno)));
            jtag::CommandResult marked = live.marks(report, o_.test.parts);
            if (!marked.ok()) return failWith(marked);
        }
        chain::ViewServer server(live);
        std::string error;
        if (!server.bind(o_.listenHost, o_.listenPort, &error))
            return fail(jtag::kChainCannotListen, "view: cannot listen on " + o_.listen + ": " + error);
        SignalsHeld held;  // before the server's threads start: they inherit it, and the signal comes here
        server.start();
        live.sample();
        if (o_.json)
            std::printf("%s\n", jtag::jsonText(jtag::Json{{"url", server.url()}}).c_str());
        else
            std::printf("view: %s\n", server.url().c_str());
        std::fflush(stdout);
        while (!held.wait(kViewIntervalNs)) server.publish(live.sample());
        server.stop();
        live.release();
        return kChainOk;
    }

    const Options& o_;
    const jtag::Discovery& d_;
    jtag::ChainCommands chain_;
};

// "POS=REST": digits, then '='. False for anything else.
bool positional(const std::string& text) {
    size_t eq = text.find('=');
    return eq != std::string::npos && eq != 0 && text.find_first_not_of("0123456789") == eq;
}

// The position of "POS=REST" and REST; false when POS is not a position on
// a chain of kMostDevices (a number too large is refused, never wrapped).
bool positionValue(const std::string& text, unsigned* position, std::string* rest) {
    if (!positional(text)) return false;
    size_t eq = text.find('=');
    if (eq > 4) return false;
    unsigned long p = std::strtoul(text.c_str(), nullptr, 10);
    if (p >= kMostDevices) return false;
    *position = static_cast<unsigned>(p);
    *rest = text.substr(eq + 1);
    return true;
}

std::string positionRange() { return "a position is 0 to " + std::to_string(kMostDevices - 1); }

int usage(const std::string& what) { return fail(kChainUsage, what); }

int listDevices(bool json) {
    std::vector<XilIntf_servedName> names = device::servedNames();
    if (json) {
        jtag::Json list = jtag::Json::array();
        for (const XilIntf_servedName& n : names)
            list.push_back({{"name", n.name}, {"backend", n.backend}, {"condition", n.condition}});
        std::printf("%s\n", jtag::jsonText(jtag::Json{{"devices", std::move(list)}}).c_str());
        return kChainOk;
    }
    for (const XilIntf_servedName& n : names) std::printf("%-22s %-34s %s\n", n.name, n.backend, n.condition);
    return kChainOk;
}

}  // namespace

std::string kelvornChainDevice(const std::vector<std::string>& args) {
    CLI::App app{kDescription, "kelvorn-chain"};
    Options o;
    describeOptions(app, &o);
    std::vector<std::string> reversed(args.rbegin(), args.rend());  // CLI11 takes them last first
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError&) {
        return "";
    }
    return o.fpga;
}

int kelvornChainMain(int argc, char** argv) {
    CLI::App app{kDescription, "kelvorn-chain"};
    Options o;
    describeOptions(app, &o);
    jsonOut = false;
    for (int i = 1; i < argc && std::string(argv[i]) != "--"; ++i)
        if (std::string(argv[i]) == "--json") jsonOut = true;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (jsonOut && e.get_exit_code() != 0) return fail(kChainUsage, e.what());
        return app.exit(e) == 0 ? kChainOk : kChainUsage;
    }
    if (o.listDevices) {
        if (!o.fpga.empty() || !o.words.empty()) return usage("--list-devices takes no device, address or command");
        return listDevices(o.json);
    }
    if (o.fpga.empty() || o.address.empty()) return usage(std::string(o.fpga.empty() ? "fpga" : "address") + " is required");
    if (o.bsdlPath.empty() && !app.count("--bsdl-path")) o.bsdlPath = defaultBsdlPath();

    device::PciAddress at;
    if (!device::parsePciAddress(o.address.c_str(), &at)) return usage(device::notAPciAddress(o.address.c_str()));
    jtag::DiscoveryOptions options;
    options.maxDevices = o.maxDevices;
    for (const std::string& item : o.irlen) {
        unsigned p;
        std::string n;
        if (!positionValue(item, &p, &n) || n.empty() || n.find_first_not_of("0123456789") != std::string::npos ||
            n.size() > 3 || std::stoul(n) < 2)
            return usage("--irlen " + item + ": wants POS=N, N at least 2 (" + positionRange() + ")");
        options.irLength[p] = static_cast<unsigned>(std::stoul(n));
    }
    // The files named first, then the directories: a file given wins.
    jtag::BsdlCatalogue catalogue;
    std::set<const void*> given;
    for (const std::string& item : o.bsdl) {
        unsigned p;
        std::string path;
        bool at = positionValue(item, &p, &path);
        if (!at && positional(item)) return usage("--bsdl " + item + ": " + positionRange());
        if (!at) path = item;
        auto device = std::make_shared<jtag::bsdl::Device>();
        jtag::bsdl::Error error;
        if (!jtag::bsdl::readFile(path, device.get(), &error)) {
            return fail(kChainBadBsdl, error.text());
        }
        given.insert(device.get());
        if (at)
            options.bsdlAt[p] = device;
        else
            catalogue.add(device);
    }
    catalogue.addPath(o.bsdlPath);
    for (const std::string& w : catalogue.warnings()) std::fprintf(stderr, "kelvorn-chain: passed over %s\n", w.c_str());

    std::optional<device::StdoutToStderr> quiet;
    std::optional<device::BeforeRefusalExit> refusal;
    if (jsonOut) {
        quiet.emplace();
        // The backend has said why on stderr; stdout still gets its document.
        std::string what = "the " + o.fpga + " backend refused this board (its message is on standard error)";
        refusal.emplace([what, &quiet](int status) {
            std::fflush(stdout);
            std::string doc = jtag::jsonText(jtag::Json{{"status", status}, {"error", what}}) + "\n";
            // While the backends' lines go to stderr, the document goes where stdout was.
            int fd = quiet ? quiet->stdoutFd() : STDOUT_FILENO;
            if (::write(fd, doc.data(), doc.size()) < 0) {
                // Nothing more to be done on the way out.
            }
        });
    }
    XilIntf* intf = device::openDevice("kelvorn-chain", o.fpga, at, o.testMode);
    if (!intf) {
        quiet.reset();
        // openDevice has said so on stderr.
        if (jsonOut)
            std::printf("%s\n", jtag::jsonText(jtag::Json{{"status", kChainNoBackend}, {"error", device::noBackend(o.fpga)}}).c_str());
        return kChainNoBackend;
    }
    device::SelectedDevice selected(intf, o.fpga);
    quiet.reset();
    jtag::Tap tap(intf);
    tap.ceilingHzIs(o.frequency);
    jtag::Discovery d = jtag::discover(tap, catalogue, options);
    if (d.scan.fault != jtag::ChainScan::Fault::none) {
        selected.cleanup();
        std::string what = d.scan.fault == jtag::ChainScan::Fault::inconsistent
                               ? "the chain answers inconsistently: " + d.scan.detail
                               : jtag::describe(d.scan.fault, o.maxDevices);
        return fail(kChainDead, what);
    }
    if (!d.bsdlProblem.empty()) {
        selected.cleanup();
        return fail(kChainBadBsdl, d.bsdlProblem);
    }
    for (const jtag::DeviceFacts& f : d.devices)
        if (!f.otherBsdl.empty()) {
            std::string others;
            for (const std::string& file : f.otherBsdl) others += ", " + file;
            std::fprintf(stderr, "kelvorn-chain: %u: IDCODE %s is in more than one BSDL file: %s%s; using the first (--bsdl %u=FILE chooses)\n",
                         f.position, hex32(*f.idcode).c_str(), f.bsdl->file.c_str(), others.c_str(), f.position);
        }
    for (const auto& [p, file] : options.bsdlAt)
        if (p >= d.devices.size()) return usage("--bsdl " + std::to_string(p) + "=" + file->file + ": the chain has " + std::to_string(d.devices.size()) + " devices");
    if (!d.irProblem.empty()) {
        selected.cleanup();
        return fail(kChainDead, d.irProblem);
    }
    int status = kChainOk;
    if (o.words.empty())
        printDiscovery(d, o.json);
    else
        status = Program(o, tap, d, given).run();
    selected.cleanup();
    std::fflush(stdout);
    return status;
}
