// A network protocol of kelvorn-serve (remote_bitbang, or XVC when built
// with FUZZ_XVC) fed a client's bytes, on a simulated PEX 8600 board with
// the default chain. An input is one session: its first byte says where the
// rest is cut into two reads, as a client's bytes arrive in pieces. Nothing
// may crash, and remote_bitbang answers every R before the session ends (a
// Q, or a symbol it does not have) with one '0' or '1', and nothing else.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzTarget.h"
#include "sim/Board.h"
#include "xilinx/XilIntfC.h"
#ifdef FUZZ_XVC
#include "serve/Xvc.h"
#else
#include "serve/RemoteBitbang.h"
#endif

namespace {

#ifdef FUZZ_XVC
// XVC vectors are kept short: a shift at the slowest clock a client may ask
// for then takes tens of milliseconds, not seconds.
constexpr uint32_t kXvcMaxVectorBytes = 4;
#endif

XilIntf* selectedDevice() {
    static XilIntf* intf = [] {
        sim::BoardConfig config;
        config.device = "rotanMotub";
        (new sim::Board(config))->install();  // for the life of the process
        XilIntf* i = XilIntf_bySystem("rotanMotub", 0, 0, 0, 4, 0, 0);
        XilIntf_select(i, "rotanMotub");
        return i;
    }();
    return intf;
}

#ifndef FUZZ_XVC
size_t readsAsked(const uint8_t* d, size_t n) {
    static const char kSymbols[] = "01234567RrstuBb";
    size_t reads = 0;
    for (size_t i = 0; i < n && d[i] && std::strchr(kSymbols, d[i]); ++i) reads += d[i] == 'R';
    return reads;
}
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
#ifdef FUZZ_XVC
    static serve::Xvc protocol(selectedDevice(), kXvcMaxVectorBytes);
#else
    static serve::RemoteBitbang protocol(selectedDevice());
#endif
    if (size == 0) return 0;
    const uint8_t* session = data + 1;
    size_t n = size - 1, cut = data[0] % (n + 1);
    std::vector<uint8_t> out;
    protocol.begin();
    if (protocol.feed(session, cut, &out) == serve::Verdict::more) protocol.feed(session + cut, n - cut, &out);
#ifndef FUZZ_XVC
    if (out.size() != readsAsked(session, n)) std::abort();
    for (uint8_t c : out)
        if (c != '0' && c != '1') std::abort();
#endif
    return 0;
}
