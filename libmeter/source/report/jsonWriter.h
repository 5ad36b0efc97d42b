// JSON appended to a text.
#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace meter {

// The caller opens, names and closes in an order that makes JSON; commas come by themselves. Texts are UTF-8.
class JsonWriter {
  public:
    explicit JsonWriter(std::string& text) : text_(text) {}

    JsonWriter& open(char bracket) {
        separate();
        text_ += bracket;
        afterValue_ = false;
        return *this;
    }
    JsonWriter& close(char bracket) {
        text_ += bracket;
        afterValue_ = true;
        return *this;
    }
    // A member's name without need to be escaped; its value comes next.
    JsonWriter& name(std::string_view name) {
        separate();
        text_.append(1, '"').append(name).append("\":");
        afterValue_ = false;
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
    JsonWriter& value(double number);  // null where JSON has no such number
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
        if (afterValue_) {
            text_ += ',';
        }
    }
    JsonWriter& plain(std::string_view token) {
        separate();
        text_.append(token);
        afterValue_ = true;
        return *this;
    }

    std::string& text_;
    bool afterValue_ = false;
};

}  // namespace meter
