// The option values of the simulator's tools, parsed and written back:
// numbers in C notation, a processor, and a scan chain. Each parser returns
// "" when the text is good, else what is wrong, in a form that follows the
// option's name on one line.
#pragma once
#include <map>
#include <string>
#include <vector>

#include "jtag/Netlist.h"
#include "sim/JtagChain.h"

namespace sim {

// A number in C notation (decimal, 0x hex, 0 octal), at most max.
bool parseNumber(const std::string& text, unsigned long max, unsigned long* out);

// "FAMILY:MODEL", each in C notation.
std::string parseCpu(const std::string& text, unsigned* family, unsigned* model);

// Devices separated by commas, the device nearest TDO first:
//   IDCODE:IRLEN[:mem=ROWSxBITS[:erase=CYCLES][:program=CYCLES]]
//   bsdl=FILE[:package=NAME][:usercode=0xHHHHHHHH]
// mem= makes the device programmable (sim/ProgDevice.h): ROWS rows of BITS
// bits; erase= and program= are its busy times in TCK cycles. bsdl= makes
// it the device the BSDL file describes (sim/BoundaryDevice.h).
std::string parseChain(const std::string& text, std::vector<DeviceDesc>* chain);
// The chain as parseChain reads it; fields at their defaults left out.
std::string chainText(const std::vector<DeviceDesc>& chain);
// "POS.PORT": a pin of a device on the chain.
std::string parsePin(const std::string& text, PinRef* pin);
// "" when the pin is a boundary-scan pin of a BSDL device on the chain.
std::string checkPin(const std::vector<DeviceDesc>& chain, const PinRef& pin);
// The nets of a netlist between pins of the parts given (component
// reference -> position of a BSDL device on the chain), added to *wires:
// a node's pin is a package pin, mapped to its port through the device's
// pin map; ports without a boundary cell and nodes of other components are
// left out; a pull resistor to a supply or ground sets the net's pull.
std::string netlistWires(const jtag::netlist::Netlist& netlist, const std::map<std::string, unsigned>& parts,
                         const std::vector<DeviceDesc>& chain, Wires* wires);
// "" when a device on the chain has memory, else what is wrong.
std::string needMemory(const std::vector<DeviceDesc>& chain);

}  // namespace sim
