// The text format of Prometheus, version 0.0.4.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace station {

enum class MetricType : uint8_t { kCounter, kGauge };

struct MetricFamily {
    std::string_view name;  // [a-zA-Z_:][a-zA-Z0-9_:]*
    MetricType type;
    std::string_view help;  // a sentence, UTF-8
};

// `name="value"`, the value escaped and made valid UTF-8, appended to `labels` with a comma where something
// stands there already. REQUIRES: the name is [a-zA-Z_][a-zA-Z0-9_]*.
void appendLabel(std::string& labels, std::string_view name, std::string_view value);

// Appends families and their samples, without time stamps, to a text. A family's samples stand together: all
// of one are told before the next family begins. A family without samples leaves no trace.
class Exposition {
  public:
    static constexpr std::size_t kPiece = 256 * 1024;
    // Gets the text each time that another kPiece bytes have come together, and may take them out of it, or
    // throw.
    using Flush = std::function<void(std::string& text)>;

    explicit Exposition(std::string& text, Flush flush = {}) : text_(text), flush_(std::move(flush)) {}

    void family(const MetricFamily& family) {
        family_ = family;
        named_ = false;
    }
    // `labels` and `more` as appendLabel() makes them; either may be empty. Whole numbers below 2^53 are
    // printed as such, others as the shortest text that reads back as the same number.
    void sample(std::string_view labels, std::string_view more, double value);
    void sample(double value) {
        sample({}, {}, value);
    }

  private:
    void name();

    std::string& text_;
    const Flush flush_;
    std::size_t flushAt_ = kPiece;
    MetricFamily family_{};
    bool named_ = false;
};

}  // namespace station
