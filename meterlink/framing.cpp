#include "framing.h"

#include <google/protobuf/message_lite.h>
#include <google/protobuf/stubs/logging.h>

#include <stdexcept>

namespace metering {

namespace {

constexpr std::size_t kLengthBytes = 4;

}  // namespace

void quietParser() {
    google::protobuf::SetLogHandler(nullptr);
}

std::string framed(const google::protobuf::MessageLite& message) {
    const std::size_t length = message.ByteSizeLong();
    if (length > kMessageLimit) {
        throw std::length_error("a message of " + std::to_string(length) + " bytes");
    }
    std::string bytes;
    bytes.reserve(kLengthBytes + length);
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(length >> shift & 0xFF);
    }
    message.AppendToString(&bytes);
    return bytes;
}

void Unframer::add(std::string_view bytes) {
    bytes_.erase(0, taken_);
    taken_ = 0;
    bytes_ += bytes;
}

std::optional<std::string_view> Unframer::next() {
    const std::string_view rest = std::string_view(bytes_).substr(taken_);
    if (rest.size() < kLengthBytes) {
        return std::nullopt;
    }
    std::size_t length = 0;
    for (std::size_t i = 0; i < kLengthBytes; ++i) {
        length = length << 8 | static_cast<uint8_t>(rest[i]);
    }
    if (length > kMessageLimit) {
        throw Unreadable("a message of " + std::to_string(length) + " bytes");
    }
    if (rest.size() - kLengthBytes < length) {
        return std::nullopt;
    }
    taken_ += kLengthBytes + length;
    return rest.substr(kLengthBytes, length);
}

}  // namespace metering
