// A simulated board for the production code: a platform word on the kernel
// command line, a processor, and a JTAG chain that hangs on the pins the
// selected device's wiring names. Installed, it stands behind every
// register window (Ham::providerIs) and every OS call (Os::hooks) of the
// process: every chip kind exists at every PCI address, nothing reaches
// this machine's memory, I/O ports, lock directory or kernel command line.
#pragma once
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/ChipModel.h"
#include "sim/JtagChain.h"
#include "sim/Vcd.h"
#include "sim/Wiring.h"

namespace sim {

// Two devices: a CPLD-sized one nearest TDO, an FPGA-sized one behind it.
std::vector<DeviceDesc> defaultChain();

// What the Cave Creek LPC function's configuration register 0x48 holds:
// the GPIO base 0x580 with the I/O-space bit.
constexpr U32 kCaveCreekGpioBaseRegister = 0x00000581;
// The PEX 8700 register at 0x354: block 3 in bits 4-0, above them bits the
// GPIO code must mask off.
constexpr U32 kPex8700BlockRegister = 0x00000063;

struct BoardConfig {
    std::string platform;  // empty: no platform word on the command line
    unsigned family = 0x16, model = 0x30;
    std::vector<DeviceDesc> chain = defaultChain();
    std::string device;        // whose wiring the chain hangs on
    unsigned holdSeconds = 0;  // replaces the tool's ten-second hold
    bool showWrites = false;   // every register write on stderr, with what it did to the pins
    std::string vcd;           // the pins and the TAP state as a Value Change Dump into this file (sim/Vcd.h)
    bool vcdRealTime = false;  // its time: ns on the monotonic clock since the first sample, not accesses
    // BSDL devices' input pins that nothing drives (default 1), those that
    // toggle every so many ms instead (JtagChain::wavesAre), and how their
    // pins are wired.
    std::map<PinRef, bool> pins;
    std::map<PinRef, uint32_t> waves;
    Wires wires;
    // TDO as the chip sees it: -1 the chain's, 0 or 1 stuck there (no chain, or a broken one).
    int tdoStuck = -1;
    // What the run leaves when it ends (Board::finish):
    std::string dumpMemory;  // the memory of the first programmable device, into this file
    // What BSDL devices' boundary registers last drove onto their pins under
    // EXTEST, one line per driven pin: "POS.PORT LEVEL".
    std::string dumpPins;
    bool stats = false;      // "sim stats: reads R writes W tck-cycles C contention N" on stderr
    // Test-only: a change to the device's wiring (a swapped pin) before the
    // chain is hung on it.
    std::function<void(Wiring&)> rewire;
};

class Board {
  public:
    explicit Board(BoardConfig config);
    ~Board();  // finishes, puts the real hooks and windows back
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    void install();
    // Once, when the run ends: closes the VCD file, writes the memory dump
    // and the stats line. The destructor calls it, and so do exit() and
    // SIGINT, SIGTERM, SIGHUP and SIGQUIT while the board is installed (the
    // signals after any clean-up of the tool's own, between two register
    // accesses), so a run that the module or a signal ends leaves the same
    // records as one that returns. False when a record could not be
    // written (after one line on stderr naming the file and why), also when
    // the VCD file could not be opened; a later call says the same.
    bool finish();

    const BoardConfig& config() const { return config_; }
    std::string cmdline() const;
    JtagChain& chain() { return chain_; }
    // Register accesses of the wired chip so far.
    uint64_t reads() const { return reads_; }
    uint64_t writes() const { return writes_; }
    // The chip the chain hangs on, once a window of the wired chip kind has
    // been opened; null before.
    ChipModel* wiredChip() const { return wired_.ptr(); }
    // The wired pins as the chip sets them: "TCK=0 TDI=z ... GPIO60=1" (z:
    // not driven; TDO: the level read). Empty while nothing is wired.
    std::string pins() const;
    // The model behind a window, made on first request (what the window
    // provider hands out).
    Ptr<ChipModel> modelFor(const HamDesc& desc);

  private:
    struct Signal {
        std::string label;
        U32 pin;
        int level;  // route pins: the level they must be driven to
    };
    struct Snapshot {
        std::vector<std::string> states;
        jtag::TapState tap;
    };

    void attach(const Ptr<ChipModel>& model, Chip chip);
    void settle();
    void accessed(ChipModel& model, const ChipModel::Access& a);
    void recordVcd();
    bool writeMemoryDump() const;
    bool writePinDump() const;
    std::vector<const Signal*> signals() const;
    Snapshot snapshot() const;
    FILE* openConfig(const char* path, const char* mode);

    BoardConfig config_;
    JtagChain chain_;
    std::map<std::string, Ptr<ChipModel>> models_;
    Ptr<ChipModel> wired_;
    Signal tck_, tdi_, tms_, tdo_;
    std::vector<Signal> route_;
    Snapshot last_;
    uint64_t reads_ = 0, writes_ = 0;
    std::unique_ptr<VcdWriter> vcd_;
    uint64_t vcdStartNs_ = 0;  // real time: the monotonic clock at the first sample
    bool finished_ = false;
    bool written_ = true;  // every record written (finish)
    std::map<std::string, int> locks_;  // lock name -> its nameless file
    unsigned char configSpace_[256] = {};  // every PCI function's configuration space
};

}  // namespace sim
