// What stands behind libkelvorn's devices: the real board (Hardware.cpp, in
// libkelvorn) or the simulated one (Simulated.cpp, in libkelvorn-sim). The
// rest of the library is the same object code in both.
#pragma once
#include <cstddef>
#include <string>

namespace kv {

// Before a device named fpga is made: false, with why, when it cannot be.
// The simulated board is made (and installed) by the first open.
bool boardBeforeOpen(const std::string& fpga, std::string* why);
// After a device made since boardBeforeOpen is gone, or its making failed.
void boardAfterClose();
// kv_sim_configure and kv_sim_pins: false with why when they cannot.
bool boardConfigure(const char* options, std::string* why);
bool boardPins(std::string* text, std::string* why);

}  // namespace kv
