#include "jtag/Interconnect.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "jtag/Boundary.h"

namespace jtag::interconnect {

namespace {

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// Whether cell c drives a pin (an output or bidirectional cell).
bool drivesPin(const bsdl::Cell& c) { return boundary::drives(c.function); }

std::string located(const netlist::Netlist& n, unsigned line, const std::string& what) {
    return n.file + ":" + std::to_string(line) + ": " + what;
}

// Each part's package pins (upper case) -> port.
bool pinMaps(const netlist::Netlist& n, const std::vector<Part>& parts,
             std::vector<std::map<std::string, std::string>>* maps, std::string* error) {
    for (const Part& part : parts) {
        const bsdl::PinMap* pm = part.device->package(part.package);
        if (!pm) {
            *error = n.file + ": " + part.ref + " (" + part.device->entity + ") has no package " +
                     (part.package.empty() ? "pin map" : part.package);
            return false;
        }
        std::map<std::string, std::string> m;
        for (const auto& [port, pins] : pm->pins)
            for (const std::string& pin : pins) m[upper(pin)] = port;
        maps->push_back(std::move(m));
    }
    return true;
}

// How many outputs each control cell of a device enables.
std::map<int, unsigned> controlled(const bsdl::Device& d) {
    std::map<int, unsigned> count;
    for (const bsdl::Cell& c : d.boundary)
        if (drivesPin(c) && c.controlCell >= 0) ++count[c.controlCell];
    return count;
}

// The pins a control cell enables, on the netlist: false when it enables an
// output that is on no net, or on a net that cannot take it as driver.
bool groupOf(const Plan& p, size_t part, int control, const std::map<std::pair<size_t, std::string>, size_t>& pinAt,
             const std::vector<int>& netOf, std::vector<size_t>* group) {
    for (const bsdl::Cell& c : p.parts[part].device->boundary) {
        if (!drivesPin(c) || c.controlCell != control) continue;
        auto it = pinAt.find({part, upper(c.port)});
        if (it == pinAt.end()) return false;
        group->push_back(it->second);
    }
    for (size_t pin : *group) {
        const PlannedNet& net = p.nets[static_cast<size_t>(netOf[pin])];
        if (net.cls != NetClass::testable || net.driver >= 0) return false;
    }
    // No two of them on one net.
    std::set<int> nets;
    for (size_t pin : *group)
        if (!nets.insert(netOf[pin]).second) return false;
    return true;
}

}  // namespace

const char* className(NetClass c) {
    switch (c) {
        case NetClass::testable: return "testable";
        case NetClass::pulled: return "pulled";
        case NetClass::power: return "power";
        case NetClass::untestable: break;
    }
    return "untestable";
}

bool plan(const netlist::Netlist& n, const std::vector<Part>& parts, const Options& o, Plan* out, std::string* error) {
    Plan p;
    p.parts = parts;
    std::map<std::string, size_t> partOf;
    for (size_t i = 0; i < parts.size(); ++i) {
        const bsdl::Device& d = *parts[i].device;
        if (d.boundaryLength == 0 || !d.instruction("EXTEST")) {
            *error = n.file + ": " + parts[i].ref + " (" + d.entity + ") has no boundary register or no EXTEST";
            return false;
        }
        partOf[upper(parts[i].ref)] = i;
        p.released.push_back(boundary::releasedVector(d));
    }
    std::vector<std::map<std::string, std::string>> maps;
    if (!pinMaps(n, parts, &maps, error)) return false;

    std::map<std::pair<size_t, std::string>, size_t> pinAt;  // (part, PORT) -> pin
    std::vector<int> netOf;                                   // pin -> net
    for (const netlist::Net& net : n.nets) {
        PlannedNet pn;
        pn.name = net.name;
        bool power = netlist::isPower(net) || o.power.count(net.name);
        for (const netlist::Node& node : net.nodes) {
            pn.pins.push_back(node.ref + "." + node.pin);
            auto part = partOf.find(upper(node.ref));
            if (part == partOf.end()) continue;
            const Part& pt = parts[part->second];
            auto port = maps[part->second].find(upper(node.pin));
            if (port == maps[part->second].end()) {
                *error = located(n, node.line, pt.ref + " pin " + node.pin + " is not in the pin map of " +
                                                   pt.device->entity + " (package " +
                                                   pt.device->package(pt.package)->name + ")");
                return false;
            }
            Pin pin;
            pin.part = part->second;
            pin.name = pn.pins.back();
            pin.port = port->second;
            const bsdl::Cell* outCell = boundary::outputCell(*pt.device, pin.port);
            const bsdl::Cell* inCell = boundary::inputCell(*pt.device, pin.port);
            if (!outCell && !inCell) continue;  // linkage, a TAP pin, a pin without a cell
            if (outCell) {
                pin.output = static_cast<int>(outCell->number);
                pin.control = outCell->controlCell;
                pin.enable = outCell->disableValue != '1';
            }
            if (inCell) pin.input = static_cast<int>(inCell->number);
            if (!pinAt.emplace(std::make_pair(pin.part, upper(pin.port)), p.pins.size()).second) {
                *error = located(n, node.line, pin.name + " is " + pin.port + ", already on a net");
                return false;
            }
            pn.scanPins.push_back(p.pins.size());
            netOf.push_back(static_cast<int>(p.nets.size()));
            p.pins.push_back(pin);
        }
        netlist::Node via;
        bool up = true;
        auto option = o.pulls.find(net.name);
        if (option != o.pulls.end()) {
            pn.pulled = true;
            pn.pullUp = option->second;
        } else if (netlist::pullOf(n, net, &up, &via)) {
            pn.pulled = true;
            pn.pullUp = up;
            pn.pullVia = via.ref + "." + via.pin;
        }
        size_t inputs = 0, outputs = 0;
        for (size_t i : pn.scanPins) inputs += p.pins[i].input >= 0, outputs += p.pins[i].output >= 0;
        if (power) {
            pn.cls = NetClass::power;
            pn.reason = "a power net";
        } else if (pn.scanPins.empty()) {
            pn.reason = "no boundary-scan pin";
        } else if (pn.scanPins.size() == 1) {
            if (pn.pulled && inputs) {
                pn.cls = NetClass::pulled;
            } else {
                pn.reason = pn.pulled ? "its one boundary-scan pin has no input cell" : "one boundary-scan pin";
            }
        } else if (!outputs) {
            pn.reason = "no boundary-scan driver";
        } else if (!inputs) {
            pn.reason = "no boundary-scan receiver";
        } else {
            pn.cls = NetClass::testable;
        }
        p.nets.push_back(std::move(pn));
    }

    // Exclusive control cells.
    std::vector<std::map<int, unsigned>> controls;
    for (const Part& part : parts) controls.push_back(controlled(*part.device));
    for (Pin& pin : p.pins)
        pin.exclusive = pin.control >= 0 && controls[pin.part][pin.control] == 1;

    // Drivers. A two-state output drives its net whatever happens: it is the
    // driver, and a net with two of them cannot be tested.
    for (PlannedNet& net : p.nets) {
        if (net.cls != NetClass::testable) continue;
        for (size_t i : net.scanPins) {
            if (p.pins[i].output < 0 || p.pins[i].control >= 0) continue;
            if (net.driver >= 0) {
                net.cls = NetClass::untestable;
                net.reason = "two outputs that nothing can disable";
                net.driver = -1;
                break;
            }
            net.driver = static_cast<int>(i);
        }
    }
    // Then one pin with a control cell of its own, a bidirectional one first
    // (it reads its own level back); then control cells shared by outputs
    // that are each the driver of their own net.
    for (PlannedNet& net : p.nets) {
        if (net.cls == NetClass::pulled) {
            size_t i = net.scanPins[0];
            if (p.pins[i].exclusive) net.driver = static_cast<int>(i);
            continue;
        }
        if (net.cls != NetClass::testable || net.driver >= 0) continue;
        int best = -1;
        for (size_t i : net.scanPins) {
            const Pin& pin = p.pins[i];
            bool read = std::any_of(net.scanPins.begin(), net.scanPins.end(),
                                    [&](size_t j) { return j != i && p.pins[j].input >= 0; });
            if (!pin.exclusive || !read) continue;  // another pin must read what it drives
            if (best < 0 || (pin.input >= 0 && p.pins[static_cast<size_t>(best)].input < 0)) best = static_cast<int>(i);
        }
        net.driver = best;
    }
    for (size_t n2 = 0; n2 < p.nets.size(); ++n2) {
        if (p.nets[n2].cls != NetClass::testable || p.nets[n2].driver >= 0) continue;
        for (size_t i : p.nets[n2].scanPins) {
            const Pin& pin = p.pins[i];
            if (pin.control < 0 || pin.exclusive) continue;
            std::vector<size_t> group;
            if (!groupOf(p, pin.part, pin.control, pinAt, netOf, &group)) continue;
            for (size_t g : group) p.nets[static_cast<size_t>(netOf[g])].driver = static_cast<int>(g);
            break;
        }
    }
    for (PlannedNet& net : p.nets) {
        if (net.cls != NetClass::testable || net.driver >= 0) continue;
        net.cls = NetClass::untestable;
        net.reason = "no output it can drive alone";
    }
    // A testable net must have a pin other than its driver that reads it.
    for (PlannedNet& net : p.nets) {
        if (net.cls != NetClass::testable) continue;
        bool reader = std::any_of(net.scanPins.begin(), net.scanPins.end(), [&](size_t i) {
            return static_cast<int>(i) != net.driver && p.pins[i].input >= 0;
        });
        if (!reader) {
            // Its driver is never enabled: a shared control cell's group may
            // have taken it, which then must stay off as a whole.
            net.cls = NetClass::untestable;
            net.reason = "no boundary-scan receiver";
        }
    }
    // A group whose member lost its net's driver role is not enabled at all.
    bool changed = true;
    while (changed) {
        changed = false;
        for (PlannedNet& net : p.nets) {
            if (net.driver < 0 || net.cls == NetClass::testable || net.cls == NetClass::pulled) continue;
            const Pin& pin = p.pins[static_cast<size_t>(net.driver)];
            net.driver = -1;
            if (pin.control < 0 || pin.exclusive) continue;
            for (PlannedNet& other : p.nets)
                if (other.driver >= 0 && p.pins[static_cast<size_t>(other.driver)].part == pin.part &&
                    p.pins[static_cast<size_t>(other.driver)].control == pin.control) {
                    other.driver = -1;
                    if (other.cls == NetClass::testable) {
                        other.cls = NetClass::untestable;
                        other.reason = "no output it can drive alone";
                    }
                    changed = true;
                }
        }
    }
    *out = std::move(p);
    return true;
}

std::vector<BitVector> registers(const Plan& p, const std::vector<int>& level) {
    std::vector<BitVector> r = p.released;
    for (size_t n = 0; n < p.nets.size(); ++n) {
        const PlannedNet& net = p.nets[n];
        if (net.driver < 0 || level[n] < 0) continue;
        const Pin& pin = p.pins[static_cast<size_t>(net.driver)];
        r[pin.part].set(static_cast<size_t>(pin.output), level[n] != 0);
        if (pin.control >= 0) r[pin.part].set(static_cast<size_t>(pin.control), pin.enable);
    }
    return r;
}

namespace {

// The levels one pin read, pattern after pattern.
using Levels = std::vector<bool>;

class Run {
  public:
    Run(const Plan& p, Board& board, Report* r) : p_(p), board_(board), r_(*r) {}

