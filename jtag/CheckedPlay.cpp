#include "jtag/CheckedPlay.h"

#include <new>

namespace jtag {

CheckedPlay::CheckedPlay(FILE* f, VectorFormat format, std::string name, PlayInput* input, double capHz)
    : file_(f), format_(format), name_(std::move(name)), input_(input), capHz_(capHz) {}

CheckedPlay::~CheckedPlay() = default;

PlayOutcome CheckedPlay::check() {
    reader_ = readerFor(format_, file_);
    player_ = std::make_unique<Player>(nullptr, systemClock());
    player_->capIs(capHz_);
    PlayOutcome outcome = run();
    checked_ = player_->stats();
    return outcome;
}

bool CheckedPlay::unchanged(PlayOutcome* outcome) const {
    if (!input_ || input_->unchanged()) return true;
    outcome->end = PlayOutcome::changed;
    outcome->message = name_ + ": changed since it was checked (size or modification time); nothing played";
    return false;
}

PlayOutcome CheckedPlay::play(Tap& tap) {
    PlayOutcome outcome;
    if (input_)
        input_->rewind();
    else
        std::rewind(file_);
    if (!unchanged(&outcome)) return outcome;
    reader_ = readerFor(format_, file_);
    player_ = std::make_unique<Player>(&tap, systemClock());
    player_->capIs(capHz_);
    // The reset under the lowest ceiling the file sets: its devices may not take more, even before its FREQUENCY.
    player_->start(checked_.lowestHz);
    return run();
}

PlayOutcome CheckedPlay::run() {
    PlayOutcome outcome;
    Action a;
    Player& player = *player_;
    player.onProgress = [this] {
        if (onProgress) onProgress();
    };
    player.onOverrun = [this](const Action& x) {
        if (onOverrun) onOverrun(x);
    };
    try {
        while (reader_->next(&a)) {
            if (player.play(a)) continue;
            std::string message = a.place.in(name_) + ": " + a.statement + " of " + std::to_string(a.tdi.size()) +
                                  " bits: " + player.mismatch();
            if (outcome.ok()) {
                outcome.end = PlayOutcome::mismatch;
                outcome.message = message;
            }
            if (!onMismatch || !onMismatch(a, message)) break;
        }
    } catch (const FormatError& e) {
        // A file that changed under the play was read; its reason says what it found.
        bool cannotRead = e.kind == FormatError::unreadable && !(input_ && input_->changed());
        outcome.end = e.kind == FormatError::unreadable ? PlayOutcome::unreadable
                      : e.kind == FormatError::syntax   ? PlayOutcome::syntax
                                                        : PlayOutcome::unsupported;
        outcome.message = e.place.in(name_) + ": " + (cannotRead ? "cannot read: " : "") + e.what();
    } catch (const std::bad_alloc&) {
        // A scan longer than this machine can hold.
        outcome.end = PlayOutcome::memory;
        outcome.message = name_ + ": not enough memory for the statement after " + a.place.in(name_);
    }
    player.onProgress = nullptr;
    player.onOverrun = nullptr;
    return outcome;
}

}  // namespace jtag
