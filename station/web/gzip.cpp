#include "web/gzip.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <new>

namespace station {

namespace {

constexpr int kGzipWindow = 15 + 16;  // zlib's way to say: largest window, gzip's header
constexpr int kGzipMemory = 8;
constexpr int kRawWindow = -15;  // zlib's way to say: largest window, no head and no trailer
constexpr std::size_t kFlushBytes = 64;
constexpr std::size_t kPiece = 65536;

}  // namespace

struct GzipWriter::Stream {
    z_stream zlib{};
    std::array<Bytef, kPiece> piece;
};

GzipWriter::GzipWriter() : stream_(std::make_unique<Stream>()) {
    if (deflateInit2(&stream_->zlib, Z_BEST_SPEED, Z_DEFLATED, kGzipWindow, kGzipMemory,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
}

GzipWriter::~GzipWriter() {
    deflateEnd(&stream_->zlib);
}

void GzipWriter::add(std::string_view text) {
    stream_->zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream_->zlib.avail_in = static_cast<uInt>(text.size());
    deflateAll(Z_NO_FLUSH);
}

std::string GzipWriter::finish() {
    deflateAll(Z_FINISH);
    return std::move(result_);
}

// Piece by piece: the result takes what it needs, not what the worst of texts would.
void GzipWriter::deflateAll(int flush) {
    z_stream& zlib = stream_->zlib;
    do {
        zlib.next_out = stream_->piece.data();
        zlib.avail_out = kPiece;
        deflate(&zlib, flush);
        result_.append(reinterpret_cast<const char*>(stream_->piece.data()), kPiece - zlib.avail_out);
    } while (zlib.avail_out == 0);
}

std::string gzipStreamHead() {
    // Identification, method, no flags, no time, fastest, an unknown system (RFC 1952, clause 2.3).
    constexpr std::string_view kHead("\x1f\x8b\x08\0\0\0\0\0\x04\xff", 10);
    return std::string(kHead);
}

std::string gzipPiece(std::string_view text) {
    z_stream zlib{};
    if (deflateInit2(&zlib, Z_BEST_SPEED, Z_DEFLATED, kRawWindow, kGzipMemory, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
    const std::unique_ptr<z_stream, decltype(&deflateEnd)> end(&zlib, deflateEnd);
    // A flush ends with an empty block of five bytes at a byte's begin, without an end of the stream.
    std::string piece(deflateBound(&zlib, text.size()) + kFlushBytes, '\0');
    zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    zlib.avail_in = static_cast<uInt>(text.size());
    zlib.next_out = reinterpret_cast<Bytef*>(piece.data());
    zlib.avail_out = static_cast<uInt>(piece.size());
    deflate(&zlib, Z_SYNC_FLUSH);
    // Not resize(), which GCC 12 takes for one that may grow beyond all bounds.
    piece.erase(piece.size() - std::min<std::size_t>(zlib.avail_out, piece.size()));
    piece.shrink_to_fit();
    return piece;
}

std::string gzipOf(std::string_view text) {
    GzipWriter writer;
    writer.add(text);
    return writer.finish();
}

}  // namespace station
