// What a JTAG chain shows before anything is known about it: how many
// devices it has, what identifies each, how long their instruction
// registers are together and where one ends and the next begins. Three
// scans, each in one XilIntf_shift:
//
// - Device count from BYPASS: every instruction register filled with ones
//   (BYPASS in every device), the data path flushed with zeros, then ones
//   shifted in until the first comes out at TDO: the zeros before it are the
//   devices' one-bit BYPASS registers.
// - The IDCODE walk: after Test-Logic-Reset each device's data register is
//   its 32-bit IDCODE (bit 0 is 1) or, without one, its BYPASS bit (0);
//   ones shifted in behind them come out as an all-ones code, which no
//   device has. Its count must be the BYPASS count.
// - The instruction registers' capture: at Capture-IR every IR loads a
//   pattern whose two bits nearest TDO are 1 then 0 ("...01"); zeros
//   shifted in behind, then ones, tell the total length, and the ...01
//   pairs where each IR may begin.
//
// A chain that does not answer is named for what it shows: TDO stuck at 0,
// TDO stuck at 1, no device between TDI and TDO, more devices than the most
// looked for, or counts that disagree.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/Tap.h"

namespace jtag {

// The longest instruction register looked for, per device.
constexpr unsigned kMaxIrBitsPerDevice = 64;

struct ChainScan {
    enum class Fault {
        none,
        tdoStuckLow,    // TDO never 1, not even when ones are shifted through
        tdoStuckHigh,   // TDO never 0, not even when zeros are shifted through
        noDevice,       // what goes into TDI comes straight out of TDO
        tooLong,        // more devices (or IR bits) than looked for
        inconsistent,   // the scans disagree: detail says how
    };
    Fault fault = Fault::none;
    std::string detail;
    // One entry per device, the device nearest TDO first: its IDCODE, or
    // none when it came up in BYPASS.
    std::vector<std::optional<uint32_t>> idcodes;
    // What the instruction registers captured, nearest TDO first; its size
    // is their total length.
    BitVector irCapture;
};

// Scans the chain (the interface selected, the controller in any state) and
// leaves it in Test-Logic-Reset, every device back at its function.
ChainScan scanChain(Tap& tap, unsigned maxDevices);

// Where each device's instruction register lies in the capture: lengths,
// nearest TDO first, that add up to the capture's size, each at least 2 and
// starting with the captured 1 then 0. known[i], when not 0, is device i's
// length (from its BSDL file or from the user).
struct IrSplit {
    std::vector<unsigned> lengths;  // empty: no split fits
    bool unique = false;            // false: the capture fits other splits too
};
IrSplit splitIr(const BitVector& capture, size_t devices, const std::vector<unsigned>& known);

// What a fault means on a board, and what to check: one line.
std::string describe(ChainScan::Fault fault, unsigned maxDevices);

}  // namespace jtag
