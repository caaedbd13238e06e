// The BSDL reader fed any bytes: it reads a device or names a fault with a
// line, and what it reads holds together: every opcode and the capture as
// long as the instruction register, every cell where its number says and
// below BOUNDARY_LENGTH, control cells that are control cells; no two
// instructions with opcodes an IR value matches (SAMPLE and PRELOAD aside
// when equal), each port and instruction once and found by its name, one
// pin per scalar port or vector element in each package. The opcodes and
// names are compared here pair by pair, the slow way the reader avoids.
#include <cctype>
#include <cstdlib>
#include <string>

#include "FuzzTarget.h"
#include "jtag/Bsdl.h"

namespace {

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

bool overlap(const std::string& a, const std::string& b) {
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != 'X' && b[i] != 'X' && a[i] != b[i]) return false;
    return true;
}

bool aliases(const std::string& a, const std::string& b) {
    return (upper(a) == "SAMPLE" && upper(b) == "PRELOAD") || (upper(a) == "PRELOAD" && upper(b) == "SAMPLE");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    jtag::bsdl::Device d;
    jtag::bsdl::Error e;
    if (!jtag::bsdl::read(text, "f.bsd", &d, &e)) {
        if (e.message.empty() || e.text().compare(0, 6, "f.bsd:") != 0) std::abort();
        return 0;
    }
    if (d.irLength < 2 || d.boundary.size() != d.boundaryLength) std::abort();
    if (!d.irCapture.empty() && d.irCapture.size() != d.irLength) std::abort();
    for (const jtag::bsdl::Instruction& i : d.instructions)
        for (const std::string& op : i.opcodes)
            if (op.size() != d.irLength) std::abort();
    for (size_t n = 0; n < d.boundary.size(); ++n) {
        const jtag::bsdl::Cell& c = d.boundary[n];
        if (c.number != n) std::abort();
        if (c.controlCell >= 0) {
            if (static_cast<size_t>(c.controlCell) >= d.boundary.size()) std::abort();
            auto f = d.boundary[static_cast<size_t>(c.controlCell)].function;
            if (f != jtag::bsdl::Cell::Function::control && f != jtag::bsdl::Cell::Function::controlr) std::abort();
        }
    }
    if (!d.idcode.empty() && (d.idcode.size() != 32 || !d.matches(d.idcodeValue()))) std::abort();
    for (size_t a = 0; a < d.instructions.size(); ++a) {
        const jtag::bsdl::Instruction& ia = d.instructions[a];
        if (d.instruction(upper(ia.name)) != &ia) std::abort();
        for (size_t b = a + 1; b < d.instructions.size(); ++b) {
            const jtag::bsdl::Instruction& ib = d.instructions[b];
            if (upper(ia.name) == upper(ib.name)) std::abort();
            for (const std::string& x : ia.opcodes)
                for (const std::string& y : ib.opcodes)
                    if (overlap(x, y) && !(x == y && aliases(ia.name, ib.name))) std::abort();
        }
    }
    for (const jtag::bsdl::Port& p : d.ports)
        if (d.port(upper(p.name)) != &p) std::abort();
    for (const jtag::bsdl::PinMap& m : d.packages)
        for (const auto& [port, pins] : m.pins) {
            if (pins.size() != 1) std::abort();
            const jtag::bsdl::Port* p = d.port(port.substr(0, port.find('(')));
            if (!p || p->isVector() != (port.find('(') != std::string::npos)) std::abort();
        }
    return 0;
}
