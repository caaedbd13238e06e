// kelvorn-chain: bring-up of a JTAG chain on the board. Without a command
// it finds the devices on the chain, their IDCODEs, instruction register
// lengths, makers and (from their BSDL files) parts; the commands read a
// device's pins (sample, watch), drive them (drive), test a net between two
// devices (connect) and read a USERCODE (usercode), through the device's
// boundary register as its BSDL file describes it.
//
// kelvornChainMain is the whole program; main() only calls it, and the
// board simulator runs it on a simulated board.
#pragma once
#include <string>
#include <vector>

#include "device/Status.h"
#include "jtag/Commands.h"

// Exit statuses: the chain commands' (jtag/Commands.h).
using jtag::kChainOk;
// 1: the interface refused (lock held by another process, unknown device,
// unsupported board); the module ends the process itself.
using jtag::kChainUsage;         // the command line is not understood
using jtag::kChainNoBackend;     // no backend serves the name on this board
using jtag::kChainDead;          // a dead or inconsistent chain
using jtag::kChainBadBsdl;       // a BSDL file cannot be read, or none describes what a command needs
using jtag::kChainDriveRefused;  // a drive refused (no output cell, or not allowed)
using jtag::kChainNotConnected;  // connect: the net is not connected
using jtag::kChainFaultFound;    // test: a net failed
using jtag::kChainBadNetlist;    // test: the netlist cannot be read or does not fit the chain
static_assert(kChainUsage == device::kUsage && kChainNoBackend == device::kNoBackend,
              "the causes every tool shares have one status in all of them");

int kelvornChainMain(int argc, char** argv);

// The device name among kelvorn-chain's arguments (without the program's
// name), as it parses them; empty when they do not parse.
std::string kelvornChainDevice(const std::vector<std::string>& args);
