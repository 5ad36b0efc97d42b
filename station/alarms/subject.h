// Whom an alarm is about.
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <variant>

#include "channels/channel.h"
#include "measures/measure.h"

namespace station {

// A channel, or one of those that measure channels as a whole.
class Subject {
  public:
    Subject(Source source) : who_(source) {}  // implicit: either is one
    Subject(const Group& group) : who_(group) {}

    // Nothing for a source.
    std::optional<Group> group() const {
        const Group* const group = std::get_if<Group>(&who_);
        return group == nullptr ? std::nullopt : std::optional(*group);
    }
    // Nothing for a channel.
    std::optional<Source> source() const {
        const Source* const source = std::get_if<Source>(&who_);
        return source == nullptr ? std::nullopt : std::optional(*source);
    }
    // The channel's group, or the source's name.
    std::string text() const {
        const Group* const group = std::get_if<Group>(&who_);
        return group == nullptr ? std::string(sourceName(std::get<Source>(who_))) : group->text();
    }

    auto operator<=>(const Subject&) const = default;  // NOLINT(modernize-use-nullptr): as Group's

  private:
    std::variant<Source, Group> who_;
};

}  // namespace station
