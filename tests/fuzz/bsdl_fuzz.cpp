// The BSDL reader fed any bytes: it reads a device or names a fault with a
// line, and what it reads holds together: every opcode and the capture as
// long as the instruction register, every cell where its number says and
// below BOUNDARY_LENGTH, control cells that are control cells.
#include <cstdlib>
#include <string>

#include "FuzzTarget.h"
#include "jtag/Bsdl.h"

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
    return 0;
}