    void go() {
        for (const PlannedNet& net : p_.nets) {
            NetResult nr;
            nr.name = net.name;
            nr.cls = net.cls;
            nr.pins = net.pins;
            nr.reason = net.reason;
            nr.result = net.cls == NetClass::testable || net.cls == NetClass::pulled ? "pass" : "untestable";
            r_.nets.push_back(std::move(nr));
        }
        detect();
        if (r_.stopped) return;
        r_.detectionScans = r_.scans;
        diagnose();
    }

  private:
    bool driven(size_t n) const { return p_.nets[n].cls == NetClass::testable && p_.nets[n].driver >= 0; }

    // Applies the patterns in turn, each capture shifting out as the next
    // pattern shifts in; the last is followed by the released registers.
    // Returns each pattern's capture, or false on a stop.
    bool apply(const std::vector<std::vector<int>>& patterns, std::vector<std::vector<BitVector>>* captures,
               bool first) {
        for (size_t i = 0; i <= patterns.size(); ++i) {
            if (board_.stop()) {
                r_.stopped = true;
                return false;
            }
            std::vector<BitVector> regs = i < patterns.size() ? registers(p_, patterns[i]) : p_.released;
            std::vector<BitVector> got = board_.scan(regs);
            ++r_.scans;
            if (i > 0)
                captures->push_back(std::move(got));  // what the pattern before this one made
            else if (first)
                board_.extest();  // the first pattern, preloaded, takes the pins
        }
        r_.patterns += static_cast<unsigned>(patterns.size());
        return true;
    }

