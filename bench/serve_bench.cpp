// What kelvorn-serve gets through on the simulated board. Without the
// network: XVC shift throughput in TCK cycles (bits) a second, for short
// and maximum-length vectors, and remote_bitbang symbols a second, in the
// pattern OpenOCD sends (TCK low with TMS and TDI, a TDO read, TCK high).
// Over TCP: XVC shifts of the same lengths from a client here to the
// server running in a child process on 127.0.0.1 (serve::run, as
// kelvorn-sim serve runs it), timed on the wall clock since two processes
// share the work. Each benchmark builds its own board and interface; the
// board's register models stand in for the chips, so the numbers measure
// the server's and the backends' own work, not a bus.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "SimBackends.h"
#include "serve/KelvornServe.h"
#include "serve/RemoteBitbang.h"
#include "serve/Xvc.h"
#include "xilinx/XilTrace.h"

namespace {

using simtest::Backend;

const Backend& kPex8600 = simtest::backendNamed("Pex8600");
const Backend& kGbe = simtest::backendNamed("Gbe");
const Backend& kPericom = simtest::backendNamed("Pericom");

constexpr char kPciAddress[] = "0000:02:00.0";  // SimTarget's
constexpr int kStartSeconds = 30;               // for the server's start-up line

std::string le(uint32_t v) {
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

void feedAll(serve::Protocol& p, const std::string& bytes, std::vector<uint8_t>* out) {
    out->clear();
    p.feed(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), out);
}

// One shift command of state.range(0) bits: TMS low (the chain stays in
// Shift-DR once there), TDI alternating.
void BM_XvcShift(benchmark::State& state, const Backend& b) {
    _defaultTraceHandle().levelMaskIs(0);
    simtest::SimTarget target(b);
    serve::Xvc xvc(target.intf, serve::Xvc::kMaxVectorLimit);
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
void BM_RemoteBitbang(benchmark::State& state, const Backend& b) {
    _defaultTraceHandle().levelMaskIs(0);
    simtest::SimTarget target(b);
    serve::RemoteBitbang rb(target.intf);
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

// kelvorn-serve --protocol xvc on a simulated board for b, in a child
// process listening on 127.0.0.1 and a free port; stopped with SIGTERM,
// as a user would stop it, when the object goes. The server's lines go to
// a nameless file, where the start-up line gives the port.
class XvcServer {
  public:
    explicit XvcServer(const Backend& b) {
        log_ = ::open("/tmp", O_TMPFILE | O_RDWR, 0600);
        std::fflush(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) run(b, log_);
        const std::string listening = "listening on 127.0.0.1:";
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kStartSeconds);
        for (std::string text; port_ == 0 && std::chrono::steady_clock::now() < end;) {
            char buf[512];
            ssize_t n = ::pread(log_, buf, sizeof buf - 1, 0);
            text.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
            size_t at = text.find(listening);
            if (at != std::string::npos && text.find('\n', at) != std::string::npos)
                port_ = std::atoi(text.c_str() + at + listening.size());
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~XvcServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(log_);
    }
    XvcServer(const XvcServer&) = delete;
    XvcServer& operator=(const XvcServer&) = delete;

    int port() const { return port_; }  // 0 when the server did not start

  private:
    [[noreturn]] static void run(const Backend& b, int log) {
        ::dup2(log, 2);
        if (!std::freopen("/dev/null", "w", stdout)) std::_Exit(99);
        std::string limit = std::to_string(serve::Xvc::kMaxVectorLimit);
        const char* args[] = {"kelvorn-serve", "--protocol", "xvc", "--listen", "127.0.0.1:0", "--max-vector",
                              limit.c_str(), b.device, kPciAddress};
        serve::Options options;
        int status;
        if (!serve::parseOptions(sizeof args / sizeof *args, const_cast<char**>(args), &options, &status))
            std::_Exit(status);
        _defaultTraceHandle().levelMaskIs(0);
        auto* board = new sim::Board(simtest::boardConfig(b));  // lives until the process ends, like the interface
        board->install();
        std::exit(serve::run(options));
    }

    pid_t pid_ = -1;
    int port_ = 0;
    int log_ = -1;
};

bool sendAll(int fd, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

bool receiveAll(int fd, uint8_t* into, size_t count) {
    for (size_t at = 0; at < count;) {
        ssize_t n = ::recv(fd, into + at, count - at, 0);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

// The shift of BM_XvcShift, from a client over TCP.
void BM_XvcShiftTcp(benchmark::State& state, const Backend& b) {
    XvcServer server(b);
    if (!server.port()) {
        state.SkipWithError("the server did not start");
        return;
    }
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        state.SkipWithError("cannot connect to the server");
        return;
    }
    uint32_t bits = static_cast<uint32_t>(state.range(0));
    size_t bytes = (bits + 7) / 8;
    std::string command = "shift:" + le(bits) + std::string(bytes, '\0') + std::string(bytes, '\x55');
    std::vector<uint8_t> tdo(bytes);
    for (auto _ : state) {
        if (!sendAll(fd, command) || !receiveAll(fd, tdo.data(), bytes)) {
            state.SkipWithError("the server closed the connection");
            break;
        }
    }
    ::close(fd);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * bits);
    state.SetLabel("items: TCK cycles");
}

}  // namespace

BENCHMARK_CAPTURE(BM_XvcShift, pex8600, kPex8600)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_XvcShift, gbe, kGbe)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_XvcShift, pericom, kPericom)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_XvcShiftTcp, pex8600, kPex8600)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_XvcShiftTcp, gbe, kGbe)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_XvcShiftTcp, pericom, kPericom)->Arg(32)->Arg(4096 * 8)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_RemoteBitbang, pex8600, kPex8600)->Arg(170)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RemoteBitbang, gbe, kGbe)->Arg(170)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RemoteBitbang, pericom, kPericom)->Arg(170)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
