// Xilinx Virtual Cable 1.0 (XVC): three commands, each a name ending in ':'
// and binary arguments, integers 4 bytes little-endian.
//
//   getinfo:                       answers "xvcServer_v1.0:<max vector bytes>\n"
//   settck:<period ns>             answers the period honoured, 4 bytes
//   shift:<bits><tms vector><tdi vector>
//                                  answers the TDO vector
//
// Each vector holds ceil(bits / 8) bytes, bit 0 of byte 0 first (the layout
// XilIntf_shift takes); a shift whose vectors would be longer than the
// advertised maximum is refused on its length alone. Bits of the last
// byte past the count are ignored on the way in and 0 on the way out.
//
// TCK runs as fast as the backend's register accesses allow (or the
// server's own ceiling, --frequency) until the client asks for a period;
// a period longer than the server's ceiling (up to kSlowestPeriodNs) is
// then held on every edge (XilIntf_tckPeriodIs: no high or low phase
// shorter than half of it). settck answers the longer of the period held
// and the registers' own: measured on the full-speed shifts made so far,
// and before the first by timing the accesses a cycle makes with TCK held
// low.
#pragma once
#include <csignal>

#include "serve/Protocol.h"
#include "xilinx/XilIntfC.h"

namespace serve {

class Xvc : public Protocol {
  public:
    static constexpr uint32_t kDefaultMaxVector = 4096;  // bytes per vector
    static constexpr uint32_t kMaxVectorLimit = 65536;
    static constexpr uint32_t kSlowestPeriodNs = 1000000;  // 1 kHz

    // stop, when given and set, ends a paced shift early: the server is
    // going down and its answer will not be sent. ceilingNs: the server's
    // own TCK ceiling as a period, 0: none.
    Xvc(XilIntf* intf, uint32_t maxVectorBytes, const volatile std::sig_atomic_t* stop = nullptr,
        uint32_t ceilingNs = 0);

    void begin() override;
    Verdict feed(const uint8_t* data, size_t n, std::vector<uint8_t>* out) override;
    const char* partial() const override;

    // The TCK period settck last answered; 0 before settck: full speed.
    uint32_t period() const { return period_; }

  private:
    enum class State { name, settckPeriod, shiftLength, shiftVectors };

    void command(const char* name, std::vector<uint8_t>* out);  // the name has arrived whole
    bool word(const uint8_t* data, size_t n, size_t* i, uint32_t* value);
    uint32_t nativePeriod();
    void shift(std::vector<uint8_t>* out);
    bool stopped() const { return stop_ && *stop_; }

    XilIntf* intf_;
    uint32_t maxVector_;
    const volatile std::sig_atomic_t* stop_;
    uint32_t nativeNs_ = 0;  // one cycle at full speed, as last measured; 0: not yet
    uint32_t period_ = 0;
    uint32_t ceilingNs_;     // the server's own
    uint32_t heldNs_ = 0;    // the period held on every edge now; 0: none

    State state_ = State::name;
    char name_[8];
    size_t nameLength_ = 0;
    uint32_t word_ = 0;
    size_t wordLength_ = 0;
    uint32_t bits_ = 0;
    size_t vectorBytes_ = 0;  // of one vector
    size_t received_ = 0;     // of both
    std::vector<uint8_t> vectors_;  // TMS, then TDI; sized once
};

}  // namespace serve
