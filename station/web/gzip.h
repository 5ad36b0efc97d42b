// Compression of answers (RFC 1952).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace station {

// Compresses a text that comes in pieces, fast rather than small. One thread.
class GzipWriter {
  public:
    GzipWriter();  // throws std::bad_alloc
    ~GzipWriter();
    GzipWriter(const GzipWriter&) = delete;

    void add(std::string_view text);
    // All of it; nothing may be added afterwards.
    std::string finish();

  private:
    void deflateAll(int flush);

    struct Stream;
    std::unique_ptr<Stream> stream_;
    std::string result_;
};

std::string gzipOf(std::string_view text);

// A stream without an end, for several who join at any time: gzipStreamHead() once, then pieces. Each piece
// is compressed by itself and can be read as soon as it came, whatever pieces came before. They throw
// std::bad_alloc.
std::string gzipStreamHead();
std::string gzipPiece(std::string_view text);

}  // namespace station
