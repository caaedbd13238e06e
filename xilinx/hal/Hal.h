// Bit-field helpers for editing register values. Fields are given by their
// lowest and highest bit position, both included, as in the data sheets.
// The assertions guard the callers' constant tables; no user input reaches
// them.
#pragma once
#include <cassert>

#include "Types.h"

namespace Hal {

// The value of T with exactly bits from..to set.
template <typename T>
T bitmask(U16 from, U16 to) {
    assert(from <= to);
    T ones = static_cast<T>(static_cast<T>(T(2) << (to - from)) - 1);
    return static_cast<T>(ones << from);
}

// Replaces bits from..to of value by newValue, leaving the other bits alone.
template <typename T>
void bitsIs(T& value, U16 from, U16 to, T newValue) {
    assert(from <= to);
    [[maybe_unused]] T mask = bitmask<T>(0, static_cast<U16>(to - from));
    assert((newValue & ~mask) == 0);
    value = static_cast<T>((value & ~bitmask<T>(from, to)) | static_cast<T>(newValue << from));
}

// Bits from..to of value, shifted down to bit 0.
template <typename T>
T bits(T value, U16 from, U16 to) {
    return static_cast<T>((value >> from) & bitmask<T>(0, static_cast<U16>(to - from)));
}

}  // namespace Hal
