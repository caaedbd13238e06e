// libkelvorn: the board the process runs on. Nothing to make before a
// device, nothing to simulate.
#include "libkelvorn/Board.h"

namespace kv {

namespace {
constexpr const char* kNotSimulator = "this is libkelvorn, which drives real boards: load libkelvorn-sim.so.1 to simulate one";
}

bool boardBeforeOpen(const std::string&, std::string*) { return true; }
void boardAfterClose() {}

bool boardConfigure(const char*, std::string* why) {
    *why = kNotSimulator;
    return false;
}

bool boardPins(std::string*, std::string* why) {
    *why = kNotSimulator;
    return false;
}

}  // namespace kv
