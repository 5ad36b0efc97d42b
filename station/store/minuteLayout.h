// Minutes of the history as bytes, in an order that says of itself what it is.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "measures/history.h"
#include "measures/historyRecords.h"

namespace station {

// In which order the numbers of a minute stand: names of measures and how each is kept. Minutes that another
// version wrote are read by theirs.
class MinuteLayout {
  public:
    // What this program writes.
    static const MinuteLayout& own();
    // Nothing where the text is none.
    static std::optional<MinuteLayout> parse(std::string_view text);

    const std::string& text() const {
        return text_;
    }
    std::size_t bytes() const {  // of a minute
        return bytes_;
    }
    // Appends it in the own layout, numbers in the machine's order of bytes.
    static void write(const past::MinuteRecord& minute, std::vector<std::byte>& into);
    // Appends the whole minutes that the bytes have. What this layout lacks is unknown, and 0 of counters.
    void read(std::span<const std::byte> bytes, std::vector<past::MinuteRecord>& into) const;

  private:
    explicit MinuteLayout(std::string text);

    // Where a measure of this program stands among those of its kind; nothing: it does not.
    std::array<std::optional<std::size_t>, past::kKept.size()> places_{};
    std::size_t floats_ = 0;
    std::size_t sums_ = 0;
    std::size_t codes_ = 0;
    std::string text_;
    std::size_t bytes_ = 0;
};

}  // namespace station
