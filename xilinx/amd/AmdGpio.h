// Inside the SoC GPIO backend: the pin operations of each SoC kind on the
// FCH GPIO window, the pin tables, and the check of every GPIO number
// against the board's platform class.
//
// GPIO 0xFF is "no pin": every operation returns at once for it (reading
// operations give false) without validating or touching a register.
//
// Not part of the library's interface: only the backend and its tests use it.
#pragma once
#include "Types.h"
#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/amd/AmdPlatform.h"

#pragma GCC visibility push(hidden)

namespace amd {

constexpr U8 kNoPin = 0xFF;

using GetBitFn = bool (*)(U8 gpio);
using SetBitFn = void (*)(U8 gpio, bool level);
using PinFn = void (*)(U8 gpio);
using ShiftFn = void (*)(Hal::VectorPins& pins, Hal::VectorControl& control, U32 nbits, const U8* tms, const U8* tdi,
                         U8* tdo);
using PinsFn = void (*)(Hal::VectorPins& pins, Hal::VectorControl& control, bool tck, bool tms, bool tdi);

// The five operations of one SoC kind, on one kind of window access.
struct Family {
    GetBitFn getBit;          // the level on the pin
    SetBitFn setBit;          // drive the output level
    PinFn setInput;           // route the pad to GPIO, output driver off
    PinFn setOutput;          // route the pad to GPIO, output driver on
    GetBitFn directionInput;  // true when the output driver is off
    ShiftFn shift;            // the vector path on this kind's registers
    PinsFn pins;
};

// The family of a SoC kind: plain loads and stores on the mapped window, or
// calls into the implementation that stands in for the window. SocKind::none
// gives null operations.
const Family& family(SocKind kind, bool substituted);

// The active operation set, fixed with the window by useSoc.
extern GetBitFn getBitFn;
extern SetBitFn setBitFn;
extern PinFn setInputFn;
extern PinFn setOutputFn;
extern ShiftFn shiftFn;
extern PinsFn pinsFn;

// Places TCK, TMS, TDI and TDO (validated GPIOs, or kNoPin) in the active
// SoC's registers for the vector path; no access.
void vectorPinsOf(U8 tck, U8 tms, U8 tdi, U8 tdo, Hal::VectorPins* pins);

// Makes kind the active SoC on its window: either the mapping of /dev/mem
// or, when a provider stands in for it, that implementation. Called once
// by validatePlatform (and by resetForTests with SocKind::none). Forgets
// every validated pin.
void useSoc(SocKind kind, volatile U8* mapped, Ptr<HamImpl> substituted);

// Returns when the number may be used on the board's platform class (any
// pin table allowing it), otherwise ends the process with "Unsupported
// gpio <n>". The first call detects the platform and maps the window.
// Numbers that the active SoC can also drive are remembered; a number that
// only another SoC's table has is not, so the pin operations refuse it.
void validateGpio(U8 gpio);

// Tests only: whether the number has passed and may be driven.
bool validated(U8 gpio);

}  // namespace amd

#pragma GCC visibility pop
