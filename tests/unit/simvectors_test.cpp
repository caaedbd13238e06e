// The vectors that program the simulated device: the exact SVF text and
// XSVF bytes for a two-row image on a device between two others (worked out
// by hand below), and both files played into a chain by small interpreters
// of just the commands they use: enough cycles program and verify the
// image, a cycle too few leaves the memory as it was and the verify fails.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "ChainIntf.h"
#include "TestSupport.h"
#include "jtag/Tap.h"
#include "sim/JtagChain.h"
#include "sim/Vectors.h"

using jtag::BitVector;
using namespace sim;

namespace {

// Nearest TDO first: a 5-bit device, the programmable one (two rows of 12
// bits, erase 30 cycles, program 10), a 3-bit one.
const std::vector<DeviceDesc> kChain{{0x0a5c7035, 5}, {0x12345679, 4, {2, 12, 30, 10}}, {0x1b4d2093, 3}};

VectorTarget targetOf(uint32_t erase = 30, uint32_t program = 10) { return {{5, 4, 3}, 1, 12, erase, program}; }

// Bytes 21 43 65: row 0 is image bits 0-11, 0x321; row 1 bits 12-23, 0x654.
std::vector<BitVector> rowsOf(std::initializer_list<uint8_t> bytes) {
    BitVector image(bytes.size() * 8);
    std::copy(bytes.begin(), bytes.end(), image.data());
    return imageRows(image, 12);
}

// Plays the SVF subset the generator writes; returns the scans whose TDO did not match.
int playSvf(jtag::Tap& tap, const std::string& svf) {
    std::istringstream in(svf);
    std::map<std::string, BitVector> pad;  // HIR, TIR, HDR, TDR
    int mismatches = 0;
    for (std::string statement; std::getline(in, statement, ';');) {
        std::istringstream words(statement);
        std::string cmd, word;
        words >> cmd;
        while (cmd[0] == '!') std::getline(words, cmd), words >> cmd;  // comment lines
        if (cmd == "RUNTEST") {
            uint64_t n;
            words >> n >> word;
            EXPECT_EQ(word, "TCK");
            tap.idle(n);
            continue;
        }
        if (cmd == "STATE") {
            words >> word;
            word == "RESET" ? tap.reset() : tap.moveTo(jtag::TapState::RunTestIdle);
            continue;
        }
        if (cmd == "ENDIR" || cmd == "ENDDR") continue;  // IDLE: Tap scans end there
        size_t bits;
        words >> bits;
        std::map<std::string, BitVector> values;
        while (words >> word) {
            std::string hex;
            words >> hex;
            EXPECT_TRUE(BitVector::fromHex(hex.substr(1, hex.size() - 2), bits, &values[word])) << statement;
        }
        if (cmd != "SIR" && cmd != "SDR") {
            pad[cmd] = values.count("TDI") ? values["TDI"] : BitVector(bits);
            continue;
        }
        bool ir = cmd == "SIR";
        BitVector all = pad[ir ? "HIR" : "HDR"];
        all.append(values["TDI"]);
        all.append(pad[ir ? "TIR" : "TDR"]);
        BitVector out = ir ? tap.shiftIr(all) : tap.shiftDr(all);
        if (values.count("TDO")) {
            BitVector got;
            got.append(out, pad[ir ? "HIR" : "HDR"].size(), bits);
            mismatches += !got.matches(values["TDO"], values["MASK"]);
        }
    }
    return mismatches;
}

// Plays the XSVF subset the generator writes; returns the scans whose TDO did not match.
int playXsvf(jtag::Tap& tap, const std::vector<uint8_t>& x) {
    size_t at = 0;
    auto number = [&](int bytes) {
        uint32_t v = 0;
        while (bytes--) v = v << 8 | x.at(at++);
        return v;
    };
    auto bits = [&](size_t n) {
        BitVector v(n);
        for (size_t i = (n + 7) / 8; i-- > 0;) v.data()[i] = x.at(at++);
        return v;
    };
    uint32_t runtest = 0, size = 0;
    BitVector mask, expected;
    int mismatches = 0;
    for (;;) {
        uint8_t cmd = x.at(at++);
        if (cmd == 0x00) break;
        if (cmd == 0x07 || cmd == 0x13 || cmd == 0x14) {
            EXPECT_EQ(x.at(at++), 0) << "at " << at;  // no retries; scans end in Run-Test/Idle
        } else if (cmd == 0x12) {
            x.at(at++) == 0 ? tap.reset() : tap.moveTo(jtag::TapState::RunTestIdle);
        } else if (cmd == 0x04) {
            runtest = number(4);
        } else if (cmd == 0x08) {
            size = number(4);
        } else if (cmd == 0x01) {
            mask = bits(size);
        } else if (cmd == 0x02 || cmd == 0x15) {
            tap.shiftIr(bits(number(cmd == 0x02 ? 1 : 2)));
            tap.idle(runtest);
        } else {
            if (cmd != 0x03 && cmd != 0x09) {
                ADD_FAILURE() << "command " << int(cmd);
                return -1;
            }
            BitVector tdi = bits(size);
            if (cmd == 0x09) expected = bits(size);
            mismatches += !tap.shiftDr(tdi).matches(expected, mask);
            tap.idle(runtest);
        }
    }
    EXPECT_EQ(at, x.size());
    return mismatches;
}

class SimVectors : public ::testing::Test {
  protected:
    FakeBoard board;
    JtagChain chain{kChain};
    jtag::Tap tap{new ChainIntf("0_1_0_jtag", &chain)};
    uint64_t row(size_t r) const { return chain.programmable(1)->memory().value(r * 12, 12); }
};

}  // namespace

