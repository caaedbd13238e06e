// XilIntf_shift of every backend over in-memory register windows, tracing
// off: bits per second of a 4096-bit shift, with TDO read in every cycle
// and without TDO. The windows are plain memory, so what is measured is the
// backends' own work per bit; on a board each register access adds 0.1 to
// 2 us, and the register accesses per bit (simcost_bench, on the simulated
// board, and the README's table) decide the real speed.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "os/FakeShell.h"
#include "os/Os.h"
#include "xilinx/XilTrace.h"
#include "xilinx/amd/EkabiniIntf.h"
#include "xilinx/backends/CaveCreekPCHIntf.h"
#include "xilinx/backends/CedarForkPCHIntf.h"
#include "xilinx/backends/IntelGbeControllerIntf.h"
#include "xilinx/backends/PericomGen3Intf.h"
#include "xilinx/backends/PlxPex8600Intf.h"
#include "xilinx/backends/PlxPex8700Intf.h"
#include "xilinx/backends/Sb820Intf.h"

namespace {

constexpr U32 kBits = 4096;
constexpr int kDevMemFd = 1000;
alignas(4096) U8 fchWindow[0x2000];  // the SoC's GPIO window, as its /dev/mem mapping
unsigned char configSpace[256];      // Cave Creek LPC config: GPIO base at 0x48
std::string cmdline;                 // what the fake shell's grep sees

// Every window is a buffer of its own (Cedar Fork's 12 MiB included), the
// shell answers from `cmdline`, CPUID says R1000, /dev/mem for the SoC maps
// onto fchWindow, lock files are nameless temporary files.
void setUpOnce() {
    static bool done = false;
    if (done) return;
    done = true;
    _defaultTraceHandle().levelMaskIs(0);
    configSpace[0x48] = 0x81, configSpace[0x49] = 0xf5;
    static std::map<std::string, std::vector<U8>> buffers;
    Ham::providerIs([](const HamDesc& d) -> Ptr<HamImpl> {
        std::vector<U8>& b = buffers[d.name + d.fileName];
        b.resize(d.size ? d.size : 0x100000);
        return new MemoryHamImpl(b.data());
    });
    Os::Hooks& h = Os::hooks();
    h.system = [](const char* command) { return Os::fakeCmdlineShell(command, cmdline) << 8; };
    h.cpuid = [](U32 leaf) {
        Os::Cpuid r;
        r.eax = leaf == 0 ? 1 : (0x17 - 0xF) << 20 | 0x1 << 16 | 0xF << 8 | 0x8 << 4;
        return r;
    };
    h.open = [](const char* path, int) { return std::strcmp(path, "/dev/mem") == 0 ? kDevMemFd : -1; };
    h.mmap = [](void*, size_t length, int, int, int fd, off_t) -> void* {
        return fd == kDevMemFd && length <= sizeof fchWindow ? fchWindow : MAP_FAILED;
    };
    h.fileSize = [](int) { return -1LL; };
    h.fopen = [](const char*, const char*) { return ::fmemopen(configSpace, sizeof configSpace, "r"); };
    h.usleep = [](unsigned) { return 0; };
    h.creat = [](const char*, mode_t mode) { return ::open("/tmp", O_TMPFILE | O_WRONLY, mode); };
}

template <class Factory>
XilIntf* selected(const char* platform, const char* device) {
    setUpOnce();
    cmdline = std::string("console=ttyS0 platform=") + platform;
    std::FILE* saved = stdout;  // the backends' own lines ("GPIO Offset: ...") are not results
    stdout = std::fopen("/dev/null", "w");
    XilIntf* intf = Factory().newXilIntf(0, 0, 0, 2, 0, 0);
    XilIntf_select(intf, device);
    std::fclose(stdout);
    stdout = saved;
    return intf;
}

void shiftBits(benchmark::State& state, XilIntf* intf) {
    std::vector<U8> tms(kBits / 8), tdi(kBits / 8), tdo(kBits / 8);
    for (U32 i = 0; i < kBits / 8; ++i) tms[i] = static_cast<U8>(i * 37), tdi[i] = static_cast<U8>(i * 91);
    U8* out = state.range(0) ? tdo.data() : nullptr;
    for (auto _ : state) {
        XilIntf_shift(intf, kBits, tms.data(), tdi.data(), out);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBits);
    state.SetLabel(state.range(0) ? "bits/s, TDO read" : "bits/s, no TDO");
}

#define SHIFT_BENCH(name, factory, platform, device)                                   \
    void BM_Shift_##name(benchmark::State& state) {                                    \
        static XilIntf* intf = selected<factory>(platform, device);                     \
        shiftBits(state, intf);                                                        \
    }                                                                                  \
    BENCHMARK(BM_Shift_##name)->Arg(0)->Arg(1)

SHIFT_BENCH(Sb820, Sb820Factory, "mosavo", "fodak");
SHIFT_BENCH(SocGpioR1000, EkabiniGpioFactory, "tabukccpu", "tabukccpuSwitchScd");
SHIFT_BENCH(CaveCreek, CaveCreekPCHFactory, "none", "zetizSwitchScd");
SHIFT_BENCH(CedarFork, CedarForkPCHFactory, "kubez", "kubezShimScd");
SHIFT_BENCH(Pex8600, PlxPex8600Factory, "none", "rotanSeret");
SHIFT_BENCH(Pex8700, PlxPex8700Factory, "none", "tilegScd");
SHIFT_BENCH(Pericom, PericomGen3Factory, "none", "togif");
SHIFT_BENCH(Gbe, IntelGbeControllerFactory, "none", "penetScd");

}  // namespace

BENCHMARK_MAIN();
