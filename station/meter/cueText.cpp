#include "meter/cueText.h"

#include <array>
#include <cstdio>

namespace station {

namespace {

std::string seconds(double ms) {
    constexpr double kMsPerSecond = 1000;
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.1f s", ms / kMsPerSecond);
    return text.data();
}

}  // namespace

std::string cueText(const metering::Cue& cue) {
    std::string text = cue.command();
    if (cue.has_event_id()) {
        text += " " + std::to_string(cue.event_id());
    }
    text += " on PID " + std::to_string(cue.pid()) + ":";
    if (cue.cancelled()) {
        return text + " cancelled";
    }
    if (cue.has_out()) {
        text += cue.out() ? " out of the network" : " back to the network";
    }
    for (const metering::Segmentation& part : cue.segmentation()) {
        text += text.back() == ':' ? " " : ", ";
        text += part.has_type()      ? part.type()
                : part.has_type_id() ? "segmentation type " + std::to_string(part.type_id())
                                     : "segmentation " + std::to_string(part.event_id()) + " cancelled";
        if (part.has_upid() && !part.upid().empty()) {
            text += " (" + part.upid() + ")";
        }
    }
    if (cue.has_at()) {
        text += " at " + cue.at();
    }
    if (cue.immediate()) {
        text += text.back() == ':' ? " at once" : ", at once";
    } else if (cue.has_ahead_ms()) {
        text += ", " + seconds(cue.ahead_ms()) + " ahead";
    }
    if (cue.has_duration_ms()) {
        text += ", for " + seconds(cue.duration_ms());
    }
    return text.back() == ':' ? text + " without a time" : text;
}

}  // namespace station
