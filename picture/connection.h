// A Unix stream socket on which nobody waits.
#pragma once

#include <string>
#include <string_view>

#include "basics/descriptor.h"

namespace pictured {

// One thread.
class Connection {
  public:
    // `limit`: bytes that may wait to be sent.
    Connection(basics::Descriptor socket, std::size_t limit) : socket_(std::move(socket)), limit_(limit) {}

    // False: too much waits, and the message is dropped.
    bool queue(std::string_view message);
    // Sends what the socket takes. One that is gone is found by receive().
    void send();
    bool sends() const {
        return !waiting_.empty();
    }
    std::size_t waits() const {
        return waiting_.size() - sent_;
    }
    enum class Reading { kBytes, kNothing, kEnd };
    // Reads once; `bytes` is valid until the next call.
    Reading receive(std::string_view& bytes);
    int number() const {
        return socket_.number();
    }

  private:
    basics::Descriptor socket_;
    std::size_t limit_;
    std::string waiting_;
    std::size_t sent_ = 0;  // of it
    std::string buffer_;
};

}  // namespace pictured
