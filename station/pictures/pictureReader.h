// One kestor-picture's connection: what it sends.
#pragma once

#include <string_view>

#include "common/peerPort.h"
#include "framing.h"
#include "pictures/pictureBook.h"

namespace station {

// Takes bytes as they come and keeps what they say in the book. Does no input or output. Whatever comes, it
// holds no more than a message of kMessageBytes and what that becomes. One thread.
class PictureReader : public PeerReader {
  public:
    static constexpr std::size_t kMessageBytes = std::size_t{256} * 1024;

    // `book` has to outlive it.
    explicit PictureReader(PictureBook& book) : book_(book) {}

    void received(std::string_view bytes, const Now& now) override;
    bool agreed() const override {
        return agreed_;
    }

  private:
    void handle(std::string_view bytes, const Now& now);

    PictureBook& book_;
    metering::Unframer unframer_;
    bool agreed_ = false;
};

}  // namespace station
