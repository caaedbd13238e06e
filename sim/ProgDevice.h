// The instruction codes of the simulated devices, and the memory of a
// programmable one: flash-like rows behind four instructions, with busy
// times counted in TCK cycles spent in Run-Test/Idle.
//
// Every simulated device knows IDCODE, BYPASS (all ones and every unknown
// code) and LOOPBACK. A programmable device (one with memory) also knows:
// - ERASE: sets every bit of the memory to 1. It takes effect once the TAP,
//   after Update-IR loaded it, has stayed eraseCycles TCK cycles in
//   Run-Test/Idle. Its data register is BYPASS.
// - ADDRESS: a kAddressBits register; Capture-DR loads the current row
//   address, Update-DR sets it.
// - PROGRAM: a register of one row; Capture-DR loads zeros, Update-DR
//   latches the row for the current address and advances the address. The
//   row is written, ANDed into what the row holds (programming only clears
//   bits, as in flash: erase first), once the TAP has stayed programCycles
//   TCK cycles in Run-Test/Idle after the update.
// - READ: a register of one row; Capture-DR loads the row at the current
//   address (all ones past the last row), Update-DR advances the address.
// A cycle counts when TCK rises in Run-Test/Idle with TMS low. Leaving
// Run-Test/Idle (or never entering it after the update) before the count is
// reached abandons the erase or the row: the memory stays as it was. The
// address wraps at kAddressBits bits; rows past the last one are not
// written.
#pragma once
#include <cstdint>

#include "jtag/BitVector.h"
#include "jtag/TapState.h"

namespace sim {

// Every simulated device.
constexpr uint32_t kIdcodeInstruction = 0x1;  // also what Test-Logic-Reset selects
// A kLoopbackBits shift register that Capture-DR leaves alone: what one DR
// scan shifts in comes out of TDO in the next.
constexpr uint32_t kLoopbackInstruction = 0x2;
constexpr unsigned kLoopbackBits = 4096;

// A programmable device, whose instruction register has at least
// kProgIrMinLength bits.
constexpr uint32_t kEraseInstruction = 0x3;
constexpr uint32_t kAddressInstruction = 0x4;
constexpr uint32_t kProgramInstruction = 0x5;
constexpr uint32_t kReadInstruction = 0x6;
constexpr unsigned kProgIrMinLength = 3;
constexpr unsigned kAddressBits = 16;

constexpr unsigned kMaxRows = 1u << kAddressBits;
constexpr unsigned kMaxMemoryBits = 1u << 24;
constexpr uint32_t kDefaultEraseCycles = 1000;
constexpr uint32_t kDefaultProgramCycles = 100;

struct MemoryDesc {
    unsigned rows = 0;  // 0: no memory, not a programmable device
    unsigned rowBits = 0;
    uint32_t eraseCycles = kDefaultEraseCycles;
    uint32_t programCycles = kDefaultProgramCycles;
};

class ProgDevice {
  public:
    // Erased, address 0.
    explicit ProgDevice(const MemoryDesc& desc);

    // The length of the data register an instruction selects; 0 for an
    // instruction that selects none of the memory's registers.
    unsigned registerLength(uint32_t instruction) const;
    // What the instruction's register loads at Capture-DR.
    void capture(uint32_t instruction, jtag::BitVector* dr) const;
    // Update-DR with the register's content.
    void update(uint32_t instruction, const jtag::BitVector& dr);
    // Update-IR loaded this instruction.
    void instructionIs(uint32_t instruction);
    // A rising TCK edge moved the controller from one state to the next.
    void step(jtag::TapState from, jtag::TapState to);

    const MemoryDesc& desc() const { return desc_; }
    uint32_t address() const { return address_; }
    // rows x rowBits bits; row r starts at bit r * rowBits.
    const jtag::BitVector& memory() const { return memory_; }

  private:
    enum class Busy { none, erase, program };
    void start(Busy what, uint32_t cycles);
    void finish();

    MemoryDesc desc_;
    jtag::BitVector memory_;
    uint32_t address_ = 0;
    Busy busy_ = Busy::none;
    uint32_t cyclesNeeded_ = 0, cyclesDone_ = 0;
    uint32_t rowAddress_ = 0;  // where the latched row goes
    jtag::BitVector row_;
};

}  // namespace sim
