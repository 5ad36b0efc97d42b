// JSON appended to a text, for answers that are too large to be made as a tree first.
#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace basics {

// The string with its quotes. REQUIRES: UTF-8.
void appendJsonString(std::string& text, std::string_view utf8);
// A number as JSON has it, whole ones without fraction or exponent; null where JSON has no such number.
std::string jsonNumber(double number);

// The caller opens, names and closes in an order that makes JSON; commas come by themselves. What is written
// first stands where a value may come, whatever the text ends with. `Self` derives from it and may hide
// value() for types of its own.
template <typename Self>
class JsonWriterOf {
  public:
    explicit JsonWriterOf(std::string& text) : text_(text) {}

    Self& open(char bracket) {
        separate();
        text_ += bracket;
        afterValue_ = false;
        return self();
    }
    Self& close(char bracket) {
        text_ += bracket;
        afterValue_ = true;
        return self();
    }
    // A member's name without need to be escaped; its value comes next.
    Self& name(std::string_view name) {
        separate();
        text_.append(1, '"').append(name).append("\":");
        afterValue_ = false;
        return self();
    }
    // After a text, makes it the name of the value that comes next.
    Self& colon() {
        text_ += ':';
        afterValue_ = false;
        return self();
    }
    template <typename Value>
    Self& member(std::string_view memberName, const Value& memberValue) {
        return name(memberName).value(memberValue);
    }

    Self& value(std::nullptr_t) {
        return plain("null");
    }
    Self& value(std::same_as<bool> auto truth) {
        return plain(truth ? "true" : "false");
    }
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) Self& value(Number number) {
        std::array<char, 24> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
        return plain({digits.data(), end});
    }
    Self& value(double number) {
        return plain(jsonNumber(number));
    }
    Self& value(std::string_view utf8) {
        separate();
        appendJsonString(text_, utf8);
        afterValue_ = true;
        return self();
    }
    Self& value(const char* text) {
        return self().value(std::string_view(text));
    }
    Self& value(const std::string& text) {
        return self().value(std::string_view(text));
    }
    template <typename Value>
    Self& value(const std::optional<Value>& maybe) {
        return maybe ? self().value(*maybe) : self().value(nullptr);
    }

  private:
    Self& self() {
        return static_cast<Self&>(*this);
    }
    void separate() {
        if (afterValue_) {
            text_ += ',';
        }
    }
    Self& plain(std::string_view token) {
        separate();
        text_.append(token);
        afterValue_ = true;
        return self();
    }

    std::string& text_;
    bool afterValue_ = false;  // in the list or object that is open: a comma has to come before the next
};

// Texts are UTF-8.
class JsonWriter : public JsonWriterOf<JsonWriter> {
    using JsonWriterOf::JsonWriterOf;
};

}  // namespace basics
