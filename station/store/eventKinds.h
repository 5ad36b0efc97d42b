// The kinds of events with their names.
#pragma once

#include <span>
#include <string_view>

#include "store/event.h"

namespace station {

struct EventKindNames {
    EventKind kind;
    std::string_view name;   // in the API and on the disk: "probe_came"
    std::string_view title;  // for people: "Probe came"
};
std::span<const EventKindNames> eventKinds();

}  // namespace station
