// Inside the SoC GPIO backend: which board platform this is (the
// "platform=" word of the kernel command line), which AMD SoC the processor
// is (CPUID family and model), and the FCH GPIO register window at physical
// 0xFED80000. Detection runs once per process, on the first pin validation;
// every failure on the way ends the process with a line on stdout.
//
// Not part of the library's interface: only the backend and its tests use it.
#pragma once
#include "Types.h"

#pragma GCC visibility push(hidden)

namespace amd {

// The SoC kinds whose GPIO block the backend knows; each has its own pin
// operations and window length.
enum class SocKind { none, kabini, steppeEagle, mosavo, r1000, v3000 };

// True when the kernel command line holds "platform=<name>" (a substring
// match, so "maful" also matches "platform=mafulprime").
bool isPlatform(const char* name);

// The platform class bit of the board (0x01 ... 0x20). The first call
// detects the platform and the SoC, fixes the pin operations and maps the
// window, or ends the process; later calls return at once.
int validatePlatform();

// Prints the formatted message on stdout and ends the process with status 1.
[[noreturn]] void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Tests only: forgets the platform, the window, the pin operations and the
// validated pins, so that the next validation detects again.
void resetForTests();

}  // namespace amd

#pragma GCC visibility pop
