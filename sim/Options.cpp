#include "sim/Options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>

namespace sim {

namespace {

constexpr unsigned kMaxIrLength = 32;

const char kChainForm[] =
    "wants IDCODE:IRLEN[:mem=ROWSxBITS[:erase=CYCLES][:program=CYCLES]][,...], for example 0x0a5c7035:8";

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (size_t at; (at = text.find(separator, start)) != std::string::npos; start = at + 1)
        pieces.push_back(text.substr(start, at - start));
    pieces.push_back(text.substr(start));
    return pieces;
}

// One "key=value" field of a programmable device.
std::string parseMemoryField(const std::string& field, MemoryDesc* m, std::set<std::string>* seen) {
    size_t eq = field.find('=');
    std::string key = field.substr(0, eq), value = eq == std::string::npos ? "" : field.substr(eq + 1);
    if (key != "mem" && key != "erase" && key != "program") return "unknown field " + field;
    if (!seen->insert(key).second) return key + "= given twice: " + field;
    unsigned long n;
    if (key == "mem") {
        size_t x = value.find('x');
        unsigned long rows, bits;
        if (x == std::string::npos || !parseNumber(value.substr(0, x), kMaxRows, &rows) || rows == 0 ||
            !parseNumber(value.substr(x + 1), kMaxMemoryBits, &bits) || bits == 0)
            return "mem= wants ROWSxBITS, 1 to " + std::to_string(kMaxRows) + " rows of at least one bit: " + field;
        if (rows * bits > kMaxMemoryBits) return "a memory holds at most " + std::to_string(kMaxMemoryBits) + " bits: " + field;
        m->rows = static_cast<unsigned>(rows);
        m->rowBits = static_cast<unsigned>(bits);
        return "";
    }
    if (!parseNumber(value, 0xffffffffUL, &n)) return key + "= wants a number of TCK cycles: " + field;
    (key == "erase" ? m->eraseCycles : m->programCycles) = static_cast<uint32_t>(n);
    return "";
}

// "bsdl=FILE[:package=NAME][:usercode=0xHHHHHHHH]": a device the file describes.
std::string parseBsdlDevice(const std::vector<std::string>& fields, DeviceDesc* d) {
    auto device = std::make_shared<jtag::bsdl::Device>();
    jtag::bsdl::Error error;
    if (!jtag::bsdl::readFile(fields[0].substr(5), device.get(), &error)) return error.text();
    if (device->irLength < 2 || device->irLength > kMaxIrLength)
        return device->file + ": an instruction register of " + std::to_string(device->irLength) +
               " bits; the simulator has 2 to " + std::to_string(kMaxIrLength);
    *d = {kNoIdcode, device->irLength};
    std::set<std::string> seen;
    for (size_t i = 1; i < fields.size(); ++i) {
        const std::string& f = fields[i];
        size_t eq = f.find('=');
        std::string key = f.substr(0, eq), value = eq == std::string::npos ? "" : f.substr(eq + 1);
        if ((key != "package" && key != "usercode") || !seen.insert(key).second)
            return "bsdl= takes package=NAME and usercode=0xHHHHHHHH, each once: " + f;
        unsigned long code;
        if (key == "usercode" && !parseNumber(value, 0xffffffffUL, &code)) return "usercode= wants a 32-bit number: " + f;
        if (key == "usercode") d->boundary.usercode = static_cast<uint32_t>(code);
        if (key == "package" && !device->package(value)) return device->file + " has no package " + value;
        if (key == "package") d->boundary.package = value;
    }
    d->boundary.bsdl = std::move(device);
    return "";
}

std::string parseDevice(const std::string& item, DeviceDesc* d) {
    std::vector<std::string> fields = split(item, ':');
    if (fields[0].compare(0, 5, "bsdl=") == 0) return parseBsdlDevice(fields, d);
    unsigned long id = kNoIdcode, len;
    bool none = !fields.empty() && fields[0] == "none";
    if (fields.size() < 2 || (!none && !parseNumber(fields[0], 0xffffffffUL, &id)) ||
        !parseNumber(fields[1], kMaxIrLength, &len))
        return kChainForm;
    if (!none && (!(id & 1) || id == 0xffffffffUL)) return "an IDCODE has bit 0 set and is not all ones: " + item;
    if (len < 2) return "an instruction register has at least 2 bits: " + item;
    *d = {static_cast<uint32_t>(id), static_cast<unsigned>(len)};
    std::set<std::string> seen;
    for (size_t i = 2; i < fields.size(); ++i) {
        std::string error = parseMemoryField(fields[i], &d->memory, &seen);
        if (!error.empty()) return error;
    }
    if (fields.size() > 2 && d->memory.rows == 0) return "erase= and program= need mem=: " + item;
    if (d->memory.rows && len < kProgIrMinLength)
        return "a device with memory has an instruction register of at least " + std::to_string(kProgIrMinLength) +
               " bits: " + item;
    return "";
}

}  // namespace

bool parseNumber(const std::string& text, unsigned long max, unsigned long* out) {
    if (text.empty() || text[0] == '-') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long v = std::strtoul(text.c_str(), &end, 0);
    if (*end || errno || v > max) return false;
    *out = v;
    return true;
}

