#include "jtag/LiveView.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <set>

namespace jtag {

namespace {

bool allDigits(const std::string& s) {
    return !s.empty() && s.size() <= 6 && std::all_of(s.begin(), s.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

// A ball of a grid array: row letters, then the column number ("A1", "AB12").
bool ball(const std::string& s, std::string* row, unsigned* column) {
    size_t letters = 0;
    while (letters < s.size() && std::isalpha(static_cast<unsigned char>(s[letters]))) ++letters;
    if (letters == 0 || letters > 2 || !allDigits(s.substr(letters))) return false;
    *row = s.substr(0, letters);
    for (char& c : *row) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    *column = static_cast<unsigned>(std::strtoul(s.c_str() + letters, nullptr, 10));
    return true;
}

// Rows in the order a ball grid has them: A..Z, then AA, AB, ...
bool rowBefore(const std::string& a, const std::string& b) { return a.size() != b.size() ? a.size() < b.size() : a < b; }

}  // namespace

LiveView::LiveView(ChainCommands& chain, const Discovery& d, bool drive) : chain_(chain), d_(d), drive_(drive) {
    for (const DeviceFacts& f : d.devices) {
        if (!f.bsdl || f.bsdl->boundaryLength == 0) continue;
        Device dev{f.position, f.bsdl.get(), bsdlOpcode(*f.bsdl, {"SAMPLE", "PRELOAD"}),
                   bsdlOpcode(*f.bsdl, {"PRELOAD", "SAMPLE"}), bsdlOpcode(*f.bsdl, {"EXTEST"}),
                   {}, boundary::releasedVector(*f.bsdl), false, {}};
        if (!dev.sampleOp.empty()) devices_.push_back(std::move(dev));
    }
}

LiveView::Device* LiveView::find(unsigned position) {
    for (Device& dev : devices_)
        if (dev.position == position) return &dev;
    return nullptr;
}

std::map<unsigned, BitVector> LiveView::instructions() const {
    std::map<unsigned, BitVector> ops;
    for (const Device& dev : devices_) ops[dev.position] = dev.extest ? dev.extestOp : dev.sampleOp;
    return ops;
}

std::map<unsigned, BitVector> LiveView::registers() const {
    std::map<unsigned, BitVector> regs;
    for (const Device& dev : devices_) regs[dev.position] = dev.vector;
    return regs;
}

void LiveView::take(const std::map<unsigned, BitVector>& captured, std::vector<Change>* changes) {
    for (Device& dev : devices_) {
        auto levels = portLevels(*dev.bsdl, captured.at(dev.position));
        if (dev.levels.size() == levels.size())
            for (size_t i = 0; i < levels.size(); ++i)
                if (levels[i].second != dev.levels[i].second)
                    changes->push_back({dev.position, levels[i].first, levels[i].second});
        dev.levels = std::move(levels);
    }
}

std::vector<LiveView::Change> LiveView::sample() {
    std::lock_guard<std::mutex> hold(lock_);
    std::vector<Change> changes;
    if (devices_.empty()) return changes;
    if (!irLoaded_) {
        chain_.access().instructions(instructions());
        irLoaded_ = true;
    }
    take(chain_.access().data(registers()), &changes);
    return changes;
}

CommandResult LiveView::drive(unsigned position, const std::string& port, char level) {
    std::lock_guard<std::mutex> hold(lock_);
    if (!drive_) return CommandResult{kChainDriveRefused, "drive refused: the view was started without --drive"};
    if (position >= d_.devices.size())
        return CommandResult{kChainUsage, "no device at position " + std::to_string(position) + " (the chain has " +
                                        std::to_string(d_.devices.size()) + ")"};
    Device* dev = find(position);
    if (!dev) {
        CommandResult why;
        chain_.bsdl(position, true, &why);
        return why;
    }
    if (!boundary::outputCell(*dev->bsdl, port)) return chain_.planDrive(position, {port + "=" + level});
    // The ports asked for so far, this one replaced (or gone, for 'z': back at its safe level).
    std::vector<std::string> words;
    for (const boundary::Request& q : dev->requests)
        if (!boundary::sameName(q.port, port)) words.push_back(q.port + "=" + q.level);
    if (level != 'z') words.push_back(port + "=" + level);
    DrivePlan plan = chain_.planDrive(position, words);
    if (!plan.ok()) return plan;
    if (plan.requests.empty()) {
        // Nothing asked any more: the device back at its function, sampled.
        dev->requests.clear();
        dev->vector = boundary::releasedVector(*dev->bsdl);
        if (dev->extest) {
            dev->extest = false;
            chain_.access().instructions(instructions());
            irLoaded_ = true;
        }
        return {};
    }
    dev->requests = plan.requests;
    dev->vector = plan.vector;
    if (!dev->extest) {
        // The update stage loaded first, so EXTEST takes the pins straight to their levels.
        if (!irLoaded_) chain_.access().instructions(instructions());
        std::map<unsigned, BitVector> ops = instructions();
        ops[position] = dev->preloadOp;
        chain_.access().instructions(ops);
        chain_.access().data(registers());
        dev->extest = true;
        chain_.access().instructions(instructions());
        irLoaded_ = true;
    }
    chain_.access().data(registers());
    return {};
}

void LiveView::release() {
    std::lock_guard<std::mutex> hold(lock_);
    chain_.release();
    for (Device& dev : devices_) {
        dev.requests.clear();
        dev.vector = boundary::releasedVector(*dev.bsdl);
        dev.extest = false;
    }
    irLoaded_ = false;
}

Json LiveView::chainValue() const {
    std::lock_guard<std::mutex> hold(lock_);
    Json v = discoveryValue(d_);
    for (Json& device : v["devices"]) {
        unsigned p = device["position"];
        device["boundary"] = std::any_of(devices_.begin(), devices_.end(), [p](const Device& d) { return d.position == p; });
    }
    v["drive"] = drive_;
    return v;
}

Json LiveView::levelsValue() const {
    std::lock_guard<std::mutex> hold(lock_);
    Json v = Json::object();
    for (const Device& dev : devices_) {
        Json ports = Json::object();
        for (const auto& [port, level] : dev.levels) ports[port] = level ? 1 : 0;
        v[std::to_string(dev.position)] = std::move(ports);
    }
    return v;
}

Json LiveView::drivingValue() const {
    std::lock_guard<std::mutex> hold(lock_);
    Json v = Json::object();
    for (const Device& dev : devices_) {
        if (!dev.extest) continue;
        Json ports = Json::object();
        for (const boundary::PortDrive& d : boundary::drivenBy(*dev.bsdl, dev.vector))
            if (d.level != 'z') ports[d.port] = std::string(1, d.level);
        v[std::to_string(dev.position)] = std::move(ports);
    }
    return v;
}

bool LiveView::pinsValue(unsigned position, Json* out) const {
    std::lock_guard<std::mutex> hold(lock_);
    const Device* dev = nullptr;
    for (const Device& d : devices_)
        if (d.position == position) dev = &d;
    if (!dev) return false;
    const bsdl::Device& b = *dev->bsdl;
    std::map<std::string, char> driven;
    if (dev->extest)
        for (const boundary::PortDrive& d : boundary::drivenBy(b, dev->vector)) driven[d.port] = d.level;
    auto entry = [&](const std::string& port, const std::string& pin) {
        const bsdl::Cell* in = boundary::inputCell(b, port);
        const bsdl::Cell* outCell = boundary::outputCell(b, port);
        const bsdl::Cell* any = outCell ? outCell : in;
        Json level;
        for (const auto& [name, l] : dev->levels)
            if (name == port) level = l ? 1 : 0;
        auto it = driven.find(any ? any->port : port);
        return Json{{"pin", pin},
                    {"port", port},
                    {"cell", in ? Json(in->number) : Json()},
                    {"function", any ? Json(bsdl::functionName(any->function)) : Json()},
                    {"level", level},
                    {"driven", it != driven.end() && it->second != 'z' ? Json(std::string(1, it->second)) : Json()}};
    };
    std::vector<std::pair<std::string, std::string>> pins;  // pin, port
    const bsdl::PinMap* map = b.package("");
    if (map)
        for (const auto& [port, list] : map->pins)
            for (const std::string& pin : list) pins.emplace_back(pin, port);
    bool numbered = !pins.empty(), grid = !pins.empty();
    std::string row;
    unsigned column;
    for (const auto& [pin, port] : pins) {
        numbered = numbered && allDigits(pin);
        grid = grid && ball(pin, &row, &column);
    }
    std::string shape = "list";
    Json v{{"position", position}, {"part", b.entity}, {"package", map ? Json(map->name) : Json()}};
    if (numbered) {
        std::sort(pins.begin(), pins.end(), [](const auto& a, const auto& c) {
            return std::strtoul(a.first.c_str(), nullptr, 10) < std::strtoul(c.first.c_str(), nullptr, 10);
        });
        unsigned last = static_cast<unsigned>(std::strtoul(pins.back().first.c_str(), nullptr, 10));
        if (last >= 8 && last % 4 == 0) shape = "quad";
    } else if (grid) {
        shape = "grid";
        std::set<std::string, bool (*)(const std::string&, const std::string&)> rows(rowBefore);
        unsigned columns = 0;
        for (const auto& [pin, port] : pins) {
            ball(pin, &row, &column);
            rows.insert(row);
            columns = std::max(columns, column);
        }
        std::vector<std::string> order(rows.begin(), rows.end());
        auto key = [&order](const std::string& pin) {
            std::string r;
            unsigned c;
            ball(pin, &r, &c);
            return std::make_pair(std::find(order.begin(), order.end(), r) - order.begin(), c);
        };
        std::sort(pins.begin(), pins.end(), [&](const auto& a, const auto& c) { return key(a.first) < key(c.first); });
        v["rows"] = order;
        Json cols = Json::array();
        for (unsigned c = 1; c <= columns; ++c) cols.push_back(c);
        v["columns"] = std::move(cols);
    }
    if (!map)  // no pin map: the ports with cells, without pins
        for (const auto& [port, level] : dev->levels) pins.emplace_back("", port);
    v["shape"] = shape;
    Json list = Json::array();
    for (const auto& [pin, port] : pins) list.push_back(entry(port, pin));
    v["pins"] = std::move(list);
    *out = std::move(v);
    return true;
}

CommandResult LiveView::marks(const Json& report, const std::vector<std::string>& parts) {
    std::map<std::string, unsigned> positions;  // REF, upper case
    for (const std::string& part : parts) {
        size_t eq = part.find('=');
        unsigned p;
        if (eq == std::string::npos || eq == 0) return CommandResult{kChainUsage, "--part " + part + ": wants REF=DEV"};
        CommandResult named = chain_.resolve(part.substr(eq + 1), &p);
        if (!named.ok()) return named;
        std::string ref = part.substr(0, eq);
        for (char& c : ref) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        positions[ref] = p;
    }
    if (!report.is_object() || !report.contains("nets") || !report["nets"].is_array())
        return CommandResult{kChainUsage, "not a board test's report (kelvorn-chain test --json): no \"nets\""};
    Json marks = Json::object();
    for (const Json& net : report["nets"]) {
        if (!net.is_object() || net.value("result", "") != "fail" || !net.contains("pins") || !net["pins"].is_array()) continue;
        for (const Json& pin : net["pins"]) {
            if (!pin.is_string()) continue;
            std::string text = pin;
            size_t dot = text.rfind('.');
            if (dot == std::string::npos) continue;
            std::string ref = text.substr(0, dot);
            for (char& c : ref) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            auto it = positions.find(ref);
            if (it != positions.end()) marks[std::to_string(it->second)].push_back(text.substr(dot + 1));
        }
    }
    std::lock_guard<std::mutex> hold(lock_);
    marks_ = std::move(marks);
    faults_ = report.contains("faults") ? report["faults"] : Json::array();
    return {};
}

Json LiveView::marksValue() const {
    std::lock_guard<std::mutex> hold(lock_);
    return Json{{"marks", marks_}, {"faults", faults_}};
}

}  // namespace jtag
