#include "jtag/Xsvf.h"

#include <cstdio>

namespace jtag {

namespace {

using namespace xsvf;

// Names by code; 0x05 and 0x06 are no commands.
constexpr const char* kNames[] = {
    "XCOMPLETE", "XTDOMASK", "XSIR",     "XSDR",     "XRUNTEST", nullptr,    nullptr,  "XREPEAT",
    "XSDRSIZE",  "XSDRTDO",  "XSETSDRMASKS", "XSDRINC", "XSDRB", "XSDRC",  "XSDRE",  "XSDRTDOB",
    "XSDRTDOC",  "XSDRTDOE", "XSTATE",   "XENDIR",   "XENDDR",   "XSIR2",    "XCOMMENT", "XWAIT",
};
constexpr int kCommands = sizeof kNames / sizeof kNames[0];

constexpr int kStates = 16;

size_t ones(const BitVector& v) {
    size_t n = 0;
    for (size_t i = 0; i < v.byteCount(); ++i) n += static_cast<size_t>(__builtin_popcount(v.data()[i]));
    return n;
}

}  // namespace

void XsvfReader::fail(const std::string& what) const {
    throw FormatError(FormatError::syntax, Place{true, command_}, *name_ ? std::string(name_) + ": " + what : what);
}

uint8_t XsvfReader::byte() {
    int c = in_.get();
    if (c < 0) fail("the file ends inside the command");
    return static_cast<uint8_t>(c);
}

uint32_t XsvfReader::number(unsigned bytes) {
    uint32_t v = 0;
    while (bytes-- > 0) v = v << 8 | byte();
    return v;
}

void XsvfReader::value(size_t bits, BitVector* out) {
    size_t n = (bits + 7) / 8;
    bytes_.resize(n);
    if (in_.read(bytes_.data(), n) != n) fail("the file ends inside the command");
    out->assignBytes(bytes_.data(), bits);
}

TapState XsvfReader::state() {
    uint8_t b = byte();
    if (b >= kStates) {
        char s[48];
        std::snprintf(s, sizeof s, "0x%02x is not a TAP state", b);
        fail(s);
    }
    return static_cast<TapState>(b);
}

// The scan of a command whose TDI is in a->tdi.
void XsvfReader::scan(Action* a, bool ir, bool check, Segment segment) {
    a->kind = Action::scan;
    a->place = Place{true, command_};
    a->statement = name_;
    a->ir = ir;
    a->smask.clear();
    a->check = check;
    if (check) {
        a->tdo = expected_;
        a->mask = tdoMask_;
    } else {
        a->tdo.clear();
        a->mask.clear();
    }
    a->retries = 0;
    a->waitUs = 0;
    switch (segment) {
        case whole:
            a->waitUs = runTestUs_;
            a->end = runTestUs_ ? TapState::RunTestIdle : ir ? endIr_ : endDr_;
            if (check && !ir) a->retries = repeat_;
            break;
        case first:
        case middle: a->end = TapState::ShiftDr; break;
        case last: a->end = endDr_; break;
    }
}

// The next XSDR of an XSDRINC: the address counted up, the next data value in.
void XsvfReader::nextIncrement(Action* a) {
    command_ = incrementAt_;
    name_ = "XSDRINC";
    value(ones(dataMask_), &data_);
    bool carry = true;
    for (size_t i = 0; carry && i < sdrSize_; ++i) {
        if (!addressMask_[i]) continue;
        carry = incremented_[i];
        incremented_.set(i, !carry);
    }
    for (size_t i = 0, j = 0; i < sdrSize_; ++i)
        if (dataMask_[i]) incremented_.set(i, data_[j++]);
    --increments_;
    a->tdi = incremented_;
    scan(a, false, hasExpected_, whole);
}

bool XsvfReader::next(Action* a) {
    if (increments_ > 0) {
        nextIncrement(a);
        return true;
    }
    while (!done_) {
        command_ = in_.offset();
        name_ = "";
        int c = in_.get();
        if (c < 0) fail(command_ == 0 ? "the file is empty" : "the file ends without XCOMPLETE");
        if (c >= kCommands || !kNames[c]) {
            char s[48];
            std::snprintf(s, sizeof s, "0x%02x is not an XSVF command", c);
            fail(s);
        }
        name_ = kNames[c];
        ++statements_;
        switch (c) {
            case kXcomplete:
                // The end of the file: anything after it would be a play cut off, or another file.
                if (in_.peek() >= 0) fail("the file goes on after it, at byte " + std::to_string(in_.offset()));
                done_ = true;
                return false;
            case kXtdomask: value(sdrSize_, &tdoMask_); continue;
            case kXsir:
            case kXsir2: {
                size_t length = c == kXsir ? byte() : number(2);
                value(length, &a->tdi);
                scan(a, true, false, whole);
                return true;
            }
            case kXsdr:
                value(sdrSize_, &a->tdi);
                scan(a, false, hasExpected_, whole);
                return true;
            case kXruntest: runTestUs_ = number(4); continue;
            case kXrepeat: repeat_ = byte(); continue;
            case kXsdrsize: {
                uint32_t n = number(4);
                if (n > maxBits_) fail(std::to_string(n) + " bits is more than the " + std::to_string(maxBits_) + " this reader takes");
                if (n != sdrSize_) {
                    sdrSize_ = n;
                    tdoMask_.assign(n, true);
                    hasExpected_ = false;
                }
                continue;
            }
            case kXsdrtdo:
            case kXsdrtdob:
            case kXsdrtdoc:
            case kXsdrtdoe:
                value(sdrSize_, &a->tdi);
                value(sdrSize_, &expected_);
                hasExpected_ = true;
                scan(a, false, true, c == kXsdrtdo ? whole : c == kXsdrtdob ? first : c == kXsdrtdoc ? middle : last);
                return true;
            case kXsetsdrmasks:
                value(sdrSize_, &addressMask_);
                value(sdrSize_, &dataMask_);
                continue;
            case kXsdrinc:
                if (addressMask_.size() != sdrSize_ || dataMask_.size() != sdrSize_)
                    fail("no XSETSDRMASKS for the length of " + std::to_string(sdrSize_) + " bits");
                value(sdrSize_, &incremented_);
                increments_ = byte();
                incrementAt_ = command_;
                a->tdi = incremented_;
                scan(a, false, hasExpected_, whole);
                return true;
            case kXsdrb:
            case kXsdrc:
            case kXsdre:
                value(sdrSize_, &a->tdi);
                scan(a, false, false, c == kXsdrb ? first : c == kXsdrc ? middle : last);
                return true;
            case kXstate:
                a->kind = Action::state;
                a->place = Place{true, command_};
                a->statement = name_;
                a->path.assign(1, state());
                a->stepwise = false;
                return true;
            case kXendir:
            case kXenddr: {
                uint8_t b = byte();
                if (b > 1) fail(std::to_string(b) + " is not an end state (0: Run-Test/Idle, 1: Pause)");
                if (c == kXendir)
                    endIr_ = b ? TapState::PauseIr : TapState::RunTestIdle;
                else
                    endDr_ = b ? TapState::PauseDr : TapState::RunTestIdle;
                continue;
            }
            case kXcomment:
                while (byte() != 0) {
                }
                continue;
            case kXwait: {
                TapState wait = state(), end = state();
                uint32_t us = number(4);
                if (!isStable(wait)) fail(std::string(stateName(wait)) + " is not a stable state to wait in");
                a->kind = Action::runTest;
                a->place = Place{true, command_};
                a->statement = name_;
                a->runState = wait;
                a->end = end;
                a->cycles = us;
                a->minSeconds = us * 1e-6;
                a->maxSeconds = 0;
                return true;
            }
        }
    }
    return false;
}

}  // namespace jtag
