// An SVF or XSVF file played only once it has been read whole: check()
// reads it with a counting Player that has no pins, so a file that breaks
// off or asks for something this player refuses plays nothing; play() then
// reads it again from its first byte and carries it out on a Tap. Both
// kelvorn-play and libkelvorn play this way; each shows the outcome its own
// way (the tool prefixes its name, the library keeps the message).
#pragma once
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "jtag/Action.h"
#include "jtag/PlayInput.h"
#include "jtag/Player.h"
#include "jtag/Tap.h"

namespace jtag {

struct PlayOutcome {
    enum End { played, mismatch, unreadable, syntax, unsupported, memory, changed };
    End end = played;
    // What ended it, one line: "FILE:3: SDR of 64 bits: TDO mismatch: ...",
    // "FILE:0: cannot read: ...", "FILE: not enough memory for the
    // statement after FILE:12", "FILE: changed since it was checked ...".
    // With mismatches gone past (onMismatch), the first one's.
    std::string message;
    bool ok() const { return end == played; }
};

class CheckedPlay {
  public:
    // f: the file, read twice (rewound between); input, when the file is
    // one, is asked whether it changed. name: what messages call it.
    // capHz: a ceiling on TCK over the file's own (0: none).
    CheckedPlay(FILE* f, VectorFormat format, std::string name, PlayInput* input, double capHz);
    ~CheckedPlay();
    CheckedPlay(const CheckedPlay&) = delete;
    CheckedPlay& operator=(const CheckedPlay&) = delete;

    // After each statement, and in the play inside long ones: reader() and
    // stats() tell how far it went. It may throw: the read or play stops.
    std::function<void()> onProgress;
    // A RUNTEST that stayed longer than its MAXIMUM (player().warning() says how).
    std::function<void(const Action&)> onOverrun;
    // Each TDO mismatch, with its message; true: go on to the end (the
    // outcome is still a mismatch). None: the play stops at the first.
    std::function<bool(const Action&, const std::string&)> onMismatch;

    // Reads the whole file; nothing moves. TDO is not compared.
    PlayOutcome check();
    // Whether the file is still what was checked (its size and
    // modification time); else the outcome to report.
    bool unchanged(PlayOutcome* outcome) const;
    // From the first byte again, on the Tap (the chain reset first, under
    // the lowest ceiling the file sets). After a successful check() only.
    PlayOutcome play(Tap& tap);

    // The reader and the player of the phase running (or last run).
    const Reader& reader() const { return *reader_; }
    const Player& player() const { return *player_; }
    const PlayStats& stats() const { return player_->stats(); }
    // What the check counted (waits, the lowest ceiling).
    const PlayStats& checked() const { return checked_; }

  private:
    PlayOutcome run();

    FILE* file_;
    VectorFormat format_;
    std::string name_;
    PlayInput* input_;
    double capHz_;
    std::unique_ptr<Reader> reader_;
    std::unique_ptr<Player> player_;
    PlayStats checked_;
};

}  // namespace jtag
