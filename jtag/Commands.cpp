#include "jtag/Commands.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace jtag {

using boundary::sameName;

std::string defaultBsdlPath() {
    char exe[4096];
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string path;
    if (n > 0) {
        std::string bin(exe, static_cast<size_t>(n));
        size_t slash = bin.find_last_of('/');
        bin.erase(slash == std::string::npos ? 0 : slash);
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

std::pair<int, std::string> discoveryProblem(const Discovery& d, unsigned maxDevices) {
    if (d.scan.fault != ChainScan::Fault::none)
        return {kChainDead, d.scan.fault == ChainScan::Fault::inconsistent
                                ? "the chain answers inconsistently: " + d.scan.detail
                                : describe(d.scan.fault, maxDevices)};
    if (!d.bsdlProblem.empty()) return {kChainBadBsdl, d.bsdlProblem};
    if (!d.irProblem.empty()) return {kChainDead, d.irProblem};
    return {kChainOk, ""};
}

std::string hex32(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", v);
    return text;
}

namespace {

CommandResult failure(int status, std::string what) {
    CommandResult r;
    r.status = status;
    r.error = std::move(what);
    return r;
}

// The failure into a result of another kind.
template <typename Result>
Result failed(const CommandResult& why) {
    Result r;
    static_cast<CommandResult&>(r) = why;
    return r;
}

std::vector<unsigned> irLengths(const Discovery& d) {
    std::vector<unsigned> v;
    for (const DeviceFacts& f : d.devices) v.push_back(f.irLength);
    return v;
}

}  // namespace

ChainCommands::ChainCommands(Tap& tap, const Discovery& d, std::set<const void*> given, bool iKnowTheBoard,
                             CommandHints hints)
    : tap_(tap),
      d_(d),
      access_(tap, irLengths(d)),
      given_(std::move(given)),
      iKnowTheBoard_(iKnowTheBoard),
      hints_(std::move(hints)) {}

CommandResult ChainCommands::resolve(const std::string& text, unsigned* position) const {
    char* end = nullptr;
    unsigned long p = std::strtoul(text.c_str(), &end, 10);
    if (!text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) && *end == '\0') {
        if (p >= d_.devices.size())
            return failure(kChainUsage, "no device at position " + text + " (the chain has " +
                                            std::to_string(d_.devices.size()) + ")");
        *position = static_cast<unsigned>(p);
        return {};
    }
    int found = -1;
    for (const DeviceFacts& f : d_.devices) {
        if (!f.bsdl || !sameName(f.bsdl->entity, text)) continue;
        if (found >= 0) return failure(kChainUsage, text + " is on the chain more than once: name it by position");
        found = static_cast<int>(f.position);
    }
    if (found < 0) return failure(kChainUsage, "no device on the chain is " + text);
    *position = static_cast<unsigned>(found);
    return {};
}

const bsdl::Device* ChainCommands::bsdl(unsigned position, bool boundary, CommandResult* r) const {
    const DeviceFacts& f = d_.devices[position];
    if (!f.bsdl) {
        *r = failure(kChainBadBsdl, "device " + std::to_string(position) + " has no BSDL file (" + hints_.bsdl + ")");
        return nullptr;
    }
    if (boundary && (f.bsdl->boundaryLength == 0 || bsdlOpcode(*f.bsdl, {"SAMPLE", "PRELOAD"}).empty())) {
        *r = failure(kChainBadBsdl,
                     "device " + std::to_string(position) + " (" + f.bsdl->entity + ") has no boundary register");
        return nullptr;
    }
    return f.bsdl.get();
}

SampleResult ChainCommands::sample(unsigned position, bool release) {
    CommandResult why;
    const bsdl::Device* d = bsdl(position, true, &why);
    if (!d) return failed<SampleResult>(why);
    access_.instructions({{position, bsdlOpcode(*d, {"SAMPLE", "PRELOAD"})}});
    BitVector captured = access_.data({{position, BitVector(d->boundaryLength)}})[position];
    if (release) tap_.reset();
    SampleResult r;
    r.position = position;
    r.bsdl = d;
    r.levels = portLevels(*d, captured);
    return r;
}

UsercodeResult ChainCommands::usercode(unsigned position) {
    CommandResult why;
    const bsdl::Device* d = bsdl(position, false, &why);
    if (!d) return failed<UsercodeResult>(why);
    BitVector op = bsdlOpcode(*d, {"USERCODE"});
    if (op.empty())
        return failed<UsercodeResult>(failure(
            kChainBadBsdl, "device " + std::to_string(position) + " (" + d->entity + ") has no USERCODE instruction"));
    access_.instructions({{position, op}});
    UsercodeResult r;
    r.position = position;
    r.usercode = static_cast<uint32_t>(access_.data({{position, BitVector(32)}})[position].value(0, 32));
    tap_.reset();
    return r;
}

CommandResult ChainCommands::mayDrive(unsigned position, const char* what) const {
    if (iKnowTheBoard_ || given_.count(d_.devices[position].bsdl.get())) return {};
    std::string give = hints_.give, p = std::to_string(position);
    for (size_t at = give.find("POS"); at != std::string::npos; at = give.find("POS", at + p.size()))
        give.replace(at, 3, p);
    return failure(kChainDriveRefused,
                   std::string(what) + " refused: device " + p +
                       "'s BSDL file was found, not given: EXTEST drives its pins and may fight the board's own "
                       "drivers; give it with " + give);
}

DrivePlan ChainCommands::planDrive(unsigned position, const std::vector<std::string>& words) const {
    CommandResult why;
    const bsdl::Device* d = bsdl(position, true, &why);
    if (!d) return failed<DrivePlan>(why);
    if (bsdlOpcode(*d, {"EXTEST"}).empty())
        return failed<DrivePlan>(failure(
            kChainBadBsdl, "device " + std::to_string(position) + " (" + d->entity + ") has no EXTEST instruction"));
    DrivePlan plan;
    plan.position = position;
    plan.bsdl = d;
    for (const std::string& w : words) {
        size_t eq = w.rfind('=');
        char level = eq != std::string::npos && eq + 2 == w.size() ? static_cast<char>(std::tolower(w[eq + 1])) : 0;
        if (level != '0' && level != '1' && level != 'z')
            return failed<DrivePlan>(failure(kChainUsage, w + ": wants PORT=0, PORT=1 or PORT=z"));
        plan.requests.push_back({w.substr(0, eq), level});
    }
    std::string error;
    if (!boundary::plan(*d, plan.requests, &plan.vector, &error))
        return failed<DrivePlan>(failure(kChainDriveRefused, "drive: " + error));
    CommandResult allowed = mayDrive(position, "drive");
    if (!allowed.ok()) return failed<DrivePlan>(allowed);
    return plan;
}

DriveResult ChainCommands::applyDrive(const DrivePlan& plan) {
    const bsdl::Device& d = *plan.bsdl;
    unsigned p = plan.position;
    // The register is loaded before EXTEST takes the pins, so they go straight to their levels.
    access_.instructions({{p, bsdlOpcode(d, {"PRELOAD", "SAMPLE"})}});
    access_.data({{p, plan.vector}});
    access_.instructions({{p, bsdlOpcode(d, {"EXTEST"})}});
    access_.data({{p, plan.vector}});
    // What the pins see is read back from the register shifted, not from the words asked.
    DriveResult r;
    r.position = p;
    for (const boundary::PortDrive& port : boundary::drivenBy(d, plan.vector)) {
        if (port.level == 'z') continue;
        r.driving.push_back(port);
        bool named = std::any_of(plan.requests.begin(), plan.requests.end(),
                                 [&](const boundary::Request& q) { return sameName(q.port, port.port); });
        if (!named) r.unnamed.push_back(port.port);
    }
    return r;
}

CommandResult ChainCommands::devicePort(const std::string& text, unsigned* position, std::string* port) const {
    size_t dot = text.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == text.size())
        return failure(kChainUsage, text + ": wants DEV.PORT, for example 1.LED");
    *port = text.substr(dot + 1);
    return resolve(text.substr(0, dot), position);
}

