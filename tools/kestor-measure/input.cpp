#include "input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

Input::Input(const std::string& path) : path_(path), window_(kWindow) {
    descriptor_ = path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0) {
        throw std::runtime_error(path + ": " + strerror(errno));
    }
    struct stat status {};
    if (fstat(descriptor_, &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            close(descriptor_);
            throw std::runtime_error(path + ": " + strerror(EISDIR));
        }
        size_ = S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
    }
    posix_fadvise(descriptor_, 0, 0, POSIX_FADV_SEQUENTIAL);
}

Input::~Input() {
    close(descriptor_);
}

std::span<const uint8_t> Input::fill() {
    if (begin_ > 0) {
        std::copy(window_.begin() + static_cast<std::ptrdiff_t>(begin_),
                  window_.begin() + static_cast<std::ptrdiff_t>(end_), window_.begin());
        end_ -= begin_;
        begin_ = 0;
    }
    while (!ended_ && end_ < window_.size()) {
        const ssize_t got = read(descriptor_, window_.data() + end_, window_.size() - end_);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw std::runtime_error(path_ + ": " + strerror(errno));
        }
        ended_ = got == 0;
        end_ += static_cast<size_t>(got);
    }
    return {window_.data(), end_};
}

size_t Input::consume(size_t count) {
    count = std::min(count, end_ - begin_);
    begin_ += count;
    position_ += count;
    return count;
}
