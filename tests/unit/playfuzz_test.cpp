// Both readers, and the player counting what they make, over thousands of
// damaged files: bits flipped, cut short, random tokens and bytes put in.
// Every file must end cleanly or with a FormatError; nothing else may
// escape, and under the sanitizers nothing may be reported.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "TestSupport.h"
#include "jtag/Player.h"

namespace {

// Small enough that a damaged length costs little memory.
constexpr size_t kMaxBits = 1 << 16;
constexpr int kMutants = 20000;

const char kSvf[] =
    "TRST OFF;\nENDIR IDLE;\nENDDR DRPAUSE;\nFREQUENCY 1E6 HZ;\nHIR 8 TDI(FF);\nTIR 2 TDI(3) TDO(1) MASK(3);\n"
    "HDR 1 TDI(0);\nTDR 3 TDI(7) SMASK(5);\nSTATE RESET;\nSIR 6 TDI(01) TDO(01) MASK(3F);\n"
    "SDR 32 TDI(0) TDO(1b4d2093) MASK(FFFFFFFF) SMASK(FFFFFFFF);\nSDR 32 TDO(1b4d2093);\n"
    "RUNTEST IDLE 100 TCK 1.0E-3 SEC MAXIMUM 2E-3 SEC ENDSTATE IRPAUSE;\nRUNTEST 5E-6 SEC;\n"
    "STATE IRPAUSE IREXIT2 IRUPDATE IDLE;\n// comment\nSDR 13 TDI(1fff)\n TDO(0aaa) ! x\n;\nFREQUENCY;\n";

const unsigned char kXsvf[] = {
    0x07, 0x02, 0x13, 0x00, 0x14, 0x01, 0x12, 0x00, 0x12, 0x01, 0x02, 0x06, 0x01, 0x08, 0x00, 0x00, 0x00, 0x20,
    0x01, 0xff, 0xff, 0xff, 0xff, 0x04, 0x00, 0x00, 0x00, 0x05, 0x09, 0x00, 0x00, 0x00, 0x00, 0x1b, 0x4d, 0x20,
    0x93, 0x03, 0x00, 0x00, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x00, 0x0f, 0x00, 0x00, 0xff, 0x00, 0x0b, 0x00, 0x00,
    0x00, 0x01, 0x02, 0x11, 0x22, 0x0c, 0x01, 0x02, 0x03, 0x04, 0x0d, 0x01, 0x02, 0x03, 0x04, 0x0e, 0x01, 0x02,
    0x03, 0x04, 0x0f, 0, 0, 0, 0, 1, 2, 3, 4, 0x10, 0, 0, 0, 0, 1, 2, 3, 4, 0x11, 0, 0, 0, 0, 1, 2, 3, 4,
    0x16, 'o',  'k',  0x00, 0x17, 0x01, 0x01, 0x00, 0x00, 0x00, 0x10, 0x15, 0x00, 0x0a, 0x03, 0xff, 0x00,
};

const char* const kTokens[] = {
    "SDR", "SIR", "HDR", "TIR", "STATE", "RUNTEST", "TDI", "TDO", "MASK", "SMASK", "(", ")", ";", "!", "//",
    "RESET", "DRSHIFT", "IDLE", "TCK", "SCK", "SEC", "MAXIMUM", "ENDSTATE", "1E9", "-1", "4294967295", "0",
    "99999999999", "FFFFFFFF", "1.5E-3", "\n", " ", "PIO", "TRST ON", "FREQUENCY", "HZ", ".", "E", "\x07",
};

std::string mutate(std::string s, std::mt19937& rng, bool text) {
    int edits = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < edits && !s.empty(); ++i) {
        size_t at = rng() % (s.size() + 1);
        switch (rng() % 4) {
            case 0:
                if (at < s.size()) s[at] = static_cast<char>(s[at] ^ (1 << (rng() % 8)));
                break;
            case 1: s.resize(at); break;
            case 2:
                if (text) {
                    s.insert(at, kTokens[rng() % (sizeof kTokens / sizeof kTokens[0])]);
                    break;
                }
                [[fallthrough]];
            default: s.insert(at, 1 + rng() % 4, static_cast<char>(rng())); break;
        }
    }
    return s;
}

// Reads the whole file and counts it: "ok", the FormatError, or "escaped"
// when anything else came out.
std::string outcome(const std::string& file, bool xsvf) {
    MemoryReader r(file, xsvf, kMaxBits);
    jtag::Player counter(nullptr, jtag::systemClock());
    jtag::Action a;
    try {
        while (r->next(&a)) counter.play(a);
    } catch (const jtag::FormatError& e) {
        return std::string("error: ") + e.what();
    } catch (...) {
        return "escaped";
    }
    return "ok";
}

}  // namespace

TEST(PlayFuzz, DamagedFilesEndCleanlyOrWithAFormatError) {
    std::mt19937 rng(20240611);
    const std::string svf(kSvf), xsvf(reinterpret_cast<const char*>(kXsvf), sizeof kXsvf);
    ASSERT_EQ(outcome(svf, false), "ok");
    ASSERT_EQ(outcome(xsvf, true), "ok");
    int failures = 0;
    for (int i = 0; i < kMutants && failures < 5; ++i) {
        bool asXsvf = i % 2;
        std::string m = mutate(asXsvf ? xsvf : svf, rng, !asXsvf);
        // Each damaged file through both readers: text read as XSVF and bytes as SVF too.
        for (bool x : {asXsvf, !asXsvf}) {
            std::string o = outcome(m, x);
            if (o == "escaped" || o == "error: ") {
                ++failures;
                ADD_FAILURE() << (x ? "XSVF" : "SVF") << " reader, mutant " << i << ": " << o;
            }
        }
    }
}
