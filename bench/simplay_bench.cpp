// A 1 MiB image erased, programmed and verified through the player
// (jtag/Player.h) on the simulated board, per backend, from the SVF and
// the XSVF file that kelvorn-vectors writes for it (sim::svfFor,
// sim::xsvfFor): 2048 rows of 4096 bits, each programmed and read back with
// every bit compared. One play per benchmark (it takes seconds): bits/s
// (items_per_second: scan bits, headers and trailers included, over the
// CPU time of the play, reading the file from memory included), and per bit
// the register reads and writes of the wired chip and the TCK cycles (the
// XSVF waits clock TCK for their time as well as their cycles).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "SimBackends.h"
#include "jtag/Player.h"
#include "jtag/Svf.h"
#include "jtag/Xsvf.h"
#include "sim/Vectors.h"
#include "xilinx/XilTrace.h"

namespace {

using simtest::Backend;

constexpr unsigned kRows = 2048, kRowBits = 4096;  // 1 MiB
constexpr uint32_t kEraseCycles = sim::kDefaultEraseCycles, kProgramCycles = sim::kDefaultProgramCycles;
constexpr unsigned kIrLengths[] = {8, 6};  // the programmable device nearest TDO, one in BYPASS behind it

const char* const kMeasured[] = {"R1000", "SB820", "CedarFork", "Pex8600", "Pex8700Relocated", "Gbe"};

enum class Format { svf, xsvf };

struct Files {
    std::string svf;
    std::vector<uint8_t> xsvf;
};

// The vectors of one random image, made once.
const Files& files() {
    static const Files f = [] {
        jtag::BitVector image(size_t{kRows} * kRowBits);
        std::mt19937 gen(1);
        for (size_t i = 0; i < image.byteCount(); ++i) image.data()[i] = static_cast<uint8_t>(gen());
        sim::VectorTarget target{{kIrLengths[0], kIrLengths[1]}, 0, kRowBits, kEraseCycles, kProgramCycles, {}};
        std::vector<jtag::BitVector> rows = sim::imageRows(image, kRowBits);
        return Files{sim::svfFor(target, rows), sim::xsvfFor(target, rows)};
    }();
    return f;
}

std::vector<sim::DeviceDesc> chain() {
    return {{0x0a5c7035, kIrLengths[0], {kRows, kRowBits, kEraseCycles, kProgramCycles}}, {0x1b4d2093, kIrLengths[1]}};
}

void play(benchmark::State& state, const Backend& b, Format format) {
    _defaultTraceHandle().levelMaskIs(0);
    const Files& f = files();
    simtest::SimTarget target(b, chain());
    jtag::PlayStats stats;
    for (auto _ : state) {
        FILE* in = format == Format::svf ? ::fmemopen(const_cast<char*>(f.svf.data()), f.svf.size(), "r")
                                         : ::fmemopen(const_cast<uint8_t*>(f.xsvf.data()), f.xsvf.size(), "r");
        std::unique_ptr<jtag::Reader> reader;
        if (format == Format::svf)
            reader = std::make_unique<jtag::SvfReader>(in);
        else
            reader = std::make_unique<jtag::XsvfReader>(in);
        jtag::Tap tap(target.intf);
        jtag::Player player(&tap, jtag::systemClock());
        player.start();
        jtag::Action a;
        std::string failure;
        try {
            while (reader->next(&a) && failure.empty())
                if (!player.play(a)) failure = a.place.in("image") + ": " + player.mismatch();
        } catch (const jtag::FormatError& e) {
            failure = e.place.in("image") + ": " + e.what();
        }
        std::fclose(in);
        if (!failure.empty()) {
            state.SkipWithError(failure.c_str());
            return;
        }
        stats = player.stats();
    }
    double bits = static_cast<double>(stats.bits);
    const sim::Board& board = target.board;
    state.counters["reads/bit"] = board.reads() / bits;
    state.counters["writes/bit"] = board.writes() / bits;
    state.counters["accesses/bit"] = (board.reads() + board.writes()) / bits;
    state.counters["cycles/bit"] = stats.cycles / bits;
    state.SetItemsProcessed(static_cast<int64_t>(stats.bits));
    state.SetLabel(format == Format::svf ? "SVF" : "XSVF");
}

}  // namespace

int main(int argc, char** argv) {
    for (const char* name : kMeasured)
        for (Format format : {Format::svf, Format::xsvf}) {
            std::string title = std::string(name) + (format == Format::svf ? "/svf" : "/xsvf");
            benchmark::RegisterBenchmark(title.c_str(), play, simtest::backendNamed(name), format)
                ->Iterations(1)
                ->Unit(benchmark::kSecond);
        }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
