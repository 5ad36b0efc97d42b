// A report of the meter, as the station keeps it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/clock.h"

namespace meter {
struct Report;
}

namespace station {

// A report as it came: messages, which take a tenth of the room of what they say.
struct MeterReport {
    uint64_t number = 0;  // another one with each report
    Now time{};           // when it came
    bool disturbed = false;
    std::shared_ptr<const std::string> levels;       // metering::GroupReport without description
    std::shared_ptr<const std::string> description;  // metering::Description; null: never told

    // Some 20 us; whatever the bytes are.
    meter::Report read() const;
};

}  // namespace station
