// Instructions and data scans of chosen devices on a chain whose
// instruction register lengths are known, every other device in BYPASS.
// Positions count from the device nearest TDO (0); bit 0 of every register
// is the one nearest TDO, the first out and the last in.
#pragma once
#include <map>
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/Tap.h"

namespace jtag {

// An opcode or pattern as BSDL writes it (most significant bit first, X for
// either) as the bits to shift, bit 0 first; X as 0.
BitVector bitsOf(const std::string& msbFirst);

class ChainAccess {
  public:
    ChainAccess(Tap& tap, std::vector<unsigned> irLengths) : tap_(tap), irLengths_(std::move(irLengths)) {}

    // One IR scan: each named device gets its opcode (its IR's length), the
    // others all ones (BYPASS). Ends in Run-Test/Idle.
    void instructions(const std::map<unsigned, BitVector>& opcodes);
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
