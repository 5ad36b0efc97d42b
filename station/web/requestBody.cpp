#include "web/requestBody.h"

#include <algorithm>
#include <concepts>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/text.h"
#include "groupText.h"

namespace station {

namespace {

using nlohmann::json;

constexpr int64_t kLongestIgmpLatencyMs = 60'000;
constexpr std::size_t kShownLimit = 64;  // of what a client sent, in a message

// Reads members one after the other; the first mistake is kept, and what is read after it is empty.
class BodyReader {
  public:
    explicit BodyReader(std::string_view body)
        : object_(json::parse(body.empty() ? kNoBody : body, nullptr, false)) {
        if (object_.is_discarded()) {
            refusal_ = problem(400, "The body is no JSON in UTF-8 (RFC 8259)");
        } else if (!object_.is_object()) {
            refusal_ = problem(422, "The body has to be a JSON object");
        }
    }

    std::optional<std::string> text(const char* name, std::size_t limit = kNameLimit) {
        const json* value = member(name);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_string()) {
            return refuse(name, "has to be a text");
        }
        return checked(value->get_ref<const std::string&>(), name, limit);
    }

    std::optional<bool> truth(const char* name) {
        const json* value = member(name);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_boolean()) {
            return refuse(name, "has to be true or false");
        }
        return value->get<bool>();
    }

    std::optional<int64_t> integer(const char* name, int64_t lowest, int64_t highest) {
        const json* value = member(name);
        if (value == nullptr) {
            return std::nullopt;
        }
        // Integers that are not negative are stored as unsigned ones.
        const uint64_t given = value->is_number_unsigned() ? value->get<uint64_t>() : UINT64_MAX;
        if (given < static_cast<uint64_t>(lowest) || given > static_cast<uint64_t>(highest)) {
            return refuse(name, "has to be an integer from " + std::to_string(lowest) + " to " +
                                    std::to_string(highest));
        }
        return value->get<int64_t>();
    }

    std::optional<WallTime> time(const char* name) {
        const auto given = text(name);
        const auto time = given ? parseRfc3339(*given) : std::nullopt;
        if (given && !time) {
            return refuse(name, "has to be a time such as 2026-11-21T22:52:44Z (RFC 3339)");
        }
        return time;
    }

    std::optional<Group> group(const char* name) {
        const auto given = text(name);
        const auto group = given ? Group::parse(*given) : std::nullopt;
        if (given && !group) {
            return refuse(name, probelink::groupProblem(*given));
        }
        return group;
    }

    std::optional<Labels> labels(const char* name) {
        const json* value = member(name);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_object() || value->size() > kLabelsLimit) {
            return refuse(name, "has to be an object of at most " + std::to_string(kLabelsLimit) + " texts");
        }
        Labels labels;
        for (const auto& [label, content] : value->items()) {
            const std::string field = std::string(name) + '.' + printable(label, kShownLimit);
            if (!content.is_string() || label.empty()) {
                return refuse(field, "has to be a text with a name");
            }
            const auto key = checked(label, field, kNameLimit);
            const auto text = checked(content.get_ref<const std::string&>(), field, kNameLimit);
            if (!key || !text) {
                return std::nullopt;
            }
            labels.emplace(*key, *text);
        }
        return labels;
    }

    // "ids", "group" or "groups", "label", "incident": at most one of them, and "alarm".
    Selection selection() {
        Selection which;
        which.ids = integers("ids");
        which.groups = groups("groups");
        if (const auto one = group("group")) {
            which.groups.push_back(*one);
        }
        which.labels = labels("label").value_or(Labels());
        which.incident = integer("incident", 1, INT64_MAX).value_or(0);
        which.alarm = text("alarm").value_or("");
        int given = 0;
        for (const char* const name : {"ids", "group", "groups", "label", "incident"}) {
            const json* const value = member(name);
            given += value != nullptr ? 1 : 0;
            if (value != nullptr && !value->is_primitive() && value->empty()) {
                refuse(name, "has to have something in it");
            }
        }
        if (given > 1) {
            refuse("ids", "stands by itself: one of ids, group, groups, label and incident is allowed");
        }
        return which;
    }

    // What the body says of a channel's attribute.
    std::optional<std::string> read(const ChannelAttribute<std::string>& attribute) {
        return text(attribute.name, attribute.limit);
    }
    std::optional<Labels> read(const ChannelAttribute<Labels>& attribute) {
        return labels(attribute.name);
    }
    std::optional<bool> read(const ChannelAttribute<bool>& attribute) {
        return truth(attribute.name);
    }
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) std::optional<Number> read(
        const ChannelAttribute<Number>& attribute) {
        const auto value = integer(attribute.name, 0, attribute.highestAsked);
        return value ? std::optional(static_cast<Number>(*value)) : std::nullopt;
    }

    std::nullopt_t refuse(std::string_view field, std::string_view what) {
        if (!refusal_) {
            refusal_ = problem(422, std::string(field).append(" ").append(what), field);
        }
        return std::nullopt;
    }

    template <typename Value>
    void require(const char* name, const std::optional<Value>& value) {
        if (!value) {
            refuse(name, "is missing");
        }
    }

    // Once all members were read: the action, or what is wrong.
    ParsedAction finish(Action action) {
        if (!refusal_) {
            for (const auto& [name, value] : object_.items()) {
                if (std::ranges::find(known_, name) == known_.end()) {
                    refuse(printable(name, kShownLimit), "is not known here");
                    break;
                }
            }
        }
        if (refusal_) {
            return std::move(*refusal_);
        }
        return action;
    }
    bool refused() const {
        return refusal_.has_value();
    }

  private:
    const json* list(const char* name) {
        const json* value = member(name);
        if (value != nullptr && (!value->is_array() || value->size() > Selection::kMost)) {
            refuse(name, "has to be a list of at most " + std::to_string(Selection::kMost));
            return nullptr;
        }
        return value;
    }

    std::vector<int64_t> integers(const char* name) {
        std::vector<int64_t> numbers;
        if (const json* const values = list(name)) {
            for (const json& value : *values) {
                if (!value.is_number_unsigned() || value.get<uint64_t>() > INT64_MAX) {
                    refuse(name, "has to be a list of ids");
                    return {};
                }
                numbers.push_back(value.get<int64_t>());
            }
        }
        return numbers;
    }

    std::vector<Group> groups(const char* name) {
        std::vector<Group> groups;
        if (const json* const values = list(name)) {
            for (const json& value : *values) {
                const auto group =
                    value.is_string() ? Group::parse(value.get_ref<const std::string&>()) : std::nullopt;
                if (!group) {
                    refuse(name, "has to be a list of multicast groups");
                    return {};
                }
                groups.push_back(*group);
            }
        }
        return groups;
    }

    const json* member(const char* name) {
        known_.emplace_back(name);
        if (refusal_) {
            return nullptr;
        }
        const auto found = object_.find(name);
        return found == object_.end() ? nullptr : &*found;
    }

    std::optional<std::string> checked(const std::string& text, std::string_view field, std::size_t limit) {
        const std::string problem = textProblem(text, limit);
        if (!problem.empty()) {
            return refuse(field, problem);
        }
        return text;
    }

    const json object_;
    std::vector<std::string_view> known_;
    std::optional<Response> refusal_;
};

}  // namespace

