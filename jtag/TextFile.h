// A description file (BSDL, netlist) read whole, as its reader parses it.
#pragma once
#include <cstddef>
#include <string>

namespace jtag {

// The bytes of path, or false with *why ("cannot read: REASON", or
// "larger than N MiB: not WHAT"): a file past maxBytes is not what the
// caller reads, and is refused before it fills the memory.
bool readText(const std::string& path, size_t maxBytes, const char* what, std::string* text, std::string* why);

}  // namespace jtag
