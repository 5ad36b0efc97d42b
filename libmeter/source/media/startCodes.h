// Finds units behind start codes (byte_stream of ITU-T H.264 and H.265 annex B, start codes of H.262) in a
// stream that comes in pieces, and keeps of each the bytes that somebody wants to read.
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "fields/bytes.h"

namespace meter {

// Bytes kept of a unit; a parameter set with all its scaling lists fits.
inline constexpr std::size_t kUnitLimit = 1024;

// The first 00 00 01 in `bytes` at or behind `from`; bytes.size() where there is none.
inline std::size_t findStartCode(Bytes bytes, std::size_t from) {
    while (from + 3 <= bytes.size()) {
        const void* found = std::memchr(bytes.data() + from + 2, 1, bytes.size() - from - 2);
        if (found == nullptr)
            break;
        const auto one = static_cast<std::size_t>(static_cast<const uint8_t*>(found) - bytes.data());
        if (bytes[one - 1] == 0 && bytes[one - 2] == 0)
            return one - 2;
        from = one - 1;
    }
    return bytes.size();
}

// `Reader`: std::size_t wanted(uint8_t first), how many bytes of a unit that begins with this one are read,
// the first one included; void unit(Bytes), such a unit, shorter where it ends before; bool done(), whether
// the rest need not be looked at.
class StartCodeScanner {
  public:
    // What comes next does not go on from what came last.
    void reset() {
        zeros_ = 0;
        inUnit_ = false;
        wanted_ = 0;
    }
    template <typename Reader>
    void feed(Bytes piece, Reader& reader);
    // No more of the open unit comes.
    template <typename Reader>
    void finish(Reader& reader) {
        close(reader);
        reset();
    }

  private:
    template <typename Reader>
    void take(Bytes body, Reader& reader);
    template <typename Reader>
    void close(Reader& reader);
    // Where the unit that is open ends and the next one begins, which is beyond the piece where none does.
    std::pair<std::size_t, std::size_t> next(Bytes piece) const;

    std::vector<uint8_t> kept_;
    std::size_t wanted_ = 0;  // bytes of the open unit still to come; 0: it is not read, or was handed out
    unsigned zeros_ = 0;      // at the end of the last piece, at most 2
    bool inUnit_ = false;
    bool fresh_ = false;  // the first byte of the open unit is still to come
};

inline std::pair<std::size_t, std::size_t> StartCodeScanner::next(Bytes piece) const {
    if (zeros_ >= 2 && piece[0] == 1)
        return {0, 1};
    if (zeros_ >= 1 && piece.size() >= 2 && piece[0] == 0 && piece[1] == 1)
        return {0, 2};
    const std::size_t found = findStartCode(piece, 0);
    return {found, found + 3};
}

template <typename Reader>
void StartCodeScanner::feed(Bytes piece, Reader& reader) {
    while (!piece.empty()) {
        const auto [end, begin] = next(piece);
        if (inUnit_)
            take(piece.first(end), reader);
        if (reader.done())
            return;
        if (begin > piece.size()) {
            const std::size_t tail = piece.size();
            const bool one = piece[tail - 1] == 0;
            const bool two = one && (tail >= 2 ? piece[tail - 2] == 0 : zeros_ >= 1);
            zeros_ = two ? 2 : (one ? 1 : 0);
            return;
        }
        close(reader);
        zeros_ = 0;
        inUnit_ = true;
        fresh_ = true;
        piece = piece.subspan(begin);
    }
}

template <typename Reader>
void StartCodeScanner::take(Bytes body, Reader& reader) {
    if (body.empty())
        return;
    if (fresh_) {
        fresh_ = false;
        kept_.clear();
        wanted_ = std::min(reader.wanted(body[0]), kUnitLimit);
    }
    if (wanted_ == 0)
        return;
    const std::size_t count = std::min(wanted_, body.size());
    kept_.insert(kept_.end(), body.begin(), body.begin() + static_cast<std::ptrdiff_t>(count));
    wanted_ -= count;
    if (wanted_ == 0)
        reader.unit(kept_);
}

template <typename Reader>
void StartCodeScanner::close(Reader& reader) {
    if (inUnit_ && !fresh_ && wanted_ > 0)
        reader.unit(kept_);
    wanted_ = 0;
    inUnit_ = false;
}

}  // namespace meter
