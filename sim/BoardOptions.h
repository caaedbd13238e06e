// The simulated board's options, as kelvorn-sim takes them on its command
// line and libkelvorn-sim in one string: the platform, the processor, the
// chain and its pins and nets, what the run records.
#pragma once
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "sim/Board.h"

namespace sim {

// The options' values; config holds the board once finishBoardOptions has run.
struct BoardOptions {
    BoardOptions();
    BoardConfig config;
    std::string cpu = "0x16:0x30";
    std::string chain;
    std::string vcdTime = "access";
    std::string tdo = "chain";
    std::vector<std::string> pins, nets;
    std::string netlist;
    std::vector<std::string> parts, opens, shorts, stucks, pulls;
};

// --platform, --cpu, --chain, --hold, --show-writes, --vcd, --vcd-time,
// --dump-memory, --stats, --pin, --net, --netlist, --part, --open, --short,
// --stuck, --pull, --dump-pins, --tdo.
void addBoardOptions(CLI::App& app, BoardOptions* o);
// After the parse: what the options say together, into o->config; throws
// CLI::ValidationError naming the option that is wrong.
void finishBoardOptions(BoardOptions* o);
// The options in one string, split as a shell splits words (quotes
// group): "" with *config set, or what is wrong.
std::string parseBoardOptions(const std::string& text, BoardConfig* config);

}  // namespace sim
