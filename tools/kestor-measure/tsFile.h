// A recording of bare transport packets: 188 bytes each, 192 (4 bytes of arrival time in front, as players
// write them) or 204 (16 bytes of Reed-Solomon parity behind).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "input.h"

// Reads an input packet by packet. Where packets stand is found once, at the begin, by their sync bytes, and
// holds from then on: a packet with a wrong sync byte is a packet. Only when kLostAfter packets in a row have
// none (bytes were cut out of the file) is their place looked for again, within the block at hand; where none
// is found the old one holds.
class TsFile {
  public:
    static constexpr size_t kPacketSize = 188;
    static constexpr unsigned kLostAfter = 24;

    // Whether `begin`, an input's first bytes, looks like transport packets: 5 of them in a row with sync
    // bytes at one distance, or all that fit where there are fewer.
    static bool fits(std::span<const uint8_t> begin);

    // Takes the input, whose first bytes have to fit. Throws std::runtime_error when they do not.
    explicit TsFile(Input& input);

    // The next packets, 188 bytes each, one behind the other; valid until the next call. Empty at the end;
    // what is less than a packet there is left out. Throws std::runtime_error when reading fails.
    std::span<const uint8_t> next();

    // Bytes from one packet to the next in the file: 188, 192 or 204.
    unsigned stride() const {
        return stride_;
    }

  private:
    struct Grid {
        unsigned stride = 0;  // 0: none
        size_t offset = 0;    // of the first packet's sync byte
    };
    static Grid findGrid(std::span<const uint8_t> bytes);

    Input& input_;
    unsigned stride_;
    size_t skip_;                   // bytes before the next packet's sync byte
    unsigned withoutSync_ = 0;      // packets in a row
    std::vector<uint8_t> packets_;  // of a file whose packets do not stand side by side
};
