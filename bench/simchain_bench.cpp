// The simulated chain and the vector generator: a 4096-bit loop-back scan
// driven edge by edge (the cost of a TCK cycle in the model, which a long
// register must not raise), and the SVF and XSVF of a 256 KiB image.
#include <benchmark/benchmark.h>

#include "sim/JtagChain.h"
#include "sim/Vectors.h"

namespace {

constexpr unsigned kIrLength = 8;

// One TCK cycle on the chain's pins.
void cycle(sim::JtagChain& chain, bool tms, bool tdi) {
    chain.tckIs(true, tms, tdi);
    chain.tckIs(false, tms, tdi);
}

void BM_LoopbackScan(benchmark::State& state) {
    sim::JtagChain chain({{0x0a5c7035, kIrLength, {256, 4096, 0, 0}}});
    for (int tms : {0, 1, 1, 0, 0}) cycle(chain, tms, false);  // Shift-IR
    for (unsigned i = 0; i < kIrLength; ++i)
        cycle(chain, i + 1 == kIrLength, (sim::kLoopbackInstruction >> i) & 1);
    cycle(chain, true, false);  // Update-IR
    cycle(chain, false, false);
    unsigned bit = 0;
    for (auto _ : state) {
        for (int tms : {1, 0, 0}) cycle(chain, tms, false);  // Shift-DR
        for (unsigned i = 0; i < sim::kLoopbackBits; ++i) cycle(chain, i + 1 == sim::kLoopbackBits, ++bit & 1);
        cycle(chain, true, false);  // Update-DR
        cycle(chain, false, false);
        benchmark::DoNotOptimize(chain.tdo());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (sim::kLoopbackBits + 5));  // TCK cycles
}
BENCHMARK(BM_LoopbackScan);

void BM_VectorsOfAnImage(benchmark::State& state) {
    jtag::BitVector image(256 * 1024 * 8);
    for (size_t i = 0; i < image.byteCount(); ++i) image.data()[i] = static_cast<uint8_t>(i * 37);
    sim::VectorTarget target{{8, 6}, 0, 256, 1000, 100, {}};
    std::vector<jtag::BitVector> rows = sim::imageRows(image, target.rowBits);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sim::svfFor(target, rows));
        benchmark::DoNotOptimize(sim::xsvfFor(target, rows));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * image.byteCount());
}
BENCHMARK(BM_VectorsOfAnImage)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
