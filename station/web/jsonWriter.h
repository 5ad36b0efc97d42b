// JSON appended to a text, with the station's kinds of values.
#pragma once

#include <string_view>

#include "basics/jsonWriter.h"
#include "common/clock.h"

namespace station {

// Texts that are not UTF-8 are read as Latin-1.
class JsonWriter : public basics::JsonWriterOf<JsonWriter> {
  public:
    using JsonWriterOf::JsonWriterOf;
    using JsonWriterOf::value;

    JsonWriter& value(WallTime time);  // the epoch stands for "never": null
    JsonWriter& value(std::string_view text);
};

}  // namespace station
