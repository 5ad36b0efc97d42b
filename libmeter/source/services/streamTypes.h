// What a stream of a PMT is, by its stream_type and its descriptors.
#pragma once

#include <string_view>

#include "fields/bytes.h"
#include "services/serviceModel.h"

namespace meter {

struct StreamIdentity {
    Codec codec = Codec::kNone;
    StreamKind kind = StreamKind::kData;
};

// ISO/IEC 13818-1 table 2-34 and the types that users of it agreed on; private streams (0x06) by their
// descriptors (ETSI EN 300 468 6.2 and annex D, registration descriptors). `descriptors`: the loop of the
// stream.
StreamIdentity identifyStream(uint8_t streamType, Bytes descriptors);

// As it is shown; empty for kNone. Static storage.
std::string_view codecName(Codec codec);

}  // namespace meter
