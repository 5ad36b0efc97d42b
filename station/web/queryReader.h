// A request's parameters as values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "common/text.h"
#include "web/message.h"

namespace station {

// Reads parameters one after the other; the first mistake is kept.
class QueryReader {
  public:
    explicit QueryReader(const Query& query) : query_(query) {}

    // A parameter as `parse` reads it (a function that returns an optional); nothing when it is not given.
    template <typename Parse>
    auto read(std::string_view name, std::string_view wanted, Parse parse) {
        const std::string* text = query_.find(name);
        auto value = text == nullptr ? decltype(parse(*text)){} : parse(*text);
        if (text != nullptr && !value && !refusal) {
            refusal = problem(422, std::string(name).append(" has to be ").append(wanted), name);
        }
        return value;
    }

    std::optional<int64_t> integer(std::string_view name, int64_t lowest, int64_t highest) {
        const std::string wanted =
            "an integer from " + std::to_string(lowest) + " to " + std::to_string(highest);
        return read(name, wanted, [&](std::string_view text) {
            const auto value = parseInteger(text);
            return value && *value >= lowest && *value <= highest ? value : std::nullopt;
        });
    }
    std::optional<WallTime> time(std::string_view name) {
        return read(name, "a time such as 2026-11-21T22:52:44Z (RFC 3339)", parseRfc3339);
    }

    std::optional<Response> refusal;

  private:
    const Query& query_;
};

}  // namespace station
