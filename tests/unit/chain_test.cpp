// Chain discovery on simulated chains driven straight through the JTAG
// layer: device count, IDCODEs (a device without one included), the IR
// capture and its split into lengths, and each way a chain can be dead.
#include <gtest/gtest.h>

#include <string>

#include "ChainIntf.h"
#include "TestSupport.h"
#include "jtag/Chain.h"

namespace {

using Fault = jtag::ChainScan::Fault;

struct Scanned {
    explicit Scanned(std::vector<sim::DeviceDesc> devices, int stuck = -1, unsigned maxDevices = 8)
        : chain(std::move(devices)) {
        intf->stuck = stuck;
        result = jtag::scanChain(tap, maxDevices);
    }
    FakeBoard board;
    sim::JtagChain chain;
    ChainIntf* intf = new ChainIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};
    jtag::ChainScan result;
};

// The capture as bits, the bit nearest TDO first: "10" + "000000" ...
jtag::BitVector bits(const std::string& s) {
    jtag::BitVector v;
    for (char c : s) v.append(c == '1');
    return v;
}

std::string lengths(const jtag::IrSplit& s) {
    std::string out;
    for (unsigned n : s.lengths) out += (out.empty() ? "" : ",") + std::to_string(n);
    return out + (s.unique ? "" : " guess");
}

}  // namespace

TEST(Chain, FindsEachDeviceItsIdcodeAndTheIrLengths) {
    Scanned s({{0x0a5c7035, 8}, {sim::kNoIdcode, 5}, {0x1b4d2093, 6}});
    ASSERT_EQ(s.result.fault, Fault::none) << s.result.detail;
    // The second came up in BYPASS.
    EXPECT_EQ(s.result.idcodes, (decltype(s.result.idcodes){0x0a5c7035u, std::nullopt, 0x1b4d2093u}));
    EXPECT_EQ(s.result.irCapture.hex(), jtag::BitVector(bits("1000000010000100000")).hex());
    EXPECT_EQ(lengths(jtag::splitIr(s.result.irCapture, 3, {})), "8,5,6");
    // Every device is back at its function: Test-Logic-Reset, IDCODE selected.
    EXPECT_EQ(s.chain.state(), jtag::TapState::TestLogicReset);
    EXPECT_EQ(s.chain.instruction(0), sim::kIdcodeInstruction);
}

// TDO stuck at 0 or 1 and a chain past --max-devices, each with its words:
// chain_test.sh. Here the edge: as many devices as are looked for is no fault.
TEST(Chain, ADeadChainIsNamedForWhatItShows) {
    std::vector<sim::DeviceDesc> nine(9, {0x0a5c7035, 4});
    EXPECT_EQ(Scanned(nine, -1, 8).result.fault, Fault::tooLong);
    EXPECT_EQ(Scanned(nine, -1, 9).result.fault, Fault::none);
}

TEST(Chain, TheIrSplitIsDetectedWhereItIsOneAndAGuessWhereItIsNot) {
    // Zeros past each IR's ...01 (1000, 100000, 10): one way only.
    EXPECT_EQ(lengths(jtag::splitIr(bits("100010000010"), 3, {})), "4,6,2");
    // A capture with another 1 then 0 inside the first IR: 2+4 or 4+2.
    EXPECT_EQ(lengths(jtag::splitIr(bits("101010"), 2, {})), "2,4 guess");
    // A known length settles it.
    EXPECT_EQ(lengths(jtag::splitIr(bits("101010"), 2, {4, 0})), "4,2");
    EXPECT_EQ(lengths(jtag::splitIr(bits("101010"), 2, {0, 4})), "2,4");
    // Three devices over "101010": 2,2,2 only.
    EXPECT_EQ(lengths(jtag::splitIr(bits("101010"), 3, {})), "2,2,2");
    // No split: a length that does not fit, or an IR not starting 1 then 0.
    EXPECT_TRUE(jtag::splitIr(bits("101010"), 2, {3, 0}).lengths.empty());
    EXPECT_TRUE(jtag::splitIr(bits("100111"), 2, {}).lengths.empty());
    EXPECT_TRUE(jtag::splitIr(bits("1000"), 3, {}).lengths.empty());
}
