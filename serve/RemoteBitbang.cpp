#include "serve/RemoteBitbang.h"

#include <cstring>

namespace serve {

namespace {

constexpr uint8_t kWriteFirst = '0';  // '0'..'7': 4*TCK + 2*TMS + TDI
constexpr uint8_t kWriteLast = '7';
constexpr uint8_t kTckBit = 4, kTmsBit = 2, kTdiBit = 1;
constexpr uint8_t kRead = 'R';
constexpr uint8_t kResetFirst = 'r';  // 'r'..'u': TRST and SRST
constexpr uint8_t kResetLast = 'u';
constexpr uint8_t kWarningOn = 'B';
constexpr uint8_t kWarningOff = 'b';
constexpr uint8_t kQuit = 'Q';
constexpr char kSwdSymbols[] = "Oocdefg";  // what the driver sends for SWD

}  // namespace

void RemoteBitbang::begin() {
    cycles_ = 0;
    tck_ = false;  // select leaves TCK low
    warning_ = false;
}

Verdict RemoteBitbang::feed(const uint8_t* data, size_t n, std::vector<uint8_t>* out) {
    bool fresh = false;  // the register image read in this batch
    for (size_t i = 0; i < n; ++i) {
        uint8_t c = data[i];
        if (c >= kWriteFirst && c <= kWriteLast) {
            if (!fresh) {
                static const uint8_t kNoBits = 0;
                XilIntf_shift(intf_, 0, &kNoBits, &kNoBits, nullptr);
                fresh = true;
            }
            uint8_t v = static_cast<uint8_t>(c - kWriteFirst);
            bool tck = v & kTckBit;
            if (tck && !tck_) ++cycles_;
            tck_ = tck;
            XilIntf_pinsIs(intf_, tck, v & kTmsBit, v & kTdiBit);
        } else if (c == kRead) {
            out->push_back(XilIntf_tdo(intf_) ? '1' : '0');
        } else if (c >= kResetFirst && c <= kResetLast) {
            // No TRST or SRST pin to drive.
        } else if (c == kWarningOn || c == kWarningOff) {
            bool on = c == kWarningOn;
            if (on != warning_) XilIntf_ledIs(intf_, on);
            warning_ = on;
        } else if (c == kQuit) {
            return Verdict::quit;
        } else {
            error_ = "unknown remote_bitbang symbol " + quoted(&c, 1);
            if (c && std::strchr(kSwdSymbols, c)) error_ += " (SWD: only JTAG is served)";
            return Verdict::malformed;
        }
    }
    return Verdict::more;
}

}  // namespace serve
