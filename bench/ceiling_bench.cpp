// A TCK ceiling through the player on the simulated board: the SoC GPIO
// (R1000) and PEX 8600 backends, ceilings of 100 kHz, 1 MHz and none. The
// file: the loop-back register of the first device (4096 bits) shifted 16
// times, each scan comparing 64 bits of TDO under its MASK. Per run: the
// mean TCK rate (cycles over the wall time of the play), the register reads
// per compared bit, and, from a second play with a real-time VCD, the
// shortest TCK phase (high or low) seen on the pins.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "SimBackends.h"
#include "jtag/Player.h"
#include "jtag/Svf.h"
#include "xilinx/XilTrace.h"

namespace {

constexpr int kScans = 16;
constexpr unsigned kScanBits = 4096, kComparedBits = 64;

// SIR LOOPBACK (0x2) on the device nearest TDO, BYPASS behind it; then the
// scans: each reads back what the one before shifted in, 64 bits compared.
std::string file(double hz) {
    std::string svf = hz ? "FREQUENCY " + std::to_string(hz) + " HZ;\n" : "";
    svf += "SIR 14 TDI(3f02);\n";
    std::string zeros(kScanBits / 4, '0'), mask = zeros;
    mask.replace(mask.size() - kComparedBits / 4, kComparedBits / 4, std::string(kComparedBits / 4, 'f'));
    for (int i = 0; i < kScans; ++i) svf += "SDR 4096 TDI(" + zeros + ") TDO(" + zeros + ") MASK(" + mask + ");\n";
    return svf;
}

struct Run {
    jtag::PlayStats stats;
    double seconds = 0;
    uint64_t reads = 0;
};

Run play(const simtest::Backend& b, double hz, const std::string& vcd = "") {
    simtest::SimTarget target(b, sim::defaultChain(), vcd);
    std::string svf = file(hz);
    FILE* in = ::fmemopen(const_cast<char*>(svf.data()), svf.size(), "r");
    jtag::SvfReader reader(in);
    jtag::Tap tap(target.intf);
    jtag::Player player(&tap, jtag::systemClock());
    uint64_t reads = target.board.reads();
    uint64_t start = jtag::systemClock().now();
    player.start(hz);
    for (jtag::Action a; reader.next(&a);) player.play(a);
    Run r{player.stats(), (jtag::systemClock().now() - start) * 1e-9, target.board.reads() - reads};
    std::fclose(in);
    return r;
}

// The shortest time between two changes of TCK in a real-time VCD, in ns.
double shortestPhase(const std::string& vcd) {
    std::ifstream in(vcd);
    uint64_t t = 0, last = 0, shortest = UINT64_MAX;
    bool seen = false;
    for (std::string line; std::getline(in, line);) {
        if (line[0] == '#') {
            t = std::stoull(line.substr(1));
        } else if (line.size() == 2 && line[1] == 'C' && line[0] != 'z') {
            if (seen) shortest = std::min(shortest, t - last);
            seen = true;
            last = t;
        }
    }
    return shortest == UINT64_MAX ? 0 : static_cast<double>(shortest);
}

void ceiling(benchmark::State& state, const char* backend, double hz) {
    _defaultTraceHandle().levelMaskIs(0);
    const simtest::Backend& b = simtest::backendNamed(backend);
    Run r;
    for (auto _ : state) r = play(b, hz);
    char vcd[] = "/tmp/kelvorn-ceiling-XXXXXX";
    int fd = ::mkstemp(vcd);
    if (fd >= 0) ::close(fd);
    play(b, hz, vcd);
    state.counters["shortest_phase_ns"] = shortestPhase(vcd);
    ::unlink(vcd);
    state.counters["mean_tck_hz"] = r.stats.cycles / r.seconds;
    state.counters["reads/compared_bit"] = static_cast<double>(r.reads) / (kScans * kComparedBits);
    state.counters["ceiling_hz"] = hz;
}

}  // namespace

int main(int argc, char** argv) {
    for (const char* backend : {"R1000", "Pex8600"})
        for (double hz : {1e5, 1e6, 0.0}) {
            std::string title = std::string(backend) + (hz ? "/" + std::to_string(static_cast<int>(hz)) + "Hz" : "/none");
            benchmark::RegisterBenchmark(title.c_str(), ceiling, backend, hz)->Iterations(1)->Unit(benchmark::kMillisecond);
        }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
