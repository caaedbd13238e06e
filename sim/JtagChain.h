// An IEEE 1149.1 scan chain as the pins of a board see it: devices in
// series, each with its own TAP controller, an instruction register of
// configurable length that captures ...01, an IDCODE register selected by
// Test-Logic-Reset, a one-bit BYPASS register for the all-ones instruction
// (and for every code it does not know, as the standard asks), a test
// loop-back register, and, on a programmable device, the registers of its
// memory (sim/ProgDevice.h has the instruction codes).
// The controllers step on rising TCK edges; TDO changes on falling edges.
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/TapState.h"
#include "sim/BoundaryDevice.h"
#include "sim/ProgDevice.h"

namespace sim {

// A device's IDCODE when it has no identification register: Test-Logic-Reset
// then selects BYPASS.
constexpr uint32_t kNoIdcode = 0;

struct DeviceDesc {
    uint32_t idcode;  // kNoIdcode: none
    unsigned irLength;  // 2 to 32; at least kProgIrMinLength with memory
    MemoryDesc memory = {};
    // A device described by a BSDL file (its IDCODE and IR length are the
    // file's): the test logic of sim/BoundaryDevice.h, no memory.
    BoundaryDesc boundary = {};
};

// A pin of a BSDL device on the chain: its position and its port ("NAME"
// or "NAME(i)"), as the options write it: POS.PORT.
struct PinRef {
    unsigned position = 0;
    std::string port;
    bool operator<(const PinRef& o) const;
    bool operator==(const PinRef& o) const;
};

// The level of a pin that toggles every periodMs milliseconds (--pin
// POS.PORT=wave:MS), elapsedMs after the simulator started: 0 first.
inline bool waveLevel(uint64_t elapsedMs, uint32_t periodMs) { return (elapsedMs / periodMs) % 2 != 0; }

// How the pins of BSDL devices are wired, as the options give it (the model
// is in docs/simulator.md). A net joins pins; a short makes several nets
// one node; an open pin is cut from its net.
struct WireNet {
    std::string name;  // the netlist's, or "POS.PORT" of the first pin
    std::vector<PinRef> pins;
    int pull = -1;   // level with no driver enabled: 1 up, 0 down; -1 not given (up)
    int stuck = -1;  // the level the net reads whatever drives it; -1 none
};
struct WireShort {
    enum class Kind { wiredAnd, wiredOr, dominant };
    std::vector<size_t> nets;  // indices into Wires::nets
    Kind kind = Kind::wiredAnd;
    size_t dominant = 0;  // Kind::dominant: the net whose drivers decide when one is enabled
};
struct Wires {
    std::vector<WireNet> nets;
    std::vector<WireShort> shorts;
    std::vector<PinRef> open;
    // The net holding a pin; -1 none.
    int netOf(const PinRef& pin) const;
    // The net of that name (without case); -1 none.
    int named(const std::string& name) const;
    // One net holding both pins: a new one, the other joining one's net, or
    // two nets merged (under the first one's name).
    void join(const PinRef& a, const PinRef& b);
};

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
    // The memory of device i; null for a device without one.
    const ProgDevice* programmable(size_t i) const {
        return devices_[i].prog ? &*devices_[i].prog : nullptr;
    }
    // The first device with memory, nearest TDO first; null when none has one.
    const ProgDevice* firstProgrammable() const;
    // Rising TCK edges so far.
    uint64_t tckCycles() const { return tckCycles_; }

    // The levels of BSDL devices' input pins that nothing on the chain
    // drives (default 1: a pull-up), and how their pins are wired. Pins not
    // of a BSDL device on the chain are left out.
    void pinsAre(const std::map<PinRef, bool>& levels);
    // Input pins that nothing drives and that toggle instead, each every so
    // many milliseconds of the monotonic clock since the chain was made
    // (waveLevel). Such a pin on a net gives the net its level when no
    // driver on it is enabled, in place of the pull. A pin here and in
    // pinsAre's levels toggles.
    void wavesAre(const std::map<PinRef, uint32_t>& periods);
    // Test-only: the milliseconds since the start that toggling pins read,
    // from now on instead of the clock.
    void timeIs(uint64_t elapsedMs);
    void wiresAre(const Wires& wires);
    // Nets of two pins each.
    void netsAre(const std::vector<std::pair<PinRef, PinRef>>& nets);
    // The level on a BSDL device's pin now (slow: by name; reads the clock).
    bool pinLevel(size_t position, const std::string& port) const;
    // Update-DR and Update-IR edges after which some node had enabled
    // drivers at both levels.
    uint64_t contention() const { return contention_; }
    // The BSDL device at a position; null for another kind.
    const BoundaryDevice* boundary(size_t i) const { return devices_[i].bsd ? &*devices_[i].bsd : nullptr; }

