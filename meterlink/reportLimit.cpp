#include "reportLimit.h"

#include <algorithm>

namespace metering {

namespace {

constexpr std::size_t kLeftOutBytes = 40;  // eight numbers
constexpr std::size_t kElementHead = 2;    // at least: its tag and its length

enum class From { kBegin, kEnd };

// Takes elements away until about `excess` bytes are gone, and returns how many they were.
template <typename Field>
uint32_t cut(Field& field, From from, std::size_t& excess) {
    int count = 0;
    while (excess > 0 && count < field.size()) {
        const auto& element = field.Get(from == From::kBegin ? count : field.size() - 1 - count);
        excess -= std::min(excess, element.ByteSizeLong() + kElementHead);
        ++count;
    }
    field.DeleteSubrange(from == From::kBegin ? 0 : field.size() - count, count);
    return static_cast<uint32_t>(count);
}

}  // namespace

std::size_t fitDescription(GroupReport& message) {
    Description& description = *message.mutable_description();
    const std::size_t size = description.ByteSizeLong();
    if (size <= kHalfReport) {
        return size;
    }
    std::size_t excess = size - kHalfReport;
    LeftOut& leftOut = *message.mutable_left_out();
    leftOut.set_cues(cut(*description.mutable_cue(), From::kBegin, excess));
    leftOut.set_changes(cut(*description.mutable_change(), From::kBegin, excess));
    leftOut.set_services(cut(*description.mutable_service(), From::kEnd, excess));
    return description.ByteSizeLong();
}

std::size_t fitLevels(GroupReport& message, std::size_t limit) {
    const std::size_t size = message.ByteSizeLong();
    if (size <= limit) {
        return size;
    }
    std::size_t excess = size - limit + kLeftOutBytes;
    LeftOut& leftOut = *message.mutable_left_out();
    leftOut.set_streams(cut(*message.mutable_stream(), From::kEnd, excess));
    leftOut.set_pids(cut(*message.mutable_pid(), From::kEnd, excess));
    for (Check& check : *message.mutable_check()) {
        leftOut.set_check_pids(leftOut.check_pids() + cut(*check.mutable_pid(), From::kEnd, excess));
    }
    leftOut.set_clocks(cut(*message.mutable_clock(), From::kEnd, excess));
    leftOut.set_service_levels(cut(*message.mutable_service(), From::kEnd, excess));
    return message.ByteSizeLong();
}

}  // namespace metering
