// What a vector file asks of a scan chain, one action at a time. The
// readers (Svf.h, Xsvf.h) turn the statements of an SVF or XSVF file into
// actions as they read it, holding one statement at a time; the player
// (Player.h) carries the actions out on a Tap. Statements that only set
// something for later ones (headers, end states, lengths, masks) give no
// action of their own.
#pragma once
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/TapState.h"

namespace jtag {

// Where a statement is in its file: a line (SVF, counted from 1) or a
// byte offset (XSVF, counted from 0).
struct Place {
    bool byte = false;
    uint64_t at = 0;

    // "file:12" or "file: byte 418", as messages name it.
    std::string in(const std::string& file) const;
};

// A file that cannot be read, or does not read as its format.
class FormatError : public std::runtime_error {
  public:
    enum Kind { unreadable, syntax, unsupported };
    FormatError(Kind kind, Place place, const std::string& what)
        : std::runtime_error(what), kind(kind), place(place) {}
    Kind kind;
    Place place;
};

struct Action {
    enum Kind : uint8_t {
        scan,       // an IR or DR scan
        state,      // a move through the TAP states
        runTest,    // a stay in a stable state for cycles and time
        frequency,  // a new ceiling on TCK
    };
    Kind kind = scan;
    Place place;
    const char* statement = "";  // the statement's keyword: "SDR", "XSDRTDO", ...

    // scan: the whole scan, header and trailer included, first bit first.
    bool ir = false;
    BitVector tdi, smask;
    bool check = false;    // TDO is read and compared
    BitVector tdo, mask;   // with check: expected TDO, and the bits that count
    TapState end = TapState::RunTestIdle;  // the shift state itself: stay there
    unsigned retries = 0;  // DR scans with check: further tries on a mismatch (XSVF)
    uint64_t waitUs = 0;   // Run-Test/Idle after the scan (and after each retry), in
                           // microseconds and at least as many TCK cycles (XSVF)

    // state: the states to go through (stepwise: one cycle each), or the
    // one to reach by the shortest way (Test-Logic-Reset: by five cycles
    // with TMS high, from wherever the chain is).
    std::vector<TapState> path;
    bool stepwise = false;

    // runTest: move to runState, stay there for at least cycles TCK cycles
    // and at least minSeconds, then move to end. maxSeconds, when not 0,
    // is the longest the stay may take.
    TapState runState = TapState::RunTestIdle;
    uint64_t cycles = 0;
    double minSeconds = 0, maxSeconds = 0;

    // frequency: the ceiling on TCK in Hz; 0: none, full speed.
    double hz = 0;
};

// The interface both readers share.
class Reader {
  public:
    virtual ~Reader() = default;
    // The next action into *a, reusing its buffers; false at the end.
    // Throws FormatError.
    virtual bool next(Action* a) = 0;
    // Statements (SVF) or commands (XSVF) read so far.
    uint64_t statements() const { return statements_; }
    // Bytes of the file read so far.
    virtual uint64_t bytesRead() const = 0;

  protected:
    uint64_t statements_ = 0;
};

// A stream's own reason for a read that fails, where errno says too little
// (PlayInput's stream, for a block other than the one it checked): its read
// function sets it just before it fails, and the Input whose read failed
// takes it for its FormatError. One per thread, as the reads are.
void readFailureIs(std::string why);

// A file read in blocks, a byte at a time.
class Input {
  public:
    explicit Input(FILE* file) : file_(file), buffer_(kBlock) {}

    int get() { return pos_ < end_ || fill() ? buffer_[pos_++] : -1; }
    int peek() { return pos_ < end_ || fill() ? buffer_[pos_] : -1; }
    // Up to count bytes into out; how many there were.
    size_t read(uint8_t* out, size_t count);
    // Bytes taken so far.
    uint64_t offset() const { return base_ + pos_; }
    // Bytes the file has read so far, ahead of what is taken.
    uint64_t bytesRead() const { return base_ + end_; }

  private:
    static constexpr size_t kBlock = 1 << 16;
    bool fill();

    FILE* file_;
    std::vector<uint8_t> buffer_;
    size_t pos_ = 0, end_ = 0;
    uint64_t base_ = 0;  // offset of buffer_[0]
};

// The keyword of a TAP state in SVF (RESET, IDLE, DRSHIFT, ...).
const char* svfStateName(TapState s);
// Whether a controller stays in s with TMS held: Test-Logic-Reset,
// Run-Test/Idle, Pause-DR, Pause-IR.
bool isStable(TapState s);

}  // namespace jtag
