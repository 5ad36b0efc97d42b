// Writes bit streams field by field: parameter sets and frame headers as a test wants them to be.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace test {

class BitWriter {
  public:
    BitWriter& bits(uint64_t value, unsigned count) {
        for (unsigned i = count; i > 0; --i)
            put((value >> (i - 1) & 1) != 0);
        return *this;
    }
    struct Field {
        uint64_t value;
        unsigned count;
    };
    BitWriter& fields(std::initializer_list<Field> all) {
        for (const auto& [value, count] : all)
            bits(value, count);
        return *this;
    }
    BitWriter& ue(uint32_t value) {
        const uint64_t code = uint64_t{value} + 1;
        unsigned length = 0;
        while (code >> (length + 1) != 0)
            ++length;
        return bits(0, length).bits(code, length + 1);
    }
    BitWriter& se(int32_t value) {
        return ue(value > 0 ? static_cast<uint32_t>(value) * 2 - 1 : static_cast<uint32_t>(-value) * 2);
    }
    // With the stop bit; fills up with zeros.
    std::vector<uint8_t> bytes() const {
        BitWriter copy = *this;
        copy.put(true);
        return copy.bytes_;
    }
    // Bits so far.
    std::size_t size() const {
        return used_;
    }
    // Filled up with zeros alone.
    std::vector<uint8_t> plain() const {
        return bytes_;
    }

  private:
    void put(bool bit) {
        if (used_ % 8 == 0)
            bytes_.push_back(0);
        if (bit)
            bytes_.back() = static_cast<uint8_t>(bytes_.back() | 0x80 >> used_ % 8);
        ++used_;
    }

    std::vector<uint8_t> bytes_;
    std::size_t used_ = 0;
};

// Bytes of a NAL unit or header behind a start code, with emulation prevention.
inline std::vector<uint8_t> startCoded(const std::vector<uint8_t>& unit, bool prevent = true) {
    std::vector<uint8_t> bytes = {0, 0, 1};
    unsigned zeros = 0;
    for (const uint8_t byte : unit) {
        if (prevent && zeros >= 2 && byte <= 3) {
            bytes.push_back(3);
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        bytes.push_back(byte);
    }
    return bytes;
}

// A header of ISO/IEC 13818-2: the first field is the last byte of its start code.
inline std::vector<uint8_t> mpegHeader(std::initializer_list<BitWriter::Field> fields) {
    return startCoded(BitWriter().fields(fields).plain(), false);
}

}  // namespace test
