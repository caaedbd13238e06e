// The SVF and XSVF readers over one table: each file, as text or bytes,
// against the actions the reader makes of it (with its line or byte
// offset), the number of statements, or the error, its place and its kind.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "TestSupport.h"

using jtag::Action;

namespace {

std::string describe(const Action& a) {
    std::string s = "@" + std::to_string(a.place.at) + " " + a.statement;
    switch (a.kind) {
        case Action::scan:
            s += " " + std::to_string(a.tdi.size()) + " tdi=" + a.tdi.hex();
            if (!a.smask.empty()) s += " smask=" + a.smask.hex();
            if (a.check) s += " tdo=" + a.tdo.hex() + " mask=" + a.mask.hex();
            s += std::string(" end=") + jtag::svfStateName(a.end);
            if (a.retries) s += " retries=" + std::to_string(a.retries);
            if (a.waitUs) s += " wait=" + std::to_string(a.waitUs);
            break;
        case Action::state:
            for (jtag::TapState t : a.path) s += std::string(" ") + jtag::svfStateName(t);
            if (a.stepwise) s += " stepwise";
            break;
        case Action::runTest: {
            std::ostringstream t;  // times as %g writes them
            t << " " << jtag::svfStateName(a.runState) << " " << a.cycles << " TCK " << a.minSeconds << " s";
            if (a.maxSeconds) t << " max " << a.maxSeconds << " s";
            s += t.str() + " end " + jtag::svfStateName(a.end);
            break;
        }
        case Action::frequency:
            s += a.hz ? " " + std::to_string(static_cast<long long>(a.hz)) + " Hz" : " none";
            break;
    }
    return s;
}

// Every action on its own line, then "(N statements)", or the error as
// "<kind>@<place> <message>".
std::string read(bool xsvf, const std::string& text) {
    MemoryReader r(text, xsvf);
    std::string out;
    Action a;
    try {
        while (r->next(&a)) out += describe(a) + "\n";
        out += "(" + std::to_string(r->statements()) + " statements)";
    } catch (const jtag::FormatError& e) {
        const char* kinds[] = {"unreadable", "syntax", "unsupported"};
        out += std::string(kinds[e.kind]) + "@" + std::to_string(e.place.at) + " " + e.what();
    }
    return out;
}

struct Row {
    bool xsvf;
    std::string file;
    std::string expected;
};

const Row kRows[] = {
    // TDI, MASK and SMASK carry over at the same length, TDO never; a new length resets MASK and SMASK.
    {false,
     "SIR 8 TDI(41);\n"
     "SDR 32 TDI(ABCD1234) TDO(11112222);\n"
     "SDR 32 TDO(0000FFFF);\n"
     "SDR 32;\n"
     "SDR 16 TDI(1) MASK(00FF) SMASK(0F0F);\n"
     "SDR 16 TDO(0012);\n"
     "SDR 8 TDI(3) TDO(3);\n",
     "@1 SIR 8 tdi=41 smask=ff end=IDLE\n"
     "@2 SDR 32 tdi=abcd1234 smask=ffffffff tdo=11112222 mask=ffffffff end=IDLE\n"
     "@3 SDR 32 tdi=abcd1234 smask=ffffffff tdo=0000ffff mask=ffffffff end=IDLE\n"
     "@4 SDR 32 tdi=abcd1234 smask=ffffffff end=IDLE\n"
     "@5 SDR 16 tdi=0001 smask=0f0f end=IDLE\n"
     "@6 SDR 16 tdi=0001 smask=0f0f tdo=0012 mask=00ff end=IDLE\n"
     "@7 SDR 8 tdi=03 smask=ff tdo=03 mask=ff end=IDLE\n"
     "(7 statements)"},
    // Headers first, trailers last; their TDO counts only in scans with TDO, and only where they gave one.
    {false,
     "HIR 4 TDI(F);\nTIR 2 TDI(1);\nHDR 1 TDI(0) TDO(1) MASK(1);\nTDR 3 TDI(5);\n"
     "SIR 6 TDI(2A);\n"
     "SDR 8 TDI(C3) TDO(81) MASK(F0);\n"
     "SDR 8 TDI(C3);\n"
     "HDR 0;\n"
     "SDR 8 TDI(00) TDO(FF);\n",
     "@5 SIR 12 tdi=6af smask=fff end=IDLE\n"
     "@6 SDR 12 tdi=b86 smask=fff tdo=103 mask=1e1 end=IDLE\n"
     "@7 SDR 12 tdi=b86 smask=fff end=IDLE\n"
     "@9 SDR 11 tdi=500 smask=7ff tdo=0ff mask=0f0 end=IDLE\n"
     "(9 statements)"},
    {false, "HDR 8;\n", "syntax@1 HDR: TDI is required: the length changed from 0 to 8 bits"},
    // End states, STATE paths from where the chain is, the shortest way, and reset.
    {false,
     "ENDIR IRPAUSE;\nENDDR DRPAUSE;\nSIR 2 TDI(1);\nSDR 1 TDI(1);\n"
     "STATE DRPAUSE DREXIT2 DRUPDATE IDLE;\nSTATE RESET;\nSTATE IRPAUSE;\n",
     "@3 SIR 2 tdi=1 smask=3 end=IRPAUSE\n"
     "@4 SDR 1 tdi=1 smask=1 end=DRPAUSE\n"
     "@5 STATE DRPAUSE DREXIT2 DRUPDATE IDLE stepwise\n"
     "@6 STATE RESET\n"
     "@7 STATE IRPAUSE\n"
     "(7 statements)"},
    {false, "STATE IDLE;\nSTATE DRSELECT\n DRSHIFT IDLE;\n",
     "@1 STATE IDLE\nsyntax@3 STATE: DRSHIFT does not follow DRSELECT in one TCK cycle"},
    {false, "STATE DRSELECT DRCAPTURE DREXIT1 DRPAUSE;\n",
     "syntax@1 STATE: DRSELECT does not follow RESET in one TCK cycle"},
    {false, "STATE IDLE DRSELECT\nDRCAPTURE DRSHIFT;\n",
     "syntax@2 STATE: the last state, DRSHIFT, is not a stable state (RESET, IDLE, DRPAUSE, IRPAUSE)"},
    {false, "STATE IDLE DRSOMEWHERE;\n", "syntax@1 STATE: expected a state name or ';', found DRSOMEWHERE"},
    {false, "ENDDR DRSHIFT;\n", "syntax@1 ENDDR: DRSHIFT is not a stable state (RESET, IDLE, DRPAUSE, IRPAUSE)"},
    // RUNTEST in every form: run and end states carry over; a run state alone sets the end state too.
    {false,
     "RUNTEST 100 TCK;\n"
     "RUNTEST DRPAUSE 20 TCK 1E-3 SEC;\n"
     "RUNTEST 5 TCK;\n"
     "RUNTEST IDLE 1.5E-2 SEC MAXIMUM 1 SEC ENDSTATE IRPAUSE;\n"
     "RUNTEST 1 SEC;\n"
     "RUNTEST 10 SCK 2 SEC;\n"
     "RUNTEST 1.0E+03 TCK 5E-1 SEC MAXIMUM 2 SEC;\n",
     "@1 RUNTEST IDLE 100 TCK 0 s end IDLE\n"
     "@2 RUNTEST DRPAUSE 20 TCK 0.001 s end DRPAUSE\n"
     "@3 RUNTEST DRPAUSE 5 TCK 0 s end DRPAUSE\n"
     "@4 RUNTEST IDLE 0 TCK 0.015 s max 1 s end IRPAUSE\n"
     "@5 RUNTEST IDLE 0 TCK 1 s end IRPAUSE\n"
     "@6 RUNTEST IDLE 0 TCK 2 s end IRPAUSE\n"
     "@7 RUNTEST IDLE 1000 TCK 0.5 s max 2 s end IRPAUSE\n"
     "(7 statements)"},
    {false, "RUNTEST 10 SCK;\n",
     "unsupported@1 RUNTEST: there is no system clock here to count SCK cycles by; give a minimum time (min_time "
     "SEC) with them"},
    {false, "RUNTEST DRSHIFT 10 TCK;\n", "syntax@1 RUNTEST: DRSHIFT is not a stable state (RESET, IDLE, DRPAUSE, IRPAUSE)"},
    {false, "RUNTEST 1E-3 SEC MAXIMUM 1E-4 SEC;\n", "syntax@1 RUNTEST: the maximum time is less than the minimum time"},
    {false, "RUNTEST 1.5 TCK;\n", "syntax@1 RUNTEST: the run count is not a whole number of cycles"},
    {false, "RUNTEST 10 TCK\n ENDSTATE;\n", "syntax@2 RUNTEST: expected an end state, found ';'"},
    {false, "RUNTEST 10 MS;\n", "syntax@1 RUNTEST: expected TCK, SCK or SEC, found MS"},
    {false, "RUNTEST IDLE;\n", "syntax@1 RUNTEST: expected a run count or a minimum time, found ';'"},
    // FREQUENCY with and without a value.
    {false, "FREQUENCY 1E6 HZ;\nfrequency;\n", "@1 FREQUENCY 1000000 Hz\n@2 FREQUENCY none\n(2 statements)"},
    {false, "FREQUENCY 0 HZ;\n", "syntax@1 FREQUENCY: the frequency is not more than 0 Hz"},
    {false, "FREQUENCY 1E6;\n", "syntax@1 FREQUENCY: expected HZ, found ';'"},
    // No TRST pin, no parallel vectors.
    {false, "TRST OFF;\nTRST ABSENT;\n", "(2 statements)"},
    {false, "TRST OFF;\nTRST ON;\n",
     "unsupported@2 TRST ON: there is no TRST pin here (TRST OFF and ABSENT are accepted)"},
    {false, "TRST Z;\n", "unsupported@1 TRST Z: there is no TRST pin here (TRST OFF and ABSENT are accepted)"},
    {false, "TRST HIGH;\n", "syntax@1 TRST: expected ON, OFF, Z or ABSENT, found HIGH"},
    {false, "PIOMAP (IN A OUT B);\n",
     "unsupported@1 PIOMAP: parallel test vectors are not supported: there are no parallel test pins here"},
    {false, "\n\nPIO (HLHL);\n",
     "unsupported@3 PIO: parallel test vectors are not supported: there are no parallel test pins here"},
    // Comments, any case, statements over lines, hex with spaces, line breaks and comments inside.
    {false,
     "// a comment\n"
     "sir 8 tdi (\n"
     "  4 ! the high digit\n"
     "  1) ;  // trailing\n"
     "Sdr 12\n TDI (A\n BC) tDo(abc)\n;!\n",
     "@2 SIR 8 tdi=41 smask=ff end=IDLE\n@5 SDR 12 tdi=abc smask=fff tdo=abc mask=fff end=IDLE\n(2 statements)"},
    {false, "", "syntax@1 the file holds no statement (it is empty, or only white space and comments)"},
    // Lengths that are no multiple of four: leading digits must not set bits past the length.
    {false, "SDR 13 TDI(1FFF);\nSDR 4 TDI(00F);\n",
     "@1 SDR 13 tdi=1fff smask=1fff end=IDLE\n@2 SDR 4 tdi=f smask=f end=IDLE\n(2 statements)"},
    {false, "SDR 13 TDI(3FFF);\n", "syntax@1 SDR: TDI (3FFF) is wider than the length of 13 bits"},
    {false, "SDR 8 TDI(00) TDO(\n100);\n", "syntax@1 SDR: TDO (100) is wider than the length of 8 bits"},
    // Malformed statements, each at the line of the offending token.
    {false, "SIR 8 TDI(41;\nSDR 8 TDI(00);\n", "syntax@1 SIR: expected a hex digit or ')' in TDI, found ';'"},
    {false, "SIR 8 TDI(\n41\n", "syntax@3 SIR: expected ')' to close TDI, found the end of the file"},
    {false, "SIR 8 TDI 41);\n", "syntax@1 SIR: expected '(' after TDI, found 41"},
    {false, "SIR 8 TDI(41));\n", "syntax@1 SIR: expected TDI, TDO, MASK, SMASK or ';', found ')'"},
    {false, "SIR 8 TDI();\n", "syntax@1 SIR: TDI () holds no hex digits"},
    {false, "SIR 8 TDI(00) TDI(01);\n", "syntax@1 SIR: TDI given twice"},
    {false, "SDR -8 TDI(00);\n", "syntax@1 SDR: expected a length in bits (a decimal number), found -8"},
    {false, "SDR\nTDI(00);\n", "syntax@2 SDR: expected a length in bits (a decimal number), found TDI"},
    {false, "SDR 99999999999999 TDI(0);\n",
     "syntax@1 SDR: a length of 99999999999999 bits is more than the 1073741824 this reader takes"},
    {false, "SIR 8 TDI(00);\nFOO 1;\n", "@1 SIR 8 tdi=00 smask=ff end=IDLE\nsyntax@2 unknown statement FOO"},
    {false, "SIR 8 TDI(00)", "syntax@1 SIR: expected TDI, TDO, MASK, SMASK or ';', found the end of the file"},
    {false, "SIR 8 TDI(00) #;\n", "syntax@1 SIR: unexpected character '#'"},
    {false, "(SIR 8 TDI(00);\n", "syntax@1 expected a statement, found '('"},

    // XSVF: XREPEAT and XTDOMASK for XSDRTDO and the XSDRs after it; XRUNTEST
    // makes scans end in Run-Test/Idle and wait there.
    {true,
     bytes({0x07, 0x02, 0x13, 0x01, 0x14, 0x00, 0x12, 0x00, 0x02, 0x06, 0x2a, 0x08, 0x00, 0x00, 0x00, 0x0c, 0x01, 0x0f,
            0xf0, 0x09, 0x0a, 0xbc, 0x01, 0x23, 0x03, 0x00, 0x01, 0x04, 0x00, 0x00, 0x00, 0x64, 0x03, 0x00, 0x02, 0x02,
            0x02, 0x01, 0x00, 0x55}),
     "@6 XSTATE RESET\n"
     "@8 XSIR 6 tdi=2a end=IRPAUSE\n"
     "@19 XSDRTDO 12 tdi=abc tdo=123 mask=ff0 end=IDLE retries=2\n"
     "@24 XSDR 12 tdi=001 tdo=123 mask=ff0 end=IDLE retries=2\n"
     "@32 XSDR 12 tdi=002 tdo=123 mask=ff0 end=IDLE retries=2 wait=100\n"
     "@35 XSIR 2 tdi=1 end=IDLE wait=100\n"
     "syntax@38 XCOMPLETE: the file goes on after it, at byte 39"},
    // A new XSDRSIZE forgets the expected TDO; long scans in segments; XWAIT, XSIR2, XCOMMENT.
    {true,
     bytes({0x08, 0x00, 0x00, 0x00, 0x08, 0x03, 0x5a, 0x16, 'h',  'i',  0x00, 0x14, 0x01, 0x0c, 0x01, 0x0d, 0x02,
            0x0e, 0x03, 0x0f, 0x11, 0x22, 0x10, 0x33, 0x44, 0x11, 0x55, 0x66, 0x17, 0x01, 0x06, 0x00, 0x00, 0x03,
            0xe8, 0x15, 0x00, 0x0a, 0x03, 0xff, 0x00}),
     "@5 XSDR 8 tdi=5a end=IDLE\n"
     "@13 XSDRB 8 tdi=01 end=DRSHIFT\n"
     "@15 XSDRC 8 tdi=02 end=DRSHIFT\n"
     "@17 XSDRE 8 tdi=03 end=DRPAUSE\n"
     "@19 XSDRTDOB 8 tdi=11 tdo=22 mask=ff end=DRSHIFT\n"
     "@22 XSDRTDOC 8 tdi=33 tdo=44 mask=ff end=DRSHIFT\n"
     "@25 XSDRTDOE 8 tdi=55 tdo=66 mask=ff end=DRPAUSE\n"
     "@28 XWAIT IDLE 1000 TCK 0.001 s end DRPAUSE\n"
     "@35 XSIR2 10 tdi=3ff end=IDLE\n"
     "(13 statements)"},
    // XSDRINC: the address bits count up (and wrap), the data bits take each value in turn.
    {true, bytes({0x08, 0x00, 0x00, 0x00, 0x08, 0x0a, 0x0f, 0xf0, 0x0b, 0x0e, 0x02, 0x0a, 0x0b, 0x00}),
     "@8 XSDRINC 8 tdi=0e end=IDLE\n@8 XSDRINC 8 tdi=af end=IDLE\n@8 XSDRINC 8 tdi=b0 end=IDLE\n(4 statements)"},
    {true, bytes({0x08, 0x00, 0x00, 0x00, 0x08, 0x0b, 0x00, 0x00, 0x00}),
     "syntax@5 XSDRINC: no XSETSDRMASKS for the length of 8 bits"},
    // Truncated files, unknown commands and values out of range, at the command's offset.
    {true, bytes({0x08, 0x00, 0x00, 0x00, 0x10, 0x03, 0x12}), "syntax@5 XSDR: the file ends inside the command"},
    {true, bytes({0x08, 0x00, 0x00}), "syntax@0 XSDRSIZE: the file ends inside the command"},
    {true, bytes({0x12, 0x01}), "@0 XSTATE IDLE\nsyntax@2 the file ends without XCOMPLETE"},
    {true, bytes({0x16, 0x41, 0x42}), "syntax@0 XCOMMENT: the file ends inside the command"},
    {true, bytes({0x12, 0x00, 0x05}), "@0 XSTATE RESET\nsyntax@2 0x05 is not an XSVF command"},
    {true, bytes({0x18, 0x00}), "syntax@0 0x18 is not an XSVF command"},
    {true, bytes({0x12, 0x10}), "syntax@0 XSTATE: 0x10 is not a TAP state"},
    {true, bytes({0x13, 0x02}), "syntax@0 XENDIR: 2 is not an end state (0: Run-Test/Idle, 1: Pause)"},
    {true, bytes({0x17, 0x04, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00}),
     "syntax@0 XWAIT: Shift-DR is not a stable state to wait in"},
    {true, bytes({0x08, 0xff, 0xff, 0xff, 0xff}),
     "syntax@0 XSDRSIZE: 4294967295 bits is more than the 1073741824 this reader takes"},
};

}  // namespace

TEST(Vectors, EachFileReadsAsItsActionsOrItsError) {
    for (const Row& row : kRows) EXPECT_EQ(read(row.xsvf, row.file), row.expected) << row.file;
}

TEST(Vectors, LongValuesSpanReadBlocks) {
    // A scan longer than the reader's block, hex broken over lines.
    std::string hex;
    for (int i = 0; i < 40000; ++i) hex += i % 64 == 63 ? "5\n" : "5";
    std::string out = read(false, "SDR 160000 TDI(" + hex + ");\nSIR 1 TDI(1);\n");
    std::string tail = "\n@627 SIR 1 tdi=1 smask=1 end=IDLE\n(2 statements)";
    EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
    EXPECT_EQ(out.compare(0, 24, "@1 SDR 160000 tdi=555555"), 0);
}