ConnectResult ChainCommands::connect(const std::string& fromText, const std::string& toText) {
    unsigned a, b;
    std::string pa, pb;
    CommandResult why = devicePort(fromText, &a, &pa);
    if (why.ok()) why = devicePort(toText, &b, &pb);
    if (!why.ok()) return failed<ConnectResult>(why);
    const bsdl::Device* da = bsdl(a, true, &why);
    const bsdl::Device* db = da ? bsdl(b, true, &why) : nullptr;
    if (!db) return failed<ConnectResult>(why);
    BitVector extest = bsdlOpcode(*da, {"EXTEST"});
    if (extest.empty())
        return failed<ConnectResult>(failure(
            kChainBadBsdl, "device " + std::to_string(a) + " (" + da->entity + ") has no EXTEST instruction"));
    const bsdl::Cell* in = boundary::inputCell(*db, pb);
    if (!in)
        return failed<ConnectResult>(
            failure(kChainUsage, "connect: " + pb + " of device " + std::to_string(b) + " has no input cell"));
    BitVector low, high;
    std::string error;
    if (!boundary::plan(*da, {{pa, '0'}}, &low, &error) || !boundary::plan(*da, {{pa, '1'}}, &high, &error))
        return failed<ConnectResult>(failure(kChainDriveRefused, "connect: " + error));
    why = mayDrive(a, "connect");
    if (!why.ok()) return failed<ConnectResult>(why);

    auto scan = [&](const BitVector& v) {
        std::map<unsigned, BitVector> regs{{a, v}};
        if (b != a) regs[b] = BitVector(db->boundaryLength);
        return access_.data(regs)[b][in->number];
    };
    std::map<unsigned, BitVector> ir{{a, bsdlOpcode(*da, {"PRELOAD", "SAMPLE"})}};
    if (b != a) ir[b] = bsdlOpcode(*db, {"SAMPLE", "PRELOAD"});
    access_.instructions(ir);
    scan(low);
    ir[a] = extest;
    access_.instructions(ir);
    scan(low);
    bool levels[2];
    levels[0] = scan(high);  // what the low level made, captured before the high one is set
    levels[1] = scan(high);
    tap_.reset();

    ConnectResult r;
    r.from = std::to_string(a) + "." + pa;
    r.to = std::to_string(b) + "." + pb;
    r.result = !levels[0] && levels[1]    ? "connected"
               : !levels[0] && !levels[1] ? "stuck-0"
               : levels[0] && levels[1]   ? "stuck-1"
                                          : "inverted";
    if (r.result != "connected") r.status = kChainNotConnected;
    return r;
}

