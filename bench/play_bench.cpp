// The SVF and XSVF readers alone, over large synthetic files in memory:
// bytes read per second (SetBytesProcessed) for long scans with TDO and
// masks, and for many short statements.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "jtag/Svf.h"
#include "jtag/Xsvf.h"

namespace {

constexpr size_t kFileBytes = 16 << 20;

// Scans of `bits` bits with TDI, TDO and MASK, hex broken into lines of 64 digits.
std::string svfFile(size_t bits) {
    std::string digits((bits + 3) / 4, '0');
    for (size_t i = 0; i < digits.size(); ++i) digits[i] = "0123456789abcdef"[(i * 7 + 3) % 16];
    digits[0] = '1';
    std::string hex;
    for (size_t i = 0; i < digits.size(); i += 64) hex += digits.substr(i, 64) + "\n";
    std::string scan = "SDR " + std::to_string(bits) + " TDI(" + hex + ") TDO(" + hex + ") MASK(" + hex + ");\n" +
                       "RUNTEST 100 TCK;\n";
    std::string file = "ENDDR IDLE;\nSIR 8 TDI(05);\n";
    while (file.size() < kFileBytes) file += scan;
    return file;
}

// XSDRTDO commands of `bits` bits, with XRUNTEST and XSIR between them.
std::string xsvfFile(size_t bits) {
    std::string file = {0x07, 0x00, 0x08, 0, 0, 0, 0};
    file[3] = static_cast<char>(bits >> 24), file[4] = static_cast<char>(bits >> 16);
    file[5] = static_cast<char>(bits >> 8), file[6] = static_cast<char>(bits);
    std::string value((bits + 7) / 8, '\x5a');
    value[0] = 0;
    std::string command = std::string(1, 0x09) + value + value + std::string("\x02\x08\x05", 3);
    while (file.size() < kFileBytes) file += command;
    return file + std::string(1, '\0');
}

template <class ReaderType>
void read(benchmark::State& state, const std::string& file) {
    jtag::Action a;
    for (auto _ : state) {
        FILE* f = fmemopen(const_cast<char*>(file.data()), file.size(), "rb");
        ReaderType r(f);
        size_t actions = 0;
        while (r.next(&a)) ++actions;
        benchmark::DoNotOptimize(actions);
        std::fclose(f);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file.size()));
}

void BM_Svf_read(benchmark::State& state) {
    static const std::string longScans = svfFile(64 * 1024), shortScans = svfFile(32);
    read<jtag::SvfReader>(state, state.range(0) > 32 ? longScans : shortScans);
}
BENCHMARK(BM_Svf_read)->Arg(32)->Arg(64 * 1024)->Unit(benchmark::kMillisecond);

void BM_Xsvf_read(benchmark::State& state) {
    static const std::string longScans = xsvfFile(64 * 1024), shortScans = xsvfFile(32);
    read<jtag::XsvfReader>(state, state.range(0) > 32 ? longScans : shortScans);
}
BENCHMARK(BM_Xsvf_read)->Arg(32)->Arg(64 * 1024)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
