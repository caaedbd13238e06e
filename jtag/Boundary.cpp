#include "jtag/Boundary.h"

#include "jtag/ChainAccess.h"

#include <cctype>
#include <map>
#include <set>
#include <unordered_map>

namespace jtag::boundary {

namespace {

using bsdl::Cell;
using Function = Cell::Function;

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Whether the output cell has a control cell that can switch its driver off.
bool releasable(const Cell& c) { return c.controlCell >= 0 && c.disableValue != 'X'; }

bool enabled(const Cell& out, const BitVector& v) {
    return !releasable(out) || v[static_cast<size_t>(out.controlCell)] != (out.disableValue == '1');
}

std::string join(const std::vector<std::string>& names) {
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    return text;
}

}  // namespace

bool sameName(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

bool drives(Function f) { return f == Function::output2 || f == Function::output3 || f == Function::bidir; }

const Cell* outputCell(const bsdl::Device& d, const std::string& port) {
    for (const Cell& c : d.boundary)
        if (drives(c.function) && sameName(c.port, port)) return &c;
    return nullptr;
}

const Cell* inputCell(const bsdl::Device& d, const std::string& port) {
    for (const Cell& c : d.boundary)
        if (takesInput(c.function) && sameName(c.port, port)) return &c;
    return nullptr;
}

BitVector releasedVector(const bsdl::Device& d) {
    BitVector v(d.boundaryLength);
    for (const Cell& c : d.boundary) v.set(c.number, c.safe == '1');
    for (const Cell& c : d.boundary)
        if (drives(c.function) && releasable(c)) v.set(static_cast<size_t>(c.controlCell), c.disableValue == '1');
    return v;
}

std::vector<PortDrive> drivenBy(const bsdl::Device& d, const BitVector& v) {
    std::vector<PortDrive> out;
    std::set<std::string> seen;
    for (const Cell& c : d.boundary) {
        if (!drives(c.function) || c.port == "*" || !seen.insert(lower(c.port)).second) continue;
        out.push_back({c.port, enabled(c, v) ? (v[c.number] ? '1' : '0') : 'z'});
    }
    return out;
}

bool plan(const bsdl::Device& d, const std::vector<Request>& requests, BitVector* vector, std::string* error) {
    // The output cells by port, and the ports each control cell enables.
    std::unordered_map<std::string, std::vector<const Cell*>> outputs;
    std::map<int, std::vector<std::string>> sharing;
    for (const Cell& c : d.boundary) {
        if (!drives(c.function) || c.port == "*") continue;
        std::string port = lower(c.port);
        auto& cells = outputs[port];
        if (cells.empty() && releasable(c)) sharing[c.controlCell].push_back(c.port);
        cells.push_back(&c);
    }
    std::unordered_map<std::string, char> asked;
    BitVector v = releasedVector(d);
    for (const Request& r : requests) {
        std::string port = lower(r.port);
        auto found = outputs.find(port);
        if (found == outputs.end()) {
            *error = d.port(r.port) || inputCell(d, r.port) ? r.port + " has no output cell" : d.entity + " has no port " + r.port;
            return false;
        }
        if (!asked.emplace(port, r.level).second) {
            *error = r.port + " is named twice";
            return false;
        }
        for (const Cell* c : found->second) {
            if (r.level == 'z') {
                if (!releasable(*c)) {
                    *error = r.port + " has no control cell: it cannot be left undriven";
                    return false;
                }
                continue;
            }
            if (releasable(*c)) v.set(static_cast<size_t>(c->controlCell), c->disableValue != '1');
            v.set(c->number, r.level == '1');
        }
    }
    // A control cell switches on every port it enables: all of them named,
    // all driven; or none driven.
    for (const auto& [control, ports] : sharing) {
        std::vector<std::string> driven, released, unnamed;
        for (const std::string& p : ports) {
            auto a = asked.find(lower(p));
            if (a == asked.end())
                unnamed.push_back(p);
            else
                (a->second == 'z' ? released : driven).push_back(p + "=" + a->second);
        }
        if (driven.empty()) continue;
        std::string cell = "control cell " + std::to_string(control);
        if (!released.empty()) {
            *error = join(driven) + " and " + join(released) + " share " + cell +
                     ": one cannot be released while another is driven";
            return false;
        }
        if (!unnamed.empty()) {
            for (std::string& p : driven) p.erase(p.rfind('='));
            *error = join(driven) + " share" + (driven.size() == 1 ? "s " : " ") + cell + " with " + join(unnamed) +
                     ", not named: it would drive " + (unnamed.size() == 1 ? "that port" : "those ports") + " too";
            return false;
        }
    }
    // A two-state output has no driver to switch off: EXTEST drives it at
    // its update cell's level. Left unnamed, that is the level its maker
    // declares safe; with none declared it must be named.
    std::vector<std::string> twoState;
    std::set<std::string> seen;
    for (const Cell& c : d.boundary)
        if (drives(c.function) && c.port != "*" && !releasable(c) && c.safe == 'X' && !asked.count(lower(c.port)) &&
            seen.insert(lower(c.port)).second)
            twoState.push_back(c.port);
    if (!twoState.empty()) {
        *error = join(twoState) + (twoState.size() == 1 ? " is a two-state output" : " are two-state outputs") +
                 " with no safe level: EXTEST drives " + (twoState.size() == 1 ? "it" : "them") + " whatever is asked; name " +
                 (twoState.size() == 1 ? "its level" : "their levels") + " (PORT=0 or PORT=1)";
        return false;
    }
    // The register read back as the pins will see it: exactly what was
    // asked, and the unnamed two-state outputs at their safe levels.
    for (const PortDrive& p : drivenBy(d, v)) {
        auto a = asked.find(lower(p.port));
        const Cell* out = outputs[lower(p.port)].front();  // the port's first output cell, as drivenBy read it
        char want = a != asked.end() ? a->second : releasable(*out) ? 'z' : out->safe;
        if (p.level != want) {
            *error = "the boundary register would leave " + p.port + " at " + std::string(1, p.level) + ", not " +
                     std::string(1, want) + " (its cells share a control cell with another port's)";
            return false;
        }
    }
    *vector = std::move(v);
    return true;
}

}  // namespace jtag::boundary