    bool levelOf(const std::vector<BitVector>& capture, size_t pin) const {
        const Pin& pp = p_.pins[pin];
        return capture[pp.part][static_cast<size_t>(pp.input)];
    }

    Levels read(const std::vector<std::vector<BitVector>>& captures, size_t pin) const {
        Levels l;
        for (const auto& c : captures) l.push_back(levelOf(c, pin));
        return l;
    }

    void fail(size_t n) { r_.nets[n].result = "fail"; }

    std::vector<std::string> scanPinNames(const std::vector<size_t>& nets) const {
        std::vector<std::string> names;
        for (size_t n : nets)
            for (size_t i : p_.nets[n].scanPins) names.push_back(p_.pins[i].name);
        return names;
    }

    void detect() {
        std::vector<size_t> nets;
        for (size_t n = 0; n < p_.nets.size(); ++n)
            if (driven(n)) nets.push_back(n);
        unsigned k = 1;
        while ((1ull << k) < nets.size() + 2) ++k;
        codes_.assign(p_.nets.size(), 0);
        for (size_t i = 0; i < nets.size(); ++i) codes_[nets[i]] = i + 1;
        std::vector<std::vector<int>> patterns;
        for (unsigned half = 0; half < 2; ++half)
            for (unsigned b = 0; b < k; ++b) {
                std::vector<int> level(p_.nets.size(), -1);
                for (size_t n : nets) level[n] = static_cast<int>(((codes_[n] >> b) & 1) ^ half);
                for (size_t n = 0; n < p_.nets.size(); ++n)
                    if (p_.nets[n].cls == NetClass::pulled && p_.nets[n].driver >= 0 && half)
                        level[n] = !p_.nets[n].pullUp;  // the pin pulls against its resistor
                patterns.push_back(std::move(level));
            }
        std::vector<std::vector<BitVector>> captures;
        if (!apply(patterns, &captures, true)) return;
        k_ = k;

        for (size_t n = 0; n < p_.nets.size(); ++n) {
            const PlannedNet& net = p_.nets[n];
            if (net.cls == NetClass::pulled) {
                pulled(n, read(captures, net.scanPins[0]));
                continue;
            }
            if (!driven(n)) continue;
            Levels expect;
            for (const auto& pattern : patterns) expect.push_back(pattern[n] == 1);
            expect_[n] = expect;
            std::vector<size_t> good, bad;
            Levels badLevels;
            for (size_t i : net.scanPins) {
                if (p_.pins[i].input < 0) continue;
                Levels got = read(captures, i);
                (got == expect ? good : bad).push_back(i);
                if (got != expect) badLevels = got;
            }
            if (bad.empty()) continue;
            fail(n);
            bool driverGood = std::find(good.begin(), good.end(), static_cast<size_t>(net.driver)) != good.end();
            if (!good.empty() && !(driverGood && good.size() == 1)) {
                for (size_t i : bad) r_.faults.push_back({"open", {net.name}, {p_.pins[i].name}, ""});
            } else if (driverGood && bad.size() >= 2) {
                // Every other pin reads the same wrong levels: the driver's own pin is cut off.
                r_.faults.push_back({"open", {net.name}, {p_.pins[static_cast<size_t>(net.driver)].name}, ""});
            } else if (driverGood) {
                r_.faults.push_back({"open", {net.name}, {p_.pins[bad[0]].name}, ""});
            } else {
                response_[n] = badLevels;  // the whole net is wrong: a short or a rail
            }
        }
    }

