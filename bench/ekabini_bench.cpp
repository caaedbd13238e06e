// TCK edges on the SoC GPIO backend (an R1000 on a "tabukccpu" board) over
// an in-memory FCH window handed out as the /dev/mem mapping, so the
// production instantiation runs: plain volatile accesses on the mapping.
// Against it: a bare volatile store to the same control register, and the
// volatile read-modify-write that setting one bit of it takes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "os/FakeShell.h"
#include "os/Os.h"
#include "xilinx/XilTrace.h"
#include "xilinx/amd/EkabiniIntf.h"

namespace {

alignas(4096) volatile U8 fchWindow[0x2000];
constexpr U32 kTckControl = 0x16D0;  // R1000 pad 116
constexpr int kDevMemFd = 1000;

// The shell sees a "tabukccpu" board, CPUID an R1000 (family 0x17, model
// 0x18), /dev/mem maps onto the buffer, and lock files are nameless
// temporary files, not /var/lock. No window provider is installed.
void setUpOnce() {
    static bool done = false;
    if (done) return;
    done = true;
    _defaultTraceHandle().levelMaskIs(0);
    Os::Hooks& h = Os::hooks();
    h.system = [](const char* command) { return Os::fakeCmdlineShell(command, "console=ttyS0 platform=tabukccpu") << 8; };
    h.cpuid = [](U32 leaf) {
        Os::Cpuid r;
        r.eax = leaf == 0 ? 1 : (0x17 - 0xF) << 20 | 0x1 << 16 | 0xF << 8 | 0x8 << 4;
        return r;
    };
    h.open = [](const char* path, int) { return std::strcmp(path, "/dev/mem") == 0 ? kDevMemFd : -1; };
    h.mmap = [](void*, size_t length, int, int, int fd, off_t) -> void* {
        if (fd != kDevMemFd || length > sizeof fchWindow) return MAP_FAILED;
        return const_cast<U8*>(fchWindow);
    };
    // Lock files without a name, so nothing lands in /var/lock or stays behind.
    h.creat = [](const char*, mode_t mode) { return ::open("/tmp", O_TMPFILE | O_WRONLY, mode); };
}

void BM_Ekabini_tckIs(benchmark::State& state) {
    static XilIntf* intf = [] {
        setUpOnce();
        XilIntf* i = EkabiniGpioFactory().newXilIntf(0, 0, 0, 0, 0x14, 0);
        XilIntf_select(i, "tabukccpuSwitchScd");
        return i;
    }();
    int level = 0;
    for (auto _ : state) XilIntf_tckIs(intf, level ^= 1);
    if (!(fchWindow[kTckControl + 2] & 0x80)) state.SkipWithError("TCK is not an output");
}
BENCHMARK(BM_Ekabini_tckIs);

// The floor: one volatile store to the TCK control register.
void BM_RawVolatileStore(benchmark::State& state) {
    volatile U32* reg = reinterpret_cast<volatile U32*>(fchWindow + kTckControl);
    U32 value = 0x800000;
    for (auto _ : state) *reg = (value ^= 0x400000);
}
BENCHMARK(BM_RawVolatileStore);

// What setting one bit of the register takes at the least: load, change, store.
void BM_RawVolatileReadModifyWrite(benchmark::State& state) {
    volatile U32* reg = reinterpret_cast<volatile U32*>(fchWindow + kTckControl);
    for (auto _ : state) *reg = *reg ^ 0x400000;
}
BENCHMARK(BM_RawVolatileReadModifyWrite);

}  // namespace

BENCHMARK_MAIN();
