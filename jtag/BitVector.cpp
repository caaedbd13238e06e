#include "jtag/BitVector.h"

namespace jtag {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

BitVector BitVector::fromValue(uint64_t value, size_t bits) {
    BitVector v(bits);
    for (size_t i = 0; i < v.bytes_.size() && i < 8; ++i) v.bytes_[i] = static_cast<uint8_t>(value >> (8 * i));
    v.clearTail();
    return v;
}

bool BitVector::fromHex(std::string_view digits, size_t bits, BitVector* out) {
    BitVector v(bits);
    size_t nibble = 0;  // from the least significant end
    for (size_t k = digits.size(); k-- > 0; ++nibble) {
        int d = hexDigit(digits[k]);
        if (d < 0) return false;
        if (d == 0) continue;
        size_t bit = 4 * nibble;
        // A set bit at or past `bits` does not fit the length.
        if (bit >= bits || (bits - bit < 4 && (d >> (bits - bit)) != 0)) return false;
        v.bytes_[bit / 8] = static_cast<uint8_t>(v.bytes_[bit / 8] | d << (bit % 8));
    }
    *out = std::move(v);
    return true;
}

void BitVector::assignBytes(const uint8_t* msbFirst, size_t bits) {
    size_t n = (bits + 7) / 8;
    bytes_.resize(n);
    bits_ = bits;
    for (size_t i = 0; i < n; ++i) bytes_[i] = msbFirst[n - 1 - i];
    clearTail();
}

void BitVector::resize(size_t bits, bool value) {
    size_t old = bits_;
    bytes_.resize((bits + 7) / 8, value ? 0xff : 0x00);
    bits_ = bits;
    if (bits > old && old % 8 != 0) {
        // The old last byte's tail was 0; fill it with value.
        uint8_t tail = static_cast<uint8_t>(0xff << (old % 8));
        if (value) bytes_[old / 8] = static_cast<uint8_t>(bytes_[old / 8] | tail);
    }
    clearTail();
}

void BitVector::clearTail() {
    if (bits_ % 8) bytes_[bits_ / 8] = static_cast<uint8_t>(bytes_[bits_ / 8] & ((1u << (bits_ % 8)) - 1));
}

void BitVector::append(const BitVector& other, size_t first, size_t count) {
    if (first >= other.bits_) return;
    if (count > other.bits_ - first) count = other.bits_ - first;
    size_t at = bits_;
    resize(bits_ + count);
    copyBits(other.data(), first, data(), at, count);
}

void BitVector::append(bool bit) {
    resize(bits_ + 1);
    if (bit) set(bits_ - 1, true);
}

uint64_t BitVector::value(size_t first, unsigned count) const {
    uint64_t v = 0;
    for (unsigned i = 0; i < count && i < 64 && first + i < bits_; ++i)
        v |= static_cast<uint64_t>((*this)[first + i]) << i;
    return v;
}

std::string BitVector::hex() const {
    static const char kDigits[] = "0123456789abcdef";
    size_t n = (bits_ + 3) / 4;
    std::string s(n, '0');
    for (size_t k = 0; k < n; ++k) {
        unsigned d = (bytes_[k / 2] >> (4 * (k % 2))) & 0xf;
        s[n - 1 - k] = kDigits[d];
    }
    return s;
}

bool BitVector::matches(const BitVector& expected, const BitVector& mask) const {
    for (size_t i = 0; i < bytes_.size(); ++i) {
        uint8_t e = i < expected.bytes_.size() ? expected.bytes_[i] : 0;
        uint8_t m = i < mask.bytes_.size() ? mask.bytes_[i] : 0;
        if ((bytes_[i] ^ e) & m) return false;
    }
    return true;
}

namespace {

inline void copyBit(const uint8_t* src, size_t s, uint8_t* dst, size_t d) {
    uint8_t mask = static_cast<uint8_t>(1u << (d % 8));
    dst[d / 8] = static_cast<uint8_t>((src[s / 8] >> (s % 8)) & 1 ? dst[d / 8] | mask : dst[d / 8] & ~mask);
}

}  // namespace

void copyBits(const uint8_t* src, size_t s, uint8_t* dst, size_t d, size_t count) {
    for (; count > 0 && d % 8; --count) copyBit(src, s++, dst, d++);
    // Whole destination bytes, each from one or two source bytes.
    unsigned sh = s % 8;
    for (; count >= 8; count -= 8, s += 8, d += 8) {
        unsigned b = src[s / 8] >> sh;
        if (sh) b |= static_cast<unsigned>(src[s / 8 + 1]) << (8 - sh);
        dst[d / 8] = static_cast<uint8_t>(b);
    }
    for (; count > 0; --count) copyBit(src, s++, dst, d++);
}

}  // namespace jtag
