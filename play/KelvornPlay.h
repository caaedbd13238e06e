// kelvorn-play: plays an SVF or XSVF file on the JTAG chain of a logic
// device, through the plain-named pin functions. kelvornPlayMain is the
// whole program; main() only calls it, so that the board simulator can run
// the same program on a simulated board.
#pragma once
#include "device/Status.h"

// Exit statuses. The library ends the process with status 1 itself when it
// refuses (lock held by another process, unknown device, unsupported
// board), after its own message; a signal that ends a run (SIGINT, SIGTERM,
// SIGHUP, SIGQUIT) does so after the clean-up, so the shell sees 128 + n.
constexpr int kPlayed = 0;       // played (or checked) to the end, every TDO as expected
constexpr int kUsage = device::kUsage;  // options or arguments not understood, or no PCI address
constexpr int kNoBackend = device::kNoBackend;  // no backend serves the device name on this board
constexpr int kSyntax = 4;       // the file is not valid SVF or XSVF
constexpr int kUnsupported = 5;  // a statement this player cannot carry out, a timing value out of range
constexpr int kMismatch = 6;     // TDO other than expected (also when --ignore-tdo went on)
constexpr int kUnreadable = 7;   // the file cannot be read (or kept), or it changed after its check

int kelvornPlayMain(int argc, char** argv);
