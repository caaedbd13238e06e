// The states of the IEEE 1149.1 TAP controller and its moves between them:
// what the file readers and the Tap share, apart from the pins.
#pragma once
#include <cstdint>

#include "jtag/BitVector.h"

namespace jtag {

// The sixteen states of the IEEE 1149.1 TAP controller.
enum class TapState : uint8_t {
    TestLogicReset,
    RunTestIdle,
    SelectDrScan,
    CaptureDr,
    ShiftDr,
    Exit1Dr,
    PauseDr,
    Exit2Dr,
    UpdateDr,
    SelectIrScan,
    CaptureIr,
    ShiftIr,
    Exit1Ir,
    PauseIr,
    Exit2Ir,
    UpdateIr,
};

// The state a TAP controller in state s enters on a rising TCK edge with TMS at tms.
TapState nextState(TapState s, bool tms);
// The standard's name of a state: "Test-Logic-Reset", "Shift-DR", ...
const char* stateName(TapState s);

// The state after TMS bits from state s (bit i is the TMS of cycle i).
TapState walk(TapState s, const BitVector& tms);

}  // namespace jtag
