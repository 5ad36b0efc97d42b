// A message's fields as bytes. Messages that somebody else sends are walked through before they are parsed,
// since a parsed one takes up to a hundred times the room of its bytes.
#pragma once

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <cstdint>
#include <string_view>

#include "framing.h"

namespace metering {

// Calls `take(number, content, whole)` for each field of a message: its bytes, and those with its tag. Only
// fields with a length have content. Throws Unreadable.
template <typename Visit>
void forEachField(std::string_view message, Visit visit) {
    using google::protobuf::internal::WireFormatLite;
    google::protobuf::io::CodedInputStream input(reinterpret_cast<const uint8_t*>(message.data()),
                                                 static_cast<int>(message.size()));
    for (;;) {
        const auto begin = static_cast<std::size_t>(input.CurrentPosition());
        const uint32_t tag = input.ReadTag();
        if (tag == 0) {
            if (begin != message.size()) {
                throw Unreadable("a message that cannot be read");
            }
            return;
        }
        std::string_view content;
        bool well = false;
        if (WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_LENGTH_DELIMITED) {
            int length = 0;
            well = input.ReadVarintSizeAsInt(&length) && input.Skip(length);
            if (well) {
                content = message.substr(static_cast<std::size_t>(input.CurrentPosition() - length),
                                         static_cast<std::size_t>(length));
            }
        } else {
            well = WireFormatLite::SkipField(&input, tag);
        }
        if (!well) {
            throw Unreadable("a message that cannot be read");
        }
        const auto end = static_cast<std::size_t>(input.CurrentPosition());
        visit(WireFormatLite::GetTagFieldNumber(tag), content, message.substr(begin, end - begin));
    }
}

// Parses a message of at most `limit` bytes. Throws Unreadable.
template <typename Message>
void parse(std::string_view bytes, std::size_t limit, Message& message) {
    if (bytes.size() > limit || !message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
        throw Unreadable("a " + message.GetTypeName() + " that cannot be read");
    }
}

}  // namespace metering
