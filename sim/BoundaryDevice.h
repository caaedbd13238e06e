// The test logic of a chain device described by a BSDL file, as IEEE
// 1149.1 has it behave: its instructions decoded by their opcodes (X bits
// match either level), its data registers (BYPASS, the IDCODE and USERCODE
// registers, the boundary register) and its pins.
//
// The boundary register has a shift stage (the DR scan) and an update
// stage, loaded at Update-DR under SAMPLE/PRELOAD and EXTEST. Under EXTEST
// (and CLAMP) the update stage drives the device's outputs: an output whose
// control cell holds its disable value is not driven. At Capture-DR an
// input cell takes the level on its pin, an output or control cell what its
// update stage holds (there is no system logic behind it here). HIGHZ and
// CLAMP select BYPASS; HIGHZ leaves every output undriven.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/Bsdl.h"

namespace sim {

// A BSDL device on the simulated chain.
struct BoundaryDesc {
    std::shared_ptr<const jtag::bsdl::Device> bsdl;
    uint32_t usercode = 0;
    std::string package;  // the pin map a netlist's pins are read through; "" the file's default
};

class BoundaryDevice {
  public:
    enum class Register { bypass, idcode, usercode, boundary };

    explicit BoundaryDevice(const BoundaryDesc& desc);

    const jtag::bsdl::Device& bsdl() const { return *desc_.bsdl; }
    uint32_t idcode() const;  // X bits 0; 0 without an IDCODE register
    uint32_t irCapture() const { return irCapture_; }
    // The instruction Test-Logic-Reset selects: IDCODE, else BYPASS.
    uint32_t resetInstruction() const { return resetInstruction_; }

    // The instruction now in force (at Update-IR or Test-Logic-Reset).
    void instructionIs(uint32_t value);
    Register selected() const { return register_; }
    // The boundary register's capture: level(cell) gives an input cell's pin.
    template <class PinLevel>
    void captureBoundary(jtag::BitVector* bits, PinLevel level) const {
        const jtag::bsdl::Device& d = *desc_.bsdl;
        bits->assign(d.boundaryLength, false);
        for (const jtag::bsdl::Cell& c : d.boundary) {
            bool input = c.function == jtag::bsdl::Cell::Function::input ||
                         c.function == jtag::bsdl::Cell::Function::clock ||
                         c.function == jtag::bsdl::Cell::Function::bidir ||
                         c.function == jtag::bsdl::Cell::Function::observe_only;
            if (input && c.port != "*")
                bits->set(c.number, level(c.number));
            else if (c.function != jtag::bsdl::Cell::Function::internal)
                bits->set(c.number, update_[c.number]);
        }
    }
    // Update-DR with the boundary register selected.
    void updateBoundary(const jtag::BitVector& bits);

    // Whether the device drives a port now, and at what level.
    bool drives(const std::string& port, bool* level) const;
    // The same for the port an output cell drives, by the cell's number.
    bool drivesCell(unsigned number, bool* level) const;
    // Whether the instruction in force lets the update stage drive pins.
    bool driving() const { return drive_ && !highz_; }
    // What the update stage last drove onto each output pin under EXTEST,
    // by port, in cell order; a pin whose output was disabled is left out.
    const std::vector<std::pair<std::string, bool>>& lastDriven() const { return lastDriven_; }

  private:
    struct Opcode {
        uint32_t value, mask;
        Register reg;
        bool drive, highz;
    };
    void record();

    BoundaryDesc desc_;
    std::vector<Opcode> opcodes_;
    uint32_t irCapture_ = 1, resetInstruction_ = 0;
    Register register_ = Register::bypass;
    bool drive_ = false, highz_ = false;
    jtag::BitVector update_;
    std::vector<std::pair<std::string, bool>> lastDriven_;
    std::vector<unsigned> driveCells_;  // the first output cell of each port, in cell order
};

}  // namespace sim
