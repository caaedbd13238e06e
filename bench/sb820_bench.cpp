// TCK on the SB820 backend over an in-memory resource5, tracing off:
// toggling (one cached byte write, no read) and repeating a level (no
// access at all), against a bare volatile byte store to the same memory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ham/Ham.h"
#include "os/Os.h"
#include "xilinx/XilTrace.h"
#include "xilinx/backends/Sb820Intf.h"

namespace {

alignas(64) volatile U8 resource5[0x200];

// The window gets the buffer; lock files are nameless temporary files, not
// /var/lock; select's settle waits are skipped.
XilIntf* selected() {
    _defaultTraceHandle().levelMaskIs(0);
    Ham::providerIs([](const HamDesc&) -> Ptr<HamImpl> { return new MemoryHamImpl(resource5); });
    // Lock files without a name, so nothing lands in /var/lock or stays behind.
    Os::hooks().creat = [](const char*, mode_t mode) { return ::open("/tmp", O_TMPFILE | O_WRONLY, mode); };
    Os::hooks().usleep = [](unsigned) { return 0; };
    XilIntf* intf = Sb820Factory().newXilIntf(0, 0, 0, 0, 0x14, 0);
    XilIntf_select(intf, "fodak");
    return intf;
}

XilIntf* intf() {
    static XilIntf* selectedIntf = selected();
    return selectedIntf;
}

void BM_Sb820_tckIs_toggle(benchmark::State& state) {
    XilIntf* sb820 = intf();
    int level = 0;
    for (auto _ : state) XilIntf_tckIs(sb820, level ^= 1);
}
BENCHMARK(BM_Sb820_tckIs_toggle);

void BM_Sb820_tckIs_repeat(benchmark::State& state) {
    XilIntf* sb820 = intf();
    XilIntf_tckIs(sb820, 1);
    for (auto _ : state) XilIntf_tckIs(sb820, 1);
}
BENCHMARK(BM_Sb820_tckIs_repeat);

// The floor: one volatile store to TCK's control byte.
void BM_RawVolatileByteStore(benchmark::State& state) {
    volatile U8* control = resource5 + 0x1bd;
    U8 value = 0;
    for (auto _ : state) *control = (value ^= 0x40);
}
BENCHMARK(BM_RawVolatileByteStore);

}  // namespace

BENCHMARK_MAIN();