namespace {

// "LEFT=RIGHT" split at the first '='; false when either side is empty.
bool pair(const std::string& text, std::string* left, std::string* right) {
    size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) return false;
    *left = text.substr(0, eq);
    *right = text.substr(eq + 1);
    return true;
}

class ChainBoard : public interconnect::Board {
  public:
    ChainBoard(ChainAccess& access, const interconnect::Plan& p, const std::function<bool()>& stop)
        : access_(access), p_(p), stop_(stop) {}
    std::vector<BitVector> scan(const std::vector<BitVector>& registers) override {
        std::map<unsigned, BitVector> regs;
        for (size_t i = 0; i < registers.size(); ++i) regs[p_.parts[i].position] = registers[i];
        std::map<unsigned, BitVector> got = access_.data(regs);
        std::vector<BitVector> out;
        for (const interconnect::Part& part : p_.parts) out.push_back(got[part.position]);
        return out;
    }
    void extest() override {
        std::map<unsigned, BitVector> ir;
        for (const interconnect::Part& part : p_.parts) ir[part.position] = bsdlOpcode(*part.device, {"EXTEST"});
        access_.instructions(ir);
    }
    bool stop() override { return stop_ && stop_(); }

  private:
    ChainAccess& access_;
    const interconnect::Plan& p_;
    const std::function<bool()>& stop_;
};

}  // namespace

