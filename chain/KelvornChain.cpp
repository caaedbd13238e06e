#include "chain/KelvornChain.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "device/PciAddress.h"
#include "device/Session.h"
#include "os/SignalGate.h"
#include "jtag/Boundary.h"
#include "jtag/ChainAccess.h"
#include "jtag/Discovery.h"
#include "jtag/Jep106.h"
#include "jtag/Json.h"

namespace {

using jtag::BitVector;
using jtag::bsdl::Cell;
using jtag::boundary::sameName;

constexpr unsigned kDefaultMaxDevices = 64;
constexpr unsigned kMostDevices = 1024;
constexpr long kWatchIntervalNs = 100000000;  // watch samples ten times a second

struct Options {
    std::string fpga, address;
    std::vector<std::string> words;  // the command and its arguments
    bool json = false, testMode = false, iKnowTheBoard = false, listDevices = false;
    std::vector<std::string> bsdl, irlen;
    std::string bsdlPath;
    unsigned maxDevices = kDefaultMaxDevices;
    double frequency = 0;
    double hold = -1;  // seconds; < 0: until a signal
};

// The share directory beside the installed program (<prefix>/bin/..), then
// the user's own.
std::string defaultBsdlPath() {
    char exe[4096];
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string path;
    if (n > 0) {
        std::string bin(exe, static_cast<size_t>(n));
        bin.erase(bin.find_last_of('/') == std::string::npos ? 0 : bin.find_last_of('/'));
        path = bin + "/../share/kelvorn/bsdl";
    }
    const char* xdg = std::getenv("XDG_DATA_HOME");
    const char* home = std::getenv("HOME");
    if (xdg && *xdg)
        path += std::string(path.empty() ? "" : ":") + xdg + "/kelvorn/bsdl";
    else if (home && *home)
        path += std::string(path.empty() ? "" : ":") + home + "/.local/share/kelvorn/bsdl";
    return path;
}

void describeOptions(CLI::App& app, Options* o) {
    app.set_version_flag("--version", "kelvorn-chain " KELVORN_VERSION);
    // Both are needed but for --list-devices, which kelvornChainMain checks.
    app.add_option("fpga", o->fpga, "the device name");
    app.add_option("address", o->address, "the PCI address, dddd:bb:dd.f");
    app.add_option("command", o->words,
                   "sample DEV | watch DEV | drive DEV PORT=0|1|z... | connect DEV.PORT DEV.PORT | usercode DEV "
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
    app.add_flag("--i-know-the-board", o->iKnowTheBoard,
                 "allow drive and connect on a device whose BSDL file was found, not given with --bsdl");
    app.add_flag("--test-mode", o->testMode, "the lock file (and register files) of test mode, under /tmp");
}

const char* kDescription =
    "Finds, names and probes the devices on the JTAG chain of a logic device's pins. Without a\n"
    "command: one line per device, nearest TDO first (position, IDCODE, IR length and where it came\n"
    "from, manufacturer, part and version), then the count and total IR length.\n"
    "Statuses: 0 done; 1 the interface refused (lock held, unknown device); 2 usage; 3 no backend\n"
    "serves the name on this board; 4 a dead or inconsistent chain; 5 a BSDL file cannot be read or\n"
    "none describes the device; 6 a drive refused; 7 connect: the net is not connected.\n\n"
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

std::string hex32(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", v);
    return text;
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

class Chain {
  public:
    Chain(jtag::Tap& tap, const jtag::Discovery& d) : tap_(tap), d_(d), access_(tap, irLengths(d)) {}

    // DEV: a position, or the entity name of one device's BSDL file.
    bool device(const std::string& text, unsigned* position, std::string* error) const {
        char* end = nullptr;
        unsigned long p = std::strtoul(text.c_str(), &end, 10);
        if (!text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) && *end == '\0') {
            if (p >= d_.devices.size()) {
                *error = "no device at position " + text + " (the chain has " + std::to_string(d_.devices.size()) + ")";
                return false;
            }
            *position = static_cast<unsigned>(p);
            return true;
        }
        int found = -1;
        for (const jtag::DeviceFacts& f : d_.devices) {
            if (!f.bsdl || !sameName(f.bsdl->entity, text)) continue;
            if (found >= 0) {
                *error = text + " is on the chain more than once: name it by position";
                return false;
            }
            found = static_cast<int>(f.position);
        }
        if (found < 0) {
            *error = "no device on the chain is " + text;
            return false;
        }
        *position = static_cast<unsigned>(found);
        return true;
    }

    // The BSDL file of the device, with a boundary register when asked.
    const jtag::bsdl::Device* bsdl(unsigned position, bool boundary, std::string* error) const {
        const jtag::DeviceFacts& f = d_.devices[position];
        if (!f.bsdl) {
            *error = "device " + std::to_string(position) + " has no BSDL file (--bsdl, --bsdl-path)";
            return nullptr;
        }
        if (boundary && (f.bsdl->boundaryLength == 0 || jtag::bsdlOpcode(*f.bsdl, {"SAMPLE", "PRELOAD"}).empty())) {
            *error = "device " + std::to_string(position) + " (" + f.bsdl->entity + ") has no boundary register";
            return nullptr;
        }
        return f.bsdl.get();
    }

    // SAMPLE/PRELOAD on the device, the others in BYPASS: its boundary register's capture.
    BitVector sample(unsigned position) {
        const jtag::bsdl::Device& d = *d_.devices[position].bsdl;
        access_.instructions({{position, jtag::bsdlOpcode(d, {"SAMPLE", "PRELOAD"})}});
        return access_.data({{position, BitVector(d.boundaryLength)}})[position];
    }

    jtag::ChainAccess& access() { return access_; }
    void release() { tap_.reset(); }

  private:
    static std::vector<unsigned> irLengths(const jtag::Discovery& d) {
        std::vector<unsigned> v;
        for (const jtag::DeviceFacts& f : d.devices) v.push_back(f.irLength);
        return v;
    }

    jtag::Tap& tap_;
    const jtag::Discovery& d_;
    jtag::ChainAccess access_;
};

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

// "DEV.PORT": the device and the port (a port may be "NAME(i)").
bool devicePort(const Chain& chain, const std::string& text, unsigned* position, std::string* port,
                std::string* error) {
    size_t dot = text.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == text.size()) {
        *error = text + ": wants DEV.PORT, for example 1.LED";
        return false;
    }
    *port = text.substr(dot + 1);
    return chain.device(text.substr(0, dot), position, error);
}

class Program {
  public:
    Program(const Options& o, jtag::Tap& tap, const jtag::Discovery& d, const std::set<const void*>& given)
        : o_(o), d_(d), chain_(tap, d), given_(given) {}

