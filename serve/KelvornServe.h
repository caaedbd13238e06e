// kelvorn-serve: serves the JTAG pins of one logic device on the board to
// one network client at a time, over remote_bitbang (OpenOCD's
// remote_bitbang driver) or XVC 1.0 (a vendor hardware manager, or any XVC
// client).
//
// The interface is built at start, so the device's lock is held for the
// server's life; the device is selected when a client connects and its
// pins go back to inputs when the client goes. A second client while one
// is served is closed at once. SIGINT, SIGTERM and SIGHUP end the server
// cleanly (exit status 0): the client being served, if any, is dropped and
// the pins are cleaned up first. A signal the process was started to
// ignore (nohup) stays ignored. Started by systemd's socket activation, it
// serves on the listening socket handed over (--listen aside); the units
// are serve/systemd/kelvorn-serve@.{socket,service}.
//
// kelvornServeMain is the whole program; main() only calls it, and the
// board simulator parses the same options to know which device to wire.
#pragma once
#include <cstdint>
#include <string>

#include "device/PciAddress.h"
#include "device/Status.h"
#include "serve/Xvc.h"

namespace serve {

struct Options {
    std::string fpga;
    std::string pciAddress;
    device::PciAddress at;
    std::string protocol = "remote-bitbang";  // or "xvc"
    std::string host = "127.0.0.1";          // to listen on
    std::string port;                         // empty: the protocol's usual port
    bool testMode = false;
    uint32_t maxVector = Xvc::kDefaultMaxVector;
    bool once = false;
    // How long a client may stop in the middle of a command, or leave the
    // answers unread, before it is dropped.
    unsigned stallSeconds = 10;
    // A ceiling on TCK for every client, in Hz, held on every edge; 0: none.
    double frequency = 0;
    // That ceiling as a period in ns (0: none, or past any pin).
    uint32_t ceilingNs() const;
};

// Exit statuses.
constexpr int kServeStopped = 0;  // by a signal, or --once served its client
// 1: the interface refused (lock held by another process, unknown device,
// unsupported board); the module ends the process itself.
constexpr int kServeUsage = device::kUsage;            // the command line is not understood
constexpr int kServeNoInterface = device::kNoBackend;  // no backend serves the name on this board
constexpr int kServeCannotListen = 4;                  // the address cannot be listened on

// The command line (argv[0] the program's name) into *options; false when
// the program ends here, with *status its exit status (--help: 0).
bool parseOptions(int argc, char** argv, Options* options, int* status);
// Runs the server until a signal (or the --once client) ends it.
int run(const Options& options);

}  // namespace serve

int kelvornServeMain(int argc, char** argv);
