// libkelvorn-sim: the simulated board behind every device. It is made from
// the options kv_sim_configure gave (else KELVORN_SIM's, else the
// defaults) when the first device opens, with its chain hung on that
// device's pins, and ends, writing its records, when the last one closes.
// Calls come in one at a time (the library's lock).
#include <cstdlib>
#include <memory>
#include <optional>

#include "libkelvorn/Board.h"
#include "sim/Board.h"
#include "sim/BoardOptions.h"

namespace kv {

namespace {

struct Simulation {
    std::optional<std::string> options;  // kv_sim_configure's, for the next board
    std::unique_ptr<sim::Board> board;
    std::string device;  // whose pins the chain hangs on
    unsigned open = 0;   // devices made on the board
};

Simulation& simulation() {
    static Simulation* s = new Simulation;  // lives through exit(), where devices are still closed
    return *s;
}

}  // namespace

bool boardBeforeOpen(const std::string& fpga, std::string* why) {
    Simulation& s = simulation();
    if (s.board) {
        if (fpga != s.device) {
            *why = "the simulated board hangs its chain on " + s.device + ", which is open: close it before opening " + fpga;
            return false;
        }
        ++s.open;
        return true;
    }
    std::string options;
    if (s.options)
        options = *s.options;
    else if (const char* env = std::getenv("KELVORN_SIM"))
        options = env;
    sim::BoardConfig config;
    std::string error = sim::parseBoardOptions(options, &config);
    if (!error.empty()) {
        *why = "simulated board: " + error;
        return false;
    }
    config.device = fpga;
    s.board = std::make_unique<sim::Board>(std::move(config));
    s.board->install();
    s.device = fpga;
    s.open = 1;
    return true;
}

void boardAfterClose() {
    Simulation& s = simulation();
    if (s.open && --s.open == 0) s.board.reset();  // finishes: the records are written, the real hooks back
}

bool boardConfigure(const char* options, std::string* why) {
    sim::BoardConfig config;
    std::string error = sim::parseBoardOptions(options ? options : "", &config);
    if (!error.empty()) {
        *why = error;
        return false;
    }
    simulation().options = options ? options : "";
    return true;
}

bool boardPins(std::string* text, std::string* why) {
    Simulation& s = simulation();
    if (!s.board) {
        *why = "no simulated board: no device is open";
        return false;
    }
    *text = s.board->pins();
    return true;
}

}  // namespace kv
