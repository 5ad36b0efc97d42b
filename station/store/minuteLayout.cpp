#include "store/minuteLayout.h"

#include <cstring>
#include <utility>

namespace station {

namespace {

using namespace past;

// "f" a float, "c", "g" and "i" a code, "s" a sum; nothing: it is not kept.
constexpr std::string_view kKeepings = "fcgis";

char letterOf(Keeping keeping) {
    switch (keeping) {
        case Keeping::kFloat:
            return 'f';
        case Keeping::kCompact:
            return 'c';
        case Keeping::kIndex:
            return 'i';
        case Keeping::kSigned:
            return 'g';
        case Keeping::kSum:
            return 's';
        case Keeping::kNone:
            break;
    }
    return '-';
}

template <typename T>
void put(std::vector<std::byte>& into, const T& value) {
    const auto* const first = reinterpret_cast<const std::byte*>(&value);
    into.insert(into.end(), first, first + sizeof(T));
}

// The value of that number at `at`, which the caller has seen to lie within.
template <typename T>
T get(std::span<const std::byte> bytes, std::size_t at) {
    T value;
    std::memcpy(&value, bytes.data() + at, sizeof(T));
    return value;
}

constexpr std::size_t kHead = sizeof(uint32_t) + sizeof(uint16_t) + 2 * sizeof(uint8_t);

}  // namespace

const MinuteLayout& MinuteLayout::own() {
    static const MinuteLayout layout = [] {
        std::string text;
        for (const Kept& kept : kKept) {
            if (!kept.measure->insteadOf.empty()) {
                continue;  // has the other's place
            }
            text += (text.empty() ? "" : " ") + std::string(kept.measure->name) + ':' +
                    letterOf(kept.measure->keeping);
        }
        return MinuteLayout(std::move(text));
    }();
    return layout;
}

std::optional<MinuteLayout> MinuteLayout::parse(std::string_view text) {
    MinuteLayout layout{std::string(text)};
    return layout.bytes_ > 0 ? std::optional(std::move(layout)) : std::nullopt;
}

// Leaves bytes_ 0 where the text is none.
MinuteLayout::MinuteLayout(std::string text) : text_(std::move(text)) {
    std::string_view rest = text_;
    while (!rest.empty()) {
        const std::string_view word = rest.substr(0, rest.find(' '));
        rest.remove_prefix(std::min(rest.size(), word.size() + 1));
        const std::size_t colon = word.find(':');
        if (colon == std::string_view::npos || colon + 2 != word.size() ||
            kKeepings.find(word.back()) == std::string_view::npos) {
            return;
        }
        std::size_t& count = word.back() == 'f' ? floats_ : word.back() == 's' ? sums_ : codes_;
        const std::size_t place = count++;
        for (std::size_t i = 0; i < kKept.size(); ++i) {
            const Measure& measure = *kKept[i].measure;
            if (measure.name == word.substr(0, colon) && letterOf(measure.keeping) == word.back()) {
                places_[i] = place;
            }
        }
    }
    bytes_ = kHead + kStatistics * (floats_ * sizeof(float) + codes_ * sizeof(uint16_t)) +
             sums_ * sizeof(uint32_t);
}

void MinuteLayout::write(const MinuteRecord& minute, std::vector<std::byte>& into) {
    put(into, minute.wall);
    put(into, uint16_t{minute.known});
    put(into, uint8_t{minute.worst});
    put(into, uint8_t{minute.badSeconds});
    put(into, minute.floats);
    put(into, minute.sums);
    put(into, minute.codes);
}

void MinuteLayout::read(std::span<const std::byte> bytes, std::vector<MinuteRecord>& into) const {
    const std::size_t sums = kHead + kStatistics * floats_ * sizeof(float);
    const std::size_t codes = sums + sums_ * sizeof(uint32_t);
    for (; bytes_ > 0 && bytes.size() >= bytes_; bytes = bytes.subspan(bytes_)) {
        MinuteRecord minute{};
        minute.wall = get<uint32_t>(bytes, 0);
        minute.known = static_cast<uint8_t>(get<uint16_t>(bytes, 4));
        minute.worst = get<uint8_t>(bytes, 6) & 3U;
        minute.badSeconds = std::min<uint8_t>(get<uint8_t>(bytes, 7), 60) & 63U;
        for (std::size_t i = 0; i < kKept.size(); ++i) {
            const Kept& kept = kKept[i];
            const Keeping keeping = kept.measure->keeping;
            if (!kept.measure->insteadOf.empty()) {
                continue;
            }
            if (keeping == Keeping::kSum) {
                minute.sums[kept.place] =
                    places_[i] ? get<uint32_t>(bytes, sums + *places_[i] * sizeof(uint32_t)) : 0;
                continue;
            }
            for (std::size_t statistic = 0; statistic < kStatistics; ++statistic) {
                if (keeping == Keeping::kFloat) {
                    const std::size_t at =
                        kHead + (statistic * floats_ + places_[i].value_or(0)) * sizeof(float);
                    minute.floats[statistic][kept.cell] =
                        places_[i] ? get<float>(bytes, at) : static_cast<float>(kUnknown);
                } else {
                    const std::size_t at =
                        codes + (statistic * codes_ + places_[i].value_or(0)) * sizeof(uint16_t);
                    minute.codes[statistic][kept.cell] = places_[i] ? get<uint16_t>(bytes, at) : kUnknownCode;
                }
            }
        }
        into.push_back(minute);
    }
}

}  // namespace station
