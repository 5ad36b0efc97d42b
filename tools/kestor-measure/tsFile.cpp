#include "tsFile.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace {

constexpr uint8_t kSyncByte = 0x47;  // ISO/IEC 13818-1, 2.4.3.3
constexpr std::array<unsigned, 3> kStrides = {188, 192, 204};
// Packets that have to have their sync byte for a place to be taken; chance finds 5 in 200 bytes once in 2^32
// files.
constexpr size_t kProof = 5;
// How much of a block is looked at.
constexpr size_t kSearch = 64;  // packets

// How many packets in a row have their sync byte at `offset` and every `stride` from there, and whether all
// do that fit.
struct Run {
    size_t length = 0;
    bool toTheEnd = false;
};

Run runAt(std::span<const uint8_t> bytes, size_t offset, unsigned stride) {
    Run run;
    size_t at = offset;
    for (; at + TsFile::kPacketSize <= bytes.size() && run.length < kSearch; at += stride) {
        if (bytes[at] != kSyncByte) {
            return run;
        }
        ++run.length;
    }
    run.toTheEnd = run.length > 0 && run.length < kSearch;
    return run;
}

}  // namespace

TsFile::Grid TsFile::findGrid(std::span<const uint8_t> bytes) {
    // A recording may begin within a packet. The first place that proves itself holds, of two at the same
    // place the one with the longer run.
    for (size_t offset = 0; offset < kStrides.back() && offset < bytes.size(); ++offset) {
        Grid best;
        size_t longest = 0;
        for (const unsigned stride : kStrides) {
            const Run run = runAt(bytes, offset, stride);
            if (run.length > longest && (run.length >= kProof || (run.toTheEnd && offset == 0))) {
                longest = run.length;
                best = {stride, offset};
            }
        }
        if (best.stride != 0) {
            return best;
        }
    }
    return {};
}

bool TsFile::fits(std::span<const uint8_t> begin) {
    return findGrid(begin).stride != 0;
}

TsFile::TsFile(Input& input) : input_(input) {
    const Grid grid = findGrid(input.fill());
    if (grid.stride == 0) {
        throw std::runtime_error(input.path() +
                                 ": no transport packets: no sync bytes 188, 192 or 204 bytes apart");
    }
    stride_ = grid.stride;
    skip_ = grid.offset;
}

std::span<const uint8_t> TsFile::next() {
    // What the block before held is dropped only here, since its packets were in use until now. The place of
    // the next one may be behind it.
    size_t at = skip_ - input_.consume(skip_);
    const std::span<const uint8_t> bytes = input_.fill();
    at = std::min(at, bytes.size());
    if (withoutSync_ == kLostAfter) {
        const Grid found = findGrid(bytes.subspan(at));
        if (found.stride != 0) {
            stride_ = found.stride;
            at += found.offset;
        }
        withoutSync_ = 0;
    }
    size_t end = at;
    packets_.clear();
    for (; end + kPacketSize <= bytes.size() && withoutSync_ < kLostAfter; end += stride_) {
        withoutSync_ = bytes[end] == kSyncByte ? 0 : withoutSync_ + 1;
        if (stride_ != kPacketSize) {
            packets_.insert(packets_.end(), &bytes[end], &bytes[end] + kPacketSize);
        }
    }
    skip_ = end;
    return stride_ == kPacketSize ? bytes.subspan(at, end - at) : packets_;
}
