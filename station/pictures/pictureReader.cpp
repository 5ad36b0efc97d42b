#include "pictures/pictureReader.h"

#include <string>

#include "common/text.h"
#include "fieldWalk.h"
#include "pictureLimits.h"

namespace station {

namespace {

constexpr std::size_t kVersionBytes = 100;  // shown

}  // namespace

void PictureReader::received(std::string_view bytes, const Now& now) {
    try {
        unframer_.add(bytes);
        while (const auto message = unframer_.next()) {
            handle(*message, now);
        }
    } catch (const metering::Unreadable& error) {
        throw PeerRefused(std::string("sent ") + error.what());
    }
}

void PictureReader::handle(std::string_view bytes, const Now& now) {
    picturing::ToStation message;
    metering::parse(bytes, kMessageBytes, message);
    if (message.has_hello()) {
        const std::string version = printable(message.hello().version(), kVersionBytes);
        if (agreed_) {
            throw PeerRefused("said twice who it is");
        }
        if (message.hello().major() != picturing::kMajor) {
            throw PeerRefused("(" + version + ") speaks version " + std::to_string(message.hello().major()) +
                              " of the messages, this station " + std::to_string(picturing::kMajor) +
                              ": install both from one release");
        }
        agreed_ = true;
        book_.connected(version, now);
    } else if (!agreed_) {
        throw PeerRefused("sent something before it said who it is");
    } else if (message.has_shot()) {
        book_.shot(std::move(*message.mutable_shot()), now);
    } else if (message.has_status()) {
        book_.status(message.status(), now);
    }
}

}  // namespace station
