// JSON appended to a text, for answers that are too large to be made as a tree first.
#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/clock.h"

namespace station {

// The caller opens, names and closes in an order that makes JSON; commas come by themselves. Texts that are
// not UTF-8 are read as Latin-1. A number that JSON cannot have (NaN, infinite) becomes null.
class JsonWriter {
  public:
    // Appends to the text, which has to be empty or to end where a value may come: with a bracket, ':' or '
    // '.
    explicit JsonWriter(std::string& text) : text_(text) {}

    JsonWriter& open(char bracket) {
        separate();
        text_ += bracket;
        return *this;
    }
    JsonWriter& close(char bracket) {
        text_ += bracket;
        return *this;
    }
    // A member's name without need to be escaped; its value comes next.
    JsonWriter& name(std::string_view name) {
        separate();
        text_.append(1, '"').append(name).append("\":");
        return *this;
    }
    // After a text, makes it the name of the value that comes next.
    JsonWriter& colon() {
        text_ += ':';
        return *this;
    }
    template <typename Value>
    JsonWriter& member(std::string_view memberName, const Value& memberValue) {
        return name(memberName).value(memberValue);
    }

    JsonWriter& value(std::nullptr_t) {
        return plain("null");
    }
    JsonWriter& value(std::same_as<bool> auto truth) {
        return plain(truth ? "true" : "false");
    }
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) JsonWriter& value(Number number) {
        std::array<char, 24> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
        return plain({digits.data(), end});
    }
    JsonWriter& value(double number);
    JsonWriter& value(WallTime time);  // the epoch stands for "never": null
    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) {
        return value(std::string_view(text));
    }
    JsonWriter& value(const std::string& text) {
        return value(std::string_view(text));
    }
    template <typename Value>
    JsonWriter& value(const std::optional<Value>& maybe) {
        return maybe ? value(*maybe) : value(nullptr);
    }

  private:
    void separate() {
        constexpr std::string_view kNothingBefore = "{[: ";
        if (!text_.empty() && kNothingBefore.find(text_.back()) == std::string_view::npos) {
            text_ += ',';
        }
    }
    JsonWriter& plain(std::string_view token) {
        separate();
        text_.append(token);
        return *this;
    }

    std::string& text_;
};

}  // namespace station
