// The exit statuses every tool that drives a device gives for the same
// cause. Each tool numbers its own causes from 4 up (kelvorn-chain,
// kelvorn-play, kelvorn-serve); the kelvorn tool keeps its own numbers.
#pragma once

namespace device {

// The interface refused the board: a lock held by another process, a name
// a backend does not know, a platform or window it cannot use. The backend
// says why and ends the process with this status itself.
constexpr int kRefused = 1;
// The command line is not understood (options, arguments, a PCI address).
constexpr int kUsage = 2;
// No backend serves the device name on this board.
constexpr int kNoBackend = 3;

}  // namespace device