std::string parseCpu(const std::string& text, unsigned* family, unsigned* model) {
    size_t colon = text.find(':');
    unsigned long f, m;
    if (colon == std::string::npos || !parseNumber(text.substr(0, colon), 0xFF + 0xF, &f) ||
        !parseNumber(text.substr(colon + 1), 0xFF, &m))
        return "wants FAMILY:MODEL, for example 0x16:0x30";
    *family = static_cast<unsigned>(f);
    *model = static_cast<unsigned>(m);
    return "";
}

std::string parseChain(const std::string& text, std::vector<DeviceDesc>* chain) {
    std::vector<DeviceDesc> devices;
    for (const std::string& item : split(text, ',')) {
        DeviceDesc d{};
        std::string error = parseDevice(item, &d);
        if (!error.empty()) return error;
        devices.push_back(d);
    }
    *chain = std::move(devices);
    return "";
}

std::string needMemory(const std::vector<DeviceDesc>& chain) {
    for (const DeviceDesc& d : chain)
        if (d.memory.rows) return "";
    return "no device on the chain has memory (mem=ROWSxBITS)";
}

std::string parsePin(const std::string& text, PinRef* pin) {
    size_t dot = text.find('.');
    unsigned long p;
    if (dot == std::string::npos || !parseNumber(text.substr(0, dot), 0xffff, &p) || dot + 1 == text.size())
        return "wants POS.PORT, for example 1.LED: " + text;
    *pin = {static_cast<unsigned>(p), text.substr(dot + 1)};
    return "";
}

std::string checkPin(const std::vector<DeviceDesc>& chain, const PinRef& pin) {
    if (pin.position >= chain.size() || !chain[pin.position].boundary.bsdl)
        return "no BSDL device at position " + std::to_string(pin.position) + " of the chain";
    const jtag::bsdl::Device& d = *chain[pin.position].boundary.bsdl;
    for (const jtag::bsdl::Cell& c : d.boundary)
        if (c.port != "*" && PinRef{pin.position, c.port} == pin) return "";
    return d.entity + " has no boundary cell for " + pin.port;
}

std::string netlistWires(const jtag::netlist::Netlist& netlist, const std::map<std::string, unsigned>& parts,
                         const std::vector<DeviceDesc>& chain, Wires* wires) {
    std::set<std::string> refs;
    for (const jtag::netlist::Component& c : netlist.components) refs.insert(c.ref);
    for (const jtag::netlist::Net& n : netlist.nets)
        for (const jtag::netlist::Node& node : n.nodes) refs.insert(node.ref);
    // Per part: its port by package pin.
    std::map<std::string, std::map<std::string, std::string>> ports;
    for (const auto& [ref, position] : parts) {
        if (!refs.count(ref)) return netlist.file + ": no component " + ref + " (--part " + ref + ")";
        const jtag::bsdl::Device& d = *chain[position].boundary.bsdl;
        const jtag::bsdl::PinMap* map = d.package(chain[position].boundary.package);
        if (!map) return d.file + " has no pin map for " + ref;
        for (const auto& [port, pins] : map->pins)
            for (const std::string& pin : pins) ports[ref][pin] = port;
    }
    for (const jtag::netlist::Net& n : netlist.nets) {
        WireNet net{n.name, {}};
        for (const jtag::netlist::Node& node : n.nodes) {
            auto part = ports.find(node.ref);
            if (part == ports.end()) continue;  // not a part on the chain: does nothing here
            unsigned position = parts.at(node.ref);
            auto port = part->second.find(node.pin);
            if (port == part->second.end()) {
                const DeviceDesc& d = chain[position];
                const jtag::bsdl::PinMap* map = d.boundary.bsdl->package(d.boundary.package);
                return netlist.file + ":" + std::to_string(node.line) + ": pin " + node.pin + " of " + node.ref +
                       " is not in the pin map " + map->name + " of " + d.boundary.bsdl->entity;
            }
            PinRef pin{position, port->second};
            if (checkPin(chain, pin).empty()) net.pins.push_back(pin);  // TCK, supplies: no cell to drive or read
        }
        if (net.pins.empty()) continue;
        bool up;
        jtag::netlist::Node via;
        if (jtag::netlist::pullOf(netlist, n, &up, &via)) net.pull = up;
        wires->nets.push_back(net);
    }
    return "";
}

std::string chainText(const std::vector<DeviceDesc>& chain) {
    std::string s;
    char buf[96];
    for (const DeviceDesc& d : chain) {
        if (d.boundary.bsdl) {
            s += (s.empty() ? "bsdl=" : ",bsdl=") + d.boundary.bsdl->file;
            if (!d.boundary.package.empty()) s += ":package=" + d.boundary.package;
            if (d.boundary.usercode) {
                std::snprintf(buf, sizeof buf, ":usercode=0x%08x", d.boundary.usercode);
                s += buf;
            }
            continue;
        }
        if (d.idcode == kNoIdcode)
            std::snprintf(buf, sizeof buf, "%snone:%u", s.empty() ? "" : ",", d.irLength);
        else
            std::snprintf(buf, sizeof buf, "%s0x%08x:%u", s.empty() ? "" : ",", d.idcode, d.irLength);
        s += buf;
        const MemoryDesc& m = d.memory;
        if (!m.rows) continue;
        s += ":mem=" + std::to_string(m.rows) + "x" + std::to_string(m.rowBits);
        if (m.eraseCycles != kDefaultEraseCycles) s += ":erase=" + std::to_string(m.eraseCycles);
        if (m.programCycles != kDefaultProgramCycles) s += ":program=" + std::to_string(m.programCycles);
    }
    return s;
}

}  // namespace sim
