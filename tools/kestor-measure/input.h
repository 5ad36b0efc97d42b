// A file, a pipe or standard input, read block by block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// Holds one window of the input in memory, however large the file is. Blocks instead of a memory map: a file
// that is cut while it is read ends early here, where a map would end the program.
class Input {
  public:
    static constexpr size_t kWindow = size_t{1} << 20;

    // Opens `path`, "-" for standard input. Throws std::runtime_error with the path and the reason.
    explicit Input(const std::string& path);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // What is held and not consumed, filled up as far as the input goes, at most kWindow bytes; empty at the
    // end. Valid until the next call of fill() or consume(). Throws std::runtime_error when reading fails.
    std::span<const uint8_t> fill();

    // Drops the first `count` bytes of what fill() gave, or all of them where these are fewer; returns how
    // many.
    size_t consume(size_t count);

    // Bytes consumed so far, and the file's size; 0 where it has none (a pipe).
    uint64_t position() const {
        return position_;
    }
    uint64_t size() const {
        return size_;
    }
    const std::string& path() const {
        return path_;
    }

  private:
    std::string path_;
    int descriptor_;
    uint64_t position_ = 0;
    uint64_t size_ = 0;
    bool ended_ = false;
    size_t begin_ = 0;
    size_t end_ = 0;
    std::vector<uint8_t> window_;
};
