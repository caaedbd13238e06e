// TCK edges on the PLX PEX 8600 and PEX 8700 backends over an in-memory
// BAR, tracing off, against a bare volatile 32-bit store to the same
// memory. Seven calls in eight make one register write and no read.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "ham/Ham.h"
#include "os/Os.h"
#include "xilinx/XilTrace.h"
#include "xilinx/backends/PlxPex8600Intf.h"
#include "xilinx/backends/PlxPex8700Intf.h"

namespace {

alignas(64) volatile U8 bar8600[0x1000];
alignas(64) volatile U8 bar8700[0x1000];

// Every window gets the buffer of its PCI function (bus 3: PEX 8600, bus 7:
// PEX 8700), and lock files are nameless files in /tmp, not in /var/lock.
void setUpOnce() {
    static bool done = false;
    if (done) return;
    done = true;
    _defaultTraceHandle().levelMaskIs(0);
    Ham::providerIs([](const HamDesc& desc) -> Ptr<HamImpl> {
        bool is8600 = desc.fileName.find("0000:03:00.0") != std::string::npos;
        return new MemoryHamImpl(is8600 ? bar8600 : bar8700);
    });
    Os::hooks().creat = [](const char*, mode_t mode) { return ::open("/tmp", O_TMPFILE | O_WRONLY, mode); };
}

XilIntf* selected(XilIntfFactory&& factory, const char* deviceName, U8 bus) {
    setUpOnce();
    XilIntf* intf = factory.newXilIntf(0, 0, 0, bus, 0, 0);
    XilIntf_select(intf, deviceName);
    return intf;
}

void tckEdges(benchmark::State& state, XilIntf* intf) {
    int level = 0;
    for (auto _ : state) XilIntf_tckIs(intf, level ^= 1);
}

void BM_Pex8600_tckIs(benchmark::State& state) {
    static XilIntf* intf = selected(PlxPex8600Factory(), "rotanSeret", 3);
    tckEdges(state, intf);
}
BENCHMARK(BM_Pex8600_tckIs);

void BM_Pex8700_tckIs(benchmark::State& state) {
    static XilIntf* intf = selected(PlxPex8700Factory(), "tilegScd", 7);
    tckEdges(state, intf);
}
BENCHMARK(BM_Pex8700_tckIs);

// The floor: one volatile store to the PEX 8600 output-data register.
void BM_RawVolatileStore(benchmark::State& state) {
    volatile U32* reg = reinterpret_cast<volatile U32*>(bar8600 + 0x644);
    U32 value = 0;
    for (auto _ : state) *reg = (value ^= 0x8000);
}
BENCHMARK(BM_RawVolatileStore);

}  // namespace

BENCHMARK_MAIN();