    void pulled(size_t n, const Levels& got) {
        const PlannedNet& net = p_.nets[n];
        Levels expect;
        for (unsigned half = 0; half < 2; ++half)
            for (unsigned b = 0; b < k_; ++b) expect.push_back(net.driver >= 0 && half ? !net.pullUp : net.pullUp);
        if (got == expect) return;
        fail(n);
        bool all1 = std::all_of(got.begin(), got.end(), [](bool b) { return b; });
        bool all0 = std::none_of(got.begin(), got.end(), [](bool b) { return b; });
        std::vector<std::string> pins{p_.pins[net.scanPins[0]].name};
        if (all0 || all1)
            r_.faults.push_back({all1 ? "stuck-1" : "stuck-0", {net.name}, pins, ""});
        else
            r_.faults.push_back({"open", {net.name}, net.pullVia.empty() ? pins : std::vector<std::string>{net.pullVia}, ""});
    }

    void diagnose() {
        if (response_.empty()) return;
        // The suspects: the nets that failed as a whole, and those whose code one of them read.
        std::vector<size_t> suspects;
        for (const auto& [n, got] : response_) {
            suspects.push_back(n);
            for (const auto& [m, expect] : expect_)
                if (expect == got && !response_.count(m)) suspects.push_back(m);
        }
        std::sort(suspects.begin(), suspects.end());
        suspects.erase(std::unique(suspects.begin(), suspects.end()), suspects.end());
        size_t s = suspects.size();
        // Walking 1 (every other driven net at 0), walking 0 (the others at
        // 1), then all at 1 and all at 0: a net held at a rail reads its rail
        // even there, a wired short follows its partners' levels.
        std::vector<std::vector<int>> patterns;
        for (int walker = 1; walker >= 0; --walker)
            for (size_t t = 0; t < s; ++t) {
                std::vector<int> level(p_.nets.size(), -1);
                for (size_t n = 0; n < p_.nets.size(); ++n)
                    if (driven(n)) level[n] = !walker;
                level[suspects[t]] = walker;
                patterns.push_back(std::move(level));
            }
        for (int all = 1; all >= 0; --all) {
            std::vector<int> level(p_.nets.size(), -1);
            for (size_t n = 0; n < p_.nets.size(); ++n)
                if (driven(n)) level[n] = all;
            patterns.push_back(std::move(level));
        }
        std::vector<std::vector<BitVector>> captures;
        if (!apply(patterns, &captures, false)) return;

        // The level each suspect net read: that of its first reading pin.
        std::vector<std::set<size_t>> ones(s), zeros(s);
        std::vector<bool> allOne(s), allZero(s);
        for (size_t i = 0; i < s; ++i) {
            const PlannedNet& net = p_.nets[suspects[i]];
            size_t reader = net.scanPins[0];
            for (size_t pin : net.scanPins)
                if (p_.pins[pin].input >= 0) {
                    reader = pin;
                    break;
                }
            Levels got = read(captures, reader);
            for (size_t t = 0; t < s; ++t) {
                if (got[t]) ones[i].insert(t);
                if (!got[s + t]) zeros[i].insert(t);
            }
            allOne[i] = got[2 * s];
            allZero[i] = !got[2 * s + 1];
        }
        std::map<std::set<size_t>, std::string> shorts;  // members -> behaviour
        std::map<size_t, std::set<size_t>> dominated;    // net -> the nets it dominates
        for (size_t i = 0; i < s; ++i) {
            size_t n = suspects[i];
            if (!response_.count(n)) continue;  // a net that only dominates another
            const std::string& name = p_.nets[n].name;
            std::set<size_t> members;
            if (ones[i].empty() && !allOne[i]) {
                r_.faults.push_back({"stuck-0", {name}, scanPinNames({n}), ""});
            } else if (zeros[i].empty() && !allZero[i]) {
                r_.faults.push_back({"stuck-1", {name}, scanPinNames({n}), ""});
            } else if (ones[i].size() == 1 && ones[i] == zeros[i] && *ones[i].begin() != i) {
                dominated[suspects[*ones[i].begin()]].insert(n);  // it follows that net alone
            } else if (zeros[i].empty() && ones[i].size() >= 2 && ones[i].count(i)) {
                for (size_t t : ones[i]) members.insert(suspects[t]);
                shorts[members] = "wired-or";  // a 1 on any of them makes a 1
            } else if (ones[i].empty() && zeros[i].size() >= 2 && zeros[i].count(i)) {
                for (size_t t : zeros[i]) members.insert(suspects[t]);
                shorts[members] = "wired-and";  // a 0 on any of them makes a 0
            } else {
                shorts[{n}] = "unknown";
            }
        }
        for (auto& [m, nets] : dominated) {
            nets.insert(m);
            shorts[nets] = p_.nets[m].name;
        }
        for (const auto& [members, how] : shorts) {
            std::vector<size_t> nets(members.begin(), members.end());
            Fault f{"short", {}, scanPinNames(nets), how};
            for (size_t n : nets) {
                f.nets.push_back(p_.nets[n].name);
                fail(n);
            }
            r_.faults.push_back(std::move(f));
        }
    }

