// The kelvorn command: set one JTAG pin of a logic device, or read its TDO,
// once. kelvornMain is the whole program; main() only calls it, so that the
// board simulator can run the same program on a simulated board.
#pragma once

void printUsage();
int kelvornMain(int argc, char** argv);
