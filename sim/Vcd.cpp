#include "sim/Vcd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace sim {

namespace {

struct Variable {
    const char* id;
    const char* name;
};

// In the order of the characters of a sample.
constexpr Variable kVariables[] = {
    {"C", "tck"},          {"M", "tms"},          {"I", "tdi"},          {"O", "tdo"},
    {"S3", "tap_state[3]"}, {"S2", "tap_state[2]"}, {"S1", "tap_state[1]"}, {"S0", "tap_state[0]"},
};

void valuesOf(const VcdWriter::Sample& s, char* v) {
    unsigned state = static_cast<unsigned>(s.tap);
    v[0] = s.tck, v[1] = s.tms, v[2] = s.tdi, v[3] = s.tdo;
    for (int bit = 3; bit >= 0; --bit) v[7 - bit] = (state >> bit) & 1 ? '1' : '0';
}

}  // namespace

VcdWriter::VcdWriter(FILE* out, const char* timescale) : out_(out) {
    std::fprintf(out_, "$version kelvorn-sim $end\n$timescale %s $end\n$scope module jtag $end\n", timescale);
    for (const Variable& v : kVariables) std::fprintf(out_, "$var wire 1 %s %s $end\n", v.id, v.name);
    std::fputs("$upscope $end\n$enddefinitions $end\n", out_);
}

VcdWriter::~VcdWriter() { close(); }

bool VcdWriter::close() {
    if (!out_) return !failed_;
    if (std::ferror(out_) && !failed_) {
        failed_ = true;
        error_ = errno;
    }
    if (std::fclose(out_) != 0 && !failed_) {
        failed_ = true;
        error_ = errno;
    }
    out_ = nullptr;
    if (failed_) errno = error_ ? error_ : EIO;
    return !failed_;
}

void VcdWriter::sample(uint64_t time, const Sample& s) {
    static_assert(std::size(kVariables) == kVariableCount);
    char now[kVariableCount];
    valuesOf(s, now);
    if (std::memcmp(now, last_, sizeof now) == 0) return;
    // Formatted by hand into one buffer and written at once: this runs on
    // every register access of a traced run, inside the access's time.
    char buf[32 + kVariableCount * 4 + 16], *p = buf;
    *p++ = '#';
    char digits[20], *d = digits;
    do *d++ = static_cast<char>('0' + time % 10); while (time /= 10);
    while (d != digits) *p++ = *--d;
    *p++ = '\n';
    bool all = last_[0] == 0;
    if (all) p = std::copy_n("$dumpvars\n", 10, p);
    for (size_t i = 0; i < kVariableCount; ++i) {
        if (!all && now[i] == last_[i]) continue;
        *p++ = now[i];
        for (const char* id = kVariables[i].id; *id;) *p++ = *id++;
        *p++ = '\n';
    }
    if (all) p = std::copy_n("$end\n", 5, p);
    if (std::fwrite(buf, 1, static_cast<size_t>(p - buf), out_) != static_cast<size_t>(p - buf) && !failed_) {
        failed_ = true;
        error_ = errno;
    }
    std::memcpy(last_, now, sizeof now);
}

}  // namespace sim
