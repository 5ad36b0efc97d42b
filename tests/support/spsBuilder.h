// Builder of H.264 sequence parameter sets (ITU-T H.264 7.3.2.1.1), to be put at the start of a video PES
// payload.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

// Writes bits most significant first.
class BitWriter {
  public:
    BitWriter& u(int count, uint64_t value) {
        for (int i = count - 1; i >= 0; --i) {
            if (bits_++ % 8 == 0) {
                bytes_.push_back(0);
            }
            bytes_.back() =
                static_cast<uint8_t>(bytes_.back() | ((value >> i & 1U) << ((8 - bits_ % 8) % 8)));
        }
        return *this;
    }
    // Unsigned Exp-Golomb code (H.264 9.1).
    BitWriter& ue(uint64_t value) {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0) {
            ++length;
        }
        return u(length, 0).u(length + 1, value + 1);
    }
    BitWriter& se(int64_t value) {
        return ue(static_cast<uint64_t>(value > 0 ? 2 * value - 1 : -2 * value));
    }
    const std::vector<uint8_t>& bytes() const {
        return bytes_;
    }

  private:
    std::vector<uint8_t> bytes_;
    int bits_ = 0;
};

struct Sps {
    uint8_t profile = 66;
    bool highFields = false;                  // chroma format 4:4:4, bit depths and a scaling matrix follow
    std::vector<int32_t> scalingDeltas = {};  // the codes of the first scaling list; no other is sent
    uint32_t widthInMacroblocks = 45;
    uint32_t heightInMapUnits = 36;
    bool frameMbsOnly = true;
    std::array<uint32_t, 4> crop = {};  // left, right, top, bottom
    uint32_t pictureOrderCountType = 0;
    std::vector<int32_t> refFrameOffsets = {};  // picture order count type 1 only
};

// The parameter set from profile_idc up to the VUI flag, which is 1.
inline std::vector<uint8_t> spsBody(const Sps& sps) {
    BitWriter w;
    w.u(8, sps.profile).u(8, 0).u(8, 40).ue(0);
    if (sps.highFields) {
        w.ue(3).u(1, 0).ue(0).ue(0).u(1, 0).u(1, 1).u(1, sps.scalingDeltas.empty() ? 0 : 1);
        for (const int32_t delta : sps.scalingDeltas) {
            w.se(delta);
        }
        w.u(7, 0);
    }
    w.ue(0).ue(sps.pictureOrderCountType);
    if (sps.pictureOrderCountType == 0) {
        w.ue(2);
    } else if (sps.pictureOrderCountType == 1) {
        w.u(1, 0).se(-1).se(1).ue(sps.refFrameOffsets.size());
        for (const int32_t offset : sps.refFrameOffsets) {
            w.se(offset);
        }
    }
    w.ue(4)
        .u(1, 0)
        .ue(sps.widthInMacroblocks - 1)
        .ue(sps.heightInMapUnits - 1)
        .u(1, sps.frameMbsOnly ? 1 : 0);
    w.u(sps.frameMbsOnly ? 0 : 1, 0).u(1, 1);
    const bool cropped = sps.crop != std::array<uint32_t, 4>{};
    w.u(1, cropped ? 1 : 0);
    for (std::size_t i = 0; cropped && i < sps.crop.size(); ++i) {
        w.ue(sps.crop[i]);
    }
    return w.u(1, 1).bytes();
}

// Puts a four-byte start code and a NAL header before the bytes; 0x67 heads a parameter set, 0x09 a
// delimiter.
inline std::vector<uint8_t> nalUnit(uint8_t header, const std::vector<uint8_t>& body) {
    std::vector<uint8_t> nal(5 + body.size(), 0);
    nal[3] = 1;
    nal[4] = header;
    std::copy(body.begin(), body.end(), nal.begin() + 5);
    return nal;
}
