// A file descriptor with an owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace basics {

// Closes the descriptor at its end. Negative: there is none.
class Descriptor {
  public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }
    Descriptor(const Descriptor&) = delete;

    int number() const {
        return number_;
    }
    // Whoever calls it closes the descriptor.
    int release() {
        return std::exchange(number_, -1);
    }
    bool isOpen() const {
        return number_ >= 0;
    }

  private:
    int number_;
};

}  // namespace basics