  private:
    // A shift register of any length that shifts in constant time: a ring
    // whose bit i (bit 0 leaves on TDO first) is at (head + i) % size.
    class ShiftRegister {
      public:
        // The storage, to fill with the new content (bit 0 first).
        jtag::BitVector& reload() {
            head_ = 0;
            return bits_;
        }
        bool out() const { return bits_[head_]; }
        void shift(bool in) {
            bits_.set(head_, in);
            if (++head_ == bits_.size()) head_ = 0;
        }
        jtag::BitVector contents() const;

      private:
        jtag::BitVector bits_;
        size_t head_ = 0;
    };

    struct Device {
        DeviceDesc desc;
        std::optional<ProgDevice> prog;
        std::optional<BoundaryDevice> bsd;
        jtag::TapState state = jtag::TapState::TestLogicReset;
        uint32_t instruction = kIdcodeInstruction;
        uint32_t irShift = 0;
        ShiftRegister dr;        // the register of the current DR scan
        ShiftRegister loopback;  // kept from scan to scan
        bool tdoDriven = false;
        bool tdoLevel = true;

        explicit Device(const DeviceDesc& d);
        ShiftRegister& selected() { return !bsd && instruction == kLoopbackInstruction ? loopback : dr; }
        bool memorySelected() const { return prog && prog->registerLength(instruction) > 0; }
        void capture(const JtagChain& chain, size_t position);
        void rising(bool tms, bool tdi, const JtagChain& chain, size_t position);
        bool falling();
        void reset();
    };

    // A boundary-scan port of a BSDL device: its output cell and where the
    // wiring puts it.
    struct Pin {
        unsigned position = 0;
        int outCell = -1;  // the cell that drives it; -1 an input only
        int node = -1;     // -1: on no net (or cut from it)
        bool idle = true;  // the level read when it is on no net and does not drive (--pin)
        uint32_t wave = 0;  // not 0: idle toggles every this many ms instead (--pin POS.PORT=wave:MS)
    };
    // Nets joined by a short (or one net alone): what its pins read.
    struct Node {
        WireShort::Kind kind = WireShort::Kind::wiredAnd;
        std::vector<int> drivers;   // pins with an output cell; Kind::dominant: those of the other nets
        std::vector<int> dominant;  // Kind::dominant: the deciding net's
        int stuck = -1;
        bool pull = true;
        uint32_t wave = 0;  // not 0: undriven, it reads a toggling pin on it instead of the pull
    };

    bool drives(const Pin& p, bool* level) const;
    // The resolution of the enabled drivers in a list; -1 when none is.
    int resolve(const std::vector<int>& drivers, bool wiredOr) const;
    bool levelOf(int pin) const;
    // Milliseconds since the start: the clock's, or timeIs's.
    uint64_t elapsedMs() const;
    bool fight(const Node& n) const;
    void rebuild();

    std::vector<Device> devices_;
    std::map<PinRef, bool> levels_;
    std::map<PinRef, uint32_t> waves_;
    Wires wires_;
    std::vector<Pin> pins_;
    std::vector<std::vector<int>> cellPins_;  // per position, by cell number: the pin of an input cell's port; -1
    std::vector<Node> nodes_;
    std::vector<int> fightNodes_;  // nodes with two drivers or more
    bool tck_ = false;
    // What toggling pins read: the elapsed time at the last capture (one
    // clock read per Capture-DR, none when no pin toggles).
    bool anyWave_ = false;
    uint64_t startNs_ = 0;
    int64_t fixedMs_ = -1;  // timeIs; -1 the clock
    mutable uint64_t nowMs_ = 0;
    uint64_t tckCycles_ = 0, contention_ = 0;
};

}  // namespace sim
