// The JTAG pins of the wired chip and the state of the TAP controller
// nearest TDO, as a Value Change Dump (the IEEE 1364 VCD format) that
// GTKWave and PulseView open. One time unit (declared as 1 us) stands for
// one register access of the wired chip, or (real time) one nanosecond. Every variable is a one-bit wire
// in scope "jtag": tck, tms, tdi, tdo, and the state number in bits
// tap_state[3] to tap_state[0] (jtag::TapState order: 0 Test-Logic-Reset,
// 1 Run-Test/Idle, ..., 15 Update-IR). The pins read 0, 1, or z when the
// chip does not drive them; tdo is the level the chip reads. GTKWave
// gathers the four state bits into one trace, tap_state[3:0]; PulseView's
// VCD import (libsigrok 0.5) takes one-bit variables only, and shows z as 0.
#pragma once
#include <cstdint>
#include <cstdio>

#include "jtag/TapState.h"

namespace sim {

class VcdWriter {
  public:
    struct Sample {
        char tck, tms, tdi, tdo;  // '0', '1' or 'z'
        jtag::TapState tap;
    };

    // Writes the header to out, which it owns from now on; timescale as
    // VCD writes it ("1 us", "1 ns").
    explicit VcdWriter(FILE* out, const char* timescale = "1 us");
    ~VcdWriter();  // closes the file, when close() has not
    // Closes the file: false when it, or any write before it, failed (the
    // last buffered bytes of a full disk fail only here), errno then set.
    bool close();
    VcdWriter(const VcdWriter&) = delete;
    VcdWriter& operator=(const VcdWriter&) = delete;

    // The values at a time no earlier than the last: the first call dumps
    // them all, later ones only those that changed.
    void sample(uint64_t time, const Sample& s);

  private:
    static constexpr size_t kVariableCount = 8;
    FILE* out_;
    bool failed_ = false;
    int error_ = 0;  // errno of the first write that failed
    char last_[kVariableCount] = {};  // one character per variable, in declaration order; 0: none yet
};

}  // namespace sim
