// How the simulated boards wire each logic device's JTAG port: which chip
// carries it and which of its pins (GPIO, pad or SDP number) carry TCK,
// TDI, TMS and TDO, plus the pins that must be driven for the port to be
// reachable at all (JTAG multiplexer selects, buffer enables). A device
// that an SB820 or the SoC's own GPIO reaches, depending on the board, has
// one wiring for each.
#pragma once
#include <map>
#include <string>
#include <vector>

#include "Types.h"
#include "sim/ChipModel.h"

namespace sim {

enum class Chip { sb820, fchGpio, caveCreek, cedarFork, plxPex8600, plxPex8700, pericomGen3, intelGbe };
const char* chipName(Chip chip);

constexpr int kAnyLevel = -1;

struct RoutePin {
    U32 pin;
    int level;  // 0, 1, or kAnyLevel: driven at all
};

struct Wiring {
    Chip chip;
    U32 tck, tdi, tms, tdo;
    std::vector<RoutePin> route;
};

// The wirings of a device name; empty for a name no board knows.
std::vector<Wiring> wiringsOf(const std::string& device);

// The SoC's GPIO layout for a processor, and the pad that carries each
// board GPIO number with the IOMUX value that routes the pad to GPIO (the
// byte-wide layout has no table: the pad is the GPIO number).
struct FchPads {
    bool known = false;  // false: the processor has no FCH GPIO block we know
    FchLayout layout = FchLayout::wide;
    std::map<U32, std::pair<U32, U8>> pads;  // board GPIO -> pad, GPIO function
};
FchPads fchPadsOf(unsigned family, unsigned model);
// Pad -> GPIO function, as the model of that SoC needs it.
std::map<U32, U8> gpioFunctions(const FchPads& pads);
// Replaces the board GPIO numbers of an FCH wiring by pads; false when one
// of them has no pad on this SoC.
bool resolveFch(Wiring& wiring, const FchPads& pads);

}  // namespace sim
