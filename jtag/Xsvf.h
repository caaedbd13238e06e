// An XSVF reader: the binary form of SVF, one command byte and its
// operands at a time, read as a stream. Values are big-endian byte strings
// (the last byte holds the bit shifted first), as long as the last
// XSDRSIZE (or the XSIR/XSIR2 length) asks.
//
// Scans follow the commands' rules:
// - XSIR, XSIR2: shift IR; then Run-Test/Idle for the XRUNTEST time when it
//   is not 0, else the XENDIR state.
// - XSDR, XSDRTDO: shift DR and compare TDO with the expected value of the
//   last XSDRTDO under the XTDOMASK; on a mismatch, up to XREPEAT (32 until
//   set) further tries, each after Exit1-DR, Pause-DR, Exit2-DR, Shift-DR
//   (one bit, so that the wrong data is not what Update-DR takes), Exit1-DR,
//   Update-DR, Run-Test/Idle and the XRUNTEST time there. Then
//   Run-Test/Idle for the XRUNTEST time when it is not 0, else the XENDDR
//   state. An XSDR before any XSDRTDO of its length reads no TDO.
// - XSDRB, XSDRC, XSDRE and their TDO forms: a long scan in segments, staying
//   in Shift-DR until the E segment, which ends in the XENDDR state; their TDO
//   forms compare each segment, without retries.
// - XSDRINC: XSDR with the start address, then for each of its data values
//   an XSDR with the address bits (XSETSDRMASKS) counted up by one and the
//   data bits replaced by the next value.
// XSDRSIZE to a new length makes the TDO mask all ones and forgets the
// expected value. XSTATE moves to a state (to Test-Logic-Reset by five TMS
// high cycles); XWAIT stays in its stable wait state for the time and at
// least as many TCK cycles as microseconds, then moves to its end state.
// XCOMPLETE ends the file, and is its last byte; a file that ends before
// it, or inside a command, is truncated, and one with more after it is
// refused too (a syntax error at the XCOMPLETE), as is an empty file.
#pragma once
#include "jtag/Action.h"
#include "jtag/Svf.h"

namespace jtag {

// The XSVF command codes; 0x05 and 0x06 are none.
namespace xsvf {
enum Command : uint8_t {
    kXcomplete = 0x00,
    kXtdomask = 0x01,
    kXsir = 0x02,
    kXsdr = 0x03,
    kXruntest = 0x04,
    kXrepeat = 0x07,
    kXsdrsize = 0x08,
    kXsdrtdo = 0x09,
    kXsetsdrmasks = 0x0a,
    kXsdrinc = 0x0b,
    kXsdrb = 0x0c,
    kXsdrc = 0x0d,
    kXsdre = 0x0e,
    kXsdrtdob = 0x0f,
    kXsdrtdoc = 0x10,
    kXsdrtdoe = 0x11,
    kXstate = 0x12,
    kXendir = 0x13,
    kXenddr = 0x14,
    kXsir2 = 0x15,
    kXcomment = 0x16,
    kXwait = 0x17,
};
}  // namespace xsvf

class XsvfReader : public Reader {
  public:
    explicit XsvfReader(FILE* in, size_t maxBits = kMaxScanBits) : in_(in), maxBits_(maxBits) {}

    bool next(Action* a) override;
    uint64_t bytesRead() const override { return in_.offset(); }

  private:
    [[noreturn]] void fail(const std::string& what) const;
    uint8_t byte();
    uint32_t number(unsigned bytes);
    void value(size_t bits, BitVector* out);
    TapState state();
    // A whole scan, or the first, a middle or the last segment of a long one.
    enum Segment { whole, first, middle, last };
    void scan(Action* a, bool ir, bool check, Segment segment);
    void nextIncrement(Action* a);

    Input in_;
    size_t maxBits_;
    uint64_t command_ = 0;  // offset of the command being read
    const char* name_ = "";
    bool done_ = false;
    std::vector<uint8_t> bytes_;
    size_t sdrSize_ = 0;
    BitVector tdoMask_, expected_, addressMask_, dataMask_, data_;
    bool hasExpected_ = false;
    uint32_t runTestUs_ = 0;
    unsigned repeat_ = 32;
    TapState endIr_ = TapState::RunTestIdle, endDr_ = TapState::RunTestIdle;
    unsigned increments_ = 0;  // XSDRINC data values still to come
    BitVector incremented_;    // the last XSDRINC scan
    uint64_t incrementAt_ = 0;
};

}  // namespace jtag