ParsedAction parsePutChannel(const Group& group, std::string_view body) {
    BodyReader reader(body);
    PutChannel put(group);
    forEachChannelAttribute([&](const auto& attribute) {
        if (auto value = reader.read(attribute)) {
            put.set(attribute.member, std::move(*value));
        }
    });
    return reader.finish(std::move(put));
}

ParsedAction parseAcknowledge(int64_t id, std::string_view body) {
    BodyReader reader(body);
    AcknowledgeAlarm acknowledge{.id = id, .by = {}, .remark = {}};
    acknowledge.by = reader.text("by").value_or("");
    acknowledge.remark = reader.text("remark", kRemarkLimit).value_or("");
    return reader.finish(std::move(acknowledge));
}

ParsedAction parseHandle(HandleAlarms::What what, std::string_view body) {
    BodyReader reader(body);
    HandleAlarms handle{.what = what};
    handle.which = reader.selection();
    if (!reader.refused() && handle.which.empty()) {
        reader.refuse("ids", "is missing: say which by ids, group, groups, label or incident");
    }
    if (what == HandleAlarms::What::kShelve) {
        const auto until = reader.time("until");
        reader.require("until", until);
        handle.until = until.value_or(WallTime());
    }
    handle.by = reader.text("by").value_or("");
    handle.remark = reader.text("remark", kRemarkLimit).value_or("");
    return reader.finish(std::move(handle));
}

ParsedAction parseMaintenance(WallTime now, std::string_view body) {
    BodyReader reader(body);
    SetMaintenance set{};
    set.from = reader.time("from").value_or(now);
    const auto until = reader.time("until");
    reader.require("until", until);
    set.until = until.value_or(now);
    if (!reader.refused() && (set.until <= set.from || set.until <= now)) {
        reader.refuse("until", "has to be after the beginning, and in the future");
    }
    set.which = reader.selection();
    set.remark = reader.text("remark", kRemarkLimit).value_or("");
    set.by = reader.text("by").value_or("");
    return reader.finish(std::move(set));
}

ParsedAction parsePassive(std::string_view body) {
    BodyReader reader(body);
    const auto on = reader.truth("on");
    reader.require("on", on);
    return reader.finish(SetPassive{on.value_or(false)});
}

ParsedAction parseIgmpLatency(std::string_view body) {
    BodyReader reader(body);
    const auto latency = reader.integer("milliseconds", 1, kLongestIgmpLatencyMs);
    reader.require("milliseconds", latency);
    return reader.finish(SetIgmpLatency{std::chrono::milliseconds(latency.value_or(0))});
}

ParsedAction parseNothing(Action action, std::string_view body) {
    return BodyReader(body).finish(std::move(action));
}

}  // namespace station
