// The programmable device and the loop-back register, driven through the
// JTAG layer: erase, address, program and read with enough and too few
// cycles in Run-Test/Idle, what each register captures, and the 4096-bit
// round trip.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChainIntf.h"
#include "TestSupport.h"
#include "jtag/Tap.h"
#include "sim/JtagChain.h"

using jtag::BitVector;
using jtag::TapState;
using ::testing::ElementsAre;
using namespace sim;

namespace {

constexpr unsigned kIr = 4, kRowBits = 12;

class SimProg : public ::testing::Test {
  protected:
    FakeBoard board;
    // Four rows of 12 bits, erase 50 cycles, program 10.
    JtagChain chain{{{0x12345679, kIr, {4, kRowBits, 50, 10}}}};
    ChainIntf* intf = new ChainIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};

    void SetUp() override { tap.reset(); }
    void ir(uint32_t code) { tap.shiftIr(BitVector::fromValue(code, kIr)); }
    uint64_t dr(uint64_t in, unsigned bits, TapState end = TapState::RunTestIdle) {
        return tap.shiftDr(BitVector::fromValue(in, bits), end).value(0, bits);
    }
    // Programs rows from `first` on, each with its cycles.
    void program(uint32_t first, std::initializer_list<uint32_t> rows) {
        ir(kAddressInstruction);
        dr(first, kAddressBits);
        ir(kProgramInstruction);
        for (uint32_t r : rows) {
            dr(r, kRowBits);
            tap.idle(10);
        }
    }
    std::vector<uint64_t> memory() const {
        const BitVector& m = chain.programmable(0)->memory();
        std::vector<uint64_t> rows;
        for (size_t at = 0; at < m.size(); at += kRowBits) rows.push_back(m.value(at, kRowBits));
        return rows;
    }
};

}  // namespace

TEST_F(SimProg, ARowIsWrittenOnlyAfterItsCyclesInRunTestIdle) {
    EXPECT_THAT(memory(), ElementsAre(0xfff, 0xfff, 0xfff, 0xfff));  // erased from the start
    ir(kAddressInstruction);
    EXPECT_EQ(dr(2, kAddressBits), 0u);  // captures the address, then sets it
    ir(kProgramInstruction);
    EXPECT_EQ(dr(0xf0f, kRowBits), 0u);  // the row register captures zeros
    tap.idle(9);
    ir(kAddressInstruction);  // leaves Run-Test/Idle one cycle short
    EXPECT_THAT(memory(), ElementsAre(0xfff, 0xfff, 0xfff, 0xfff));
    EXPECT_EQ(dr(2, kAddressBits), 3u);  // the update advanced the address all the same

    ir(kProgramInstruction);
    dr(0xf0f, kRowBits);
    tap.idle(10);
    EXPECT_THAT(memory(), ElementsAre(0xfff, 0xfff, 0xf0f, 0xfff));
    // Update-DR straight to Select-DR-Scan: never in Run-Test/Idle, nothing written.
    dr(0x123, kRowBits, TapState::SelectDrScan);
    tap.idle(20);
    EXPECT_THAT(memory(), ElementsAre(0xfff, 0xfff, 0xf0f, 0xfff));

    // Programming only clears bits: the row becomes what it held AND the data.
    program(2, {0x0ff});
    EXPECT_THAT(memory(), ElementsAre(0xfff, 0xfff, 0x00f, 0xfff));
}

TEST_F(SimProg, ReadCapturesTheRowAtTheAddressAndAdvances) {
    program(0, {0x111, 0x222, 0x333, 0x444});
    ir(kAddressInstruction);
    EXPECT_EQ(dr(1, kAddressBits), 4u);  // four programs advanced it from 0
    ir(kReadInstruction);
    EXPECT_EQ(dr(0, kRowBits), 0x222u);
    EXPECT_EQ(dr(0xabc, kRowBits), 0x333u);  // what is shifted in does not change the memory
    EXPECT_EQ(dr(0, kRowBits), 0x444u);
    EXPECT_EQ(dr(0, kRowBits), 0xfffu);  // past the last row
    ir(kAddressInstruction);
    EXPECT_EQ(dr(0, kAddressBits), 5u);
    EXPECT_THAT(memory(), ElementsAre(0x111, 0x222, 0x333, 0x444));
}

TEST_F(SimProg, EraseNeedsItsCyclesAfterUpdateIrAndAResetAbandonsIt) {
    program(0, {0x000, 0x5a5});
    ir(kEraseInstruction);
    EXPECT_EQ(dr(0x2, 2), 0x2u << 1 & 0x3);  // BYPASS: one bit of delay after the captured 0
    tap.idle(100);                            // a DR scan came between: the erase was abandoned
    ir(kEraseInstruction);
    tap.idle(49);
    tap.reset();
    tap.idle(100);
    EXPECT_THAT(memory(), ElementsAre(0x000, 0x5a5, 0xfff, 0xfff));
    EXPECT_EQ(chain.instruction(0), kIdcodeInstruction);
    ir(kEraseInstruction);
    tap.idle(50);
    EXPECT_THAT(memory(), ElementsAre(0xfff, 0xfff, 0xfff, 0xfff));
}

TEST(SimLoopback, WhatOneScanShiftsInTheNextShiftsOutOnEveryDevice) {
    FakeBoard board;
    // A 2-bit instruction register is enough for the loop-back code.
    JtagChain chain{{{0x0a5c7035, 2}, {0x1b4d2093, 6}}};
    EXPECT_EQ(chain.programmable(0), nullptr);
    EXPECT_EQ(chain.firstProgrammable(), nullptr);
    jtag::Tap tap(new ChainIntf("0_1_0_jtag", &chain));
    tap.reset();
    tap.shiftIr(BitVector::fromValue(kLoopbackInstruction | kLoopbackInstruction << 2, 8));
    BitVector first(2 * kLoopbackBits), second(2 * kLoopbackBits);
    uint32_t x = 1;
    for (size_t i = 0; i < first.size(); ++i) {
        x = x * 1103515245 + 12345;
        first.set(i, (x >> 16) & 1);
        second.set(i, (x >> 17) & 1);
    }
    EXPECT_EQ(tap.shiftDr(first), BitVector(2 * kLoopbackBits));  // both start cleared
    EXPECT_EQ(tap.shiftDr(second), first);
    // A scan of half the length moves half: the rest of `second` comes out next.
    BitVector half(kLoopbackBits, true);
    EXPECT_EQ(tap.shiftDr(half).value(0, 64), second.value(0, 64));
    BitVector rest;
    rest.append(second, kLoopbackBits);
    rest.append(half);
    EXPECT_EQ(tap.shiftDr(BitVector(2 * kLoopbackBits)), rest);
    // The memory's codes select BYPASS on a device without memory.
    tap.shiftIr(BitVector::fromValue(kReadInstruction << 2 | 0x3, 8));
    EXPECT_EQ(tap.shiftDr(BitVector::fromValue(0x5, 3)).value(0, 3), 0x5u << 2 & 0x7);
}
