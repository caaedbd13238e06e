// Bits packed in bytes in the order they are shifted: bit i is bit i % 8 of
// byte i / 8, so bit 0 is shifted first and is the least significant bit
// of the register. This is the layout XilIntf_shift takes and gives, and
// the one that hexadecimal scan data (SVF, XVC) reads into directly: the
// last two hex digits of a value are byte 0. Bits of the last byte past
// size() are always 0, so whole bytes compare and hash as the bits do.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace jtag {

class BitVector {
  public:
    BitVector() = default;
    explicit BitVector(size_t bits, bool value = false) { resize(bits, value); }
    // The low `bits` bits of value (bits past 64 are 0).
    static BitVector fromValue(uint64_t value, size_t bits);
    // Hex digits, most significant first, as a scan value is written. The
    // value is taken as `bits` bits wide: missing leading digits are 0.
    // False (and out untouched) for a character that is not a hex digit or
    // a digit that sets a bit at or past `bits`.
    static bool fromHex(std::string_view digits, size_t bits, BitVector* out);

    // The low `bits` bits of the number in bytes, most significant byte
    // first (XSVF order: the last byte holds bit 0); ceil(bits / 8) bytes,
    // whose bits at or past `bits` are dropped.
    void assignBytes(const uint8_t* msbFirst, size_t bits);

    size_t size() const { return bits_; }
    bool empty() const { return bits_ == 0; }
    size_t byteCount() const { return bytes_.size(); }
    const uint8_t* data() const { return bytes_.data(); }
    uint8_t* data() { return bytes_.data(); }

    bool operator[](size_t i) const { return (bytes_[i / 8] >> (i % 8)) & 1; }
    void set(size_t i, bool value) {
        uint8_t mask = static_cast<uint8_t>(1u << (i % 8));
        bytes_[i / 8] = static_cast<uint8_t>(value ? bytes_[i / 8] | mask : bytes_[i / 8] & ~mask);
    }
    // New bits take value; the bytes stay allocated for reuse when shrinking.
    void resize(size_t bits, bool value = false);
    void assign(size_t bits, bool value) { bits_ = 0, bytes_.clear(), resize(bits, value); }
    void clear() { resize(0); }
    // Appends count bits of other, starting at its bit first.
    void append(const BitVector& other, size_t first = 0, size_t count = SIZE_MAX);
    void append(bool bit);

    // count (at most 64) bits from bit first, bit first as bit 0 of the
    // result; bits past the end read as 0.
    uint64_t value(size_t first, unsigned count) const;
    // The bits as hex digits, most significant first, ceil(size / 4) digits.
    std::string hex() const;
    // Whether this and expected agree on every bit that mask sets (mask and
    // expected as long as this).
    bool matches(const BitVector& expected, const BitVector& mask) const;

    bool operator==(const BitVector& o) const { return bits_ == o.bits_ && bytes_ == o.bytes_; }
    bool operator!=(const BitVector& o) const { return !(*this == o); }

  private:
    void clearTail();

    size_t bits_ = 0;
    std::vector<uint8_t> bytes_;
};

// Copies count bits of src from bit srcFirst to dst from bit dstFirst (both
// packed as above); other bits of dst stay.
void copyBits(const uint8_t* src, size_t srcFirst, uint8_t* dst, size_t dstFirst, size_t count);

}  // namespace jtag
