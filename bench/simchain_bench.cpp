// The simulated chain and the vector generator: a 4096-bit loop-back scan
// driven edge by edge (the cost of a TCK cycle in the model, which a long
// register must not raise), EXTEST scans of a board of four BSDL devices
// wired by 512 nets (the cost of finding what each input cell reads), and
// the SVF and XSVF of a 256 KiB image.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "jtag/Bsdl.h"
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

constexpr unsigned kWiredPins = 256;  // bidirectional pins of each device, each under its own control cell

// A device of kWiredPins bidirectional pins IO_i: cell 2i the control (0
// disables), cell 2i+1 the pin. EXTEST is 0000, BYPASS 1111.
std::shared_ptr<const jtag::bsdl::Device> wiredDevice() {
    std::string f = "entity WIDE is\n generic (PHYSICAL_PIN_MAP : string := \"P\");\n";
    f += " port (TCK, TMS, TDI : in bit; TDO : out bit;\n";
    f += "  IO : inout bit_vector (0 to " + std::to_string(kWiredPins - 1) + "));\n use STD_1149_1_2001.all;\n";
    f += " attribute PIN_MAP of WIDE : entity is PHYSICAL_PIN_MAP;\n";
    f += " constant P : PIN_MAP_STRING := \"TCK:1, TMS:2, TDI:3, TDO:4, IO:(";
    for (unsigned i = 0; i < kWiredPins; ++i) f += (i ? ", " : "") + std::to_string(10 + i);
    f += ")\";\n attribute INSTRUCTION_LENGTH of WIDE : entity is 4;\n";
    f += " attribute INSTRUCTION_OPCODE of WIDE : entity is \"EXTEST (0000), SAMPLE (0001), BYPASS (1111)\";\n";
    f += " attribute INSTRUCTION_CAPTURE of WIDE : entity is \"0001\";\n";
    f += " attribute BOUNDARY_LENGTH of WIDE : entity is " + std::to_string(2 * kWiredPins) + ";\n";
    f += " attribute BOUNDARY_REGISTER of WIDE : entity is \"";
    for (unsigned i = 0; i < kWiredPins; ++i) {
        std::string c = std::to_string(2 * i);
        f += (i ? ", " : "") + c + " (BC_1, *, control, 0), " + std::to_string(2 * i + 1) + " (BC_7, IO(" +
             std::to_string(i) + "), bidir, X, " + c + ", 0, Z)";
    }
    f += "\";\nend WIDE;\n";
    auto d = std::make_shared<jtag::bsdl::Device>();
    jtag::bsdl::Error e;
    if (!jtag::bsdl::read(f, "wide.bsd", d.get(), &e)) std::abort();
    return d;
}

void BM_ExtestOnWiredBoard(benchmark::State& state) {
    auto wide = wiredDevice();
    sim::DeviceDesc d{sim::kNoIdcode, 4, {}, {wide, 0, ""}};
    sim::JtagChain chain({d, d, d, d});
    // IO_i of devices 0 and 1 on one net, of devices 2 and 3 on another: 512 nets.
    sim::Wires wires;
    for (unsigned i = 0; i < kWiredPins; ++i) {
        std::string port = "IO(" + std::to_string(i) + ")";
        wires.join({0, port}, {1, port});
        wires.join({2, port}, {3, port});
    }
    wires.shorts.push_back({{0, 1}, sim::WireShort::Kind::wiredAnd, 0});
    chain.wiresAre(wires);
    for (int tms : {0, 1, 1, 0, 0}) cycle(chain, tms, false);  // Shift-IR
    for (unsigned i = 0; i < 16; ++i) cycle(chain, i == 15, false);  // EXTEST on all four
    cycle(chain, true, false);  // Update-IR
    cycle(chain, false, false);
    const unsigned bits = 4 * 2 * kWiredPins;
    unsigned bit = 0;
    for (auto _ : state) {
        for (int tms : {1, 0, 0}) cycle(chain, tms, false);  // Capture-DR, Shift-DR
        for (unsigned i = 0; i < bits; ++i) cycle(chain, i + 1 == bits, (++bit % 3) == 0);
        cycle(chain, true, false);  // Update-DR
        cycle(chain, false, false);
        benchmark::DoNotOptimize(chain.tdo());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (bits + 5));  // TCK cycles
    state.counters["contention"] = static_cast<double>(chain.contention());
}
BENCHMARK(BM_ExtestOnWiredBoard);

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
