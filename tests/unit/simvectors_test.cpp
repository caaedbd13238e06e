// The vectors that program the simulated device: the exact SVF text and
// XSVF bytes for a two-row image on a device between two others (worked out
// by hand below), and both files played into a chain by the player: enough
// cycles program and verify the image, a cycle too few leaves the memory as
// it was and the verify fails.
#include <gtest/gtest.h>

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

VectorTarget targetOf(uint32_t erase = 30, uint32_t program = 10, std::vector<uint32_t> idcodes = {}) {
    return {{5, 4, 3}, 1, 12, erase, program, std::move(idcodes)};
}

// Bytes 21 43 65: row 0 is image bits 0-11, 0x321; row 1 bits 12-23, 0x654.
std::vector<BitVector> rowsOf(std::initializer_list<uint8_t> bytes) {
    BitVector image(bytes.size() * 8);
    std::copy(bytes.begin(), bytes.end(), image.data());
    return imageRows(image, 12);
}

class SimVectors : public ::testing::Test {
  protected:
    // Plays a file as kelvorn-play does, a TCK cycle a microsecond (so that
    // an XSVF wait of n microseconds is n cycles), up to the first scan
    // whose TDO does not match, where kelvorn-play stops; 1 if it stopped.
    uint64_t play(const std::string& file, bool xsvf = false) {
        MemoryReader r(file, xsvf);
        ChainClock clock(intf);
        clock.nsPerCycle = 1000;
        jtag::Player player(&tap, clock);
        player.start();
        for (jtag::Action a; player.stats().mismatches == 0 && r->next(&a);) player.play(a);
        return player.stats().mismatches;
    }
    uint64_t play(const std::vector<uint8_t>& xsvf) { return play(std::string(xsvf.begin(), xsvf.end()), true); }
    uint64_t row(size_t r) const { return chain.programmable(1)->memory().value(r * 12, 12); }

    FakeBoard board;
    JtagChain chain{kChain};
    ChainIntf* intf = new ChainIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};
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
    std::string alone = svfFor({{4}, 0, 12, 1, 2, {}}, rowsOf({0x21}));
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
    std::vector<uint8_t> wide = xsvfFor({std::vector<unsigned>(9, 32), 8, 12, 0, 0, {}}, rowsOf({0x21}));
    EXPECT_EQ(std::vector<uint8_t>(wide.begin() + 15, wide.begin() + 18), (std::vector<uint8_t>{0x15, 0x01, 0x20}));
}

// A cycle too few leaves the memory as it was and the verify fails; enough
// program and verify the image, from either file.
TEST_F(SimVectors, EnoughCyclesProgramTheImageAndOneTooFewLeavesTheMemoryAsItWas) {
    std::vector<BitVector> rows = rowsOf({0x21, 0x43, 0x65});
    EXPECT_EQ(play(svfFor(targetOf(30, 9), rows)), 1);  // both rows stay erased
    EXPECT_EQ(row(0), 0xfffu);
    EXPECT_EQ(play(xsvfFor(targetOf(30, 9), rows)), 1);
    EXPECT_EQ(row(1), 0xfffu);
    EXPECT_EQ(play(xsvfFor(targetOf(), rows)), 0);
    EXPECT_EQ(row(0), 0x321u);
    EXPECT_EQ(row(1), 0x654u);
    // Without its full erase the next image, programmed from SVF, lands on the
    // old one: 0xcba AND 0x321, 0xfed AND 0x654.
    rows = rowsOf({0xba, 0xdc, 0xfe});
    EXPECT_EQ(play(svfFor(targetOf(29, 10), rows)), 1);
    EXPECT_EQ(row(0), 0x020u);
    EXPECT_EQ(row(1), 0x644u);
}

// Both files read the chain's IDCODEs after a reset before the first erase:
// played on another chain they stop there, the memory as it was.
TEST_F(SimVectors, AFileForAnotherChainStopsBeforeTheErase) {
    std::vector<uint32_t> ids{0x0a5c7035, 0x12345679, 0x1b4d2093};
    std::vector<BitVector> rows = rowsOf({0x21, 0x43, 0x65});
    std::string svf = svfFor(targetOf(30, 10, ids), rows);
    // 32 + 32 + 32 bits, device 0 first out; each version nibble not compared.
    EXPECT_NE(svf.find("ENDDR IDLE;\n! The chain's IDCODEs (versions aside), before anything is erased\nSTATE RESET;\n"
                       "SDR 96 TDI (000000000000000000000000) TDO (1b4d2093123456790a5c7035) MASK "
                       "(0fffffff0fffffff0fffffff);\nHIR 5"),
              std::string::npos)
        << svf;
    EXPECT_EQ(play(svf), 0);
    EXPECT_EQ(row(0), 0x321u);
    std::vector<uint32_t> other = ids;
    other[2] = 0x1b4d2094;  // a third device of another part
    std::vector<BitVector> next = rowsOf({0xba, 0xdc, 0xfe});
    EXPECT_EQ(play(svfFor(targetOf(30, 10, other), next)), 1);
    EXPECT_EQ(play(xsvfFor(targetOf(30, 10, other), next)), 1);
    EXPECT_EQ(row(0), 0x321u);
    EXPECT_EQ(row(1), 0x654u);
    // Another version of the same parts passes the check.
    std::vector<uint32_t> revised = ids;
    revised[0] |= 0x30000000;
    EXPECT_EQ(play(xsvfFor(targetOf(30, 10, revised), next)), 0);
}
