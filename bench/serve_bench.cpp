// What kelvorn-serve's protocol handlers get through on the simulated
// board, without the network: XVC shift throughput in TCK cycles (bits) a
// second, for short and maximum-length vectors, and remote_bitbang symbols
// a second, in the pattern OpenOCD sends (TCK low with TMS and TDI, a TDO
// read, TCK high). Each benchmark builds its own board and interface; the
// board's register models stand in for the chips, so the numbers measure
// the server's and the backends' own work, not a bus.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "serve/RemoteBitbang.h"
#include "serve/Xvc.h"
#include "sim/Board.h"
#include "xilinx/XilTrace.h"

namespace {

struct Target {
    const char* device;
    uint8_t bus;  // on domain 0, device 0, function 0
};

const Target kPex8600{"rotanMotub", 3};
const Target kGbe{"penetScd", 2};
const Target kPericom{"togif", 5};

// A board wired for the target, its interface selected.
class Bench {
  public:
    explicit Bench(const Target& t) : device_(t.device) {
        _defaultTraceHandle().levelMaskIs(0);
        sim::BoardConfig config;
        config.device = t.device;
        board_ = std::make_unique<sim::Board>(config);
        board_->install();
        // What the backends print on the way stays out of the results.
        std::fflush(stdout);
        int results = ::dup(1), null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        intf = XilIntf_bySystem(t.device, 0, 0, 0, t.bus, 0, 0);
        XilIntf_select(intf, t.device);
        std::fflush(stdout);
        ::dup2(results, 1);
        ::close(results);
        ::close(null);
    }
    ~Bench() { XilIntf_cleanup(intf, device_); }

    XilIntf* intf;

  private:
    const char* device_;
    std::unique_ptr<sim::Board> board_;
};

std::string le(uint32_t v) {
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

void feedAll(serve::Protocol& p, const std::string& bytes, std::vector<uint8_t>* out) {
    out->clear();
    p.feed(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), out);
}

// One shift command of state.range(0) bits: TMS low (the chain stays in
// Shift-DR once there), TDI alternating.
void BM_XvcShift(benchmark::State& state, const Target& t) {
    Bench bench(t);
    serve::Xvc xvc(bench.intf, serve::Xvc::kMaxVectorLimit);
    xvc.begin();
    uint32_t bits = static_cast<uint32_t>(state.range(0));
    size_t bytes = (bits + 7) / 8;
    std::string command = "shift:" + le(bits) + std::string(bytes, '\0') + std::string(bytes, '\x55');
    std::vector<uint8_t> out;
    out.reserve(bytes);
    for (auto _ : state) {
        feedAll(xvc, command, &out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * bits);
    state.SetLabel("items: TCK cycles");
}

// state.range(0) cycles as OpenOCD sends them: "<low>R<high>" each.
void BM_RemoteBitbang(benchmark::State& state, const Target& t) {
    Bench bench(t);
    serve::RemoteBitbang rb(bench.intf);
    rb.begin();
    std::string batch;
    for (int64_t i = 0; i < state.range(0); ++i) batch += i % 2 ? "1R5" : "0R4";
    std::vector<uint8_t> out;
    out.reserve(batch.size());
    for (auto _ : state) {
        feedAll(rb, batch, &out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * batch.size()));
    state.SetLabel("items: symbols");
}

}  // namespace

BENCHMARK_CAPTURE(BM_XvcShift, pex8600, kPex8600)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_XvcShift, gbe, kGbe)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_XvcShift, pericom, kPericom)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RemoteBitbang, pex8600, kPex8600)->Arg(170)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RemoteBitbang, gbe, kGbe)->Arg(170)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RemoteBitbang, pericom, kPericom)->Arg(170)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