TEST(SimVectorsText, SvfOfATwoRowImage) {
    EXPECT_EQ(svfFor(targetOf(), rowsOf({0x21, 0x43, 0x65})),
              "! Erase, program and verify 2 rows of 12 bits on device 1 of the chain (0: nearest TDO)\n"
              "ENDIR IDLE;\nENDDR IDLE;\n"
              "HIR 5 TDI (1f);\nTIR 3 TDI (7);\nHDR 1 TDI (0);\nTDR 1 TDI (0);\n"
              "STATE RESET;\nSTATE IDLE;\n"
              "SIR 4 TDI (3);\nRUNTEST 30 TCK;\n"
              "SIR 4 TDI (4);\nSDR 16 TDI (0000);\n"
              "SIR 4 TDI (5);\nSDR 12 TDI (321);\nRUNTEST 10 TCK;\nSDR 12 TDI (654);\nRUNTEST 10 TCK;\n"
              "SIR 4 TDI (4);\nSDR 16 TDI (0000);\n"
              "SIR 4 TDI (6);\nSDR 12 TDI (000) TDO (321) MASK (fff);\nSDR 12 TDI (000) TDO (654) MASK (fff);\n");
    // An image that ends within a row: the rest of the row is ones. A device alone: no padding.
    std::string alone = svfFor({{4}, 0, 12, 1, 2}, rowsOf({0x21}));
    EXPECT_NE(alone.find("\nHIR 0;\nTIR 0;\nHDR 0;\nTDR 0;\n"), std::string::npos) << alone;
    EXPECT_NE(alone.find("\nSDR 12 TDI (f21);\nRUNTEST 2 TCK;\nSIR"), std::string::npos) << alone;
}

