#include "sim/Vcd.h"

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

std::string valuesOf(const VcdWriter::Sample& s) {
    unsigned state = static_cast<unsigned>(s.tap);
    std::string v{s.tck, s.tms, s.tdi, s.tdo};
    for (int bit = 3; bit >= 0; --bit) v += (state >> bit) & 1 ? '1' : '0';
    return v;
}

}  // namespace

VcdWriter::VcdWriter(FILE* out, const char* timescale) : out_(out) {
    std::fprintf(out_, "$version kelvorn-sim $end\n$timescale %s $end\n$scope module jtag $end\n", timescale);
    for (const Variable& v : kVariables) std::fprintf(out_, "$var wire 1 %s %s $end\n", v.id, v.name);
    std::fputs("$upscope $end\n$enddefinitions $end\n", out_);
}

VcdWriter::~VcdWriter() { std::fclose(out_); }

void VcdWriter::sample(uint64_t time, const Sample& s) {
    std::string now = valuesOf(s);
    if (now == last_) return;
    std::fprintf(out_, "#%llu\n", static_cast<unsigned long long>(time));
    bool all = last_.empty();
    if (all) std::fputs("$dumpvars\n", out_);
    for (size_t i = 0; i < now.size(); ++i)
        if (all || now[i] != last_[i]) std::fprintf(out_, "%c%s\n", now[i], kVariables[i].id);
    if (all) std::fputs("$end\n", out_);
    last_ = now;
}

}  // namespace sim
