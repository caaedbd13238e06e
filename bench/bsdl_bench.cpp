// The BSDL reader on files far larger than any maker's: time and memory
// against the file's size. "LargeDevice" is 40,000 ports (inout pins, the
// TAP, a linkage vector of supplies), a pin map of every one, a boundary
// register of a bidirectional cell per I/O pin and a control cell per eight,
// and 40,000 instructions (a 16-bit IR: exact opcodes and some with X bits
// in two layouts). "Parentheses" is 15.6 MB of '(' in one statement, which
// the reader refuses; "DensePorts" declares ports of one letter and a
// number, the most ports per byte a file can hold.
//
// Counters: bytes/s of the file; peakBytes/fileByte: the most memory the
// reader held at once (operator new's bytes, malloc's usable sizes) beyond
// what was held before, over the file's size; deviceBytes/fileByte: what
// the Device it read holds, over the file's size.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "jtag/Bsdl.h"

namespace {

constexpr unsigned kPorts = 40000;
constexpr unsigned kInstructions = 40000;
constexpr unsigned kIrLength = 16;
constexpr unsigned kXInstructions = 512;     // opcodes with X bits, half in each layout
constexpr unsigned kSupplies = 64;           // the linkage vector VCC (1 to 64)
constexpr unsigned kCellsPerControl = 8;     // bidirectional pins under one control cell
constexpr size_t kParenthesesBytes = 15600000;
constexpr unsigned kDensePorts = 1000000;

std::atomic<size_t> live{0}, peak{0};

void* allocate(size_t n) {
    void* p = std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    size_t now = live.fetch_add(malloc_usable_size(p), std::memory_order_relaxed) + malloc_usable_size(p);
    size_t was = peak.load(std::memory_order_relaxed);
    while (now > was && !peak.compare_exchange_weak(was, now, std::memory_order_relaxed)) {
    }
    return p;
}

void release(void* p) {
    if (!p) return;
    live.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
    std::free(p);
}

std::string bitsOf(unsigned v, unsigned n) {
    std::string s(n, '0');
    for (unsigned i = 0; i < n; ++i)
        if (v >> (n - 1 - i) & 1) s[i] = '1';
    return s;
}

std::string largeDevice() {
    std::string f = "entity BIG is\n  generic (PHYSICAL_PIN_MAP : string := \"BGA\");\n  port (\n";
    f += "    TCK, TMS, TDI : in bit;\n    TDO : out bit;\n";
    f += "    VCC : linkage bit_vector (1 to " + std::to_string(kSupplies) + ");\n";
    const unsigned ios = kPorts - 5;
    for (unsigned i = 0; i < ios; ++i) f += "    IO_" + std::to_string(i) + " : inout bit" + (i + 1 < ios ? ";\n" : "\n");
    f += "  );\n  use STD_1149_1_2001.all;\n";
    f += "  attribute PIN_MAP of BIG : entity is PHYSICAL_PIN_MAP;\n";
    f += "  constant BGA : PIN_MAP_STRING :=\n    \"TCK:T1, TMS:T2, TDI:T3, TDO:T4, VCC:(";
    for (unsigned i = 0; i < kSupplies; ++i) f += (i ? ", V" : "V") + std::to_string(i);
    f += ")";
    for (unsigned i = 0; i < ios; ++i) f += ", \" &\n    \"IO_" + std::to_string(i) + ":P" + std::to_string(i);
    f += "\";\n";
    f += "  attribute INSTRUCTION_LENGTH of BIG : entity is " + std::to_string(kIrLength) + ";\n";
    f += "  attribute INSTRUCTION_OPCODE of BIG : entity is\n";
    // Exact opcodes from 0 up (SAMPLE and PRELOAD sharing one); the X opcodes
    // above them, in 11 (10 bits) XXXX and 1010 (8 bits) XXXX, below BYPASS.
    const unsigned exact = kInstructions - kXInstructions;
    for (unsigned i = 0; i < exact; ++i) {
        std::string name = i == 0 ? "EXTEST" : i == 1 ? "SAMPLE" : i == 2 ? "IDCODE" : "OP_" + std::to_string(i);
        f += "    \"" + name + " (" + bitsOf(i, kIrLength) + "),\" &\n";
        if (i == 1) f += "    \"PRELOAD (" + bitsOf(i, kIrLength) + "),\" &\n";
    }
    for (unsigned i = 0; i < kXInstructions / 2 - 1; ++i)
        f += "    \"WIDE_" + std::to_string(i) + " (11" + bitsOf(i, 10) + "XXXX),\" &\n";
    for (unsigned i = 0; i < kXInstructions / 2 - 1; ++i)
        f += "    \"NARROW_" + std::to_string(i) + " (1010XXXX" + bitsOf(i, 8) + "),\" &\n";
    f += "    \"BYPASS (1111111111111111)\";\n";
    f += "  attribute INSTRUCTION_CAPTURE of BIG : entity is \"XXXXXXXXXXXXXX01\";\n";
    f += "  attribute IDCODE_REGISTER of BIG : entity is \"00010010001101000101011001111001\";\n";
    f += "  attribute REGISTER_ACCESS of BIG : entity is \"BOUNDARY (EXTEST, SAMPLE, PRELOAD), DEVICE_ID (IDCODE)\";\n";
    std::string cells;
    unsigned n = 0;
    for (unsigned i = 0; i < ios; ++i) {
        if (i % kCellsPerControl == 0) cells += "    \"" + std::to_string(n++) + " (BC_2, *, CONTROL, 1),\" &\n";
        unsigned control = n - 1 - i % kCellsPerControl;
        cells += "    \"" + std::to_string(n++) + " (BC_7, IO_" + std::to_string(i) + ", BIDIR, X, " + std::to_string(control) +
                 ", 1, Z)" + (i + 1 < ios ? ",\" &\n" : "\";\n");
    }
    f += "  attribute BOUNDARY_LENGTH of BIG : entity is " + std::to_string(n) + ";\n";
    f += "  attribute BOUNDARY_REGISTER of BIG : entity is\n" + cells;
    f += "end BIG;\n";
    return f;
}

std::string parentheses() {
    return "entity P is\n  attribute X of P : entity is " + std::string(kParenthesesBytes, '(') + "\n";
}

std::string densePorts() {
    std::string f = "entity D is\n  port (";
    for (unsigned i = 0; i < kDensePorts; ++i) f += "p" + std::to_string(i) + ",";
    f += "q : in bit);\n  attribute INSTRUCTION_LENGTH of D : entity is 2;\nend D;\n";
    return f;
}

void readText(benchmark::State& state, const std::string& text, bool valid) {
    size_t peakBytes = 0, kept = 0;
    for (auto _ : state) {
        jtag::bsdl::Device d;
        jtag::bsdl::Error e;
        size_t before = live.load();
        peak.store(before);
        bool ok = jtag::bsdl::read(text, "big.bsd", &d, &e);
        peakBytes = std::max(peakBytes, peak.load() - before);
        kept = live.load() - before;
        if (ok != valid) {
            state.SkipWithError(ok ? "read a file it should refuse" : ("refused: " + e.text()).c_str());
            break;
        }
        benchmark::DoNotOptimize(d);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.counters["fileBytes"] = static_cast<double>(text.size());
    state.counters["peakBytes/fileByte"] = static_cast<double>(peakBytes) / static_cast<double>(text.size());
    state.counters["deviceBytes/fileByte"] = static_cast<double>(kept) / static_cast<double>(text.size());
}

}  // namespace

void* operator new(size_t n) { return allocate(n); }
void* operator new[](size_t n) { return allocate(n); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, size_t) noexcept { release(p); }
void operator delete[](void* p, size_t) noexcept { release(p); }

int main(int argc, char** argv) {
    const std::string large = largeDevice(), parens = parentheses(), dense = densePorts();
    benchmark::RegisterBenchmark("LargeDevice", readText, std::cref(large), true)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Parentheses", readText, std::cref(parens), false)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("DensePorts", readText, std::cref(dense), true)->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
