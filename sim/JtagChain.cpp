#include "sim/JtagChain.h"

#include <cassert>

namespace sim {

using jtag::TapState;

JtagChain::JtagChain(std::vector<DeviceDesc> devices) {
    assert(!devices.empty());
    for (const DeviceDesc& d : devices) {
        assert(d.irLength >= 2 && d.irLength <= 32);
        devices_.push_back(Device{d});
    }
}

void JtagChain::Device::rising(bool tms, bool tdi) {
    unsigned drLength = idcodeSelected() ? 32 : 1;
    switch (state) {
        case TapState::CaptureDr:
            drShift = idcodeSelected() ? desc.idcode : 0;  // BYPASS captures 0
            break;
        case TapState::ShiftDr:
            drShift = (drShift >> 1) | (static_cast<uint32_t>(tdi) << (drLength - 1));
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
    state = jtag::nextState(state, tms);
    if (state == TapState::TestLogicReset) instruction = kIdcodeInstruction;
}

void JtagChain::Device::falling() {
    if (state == TapState::UpdateIr) {
        uint32_t allOnes = desc.irLength == 32 ? 0xffffffffu : (1u << desc.irLength) - 1;
        instruction = irShift & allOnes;
    }
    tdoDriven = state == TapState::ShiftDr || state == TapState::ShiftIr;
    if (tdoDriven) tdoLevel = ((state == TapState::ShiftIr ? irShift : drShift) & 1) != 0;
}

void JtagChain::tckIs(bool tck, bool tms, bool tdi) {
    if (tck == tck_) return;
    tck_ = tck;
    if (tck) {
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
