// The netlist reader fed any bytes: it reads a netlist or names a fault with
// the file and a line, and what it reads holds together: every net named and
// named once, every node with a ref and a pin, no pin in two nets, nets and
// nodes in file order. The power and pull-resistor questions are asked of
// the first nets, and must not fault either.
#include <cstdlib>
#include <set>
#include <string>
#include <utility>

#include "FuzzTarget.h"
#include "jtag/Netlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace nl = jtag::netlist;
    std::string text(reinterpret_cast<const char*>(data), size);
    nl::Netlist n;
    std::string e;
    if (!nl::read(text, "f.net", &n, &e)) {
        if (e.compare(0, 6, "f.net:") != 0 || e.size() < 8 || !n.nets.empty()) std::abort();
        return 0;
    }
    std::set<std::string> names;
    std::set<std::pair<std::string, std::string>> pins;
    unsigned line = 1;
    for (const nl::Net& net : n.nets) {
        if (net.name.empty() || !names.insert(net.name).second || net.line < line) std::abort();
        line = net.line;
        unsigned nodeLine = net.line;
        for (const nl::Node& d : net.nodes) {
            if (d.ref.empty() || d.pin.empty() || !pins.insert({d.ref, d.pin}).second) std::abort();
            if (d.line < nodeLine) std::abort();
            nodeLine = d.line;
        }
    }
    for (size_t i = 0; i < n.nets.size() && i < 64; ++i) {
        bool up = false;
        nl::Node via;
        nl::isPower(n.nets[i]);
        if (nl::pullOf(n, n.nets[i], &up, &via) && (via.ref.empty() || (via.ref[0] != 'R' && via.ref[0] != 'r'))) std::abort();
    }
    return 0;
}
