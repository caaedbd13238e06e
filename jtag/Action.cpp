#include "jtag/Action.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace jtag {

namespace {

constexpr const char* kSvfNames[] = {
    "RESET",   "IDLE",   "DRSELECT", "DRCAPTURE", "DRSHIFT", "DREXIT1", "DRPAUSE",  "DREXIT2",
    "DRUPDATE", "IRSELECT", "IRCAPTURE", "IRSHIFT", "IREXIT1", "IRPAUSE", "IREXIT2", "IRUPDATE",
};

}  // namespace

std::string Place::in(const std::string& file) const {
    return byte ? file + ": byte " + std::to_string(at) : file + ":" + std::to_string(at);
}

const char* svfStateName(TapState s) { return kSvfNames[static_cast<int>(s)]; }

bool isStable(TapState s) {
    return s == TapState::TestLogicReset || s == TapState::RunTestIdle || s == TapState::PauseDr ||
           s == TapState::PauseIr;
}

namespace {

std::string& readFailure() {
    static thread_local std::string why;
    return why;
}

}  // namespace

void readFailureIs(std::string why) { readFailure() = std::move(why); }

bool Input::fill() {
    base_ += end_;
    pos_ = end_ = 0;
    errno = 0;
    readFailure().clear();
    end_ = std::fread(buffer_.data(), 1, buffer_.size(), file_);
    if (end_ == 0 && std::ferror(file_)) {
        int error = errno ? errno : EIO;
        std::string why = readFailure().empty() ? std::strerror(error) : std::move(readFailure());
        readFailure().clear();
        throw FormatError(FormatError::unreadable, Place{true, base_}, why);
    }
    return end_ > 0;
}

size_t Input::read(uint8_t* out, size_t count) {
    size_t done = 0;
    while (done < count) {
        if (pos_ == end_ && !fill()) break;
        size_t n = std::min(count - done, end_ - pos_);
        std::memcpy(out + done, buffer_.data() + pos_, n);
        pos_ += n;
        done += n;
    }
    return done;
}

}  // namespace jtag