    const Plan& p_;
    Board& board_;
    Report& r_;
    unsigned k_ = 1;
    std::vector<uint64_t> codes_;
    std::map<size_t, Levels> expect_, response_;
};

std::string joined(const std::vector<std::string>& items) {
    std::string s;
    for (const std::string& i : items) s += (s.empty() ? "" : ", ") + i;
    return s;
}

std::string faultText(const Fault& f) {
    if (f.kind == "open") return "open: " + joined(f.nets) + " at " + joined(f.pins);
    if (f.kind == "short")
        return "short: " + joined(f.nets) + " (" +
               (f.behaviour == "wired-and" || f.behaviour == "wired-or" ? f.behaviour
                : f.behaviour == "unknown"                           ? "to a net not driven"
                                                                     : f.behaviour + " dominates") +
               ")";
    return f.kind + ": " + joined(f.nets);
}

std::string xml(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&apos;"; break;
            default:
                // Control characters are not allowed in XML 1.0; bytes that are
                // not UTF-8 are written as '?' so the document stays well formed.
                if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n')
                    out += '?';
                else if (static_cast<unsigned char>(c) >= 0x80)
                    out += '?';
                else
                    out += c;
        }
    }
    return out;
}

}  // namespace

unsigned Report::passed() const {
    return static_cast<unsigned>(std::count_if(nets.begin(), nets.end(), [](const NetResult& n) { return n.result == "pass"; }));
}
unsigned Report::failed() const {
    return static_cast<unsigned>(std::count_if(nets.begin(), nets.end(), [](const NetResult& n) { return n.result == "fail"; }));
}
unsigned Report::untestable() const {
    return static_cast<unsigned>(
        std::count_if(nets.begin(), nets.end(), [](const NetResult& n) { return n.result == "untestable"; }));
}

