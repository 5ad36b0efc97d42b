// Small things about texts.
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace basics {

// The text without those characters at both ends.
constexpr std::string_view trimmed(std::string_view text, std::string_view blanks = " \t") {
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Tells one content from another (FNV-1a, 64 bits); the same in every build.
constexpr uint64_t fingerprint(std::string_view content) {
    uint64_t hash = 0xCBF29CE484222325;
    for (const char byte : content) {
        hash = (hash ^ static_cast<uint8_t>(byte)) * 0x100000001B3;
    }
    return hash;
}
// In 16 hexadecimal digits.
inline std::string fingerprintText(std::string_view content) {
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string text;
    for (int shift = 60; shift >= 0; shift -= 4) {
        text += kHex[fingerprint(content) >> shift & 0xF];
    }
    return text;
}

// The name with '_' for all but ASCII letters and digits: what a label's name of Prometheus may have, but
// for its first character.
inline std::string plainLabelName(std::string_view name) {
    std::string plain(name);
    for (char& character : plain) {
        const bool digit = character >= '0' && character <= '9';
        const bool letter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
        character = digit || letter ? character : '_';
    }
    return plain;
}

// Names of which each may be there once: the second "a" is "a_2".
class UniqueNames {
  public:
    std::string claim(const std::string& name) {
        return taken_.insert(name).second ? name : claimNumbered(name);
    }
    // With a number also when it is the first.
    std::string claimNumbered(const std::string& name) {
        for (int number = 2;; ++number) {
            std::string unique = name + "_" + std::to_string(number);
            if (taken_.insert(unique).second) {
                return unique;
            }
        }
    }

  private:
    std::set<std::string> taken_;
};

}  // namespace basics
