// Reads the fields of a bit stream one after the other, most significant bit first: u(n), ue(v) and se(v) of
// ITU-T H.264 and H.265 (clauses 7.2, 9.1), bslbf and uimsbf of ISO/IEC 13818-1. Bounded: behind the end all
// bits are 0 and overrun() tells, so a parser reads to its end and asks once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace meter {

class BitReader {
  public:
    // The bytes have to stay as long as the reader is used.
    explicit BitReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    // The next `count` bits, 0 to 32.
    uint32_t bits(unsigned count) {
        uint32_t value = 0;
        for (; count >= 8; count -= 8)
            value = value << 8 | eight();
        return count == 0 ? value : value << count | few(count);
    }
    uint64_t longBits(unsigned count) {  // 0 to 64
        const unsigned low = count > 32 ? 32 : count;
        const uint64_t high = bits(count - low);
        return high << low | bits(low);
    }
    bool flag() {
        return few(1) != 0;
    }
    // ue(v). A code with more than 32 leading zeros, which no field has, ends the reading as an overrun does.
    uint32_t ue() {
        unsigned zeros = 0;
        while (!flag()) {
            if (++zeros > 32 || overrun()) {
                fail();
                return 0;
            }
        }
        return zeros == 32 ? bits(32) - 1U : (uint32_t{1} << zeros) - 1U + bits(zeros);
    }
    // se(v).
    int32_t se() {
        const uint32_t code = ue();
        const auto half = static_cast<int32_t>(code / 2);
        return code % 2 != 0 ? (half == INT32_MAX ? INT32_MAX : half + 1) : -half;
    }
    void skip(std::size_t count) {
        position_ = count > SIZE_MAX / 2 - position_ ? SIZE_MAX / 2 : position_ + count;
    }
    void align() {
        position_ = (position_ + 7) / 8 * 8;
    }

    // From the begin, in bits; beyond the end after an overrun.
    std::size_t position() const {
        return position_;
    }
    std::size_t left() const {
        return overrun() ? 0 : bytes_.size() * 8 - position_;
    }
    // Whether bits behind the end were read or skipped.
    bool overrun() const {
        return position_ > bytes_.size() * 8;
    }

  private:
    uint8_t byteAt(std::size_t index) const {
        return index < bytes_.size() ? bytes_[index] : uint8_t{0};
    }
    uint32_t eight() {
        const std::size_t index = position_ / 8;
        const unsigned shift = position_ % 8;
        skip(8);
        return ((uint32_t{byteAt(index)} << 8 | byteAt(index + 1)) >> (8 - shift)) & 0xFF;
    }
    uint32_t few(unsigned count) {  // 1 to 7
        const std::size_t index = position_ / 8;
        const unsigned shift = position_ % 8;
        skip(count);
        const uint32_t pair = uint32_t{byteAt(index)} << 8 | byteAt(index + 1);
        return (pair >> (16 - shift - count)) & ((1U << count) - 1U);
    }
    void fail() {
        position_ = SIZE_MAX / 2;
    }

    std::span<const uint8_t> bytes_;
    std::size_t position_ = 0;
};

}  // namespace meter
