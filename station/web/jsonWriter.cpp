#include "web/jsonWriter.h"

#include "common/text.h"

namespace station {

JsonWriter& JsonWriter::value(WallTime time) {
    if (time == WallTime{}) {
        return value(nullptr);
    }
    return value(rfc3339(time));
}

JsonWriter& JsonWriter::value(std::string_view text) {
    return isUtf8(text) ? JsonWriterOf::value(text) : JsonWriterOf::value(std::string_view(toUtf8(text)));
}

}  // namespace station
