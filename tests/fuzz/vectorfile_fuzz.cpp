// A vector file's reader (SVF, or XSVF when built with FUZZ_XSVF), and the
// player counting what it makes, as kelvorn-play checks a file before any
// pin moves: every input ends cleanly or with a FormatError, and nothing
// else escapes.
#include "FuzzTarget.h"
#include "jtag/Player.h"
#ifdef FUZZ_XSVF
#include "jtag/Xsvf.h"
using Reader = jtag::XsvfReader;
#else
#include "jtag/Svf.h"
using Reader = jtag::SvfReader;
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::MemoryFile file(data, size);
    if (!file.get()) return 0;
    Reader reader(file.get(), fuzz::kMaxBits);
    jtag::Player counter(nullptr, jtag::systemClock());
    try {
        for (jtag::Action a; reader.next(&a);) counter.play(a);
    } catch (const jtag::FormatError&) {
    }
    return 0;
}
