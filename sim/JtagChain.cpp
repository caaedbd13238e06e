#include "sim/JtagChain.h"

#include <cassert>
#include <cctype>

namespace sim {

using jtag::BitVector;
using jtag::TapState;

namespace {

constexpr unsigned kIdcodeBits = 32;

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

bool PinRef::operator<(const PinRef& o) const {
    return position != o.position ? position < o.position : upper(port) < upper(o.port);
}
bool PinRef::operator==(const PinRef& o) const { return position == o.position && upper(port) == upper(o.port); }

BitVector JtagChain::ShiftRegister::contents() const {
    BitVector v;
    v.append(bits_, head_);
    v.append(bits_, 0, head_);
    return v;
}

JtagChain::Device::Device(const DeviceDesc& d) : desc(d) {
    if (d.boundary.bsdl) {
        bsd.emplace(d.boundary);
        desc.irLength = d.boundary.bsdl->irLength;
        desc.idcode = bsd->idcode() ? bsd->idcode() : kNoIdcode;
        instruction = bsd->resetInstruction();
    }
    assert(desc.irLength >= 2 && desc.irLength <= 32);
    if (d.memory.rows) {
        assert(d.irLength >= kProgIrMinLength);
        prog.emplace(d.memory);
    }
    loopback.reload().assign(kLoopbackBits, false);
}

JtagChain::JtagChain(std::vector<DeviceDesc> devices) {
    assert(!devices.empty());
    devices_.reserve(devices.size());
    for (const DeviceDesc& d : devices) devices_.emplace_back(d);
}

const ProgDevice* JtagChain::firstProgrammable() const {
    for (size_t i = 0; i < devices_.size(); ++i)
        if (const ProgDevice* p = programmable(i)) return p;
    return nullptr;
}

void JtagChain::Device::capture(const JtagChain& chain, size_t position) {
    if (bsd) {
        BitVector& bits = dr.reload();
        switch (bsd->selected()) {
            case BoundaryDevice::Register::idcode:
                bits = BitVector::fromValue(bsd->idcode(), kIdcodeBits);
                break;
            case BoundaryDevice::Register::usercode:
                bits = BitVector::fromValue(desc.boundary.usercode, kIdcodeBits);
                break;
            case BoundaryDevice::Register::boundary:
                bsd->captureBoundary(&bits, [&](const std::string& port) { return chain.pinLevel(position, port); });
                break;
            case BoundaryDevice::Register::bypass:
                bits.assign(1, false);
                break;
        }
        return;
    }
    if (instruction == kLoopbackInstruction) return;  // keeps what the last scan left
    BitVector& bits = dr.reload();
    if (instruction == kIdcodeInstruction && desc.idcode != kNoIdcode)
        bits = BitVector::fromValue(desc.idcode, kIdcodeBits);
    else if (memorySelected())
        prog->capture(instruction, &bits);
    else
        bits.assign(1, false);  // BYPASS captures 0
}

void JtagChain::Device::rising(bool tms, bool tdi, const JtagChain& chain, size_t position) {
    switch (state) {
        case TapState::CaptureDr:
            capture(chain, position);
            break;
        case TapState::ShiftDr:
            selected().shift(tdi);
            break;
        case TapState::CaptureIr:
            irShift = bsd ? bsd->irCapture() : 0x1;  // ...01, as the standard fixes the two low bits
            break;
        case TapState::ShiftIr:
            irShift = (irShift >> 1) | (static_cast<uint32_t>(tdi) << (desc.irLength - 1));
            break;
        default:
            break;
    }
    TapState next = jtag::nextState(state, tms);
    if (prog) prog->step(state, next);
    state = next;
    if (state == TapState::TestLogicReset) reset();
}

void JtagChain::Device::reset() {
    if (!bsd) {
        instruction = kIdcodeInstruction;
    } else if (instruction != bsd->resetInstruction()) {
        instruction = bsd->resetInstruction();
        bsd->instructionIs(instruction);
    }
}

void JtagChain::Device::falling() {
    if (state == TapState::UpdateIr) {
        uint32_t allOnes = desc.irLength == 32 ? 0xffffffffu : (1u << desc.irLength) - 1;
        instruction = irShift & allOnes;
        if (prog) prog->instructionIs(instruction);
        if (bsd) bsd->instructionIs(instruction);
    }
    if (state == TapState::UpdateDr && memorySelected()) prog->update(instruction, dr.contents());
    if (state == TapState::UpdateDr && bsd && bsd->selected() == BoundaryDevice::Register::boundary)
        bsd->updateBoundary(dr.contents());
    tdoDriven = state == TapState::ShiftDr || state == TapState::ShiftIr;
    if (tdoDriven) tdoLevel = state == TapState::ShiftIr ? (irShift & 1) != 0 : selected().out();
}

void JtagChain::tckIs(bool tck, bool tms, bool tdi) {
    if (tck == tck_) return;
    tck_ = tck;
    if (tck) {
        ++tckCycles_;
        // Each device's TDI is the TDO that the next one (nearer TDI) has
        // held since the last falling edge; the last one sees the pin.
        for (size_t i = 0; i < devices_.size(); ++i) {
            bool in = i + 1 < devices_.size() ? devices_[i + 1].tdoLevel : tdi;
            devices_[i].rising(tms, in, *this, i);
        }
    } else {
        for (Device& d : devices_) d.falling();
    }
}

bool JtagChain::pinLevel(size_t position, const std::string& port) const {
    bool level;
    if (const BoundaryDevice* self = boundary(position))
        if (self->drives(port, &level)) return level;
    PinRef pin{static_cast<unsigned>(position), port};
    for (const auto& [a, b] : nets_) {
        const PinRef* other = a == pin ? &b : b == pin ? &a : nullptr;
        if (!other || other->position >= devices_.size()) continue;
        if (const BoundaryDevice* d = boundary(other->position))
            if (d->drives(other->port, &level)) return level;
    }
    auto it = pins_.find(pin);
    return it == pins_.end() ? true : it->second;
}

bool JtagChain::tdo() const {
    const Device& d = devices_.front();
    return d.tdoDriven ? d.tdoLevel : true;
}

}  // namespace sim
