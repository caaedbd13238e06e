// What a device's boundary register drives onto its pins under EXTEST, from
// its BSDL file. An output cell's level reaches the pin only while its
// control cell enables the output driver; one control cell often enables
// several pins at once (a bus, a byte lane), and a two-state output has no
// control cell at all: EXTEST drives it whatever is asked. On a live board a
// pin driven that nobody named can fight the board's own driver, so a
// request is planned here and refused unless the register it gives drives
// exactly the ports named, at the levels named, and nothing else but the
// two-state outputs at the levels their maker declares safe.
#pragma once
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/Bsdl.h"

namespace jtag::boundary {

// One port asked for: '0' or '1' (driven), or 'z' (released).
struct Request {
    std::string port;  // a scalar port or a vector element "NAME(i)", any case
    char level = 'z';
};

// One port as the boundary register leaves it: driven at a level, or released.
struct PortDrive {
    std::string port;  // as the BSDL file spells it
    char level = 'z';  // '0', '1' or 'z'
};

// Whether a boundary cell of this function drives its pin (output or bidirectional).
bool drives(bsdl::Cell::Function f);
// The port's first cell that drives it / captures it; null when it has none.
const bsdl::Cell* outputCell(const bsdl::Device& d, const std::string& port);
const bsdl::Cell* inputCell(const bsdl::Device& d, const std::string& port);

// Every cell at its released level: each control cell at the value that
// disables the outputs it controls (whatever its safe value says), every
// other cell at its safe value (X as 0). Under EXTEST this drives only the
// two-state outputs, at their safe levels.
BitVector releasedVector(const bsdl::Device& d);

// The register that drives the requested ports and nothing else, or false
// with *error naming what stands in the way: a port with no output cell, a
// port that cannot be released (no control cell), a port named twice, ports
// that share a control cell not all named or not all driven alike, a
// two-state output with no safe level not named. An unnamed two-state
// output is driven at its safe level: nothing can switch it off.
bool plan(const bsdl::Device& d, const std::vector<Request>& requests, BitVector* vector, std::string* error);

// What a register drives, read from its bits alone: every port with an
// output cell, in cell order, with its level or 'z'.
std::vector<PortDrive> drivenBy(const bsdl::Device& d, const BitVector& v);

// Same name, ignoring case (VHDL names).
bool sameName(const std::string& a, const std::string& b);

}  // namespace jtag::boundary
