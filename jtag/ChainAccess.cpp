#include "jtag/ChainAccess.h"

#include <set>

#include "jtag/Boundary.h"
#include "jtag/Discovery.h"
#include "jtag/Json.h"

namespace jtag {

BitVector bitsOf(const std::string& msbFirst) {
    BitVector v(msbFirst.size());
    for (size_t i = 0; i < msbFirst.size(); ++i) v.set(i, msbFirst[msbFirst.size() - 1 - i] == '1');
    return v;
}

BitVector bsdlOpcode(const bsdl::Device& d, std::initializer_list<const char*> names) {
    for (const char* name : names)
        if (const bsdl::Instruction* i = d.instruction(name))
            if (!i->opcodes.empty()) return bitsOf(i->opcodes.front());
    return {};
}

bool takesInput(bsdl::Cell::Function f) {
    using F = bsdl::Cell::Function;
    return f == F::input || f == F::clock || f == F::bidir || f == F::observe_only;
}

std::vector<std::pair<std::string, bool>> portLevels(const bsdl::Device& d, const BitVector& captured) {
    std::vector<std::pair<std::string, bool>> levels;
    std::set<std::string> seen;
    for (const bsdl::Cell& c : d.boundary)
        if (takesInput(c.function) && c.port != "*" && seen.insert(c.port).second)
            levels.emplace_back(c.port, captured[c.number]);
    return levels;
}

std::vector<std::string> packagePins(const bsdl::Device& d, const std::string& port) {
    const bsdl::PinMap* map = d.package("");
    if (map)
        for (const auto& [name, pins] : map->pins)
            if (boundary::sameName(name, port)) return pins;
    return {};
}

std::string sampleJson(unsigned position, const bsdl::Device& d, const std::vector<std::pair<std::string, bool>>& levels) {
    Json pins = Json::object(), packagePinsOf = Json::object();
    for (const auto& [port, level] : levels) {
        pins[port] = level ? 1 : 0;
        packagePinsOf[port] = packagePins(d, port);
    }
    const bsdl::PinMap* map = d.package("");
    return jsonText(Json{{"device", position},
                         {"pins", std::move(pins)},
                         {"package", map ? Json(map->name) : Json()},
                         {"package_pins", std::move(packagePinsOf)}});
}

std::map<unsigned, BitVector> ChainAccess::instructions(const std::map<unsigned, BitVector>& opcodes, bool capture) {
    BitVector in;
    std::vector<size_t> at(irLengths_.size());
    for (unsigned p = 0; p < irLengths_.size(); ++p) {
        at[p] = in.size();
        auto it = opcodes.find(p);
        if (it != opcodes.end())
            in.append(it->second);
        else
            in.append(BitVector(irLengths_[p], true));
    }
    std::map<unsigned, BitVector> captured;
    if (!capture) {
        tap_.shiftIr(in, nullptr);
        return captured;
    }
    BitVector out;
    tap_.shiftIr(in, &out);
    for (const auto& [p, bits] : opcodes) {
        BitVector c;
        c.append(out, at[p], bits.size());
        captured[p] = c;
    }
    return captured;
}

std::map<unsigned, BitVector> ChainAccess::data(const std::map<unsigned, BitVector>& registers) {
    BitVector in;
    std::vector<size_t> at(irLengths_.size());
    for (unsigned p = 0; p < irLengths_.size(); ++p) {
        at[p] = in.size();
        auto it = registers.find(p);
        if (it != registers.end())
            in.append(it->second);
        else
            in.append(false);
    }
    BitVector out;
    tap_.shiftDr(in, &out);
    std::map<unsigned, BitVector> captured;
    for (const auto& [p, bits] : registers) {
        BitVector c;
        c.append(out, at[p], bits.size());
        captured[p] = c;
    }
    return captured;
}

}  // namespace jtag