TEST(SimVectorsText, XsvfOfATwoRowImage) {
    // IR scans, 12 bits: the 5-bit device's ones in bits 0-4, the code in 5-8, the 3-bit device's ones in 9-11.
    // DR scans: one BYPASS bit on either side of the target's bits.
    const std::vector<uint8_t> expected{
        0x07, 0x00, 0x13, 0x00, 0x14, 0x00, 0x12, 0x00, 0x12, 0x01,  // XREPEAT 0, XENDIR/XENDDR idle, reset, idle
        0x04, 0x00, 0x00, 0x00, 0x1e, 0x02, 0x0c, 0x0e, 0x7f,        // XRUNTEST 30, XSIR ERASE
        0x04, 0x00, 0x00, 0x00, 0x00, 0x02, 0x0c, 0x0e, 0x9f,        // XRUNTEST 0, XSIR ADDRESS
        0x08, 0x00, 0x00, 0x00, 0x12, 0x01, 0x00, 0x00, 0x00,        // XSDRSIZE 18, XTDOMASK 0
        0x03, 0x00, 0x00, 0x00,                                      // XSDR address 0
        0x02, 0x0c, 0x0e, 0xbf,                                      // XSIR PROGRAM
        0x04, 0x00, 0x00, 0x00, 0x0a, 0x08, 0x00, 0x00, 0x00, 0x0e,  // XRUNTEST 10, XSDRSIZE 14
        0x01, 0x00, 0x00, 0x03, 0x06, 0x42, 0x03, 0x0c, 0xa8,        // XTDOMASK 0, XSDR 0x321 << 1, 0x654 << 1
        0x04, 0x00, 0x00, 0x00, 0x00, 0x02, 0x0c, 0x0e, 0x9f,        // XRUNTEST 0, XSIR ADDRESS
        0x08, 0x00, 0x00, 0x00, 0x12, 0x01, 0x00, 0x00, 0x00,        // XSDRSIZE 18, XTDOMASK 0
        0x03, 0x00, 0x00, 0x00, 0x02, 0x0c, 0x0e, 0xdf,              // XSDR address 0, XSIR READ
        0x08, 0x00, 0x00, 0x00, 0x0e, 0x01, 0x1f, 0xfe,              // XSDRSIZE 14, XTDOMASK the row's bits
        0x09, 0x00, 0x00, 0x06, 0x42, 0x09, 0x00, 0x00, 0x0c, 0xa8,  // XSDRTDO row 0, row 1
        0x00,                                                        // XCOMPLETE
    };
    EXPECT_EQ(xsvfFor(targetOf(), rowsOf({0x21, 0x43, 0x65})), expected);
    // Past 255 bits of instruction the IR scan is an XSIR2 with a two-byte length.
    std::vector<uint8_t> wide = xsvfFor({std::vector<unsigned>(9, 32), 8, 12, 0, 0}, rowsOf({0x21}));
    EXPECT_EQ(std::vector<uint8_t>(wide.begin() + 15, wide.begin() + 18), (std::vector<uint8_t>{0x15, 0x01, 0x20}));
}

TEST_F(SimVectors, SvfAndXsvfProgramAndVerifyTheImageWithEnoughCycles) {
    std::vector<BitVector> rows = rowsOf({0x21, 0x43, 0x65});
    EXPECT_EQ(playSvf(tap, svfFor(targetOf(), rows)), 0);
    EXPECT_EQ(row(0), 0x321u);
    EXPECT_EQ(row(1), 0x654u);
    // The XSVF file erases first, then programs another image over it.
    EXPECT_EQ(playXsvf(tap, xsvfFor(targetOf(), rowsOf({0xba, 0xdc, 0xfe}))), 0);
    EXPECT_EQ(row(0), 0xcbau);
    EXPECT_EQ(row(1), 0xfedu);
}

TEST_F(SimVectors, OneCycleTooFewLeavesTheMemoryAsItWasAndTheVerifyFails) {
    std::vector<BitVector> rows = rowsOf({0x21, 0x43, 0x65});
    EXPECT_EQ(playSvf(tap, svfFor(targetOf(30, 9), rows)), 2);  // both rows stay erased
    EXPECT_EQ(row(0), 0xfffu);
    EXPECT_EQ(playXsvf(tap, xsvfFor(targetOf(30, 9), rows)), 2);
    EXPECT_EQ(row(1), 0xfffu);
    EXPECT_EQ(playXsvf(tap, xsvfFor(targetOf(), rows)), 0);
    // Without its full erase the next image lands on the old one: 0xcba AND 0x321, 0xfed AND 0x654.
    rows = rowsOf({0xba, 0xdc, 0xfe});
    EXPECT_EQ(playSvf(tap, svfFor(targetOf(29, 10), rows)), 2);
    EXPECT_EQ(row(0), 0x020u);
    EXPECT_EQ(row(1), 0x644u);
}
