#include "channels/channelAttributes.h"

#include <type_traits>

#include "common/text.h"

namespace station {

std::string textProblem(const std::string& text, std::size_t limit) {
    if (text.size() > limit) {
        return "is longer than " + std::to_string(limit) + " bytes";
    }
    return printable(text, limit) != text ? "has control characters" : "";
}

std::string whatChanged(const Channel& before, const Channel& after) {
    constexpr std::string_view kDetails = "details";  // told last
    std::string text;
    const auto say = [&](std::string_view what) { text.append(text.empty() ? "" : ", ").append(what); };
    bool details = false;
    forEachChannelAttribute([&](const auto& attribute) {
        if (before.*attribute.member == after.*attribute.member) {
            return;
        }
        if (attribute.change == kDetails) {
            details = true;
        } else if constexpr (std::is_same_v<typename std::decay_t<decltype(attribute)>::Value, bool>) {
            say(after.*attribute.member ? attribute.change : attribute.changeUnset);
        } else {
            say(attribute.change);
        }
    });
    if (before.origin != after.origin) {
        say("origin");
    }
    if (details) {
        say(kDetails);
    }
    return text;
}

}  // namespace station
