// Every backend on the simulated board (sim/Board.h), for the tests and
// benchmarks that compare backends or the two paths through one: a board
// per kind of GPIO block and pin layout, the backend's interface made and
// selected on it, and the per-pin path of any interface.
#pragma once
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "sim/Board.h"
#include "xilinx/XilIntf.h"
#include "xilinx/amd/AmdPlatform.h"

namespace simtest {

// Where TMS and TDI sit, seen from TCK's register.
enum class Others {
    none,      // both in TCK's register
    tms,       // TMS in another register, TDI in TCK's
    apart,     // each in a register of its own
    together,  // both in one other register
};

inline const char* describe(Others o) {
    switch (o) {
        case Others::none: return "TMS, TDI in TCK's register";
        case Others::tms: return "TMS in another register";
        case Others::apart: return "TMS, TDI each in another register";
        case Others::together: return "TMS, TDI in one other register";
    }
    return "";
}

struct Backend {
    const char* name;
    const char* platform;  // the platform word on the kernel command line; "" for none
    unsigned family, model;
    const char* device;
    Others others;
};

inline void PrintTo(const Backend& b, std::ostream* os) { *os << b.name; }

inline const Backend kBackends[] = {
    {"SB820", "mosavo", 0x16, 0x30, "fodak", Others::apart},
    {"Kabini", "gozip", 0x16, 0x05, "fodak", Others::apart},
    {"SteppeEagle", "gozip", 0x16, 0x30, "fodak", Others::apart},
    {"BoardSpecificSoc", "mosavo", 0x15, 0x60, "debusScd", Others::apart},
    {"R1000", "tabukccpu", 0x17, 0x10, "tabukccpuSwitchScd", Others::apart},
    {"V3000", "telub", 0x19, 0x44, "tumarScd", Others::apart},
    {"CaveCreekTwoBanks", "", 0x6, 0x4d, "zetizSwitchScd", Others::together},  // TCK bank 0, TMS and TDI bank 1
    {"CaveCreekOneBank", "", 0x6, 0x4d, "mubarScd", Others::none},
    {"CedarFork", "disal", 0x6, 0x5f, "disalSwitchJtagMuxSel0True", Others::apart},
    {"Pex8600", "", 0x16, 0x30, "rotanSeret", Others::none},
    {"Pex8700Relocated", "", 0x16, 0x30, "nipig2Scd", Others::none},
    {"Pericom", "", 0x16, 0x30, "togif", Others::none},
    {"Gbe", "", 0x16, 0x30, "penetScd", Others::tms},
};

// The entry of kBackends with that name; any other name is the caller's
// mistake, and ends the process.
inline const Backend& backendNamed(const char* name) {
    for (const Backend& b : kBackends)
        if (std::strcmp(b.name, name) == 0) return b;
    std::fprintf(stderr, "no backend %s in kBackends\n", name);
    std::abort();
}

// The per-pin path of another interface: its pin operations, and the base
// class's shift and pinsIs, which drive one pin at a time through them.
struct PerPin : XilIntf {
    explicit PerPin(XilIntf* real) : XilIntf("per_pin_jtag"), real(real) {}
    void tdiIs(bool v) override { real->tdiIs(v); }
    void tmsIs(bool v) override { real->tmsIs(v); }
    void tckIs(bool v) override { real->tckIs(v); }
    bool tdo() override { return real->tdo(); }
    void select(const char* name) override { real->select(name); }
    void cleanup(const char* name) override { real->cleanup(name); }
    void warningIs(bool on) override { real->warningIs(on); }
    XilIntf* real;
};

// A board for the backend, with this chain on its device's pins.
inline sim::BoardConfig boardConfig(const Backend& b, std::vector<sim::DeviceDesc> chain = sim::defaultChain()) {
    sim::BoardConfig config;
    config.platform = b.platform;
    config.family = b.family;
    config.model = b.model;
    config.device = b.device;
    config.chain = std::move(chain);
    return config;
}

// A board wired for a backend, with the chain given, installed; the
// backend's interface made on it (PCI 0000:02:00.0) and selected, what the
// backend prints on stdout meanwhile dropped. The lock directory is the
// board's own and the SoC backend forgets its platform on either side, so
// boards may follow one another in one process; the interface, like every
// interface, is never destroyed.
class SimTarget {
  public:
    // realTimeVcd: a VCD of the pins stamped in ns of the monotonic clock, into that file.
    explicit SimTarget(const Backend& b, std::vector<sim::DeviceDesc> chain = sim::defaultChain(),
                       const std::string& realTimeVcd = "")
        : board(withVcd(boardConfig(b, std::move(chain)), realTimeVcd)), device_(b.device) {
        board.install();
        amd::resetForTests();  // the SoC backend detects its board once per process
        std::fflush(stdout);
        int results = ::dup(1), null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        intf = XilIntf_bySystem(b.device, 0, 0, 0, kBus, 0, 0);
        if (intf) XilIntf_select(intf, b.device);
        std::fflush(stdout);
        ::dup2(results, 1);
        ::close(results);
        ::close(null);
    }
    ~SimTarget() {
        if (intf) XilIntf_cleanup(intf, device_);
        amd::resetForTests();
    }
    SimTarget(const SimTarget&) = delete;
    SimTarget& operator=(const SimTarget&) = delete;

    static constexpr uint8_t kBus = 2;
    static sim::BoardConfig withVcd(sim::BoardConfig c, const std::string& vcd) {
        c.vcd = vcd;
        c.vcdRealTime = !vcd.empty();
        return c;
    }
    sim::Board board;
    XilIntf* intf = nullptr;  // null when no backend serves the device on this board

  private:
    const char* device_;
};

}  // namespace simtest
