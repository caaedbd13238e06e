// An SVF (Serial Vector Format) reader: statements are read one at a time
// from a stream, so a file of any size needs only as much memory as its
// longest statement. Keywords in any case; comments from "!" or "//" to
// the end of the line; statements over several lines; hex digits with
// white space and line breaks between them.
//
// SIR and SDR: the TDI, MASK and SMASK of a scan carry over to the next
// scan of the same kind when it has the same length and does not give
// them; when the length changes, TDI must be given, and MASK and SMASK are
// all ones unless given. TDO never carries over: a scan without TDO reads
// nothing. HIR, HDR, TIR and TDR follow the same rules for their own
// patterns, which then stand for every later scan of their kind: the header
// is shifted first (it belongs to the devices between the target and TDO),
// the trailer last. A scan with TDO compares the header's and trailer's
// TDO too, where they gave one, under their masks; their other bits do not
// count.
//
// RUNTEST [run_state] run_count TCK|SCK [min_time SEC [MAXIMUM max_time
// SEC]] [ENDSTATE end_state], or with min_time alone: run_state defaults
// to the last RUNTEST's (Run-Test/Idle at first); end_state to run_state
// when run_state is given, else to the last RUNTEST's end state. This
// board has no system clock to count: SCK counts are refused unless a
// minimum time stands with them, and then the time is what counts.
//
// TRST OFF and ABSENT are accepted (there is no TRST pin); TRST ON and Z,
// PIO and PIOMAP are refused as unsupported. STATE paths must step through
// neighbouring states, from where the chain is; the player starts in
// Test-Logic-Reset, and the reader follows the chain's state from there.
#pragma once
#include <string>

#include "jtag/Action.h"

namespace jtag {

// The longest scan either reader accepts, header and trailer included:
// 128 MiB per bit vector.
constexpr size_t kMaxScanBits = size_t{1} << 30;

// The most bytes one SVF statement may take, from the first byte of its
// keyword to its ';', for a reader of scans of up to maxBits: room for
// TDI, TDO, MASK and SMASK of maxBits bits each, in hex with a blank or a
// line break after every digit, and 64 KiB more for the rest. A statement
// that has not ended by then is a syntax error at its line, as input that
// never ends would otherwise be read (and held) without end.
constexpr uint64_t maxStatementBytes(size_t maxBits) { return 2 * uint64_t{maxBits} + (uint64_t{1} << 16); }

// A file that holds no statement at all (empty, or only white space and
// comments) is a syntax error too: it is more likely the wrong file, or
// one cut off, than a play of nothing.
class SvfReader : public Reader {
  public:
    explicit SvfReader(FILE* in, size_t maxBits = kMaxScanBits)
        : in_(in), maxBits_(maxBits), maxStatementBytes_(maxStatementBytes(maxBits)) {}

    bool next(Action* a) override;
    uint64_t bytesRead() const override { return in_.offset(); }

  private:
    enum class Token { word, open, close, semicolon, end };
    // The TDI, TDO, MASK and SMASK of one kind of scan, header or trailer.
    struct Pattern {
        size_t length = 0;
        BitVector tdi, tdo, mask, smask;
        bool hasTdo = false;
    };

    // The next byte, within the statement's bound.
    int get();
    Token token();
    void skipLine();
    [[noreturn]] void syntax(uint64_t line, const std::string& what) const;
    [[noreturn]] void unexpected(Token t, const std::string& expected) const;
    void expectWord(const std::string& expected);
    void expectSemicolon();
    bool isNumber() const;
    double real(const std::string& what);
    TapState stateWord(const std::string& what);
    TapState stableState(const std::string& what);
    void hex(size_t bits, BitVector* out, const char* name);
    void pattern(Pattern* p);
    void scan(Action* a, bool ir);
    void state(Action* a);
    void runTest(Action* a);

    Input in_;
    size_t maxBits_;
    uint64_t maxStatementBytes_;
    static constexpr uint64_t kNoBound = ~uint64_t{0};
    bool starting_ = true;         // the next token starts a statement
    uint64_t bound_ = kNoBound;    // the offset the statement must end by
    uint64_t startLine_ = 1;       // where it started
    uint64_t line_ = 1;       // where reading is
    uint64_t tokenLine_ = 1;  // where the last token started
    uint64_t statementLine_ = 1;
    std::string word_;     // the last word, in capitals
    std::string digits_;   // hex digits of the value being read
    std::string keyword_;  // the statement's
    Pattern sir_, sdr_, hir_, hdr_, tir_, tdr_;
    BitVector given_[4];  // TDI, TDO, MASK, SMASK as a statement gives them
    TapState endIr_ = TapState::RunTestIdle, endDr_ = TapState::RunTestIdle;
    TapState runState_ = TapState::RunTestIdle, runEnd_ = TapState::RunTestIdle;
    TapState chain_ = TapState::TestLogicReset;  // where the chain is after the actions so far
};

}  // namespace jtag