    int run() {
        const std::string& command = o_.words[0];
        size_t args = o_.words.size() - 1;
        if ((command == "sample" || command == "watch" || command == "usercode") && args == 1)
            return command == "usercode" ? usercode(o_.words[1]) : sample(o_.words[1], command == "watch");
        if (command == "drive" && args >= 2) return drive();
        if (command == "connect" && args == 2) return connect(o_.words[1], o_.words[2]);
        return fail(kChainUsage, "not understood: " + command + " with " + std::to_string(args) +
                                     " argument" + (args == 1 ? "" : "s") + " (see --help)");
    }

  private:
    int sample(const std::string& dev, bool watch) {
        unsigned p;
        std::string error;
        if (!chain_.device(dev, &p, &error)) return fail(kChainUsage, error);
        const jtag::bsdl::Device* d = chain_.bsdl(p, true, &error);
        if (!d) return fail(kChainBadBsdl, error);
        auto levels = jtag::portLevels(*d, chain_.sample(p));
        if (!watch) {
            chain_.release();
            printSample(p, *d, levels);
            return kChainOk;
        }
        SignalsHeld held;
        timespec start;
        clock_gettime(CLOCK_MONOTONIC, &start);
        printSample(p, *d, levels);
        std::fflush(stdout);
        while (!held.wait(kWatchIntervalNs)) {
            auto now = jtag::portLevels(*d, chain_.sample(p));
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

    void printSample(unsigned p, const jtag::bsdl::Device& d, const std::vector<std::pair<std::string, bool>>& levels) {
        if (o_.json) {
            std::printf("%s\n", jtag::sampleJson(p, d, levels).c_str());
            return;
        }
        for (const auto& [port, level] : levels) {
            std::string pins = pinsOf(d, port);
            std::printf("%s %d%s\n", port.c_str(), level, pins.empty() ? "" : (" (pin " + pins + ")").c_str());
        }
    }

    int usercode(const std::string& dev) {
        unsigned p;
        std::string error;
        if (!chain_.device(dev, &p, &error)) return fail(kChainUsage, error);
        const jtag::bsdl::Device* d = chain_.bsdl(p, false, &error);
        if (!d) return fail(kChainBadBsdl, error);
        BitVector op = jtag::bsdlOpcode(*d, {"USERCODE"});
        if (op.empty()) return fail(kChainBadBsdl, "device " + std::to_string(p) + " (" + d->entity + ") has no USERCODE instruction");
        chain_.access().instructions({{p, op}});
        uint32_t code = static_cast<uint32_t>(chain_.access().data({{p, BitVector(32)}})[p].value(0, 32));
        chain_.release();
        if (o_.json)
            std::printf("%s\n", jtag::jsonText(jtag::Json{{"device", p}, {"usercode", hex32(code)}}).c_str());
        else
            std::printf("%u: USERCODE %s\n", p, hex32(code).c_str());
        return kChainOk;
    }

    // Drive and connect put a device's outputs under the boundary register:
    // on a live board two drivers may then fight, so only a device whose
    // BSDL file was given on the command line, or with --i-know-the-board.
    bool mayDrive(unsigned p, std::string* error) const {
        if (o_.iKnowTheBoard || given_.count(d_.devices[p].bsdl.get())) return true;
        *error = "device " + std::to_string(p) + "'s BSDL file was found, not given: EXTEST drives its pins and may fight the board's own drivers; give it with --bsdl " + std::to_string(p) + "=FILE, or --i-know-the-board";
        return false;
    }

    int drive() {
        unsigned p;
        std::string error;
        if (!chain_.device(o_.words[1], &p, &error)) return fail(kChainUsage, error);
        const jtag::bsdl::Device* d = chain_.bsdl(p, true, &error);
        if (!d) return fail(kChainBadBsdl, error);
        BitVector extest = jtag::bsdlOpcode(*d, {"EXTEST"});
        if (extest.empty()) return fail(kChainBadBsdl, "device " + std::to_string(p) + " (" + d->entity + ") has no EXTEST instruction");
        std::vector<jtag::boundary::Request> requests;
        for (size_t i = 2; i < o_.words.size(); ++i) {
            const std::string& w = o_.words[i];
            size_t eq = w.rfind('=');
            char level = eq != std::string::npos && eq + 2 == w.size() ? static_cast<char>(std::tolower(w[eq + 1])) : 0;
            if (level != '0' && level != '1' && level != 'z') return fail(kChainUsage, w + ": wants PORT=0, PORT=1 or PORT=z");
            requests.push_back({w.substr(0, eq), level});
        }
        BitVector v;
        if (!jtag::boundary::plan(*d, requests, &v, &error)) return fail(kChainDriveRefused, "drive: " + error);
        if (!mayDrive(p, &error)) return fail(kChainDriveRefused, "drive refused: " + error);
        SignalsHeld held;
        chain_.access().instructions({{p, jtag::bsdlOpcode(*d, {"PRELOAD", "SAMPLE"})}});
        chain_.access().data({{p, v}});
        chain_.access().instructions({{p, extest}});
        chain_.access().data({{p, v}});
        // What the pins see is read back from the register shifted, not from the words asked.
        std::string driving, unnamed;
        jtag::Json drivenJson = jtag::Json::object(), unnamedJson = jtag::Json::array();
        for (const jtag::boundary::PortDrive& port : jtag::boundary::drivenBy(*d, v)) {
            if (port.level == 'z') continue;
            driving += (driving.empty() ? "" : " ") + port.port + "=" + port.level;
            drivenJson[port.port] = port.level - '0';
            bool named = std::any_of(requests.begin(), requests.end(), [&](const jtag::boundary::Request& r) { return sameName(r.port, port.port); });
            if (!named) unnamed += (unnamed.empty() ? "" : ", ") + port.port, unnamedJson.push_back(port.port);
        }
        if (!unnamed.empty()) driving += " (" + unnamed + ": two-state, at the safe level)";
        if (o_.json) {
            std::printf("%s\n", jtag::jsonText(jtag::Json{{"device", p},
                                                         {"driving", std::move(drivenJson)},
                                                         {"two_state_at_safe_level", std::move(unnamedJson)},
                                                         {"hold_s", o_.hold < 0 ? jtag::Json() : jtag::Json(o_.hold)}})
                                   .c_str());
        } else {
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

    int connect(const std::string& fromText, const std::string& toText) {
        unsigned a, b;
        std::string pa, pb, error;
        if (!devicePort(chain_, fromText, &a, &pa, &error) || !devicePort(chain_, toText, &b, &pb, &error))
            return fail(kChainUsage, error);
        const jtag::bsdl::Device* da = chain_.bsdl(a, true, &error);
        const jtag::bsdl::Device* db = da ? chain_.bsdl(b, true, &error) : nullptr;
        if (!db) return fail(kChainBadBsdl, error);
        BitVector extest = jtag::bsdlOpcode(*da, {"EXTEST"});
        if (extest.empty()) return fail(kChainBadBsdl, "device " + std::to_string(a) + " (" + da->entity + ") has no EXTEST instruction");
        const Cell* in = jtag::boundary::inputCell(*db, pb);
        if (!in) return fail(kChainUsage, "connect: " + pb + " of device " + std::to_string(b) + " has no input cell");
        BitVector low, high;
        if (!jtag::boundary::plan(*da, {{pa, '0'}}, &low, &error) || !jtag::boundary::plan(*da, {{pa, '1'}}, &high, &error))
            return fail(kChainDriveRefused, "connect: " + error);
        if (!mayDrive(a, &error)) return fail(kChainDriveRefused, "connect refused: " + error);
        bool levels[2];
        {
            SignalsHeld held;
            jtag::ChainAccess& c = chain_.access();
            auto scan = [&](const BitVector& v) {
                std::map<unsigned, BitVector> regs{{a, v}};
                if (b != a) regs[b] = BitVector(db->boundaryLength);
                return c.data(regs)[b][in->number];
            };
            std::map<unsigned, BitVector> ir{{a, jtag::bsdlOpcode(*da, {"PRELOAD", "SAMPLE"})}};
            if (b != a) ir[b] = jtag::bsdlOpcode(*db, {"SAMPLE", "PRELOAD"});
            c.instructions(ir);
            scan(low);
            ir[a] = extest;
            c.instructions(ir);
            scan(low);
            levels[0] = scan(high);  // what the low level made, captured before the high one is set
            levels[1] = scan(high);
            chain_.release();
        }
        const char* result = !levels[0] && levels[1]   ? "connected"
                             : !levels[0] && !levels[1] ? "stuck-0"
                             : levels[0] && levels[1]   ? "stuck-1"
                                                        : "inverted";
        std::string from = std::to_string(a) + "." + pa, to = std::to_string(b) + "." + pb;
        if (o_.json)
            std::printf("%s\n", jtag::jsonText(jtag::Json{{"from", from}, {"to", to}, {"result", result}}).c_str());
        else
            std::printf("%s -> %s: %s\n", from.c_str(), to.c_str(), result);
        return std::string(result) == "connected" ? kChainOk : kChainNotConnected;
    }

    const Options& o_;
    const jtag::Discovery& d_;
    Chain chain_;
    const std::set<const void*>& given_;
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
    for (size_t from = 0; from <= o.bsdlPath.size();) {
        size_t colon = o.bsdlPath.find(':', from);
        if (colon == std::string::npos) colon = o.bsdlPath.size();
        if (colon > from) catalogue.addDirectory(o.bsdlPath.substr(from, colon - from));
        from = colon + 1;
    }
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
    if (o.frequency > 0 && o.frequency < 1e9) tap.ceilingIs(static_cast<uint32_t>(std::ceil(1e9 / o.frequency)));
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
