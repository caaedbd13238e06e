#include "sim/JtagChain.h"

#include <cassert>

namespace sim {

using jtag::BitVector;
using jtag::TapState;

namespace {

constexpr unsigned kIdcodeBits = 32;

}  // namespace

BitVector JtagChain::ShiftRegister::contents() const {
    BitVector v;
    v.append(bits_, head_);
    v.append(bits_, 0, head_);
    return v;
}

JtagChain::Device::Device(const DeviceDesc& d) : desc(d) {
    assert(d.irLength >= 2 && d.irLength <= 32);
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

void JtagChain::Device::capture() {
    if (instruction == kLoopbackInstruction) return;  // keeps what the last scan left
    BitVector& bits = dr.reload();
    if (instruction == kIdcodeInstruction && desc.idcode != kNoIdcode)
        bits = BitVector::fromValue(desc.idcode, kIdcodeBits);
    else if (memorySelected())
        prog->capture(instruction, &bits);
    else
        bits.assign(1, false);  // BYPASS captures 0
}

void JtagChain::Device::rising(bool tms, bool tdi) {
    switch (state) {
        case TapState::CaptureDr:
            capture();
            break;
        case TapState::ShiftDr:
            selected().shift(tdi);
            break;
        case TapState::CaptureIr:
            irShift = 0x1;  // ...01, as the standard fixes the two low bits
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
    if (state == TapState::TestLogicReset) instruction = kIdcodeInstruction;
}

void JtagChain::Device::falling() {
    if (state == TapState::UpdateIr) {
        uint32_t allOnes = desc.irLength == 32 ? 0xffffffffu : (1u << desc.irLength) - 1;
        instruction = irShift & allOnes;
        if (prog) prog->instructionIs(instruction);
    }
    if (state == TapState::UpdateDr && memorySelected()) prog->update(instruction, dr.contents());
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
            devices_[i].rising(tms, in);
        }
    } else {
        for (Device& d : devices_) d.falling();
    }
}

bool JtagChain::tdo() const {
    const Device& d = devices_.front();
    return d.tdoDriven ? d.tdoLevel : true;
}

}  // namespace sim