TestResult ChainCommands::test(const TestRequest& q, const std::function<bool()>& stop) {
    netlist::Netlist n;
    std::string error;
    if (!netlist::readFile(q.netlist, &n, &error)) return failed<TestResult>(failure(kChainBadNetlist, error));
    std::map<unsigned, std::string> packages;
    for (const std::string& item : q.packages) {
        std::string pos, name;
        unsigned p;
        if (!pair(item, &pos, &name)) return failed<TestResult>(failure(kChainUsage, "--package " + item + ": wants POS=NAME"));
        CommandResult named = resolve(pos, &p);
        if (!named.ok()) return failed<TestResult>(named);
        packages[p] = name;
    }
    std::set<std::string> refs;
    for (const netlist::Net& net : n.nets)
        for (const netlist::Node& node : net.nodes) refs.insert(node.ref);
    std::vector<interconnect::Part> parts;
    std::set<unsigned> taken;
    for (const std::string& item : q.parts) {
        interconnect::Part part;
        std::string dev;
        if (!pair(item, &part.ref, &dev)) return failed<TestResult>(failure(kChainUsage, "--part " + item + ": wants REF=DEV"));
        CommandResult why = resolve(dev, &part.position);
        if (!why.ok()) return failed<TestResult>(why);
        if (!taken.insert(part.position).second)
            return failed<TestResult>(failure(kChainUsage, "--part " + item + ": device " + std::to_string(part.position) + " is already a part"));
        if (!refs.count(part.ref))
            return failed<TestResult>(failure(kChainBadNetlist, q.netlist + ": no net touches " + part.ref));
        part.device = bsdl(part.position, true, &why);
        if (!part.device) return failed<TestResult>(failure(kChainBadNetlist, "--part " + item + ": " + why.error));
        if (packages.count(part.position)) part.package = packages[part.position];
        parts.push_back(part);
    }
    if (parts.empty()) return failed<TestResult>(failure(kChainUsage, "test: give the netlist's parts with --part REF=DEV"));
    interconnect::Options options;
    for (const std::string& item : q.pulls) {
        std::string net, how;
        if (!pair(item, &net, &how) || (how != "up" && how != "down"))
            return failed<TestResult>(failure(kChainUsage, "--pull " + item + ": wants NET=up or NET=down"));
        options.pulls[net] = how == "up";
    }
    options.power.insert(q.power.begin(), q.power.end());
    interconnect::Plan plan;
    if (!interconnect::plan(n, parts, options, &plan, &error)) return failed<TestResult>(failure(kChainBadNetlist, error));
    for (const interconnect::Part& part : parts) {
        CommandResult allowed = mayDrive(part.position, "test");
        if (!allowed.ok()) return failed<TestResult>(allowed);
    }

    // Every part preloaded with the first pattern before EXTEST takes its pins.
    std::map<unsigned, BitVector> ir;
    for (const interconnect::Part& part : parts) ir[part.position] = bsdlOpcode(*part.device, {"PRELOAD", "SAMPLE"});
    access_.instructions(ir);
    ChainBoard board(access_, plan, stop);
    TestResult r;
    r.report = interconnect::run(plan, board);
    tap_.reset();
    if (!r.report.faults.empty() || r.report.failed()) {
        r.status = kChainFaultFound;
        r.error = std::to_string(r.report.failed()) + " of " + std::to_string(r.report.nets.size()) + " nets failed";
    }
    return r;
}

std::string testJson(const TestResult& r) { return jsonText(interconnect::json(r.report)); }

std::string sampleJson(const SampleResult& r) { return sampleJson(r.position, *r.bsdl, r.levels); }

std::string usercodeJson(const UsercodeResult& r) {
    return jsonText(Json{{"device", r.position}, {"usercode", hex32(r.usercode)}});
}

std::string driveJson(const DriveResult& r, double holdSeconds) {
    Json driving = Json::object(), unnamed = Json::array();
    for (const boundary::PortDrive& port : r.driving) driving[port.port] = port.level - '0';
    for (const std::string& port : r.unnamed) unnamed.push_back(port);
    return jsonText(Json{{"device", r.position},
                         {"driving", std::move(driving)},
                         {"two_state_at_safe_level", std::move(unnamed)},
                         {"hold_s", holdSeconds < 0 ? Json() : Json(holdSeconds)}});
}

std::string connectJson(const ConnectResult& r) {
    return jsonText(Json{{"from", r.from}, {"to", r.to}, {"result", r.result}});
}

std::string failureJson(const CommandResult& r) { return jsonText(Json{{"status", r.status}, {"error", r.error}}); }

}  // namespace jtag
