// A stand-in for the shell commands the module runs: the fgrep and grep
// tests of the platform word on the kernel command line. Used by tests and
// by the board simulator in place of system(3).
#pragma once
#include <string>

namespace Os {

// Answers `fgrep -q 'platform=X' /proc/cmdline` and
// `/bin/grep -qE "<pattern>" /proc/cmdline` as the real commands would on
// a machine whose /proc/cmdline is `cmdline`: 0 on a match, 1 otherwise.
// Any other command gives 127 (not found).
int fakeCmdlineShell(const std::string& command, const std::string& cmdline);

}  // namespace Os
