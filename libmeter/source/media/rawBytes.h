// Raw byte sequence payload of a NAL unit (ITU-T H.264 7.4.1, H.265 7.4.2).
#pragma once

#include <algorithm>
#include <array>

#include "fields/bytes.h"
#include "media/startCodes.h"

namespace meter {

// The unit's bytes behind its header of `headerSize` bytes, without emulation_prevention_three_byte.
class RawBytes {
  public:
    RawBytes(Bytes unit, std::size_t headerSize) {
        unsigned zeros = 0;
        for (const uint8_t byte : bytesAt(unit, headerSize, bytes_.size())) {
            if (zeros >= 2 && byte == 3) {
                zeros = 0;
                continue;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            bytes_[size_++] = byte;
        }
    }
    Bytes bytes() const {
        return Bytes(bytes_).first(size_);
    }

  private:
    std::array<uint8_t, kUnitLimit> bytes_;  // the first size_ ones are set
    std::size_t size_ = 0;
};

}  // namespace meter
