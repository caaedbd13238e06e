// Instructions and data scans of chosen devices on a chain whose
// instruction register lengths are known, every other device in BYPASS.
// Positions count from the device nearest TDO (0); bit 0 of every register
// is the one nearest TDO, the first out and the last in.
#pragma once
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/Bsdl.h"
#include "jtag/Tap.h"

namespace jtag {

// An opcode or pattern as BSDL writes it (most significant bit first, X for
// either) as the bits to shift, bit 0 first; X as 0.
BitVector bitsOf(const std::string& msbFirst);

// The opcode of the first of the names the device's BSDL file has, as bits
// to shift; empty when it has none of them.
BitVector bsdlOpcode(const bsdl::Device& d, std::initializer_list<const char*> names);
// Whether a boundary cell of this function captures what is on its pin.
bool takesInput(bsdl::Cell::Function f);
// The ports with an input cell and their levels in a capture of the
// boundary register, in cell order, each port once.
std::vector<std::pair<std::string, bool>> portLevels(const bsdl::Device& d, const BitVector& captured);
// A port's package pins in the file's default package; none when unmapped.
std::vector<std::string> packagePins(const bsdl::Device& d, const std::string& port);
// A sample as one JSON document: {"device":P,"pins":{"PORT":0|1,...},
// "package":"NAME","package_pins":{"PORT":["PIN",...],...}} (package null
// when the file has no pin map).
std::string sampleJson(unsigned position, const bsdl::Device& d, const std::vector<std::pair<std::string, bool>>& levels);

class ChainAccess {
  public:
    ChainAccess(Tap& tap, std::vector<unsigned> irLengths) : tap_(tap), irLengths_(std::move(irLengths)) {}

    // One IR scan: each named device gets its opcode (its IR's length), the
    // others all ones (BYPASS). Ends in Run-Test/Idle. With capture, TDO
    // is read: what each named device's instruction register captured.
    std::map<unsigned, BitVector> instructions(const std::map<unsigned, BitVector>& opcodes, bool capture = false);
    // One DR scan through the registers the instructions selected: each
    // named device's register gets its bits (as long as that register),
    // each other device is a one-bit BYPASS register. Returns what each
    // named device's register held before (its capture). Ends in
    // Run-Test/Idle: the new content is in force (Update-DR).
    std::map<unsigned, BitVector> data(const std::map<unsigned, BitVector>& registers);

    size_t devices() const { return irLengths_.size(); }

  private:
    Tap& tap_;
    std::vector<unsigned> irLengths_;
};

}  // namespace jtag
