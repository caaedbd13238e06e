// The remote_bitbang protocol as OpenOCD 0.12's remote_bitbang driver speaks
// it in JTAG mode: one ASCII symbol per request.
//
//   '0'..'7'  TCK, TMS and TDI together: the symbol is '0' + 4*TCK + 2*TMS + TDI
//   'R'       answer TDO as '0' or '1'
//   'r' 's' 't' 'u'  TRST and SRST levels: the boards have neither pin, so nothing
//   'B' 'b'   the board's warning indication on, off
//   'Q'       end of session
//
// Anything else (the SWD symbols among it) is malformed. A received batch
// is worked through in one go; before its first pin symbol the register
// image is read afresh, once per batch: setting pins reads nothing, and
// other agents may own bits of the registers the pins share.
#pragma once
#include "serve/Protocol.h"
#include "xilinx/XilIntfC.h"

namespace serve {

class RemoteBitbang : public Protocol {
  public:
    explicit RemoteBitbang(XilIntf* intf) : intf_(intf) {}

    void begin() override;
    Verdict feed(const uint8_t* data, size_t n, std::vector<uint8_t>* out) override;
    const char* partial() const override { return nullptr; }  // every symbol is whole

  private:
    XilIntf* intf_;
    bool tck_ = false;      // TCK as the last symbol left it
    bool warning_ = false;  // the indication as last switched
};

}  // namespace serve
