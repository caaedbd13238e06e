#include "sim/BoundaryDevice.h"

#include <cctype>
#include <set>

namespace sim {

using jtag::bsdl::Cell;

namespace {

// A pattern as BSDL writes it (most significant first, X either) as value and mask.
void pattern(const std::string& msbFirst, uint32_t* value, uint32_t* mask) {
    *value = *mask = 0;
    for (char c : msbFirst) {
        *value = *value << 1 | (c == '1');
        *mask = *mask << 1 | (c != 'X' && c != 'x');
    }
}

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

bool drivesPin(Cell::Function f) {
    return f == Cell::Function::output2 || f == Cell::Function::output3 || f == Cell::Function::bidir;
}

}  // namespace

BoundaryDevice::BoundaryDevice(const BoundaryDesc& desc) : desc_(desc) {
    const jtag::bsdl::Device& d = *desc_.bsdl;
    update_.assign(d.boundaryLength, false);
    std::set<std::string> ports;
    for (const Cell& c : d.boundary)
        if (drivesPin(c.function) && ports.insert(upper(c.port)).second) driveCells_.push_back(c.number);
    for (const jtag::bsdl::Instruction& i : d.instructions) {
        std::string name = upper(i.name);
        Opcode op{0, 0, Register::bypass, false, false};
        if (name == "IDCODE" && !d.idcode.empty()) op.reg = Register::idcode;
        if (name == "USERCODE") op.reg = Register::usercode;
        if ((name == "SAMPLE" || name == "PRELOAD" || name == "EXTEST") && d.boundaryLength) op.reg = Register::boundary;
        op.drive = name == "EXTEST" || name == "CLAMP";
        op.highz = name == "HIGHZ";
        for (const std::string& text : i.opcodes) {
            pattern(text, &op.value, &op.mask);
            opcodes_.push_back(op);
            if (op.reg == Register::idcode && !resetInstruction_) resetInstruction_ = op.value;
        }
    }
    if (!resetInstruction_) resetInstruction_ = d.irLength >= 32 ? 0xffffffffu : (1u << d.irLength) - 1;  // BYPASS
    if (!d.irCapture.empty()) {
        uint32_t mask;
        pattern(d.irCapture, &irCapture_, &mask);
        irCapture_ = (irCapture_ & ~3u) | 1u;  // the two bits nearest TDO are 01 whatever the file says
    }
    instructionIs(resetInstruction_);
}

uint32_t BoundaryDevice::idcode() const {
    if (desc_.bsdl->idcode.empty()) return 0;
    return desc_.bsdl->idcodeValue() & desc_.bsdl->idcodeMask();
}

void BoundaryDevice::instructionIs(uint32_t value) {
    register_ = Register::bypass;
    drive_ = highz_ = false;
    for (const Opcode& op : opcodes_) {
        if ((value & op.mask) != (op.value & op.mask)) continue;
        register_ = op.reg;
        drive_ = op.drive;
        highz_ = op.highz;
        break;
    }
    if (drive_) record();
}

void BoundaryDevice::updateBoundary(const jtag::BitVector& bits) {
    update_ = bits;
    if (drive_) record();
}

bool BoundaryDevice::drives(const std::string& port, bool* level) const {
    if (!drive_ || highz_) return false;
    for (const Cell& c : desc_.bsdl->boundary) {
        if (drivesPin(c.function) && upper(c.port) == upper(port)) return drivesCell(c.number, level);
    }
    return false;
}

bool BoundaryDevice::drivesCell(unsigned number, bool* level) const {
    if (!drive_ || highz_) return false;
    const Cell& c = desc_.bsdl->boundary[number];
    bool enabled = c.controlCell < 0 || c.disableValue == 'X' ||
                   update_[static_cast<size_t>(c.controlCell)] != (c.disableValue == '1');
    if (enabled) *level = update_[number];
    return enabled;
}

void BoundaryDevice::record() {
    lastDriven_.clear();
    bool level;
    for (unsigned cell : driveCells_)
        if (drivesCell(cell, &level)) lastDriven_.emplace_back(desc_.bsdl->boundary[cell].port, level);
}

}  // namespace sim
