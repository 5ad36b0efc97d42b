#include "services/dvbText.h"

#include <iconv.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <string_view>

namespace meter {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD
constexpr uint8_t kFirstCharacter = 0x20;                  // a first byte below selects a character set

enum class Width : uint8_t { kOne, kTwo, kUtf8 };

struct CharacterSet {
    std::array<char, 16> name{};  // as iconv knows it; empty: none
    Width width = Width::kOne;
    std::size_t selector = 0;  // bytes in front of the text
};

CharacterSet named(std::string_view name, Width width, std::size_t selector) {
    CharacterSet set{.width = width, .selector = selector};
    name.copy(set.name.data(), set.name.size() - 1);
    return set;
}

// ISO/IEC 8859-`part`; there is no part 12.
CharacterSet iso8859(unsigned part, std::size_t selector) {
    CharacterSet set{.selector = selector};
    if (part >= 1 && part <= 15 && part != 12)
        std::snprintf(set.name.data(), set.name.size(), "ISO-8859-%u", part);
    return set;
}

// Tables A.3 and A.4.
CharacterSet selectSet(Bytes text) {
    constexpr std::string_view kUcs = "UTF-16BE";  // what has no surrogates reads the same
    const uint8_t first = u8At(text, 0);
    if (text.empty() || first >= kFirstCharacter)
        return named("ISO_6937", Width::kOne, 0);
    if (first <= 0x0B)
        return iso8859(first + 4U, 1);
    switch (first) {
        case 0x10:
            return iso8859(u16At(text, 1), 3);
        case 0x11:
        case 0x14:  // the Big5 subset of ISO/IEC 10646
            return named(kUcs, Width::kTwo, 1);
        case 0x12:
            return named("EUC-KR", Width::kOne, 1);
        case 0x13:
            return named("EUC-CN", Width::kOne, 1);
        case 0x15:
            return named("UTF-8", Width::kUtf8, 1);
        default:
            return {};
    }
}

// One a thread and set: opening one reads a file.
class Converters {
  public:
    Converters() = default;
    ~Converters() {
        for (const auto& [name, converter] : open_)
            if (converter != kNone)
                iconv_close(converter);
    }
    Converters(const Converters&) = delete;
    Converters& operator=(const Converters&) = delete;

    iconv_t get(const char* name) {
        const auto [entry, fresh] = open_.try_emplace(name, kNone);
        if (fresh)
            entry->second = iconv_open("UTF-8", name);
        return entry->second;
    }

    static inline const iconv_t kNone = reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)

  private:
    std::map<std::string, iconv_t, std::less<>> open_;
};

// What no character is takes one replacement; where iconv lacks the set, each byte that is not ASCII.
std::string toUtf8(std::string_view text, const char* set, std::size_t unit) {
    thread_local Converters converters;
    const iconv_t converter = converters.get(set);
    std::string result;
    if (converter == Converters::kNone) {
        for (const char c : text)
            result += static_cast<unsigned char>(c) < 0x80 ? std::string_view(&c, 1) : kReplacement;
        return result;
    }
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    auto* from = const_cast<char*>(text.data());  // iconv does not write there
    std::size_t left = text.size();
    for (bool more = true; more;) {
        std::array<char, 256> piece;
        char* to = piece.data();
        std::size_t room = piece.size();
        const std::size_t converted = iconv(converter, &from, &left, &to, &room);
        const int error = converted == static_cast<std::size_t>(-1) ? errno : 0;
        result.append(piece.data(), piece.size() - room);
        if (error == EILSEQ) {
            result += kReplacement;
            const std::size_t bad = std::min(unit, left);
            from += bad;
            left -= bad;
        } else if (error == EINVAL) {  // ends within a character
            result += kReplacement;
        }
        more = left > 0 && error != EINVAL;
    }
    // A character that may yet be combined is held back.
    std::array<char, 16> rest;
    char* to = rest.data();
    std::size_t room = rest.size();
    iconv(converter, nullptr, nullptr, &to, &room);
    result.append(rest.data(), rest.size() - room);
    return result;
}

bool isLineBreak(unsigned code) {
    return code == 0x8A || code == 0x0A || code == 0x0D;
}

// Control codes of one-byte sets (table A.1); bytes of two-byte characters in these sets are 0xA1 and above.
std::string withoutControls(Bytes text) {
    std::string clean;
    for (const uint8_t byte : text) {
        if (isLineBreak(byte))
            clean += ' ';
        else if ((byte & 0x7F) >= 0x20 && byte != 0x7F)
            clean += static_cast<char>(byte);
    }
    return clean;
}

// UTF-8 with neither the C0 and C1 controls nor those of table A.2 (U+E080 to U+E09F).
std::string withoutUnicodeControls(std::string_view text) {
    std::string clean;
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = [&](std::size_t index) {
            return at + index < text.size() ? static_cast<unsigned char>(text[at + index]) : 0U;
        };
        unsigned code = 0x100;  // none of the controls
        std::size_t size = 1;
        if (byte(0) < 0x80) {
            code = byte(0);
        } else if (byte(0) == 0xC2) {
            code = byte(1);
            size = 2;
        } else if (byte(0) == 0xEE && byte(1) == 0x82) {
            code = byte(2);
            size = 3;
        }
        if (isLineBreak(code))
            clean += ' ';
        else if (code >= 0xA0 || (code >= 0x20 && code < 0x7F))
            clean += text.substr(at, size);
        at += size;
    }
    return clean;
}

// ISO 6937 by EN 300 468 (figure A.1) has the euro sign where the standard has the currency sign.
std::string fromIso6937(std::string_view text, const char* set) {
    constexpr char kEuroByte = '\xA4';
    constexpr std::string_view kEuro = "\xE2\x82\xAC";
    std::string result;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t euro = std::min(text.find(kEuroByte, at), text.size());
        result += toUtf8(text.substr(at, euro - at), set, 1);
        if (euro < text.size())
            result += kEuro;
        at = euro + 1;
    }
    return result;
}

}  // namespace

std::string decodeText(Bytes text) {
    const CharacterSet set = selectSet(text);
    if (set.name[0] == '\0')
        return {};
    const Bytes body = bytesAt(text, set.selector);
    if (set.width == Width::kOne) {
        const std::string clean = withoutControls(body);
        return set.selector == 0 ? fromIso6937(clean, set.name.data()) : toUtf8(clean, set.name.data(), 1);
    }
    const std::string_view raw(reinterpret_cast<const char*>(body.data()), body.size());
    const std::size_t unit = set.width == Width::kTwo ? 2 : 1;
    return withoutUnicodeControls(toUtf8(raw, set.name.data(), unit));
}

}  // namespace meter
