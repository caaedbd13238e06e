// Cost of one TCK change through the plain-named function on the GbE
// backend (one register write from the cached CTRL) and on the Pericom
// backend (read-modify-write), against a bare volatile 32-bit store to the
// same kind of memory. The windows are plain buffers; tracing is off and
// the lock files have no name.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <map>
#include <string>
#include <vector>

#include "os/Os.h"
#include "xilinx/XilTrace.h"
#include "xilinx/backends/IntelGbeControllerIntf.h"
#include "xilinx/backends/PericomGen3Intf.h"

namespace {

struct Setup {
    Setup() {
        // Lock files without a name, so nothing lands in /var/lock or stays behind.
        Os::hooks().creat = [](const char*, mode_t mode) { return ::open("/tmp", O_TMPFILE | O_WRONLY, mode); };
        Ham::providerIs([this](const HamDesc& desc) -> Ptr<HamImpl> {
            std::vector<U8>& mem = windows[desc.fileName];
            mem.resize(0x100000);
            return new MemoryHamImpl(mem.data());
        });
        _defaultTraceHandle().levelMaskIs(0);
        gbe = IntelGbeControllerFactory().newXilIntf(0, 0, 0, 3, 0, 0);
        XilIntf_select(gbe, "penetScd");
        pericom = PericomGen3Factory().newXilIntf(0, 0, 0, 5, 0, 0);
        XilIntf_select(pericom, "togif");
    }
    ~Setup() {
        Ham::providerIs(nullptr);
        Os::resetHooks();
    }

    std::map<std::string, std::vector<U8>> windows;
    XilIntf* gbe;
    XilIntf* pericom;
};

Setup& setup() {
    static Setup s;
    return s;
}

void tckToggle(benchmark::State& state, XilIntf* intf) {
    int level = 0;
    for (auto _ : state) {
        XilIntf_tckIs(intf, level);
        level ^= 1;
    }
}

void BM_GbeTckIs(benchmark::State& state) { tckToggle(state, setup().gbe); }
void BM_PericomTckIs(benchmark::State& state) { tckToggle(state, setup().pericom); }

void BM_RawVolatileStore(benchmark::State& state) {
    alignas(4) static U8 mem[0x40];
    volatile U32* reg = reinterpret_cast<volatile U32*>(mem);
    U32 value = 0x81c80241;
    for (auto _ : state) {
        *reg = value;
        value ^= 1u << 18;
    }
}

}  // namespace

BENCHMARK(BM_GbeTckIs);
BENCHMARK(BM_PericomTckIs);
BENCHMARK(BM_RawVolatileStore);

BENCHMARK_MAIN();
