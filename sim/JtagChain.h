// An IEEE 1149.1 scan chain as the pins of a board see it: devices in
// series, each with its own TAP controller, an instruction register of
// configurable length that captures ...01, an IDCODE register selected by
// Test-Logic-Reset, and a one-bit BYPASS register for the all-ones
// instruction (and for every code it does not know, as the standard asks).
// The controllers step on rising TCK edges; TDO changes on falling edges.
#pragma once
#include <cstdint>
#include <vector>

#include "jtag/Tap.h"

namespace sim {

struct DeviceDesc {
    uint32_t idcode;
    unsigned irLength;  // 2 to 32
};

// The instruction that selects the IDCODE register on every simulated device.
constexpr uint32_t kIdcodeInstruction = 0x1;

class JtagChain {
  public:
    // Devices in scan order: the one nearest TDO first.
    explicit JtagChain(std::vector<DeviceDesc> devices);

    // The level on TCK now, with TMS and TDI as they are. Only a change of
    // TCK does anything: a rising edge steps every controller, a falling
    // edge updates the instruction and TDO.
    void tckIs(bool tck, bool tms, bool tdi);
    // The level on the chain's TDO: the first device's output in a shift
    // state, otherwise not driven, and the pull-up makes it high.
    bool tdo() const;

    jtag::TapState state() const { return devices_.front().state; }
    // The instruction in force on device i.
    uint32_t instruction(size_t i) const { return devices_[i].instruction; }
    size_t size() const { return devices_.size(); }

  private:
    struct Device {
        DeviceDesc desc;
        jtag::TapState state = jtag::TapState::TestLogicReset;
        uint32_t instruction = kIdcodeInstruction;
        uint32_t irShift = 0;
        uint32_t drShift = 0;
        bool tdoDriven = false;
        bool tdoLevel = true;

        bool idcodeSelected() const { return instruction == kIdcodeInstruction; }
        void rising(bool tms, bool tdi);
        void falling();
    };

    std::vector<Device> devices_;
    bool tck_ = false;
};

}  // namespace sim
