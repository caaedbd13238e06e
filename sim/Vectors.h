// Vectors that erase, program and verify an image on the simulated
// programmable device (sim/ProgDevice.h), as SVF (Serial Vector Format,
// revision C) and as XSVF, for any player of those formats. Both files do
// the same scans in the same order:
//   reset; ERASE, then eraseCycles in Run-Test/Idle;
//   ADDRESS 0; PROGRAM, then each row followed by programCycles in
//   Run-Test/Idle (the address advances by itself);
//   ADDRESS 0; READ, then each row read back and compared bit for bit.
// Before the first erase both read the chain's IDCODEs after a reset and
// compare them (the version bits aside): played on another chain, the
// file stops there, before it has erased anything.
// The other devices on the chain stay in BYPASS: SVF says so once in its
// header and trailer commands (HIR, TIR, HDR, TDR); XSVF has none, so each of
// its scans carries their bits. Every scan ends in Run-Test/Idle.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "jtag/BitVector.h"

namespace sim {

struct VectorTarget {
    std::vector<unsigned> irLengths;  // every device on the chain, nearest TDO first
    size_t device = 0;                // the programmable one, an index into irLengths
    unsigned rowBits = 0;
    uint32_t eraseCycles = 0;    // TCK cycles in Run-Test/Idle after ERASE
    uint32_t programCycles = 0;  // and after each row
    // Every device's IDCODE, nearest TDO first; 0 for a device without one
    // (a one-bit BYPASS register after a reset). Empty: no check.
    std::vector<uint32_t> idcodes;
};

// The rows of an image whose bit i is bit i % rowBits of row i / rowBits
// (the order of the memory dump); the last row is padded with ones, which
// leave the erased bits as they are.
std::vector<jtag::BitVector> imageRows(const jtag::BitVector& image, unsigned rowBits);

std::string svfFor(const VectorTarget& target, const std::vector<jtag::BitVector>& rows);
std::vector<uint8_t> xsvfFor(const VectorTarget& target, const std::vector<jtag::BitVector>& rows);

}  // namespace sim
