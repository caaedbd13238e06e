#include "sim/ProgDevice.h"

#include <cassert>

namespace sim {

using jtag::BitVector;
using jtag::TapState;

namespace {

constexpr uint32_t kAddressMask = kMaxRows - 1;

}  // namespace

ProgDevice::ProgDevice(const MemoryDesc& desc) : desc_(desc), memory_(size_t{desc.rows} * desc.rowBits, true) {
    assert(desc.rows >= 1 && desc.rows <= kMaxRows && desc.rowBits >= 1 && memory_.size() <= kMaxMemoryBits);
}

unsigned ProgDevice::registerLength(uint32_t instruction) const {
    switch (instruction) {
        case kAddressInstruction:
            return kAddressBits;
        case kProgramInstruction:
        case kReadInstruction:
            return desc_.rowBits;
        default:
            return 0;
    }
}

void ProgDevice::capture(uint32_t instruction, BitVector* dr) const {
    switch (instruction) {
        case kAddressInstruction:
            *dr = BitVector::fromValue(address_, kAddressBits);
            break;
        case kReadInstruction:
            dr->assign(desc_.rowBits, true);
            if (address_ < desc_.rows)
                jtag::copyBits(memory_.data(), size_t{address_} * desc_.rowBits, dr->data(), 0, desc_.rowBits);
            break;
        default:
            dr->assign(registerLength(instruction), false);
            break;
    }
}

void ProgDevice::update(uint32_t instruction, const BitVector& dr) {
    switch (instruction) {
        case kAddressInstruction:
            address_ = static_cast<uint32_t>(dr.value(0, kAddressBits));
            break;
        case kProgramInstruction:
            row_ = dr;
            rowAddress_ = address_;
            address_ = (address_ + 1) & kAddressMask;
            start(Busy::program, desc_.programCycles);
            break;
        case kReadInstruction:
            address_ = (address_ + 1) & kAddressMask;
            break;
        default:
            break;
    }
}

void ProgDevice::instructionIs(uint32_t instruction) {
    if (instruction == kEraseInstruction) start(Busy::erase, desc_.eraseCycles);
}

void ProgDevice::step(TapState from, TapState to) {
    if (busy_ == Busy::none) return;
    if (to != TapState::RunTestIdle) {
        busy_ = Busy::none;  // left (or never entered) Run-Test/Idle too early
        return;
    }
    if (from == TapState::RunTestIdle && ++cyclesDone_ >= cyclesNeeded_) finish();
}

void ProgDevice::start(Busy what, uint32_t cycles) {
    busy_ = what;
    cyclesNeeded_ = cycles;
    cyclesDone_ = 0;
    if (cycles == 0) finish();
}

void ProgDevice::finish() {
    if (busy_ == Busy::erase) {
        memory_.assign(memory_.size(), true);
    } else if (rowAddress_ < desc_.rows) {
        size_t first = size_t{rowAddress_} * desc_.rowBits;
        for (size_t b = 0; b < desc_.rowBits; ++b)
            if (!row_[b]) memory_.set(first + b, false);
    }
    busy_ = Busy::none;
}

}  // namespace sim
