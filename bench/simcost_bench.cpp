// Register reads and writes per TCK cycle of each backend on the simulated
// board, through the per-pin path (the base class's shift, one pin
// operation at a time, each as the backend does it: some read before every
// write) and through the vector path (XilIntf_shift). The shift is a long
// data-register scan: the chain in Shift-DR, TMS low, TDI random, with TDO
// read in every cycle (tdo:1) and without (tdo:0). The counts come from the
// simulated chip (Board::reads, writes) and the chain's rising TCK edges;
// the times are the simulator's, so only the counters say what a board
// would take (a write ~0.1 us, a read 1-2 us).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "SimBackends.h"
#include "jtag/Tap.h"
#include "xilinx/XilTrace.h"

namespace {

using simtest::Backend;

constexpr U32 kCycles = 1 << 16;

const char* const kMeasured[] = {"SB820",    "Kabini",  "R1000",   "CaveCreekTwoBanks", "CedarFork",
                                 "Pex8600", "Pex8700Relocated", "Pericom", "Gbe"};

void cost(benchmark::State& state, const Backend& b, bool perPin) {
    _defaultTraceHandle().levelMaskIs(0);
    simtest::SimTarget target(b);
    simtest::PerPin pins(target.intf);
    XilIntf* intf = perPin ? static_cast<XilIntf*>(&pins) : target.intf;
    jtag::Tap tap(intf);
    tap.reset();
    tap.moveTo(jtag::TapState::ShiftDr);

    std::vector<U8> tms(kCycles / 8), tdi(kCycles / 8), tdo(kCycles / 8);
    std::mt19937 gen(1);
    for (U8& byte : tdi) byte = static_cast<U8>(gen());
    U8* out = state.range(0) ? tdo.data() : nullptr;
    const sim::Board& board = target.board;
    uint64_t reads = board.reads(), writes = board.writes(), cycles = target.board.chain().tckCycles();
    for (auto _ : state) XilIntf_shift(intf, kCycles, tms.data(), tdi.data(), out);
    reads = board.reads() - reads, writes = board.writes() - writes;
    cycles = target.board.chain().tckCycles() - cycles;
    if (cycles != static_cast<uint64_t>(state.iterations()) * kCycles) state.SkipWithError("the chain saw another number of TCK cycles");
    state.counters["reads/cycle"] = static_cast<double>(reads) / cycles;
    state.counters["writes/cycle"] = static_cast<double>(writes) / cycles;
    state.SetItemsProcessed(static_cast<int64_t>(cycles));
    state.SetLabel(describe(b.others));
}

}  // namespace

int main(int argc, char** argv) {
    for (const char* name : kMeasured)
        for (bool perPin : {true, false}) {
            const Backend& b = simtest::backendNamed(name);
            std::string title = std::string(name) + (perPin ? "/perPin" : "/vector");
            benchmark::RegisterBenchmark(title.c_str(), cost, b, perPin)->ArgName("tdo")->Arg(0)->Arg(1);
        }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