Report run(const Plan& p, Board& board) {
    Report r;
    Run(p, board, &r).go();
    return r;
}

std::string text(const Report& r) {
    std::string out;
    for (const Fault& f : r.faults) out += faultText(f) + "\n";
    out += std::to_string(r.nets.size()) + " nets: " + std::to_string(r.passed()) + " passed, " +
           std::to_string(r.failed()) + " failed, " + std::to_string(r.untestable()) + " untestable; " +
           std::to_string(r.patterns) + " patterns, " + std::to_string(r.scans) + " scans\n";
    return out;
}

Json json(const Report& r) {
    Json nets = Json::array(), faults = Json::array();
    for (const NetResult& n : r.nets) {
        Json net{{"name", n.name}, {"class", className(n.cls)}, {"result", n.result}, {"pins", n.pins}};
        if (n.result == "untestable") net["reason"] = n.reason;
        nets.push_back(std::move(net));
    }
    for (const Fault& f : r.faults)
        faults.push_back({{"kind", f.kind},
                          {"nets", f.nets},
                          {"pins", f.pins},
                          {"behaviour", f.behaviour.empty() ? Json() : Json(f.behaviour)}});
    return Json{{"nets", std::move(nets)}, {"faults", std::move(faults)}, {"patterns", r.patterns}, {"scans", r.scans}};
}

std::string junit(const Report& r, const std::string& suite) {
    std::string cases;
    for (const NetResult& n : r.nets) {
        cases += "    <testcase name=\"" + xml(n.name) + "\" classname=\"" + xml(suite) + "\" time=\"0\">";
        if (n.result == "untestable") {
            cases += "<skipped message=\"" + xml(className(n.cls) + std::string(": ") + n.reason) + "\"/>";
        } else if (n.result == "fail") {
            std::string what;
            for (const Fault& f : r.faults)
                if (std::find(f.nets.begin(), f.nets.end(), n.name) != f.nets.end())
                    what += (what.empty() ? "" : "; ") + faultText(f);
            std::string kind = what.substr(0, what.find(':'));
            cases += "<failure message=\"" + xml(what) + "\" type=\"" + xml(kind) + "\">" + xml(what) + "</failure>";
        }
        cases += "</testcase>\n";
    }
    std::string counts = "tests=\"" + std::to_string(r.nets.size()) + "\" failures=\"" + std::to_string(r.failed()) +
                         "\" errors=\"0\" skipped=\"" + std::to_string(r.untestable()) + "\"";
    // The suites' element carries no skipped count in the common schema.
    std::string totals = "tests=\"" + std::to_string(r.nets.size()) + "\" failures=\"" + std::to_string(r.failed()) +
                         "\" errors=\"0\"";
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites " + totals + ">\n  <testsuite name=\"" +
           xml(suite) + "\" " + counts + " time=\"0\">\n" + cases + "  </testsuite>\n</testsuites>\n";
}

}  // namespace jtag::interconnect
