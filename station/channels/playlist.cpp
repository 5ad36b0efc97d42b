#include "channels/playlist.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <utility>

#include "basics/text.h"
#include "channels/channelAttributes.h"
#include "common/text.h"
#include "common/textFile.h"

namespace station {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\v\f\r";
constexpr std::size_t kQuotedLimit = 80;  // bytes of a line in a note
constexpr uint16_t kUsualPort = 5000;     // written where none is known

char lower(char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

bool startsWith(std::string_view text, std::string_view lowerCasePrefix) {
    return text.size() >= lowerCasePrefix.size() &&
           std::equal(lowerCasePrefix.begin(), lowerCasePrefix.end(), text.begin(),
                      [](char wanted, char byte) { return wanted == lower(byte); });
}

bool equals(std::string_view text, std::string_view lowerCase) {
    return text.size() == lowerCase.size() && startsWith(text, lowerCase);
}

std::string_view trimmed(std::string_view text) {
    return basics::trimmed(text, kBlanks);
}

// The next line, however it ends (LF, CR LF or CR), taken off the front.
std::string_view takeLine(std::string_view& bytes) {
    const std::size_t end = std::min(bytes.find_first_of("\r\n"), bytes.size());
    const std::string_view line = bytes.substr(0, end);
    const bool both = bytes.substr(end).starts_with("\r\n");
    bytes.remove_prefix(std::min(end + (both ? 2 : 1), bytes.size()));
    return line;
}

// What stands before an entry.
struct Info {
    std::string_view name;
    std::string_view tvgName;
    std::string_view tvgId;
    std::string_view logo;
    std::string_view number;
    std::string_view group;
};

void setAttribute(Info& info, std::string_view name, std::string_view value) {
    constexpr std::array<std::pair<std::string_view, std::string_view Info::*>, 5> kAttributes = {{
        {"tvg-id", &Info::tvgId},
        {"tvg-name", &Info::tvgName},
        {"tvg-logo", &Info::logo},
        {"tvg-chno", &Info::number},
        {"group-title", &Info::group},
    }};
    for (const auto& [known, member] : kAttributes) {
        if (equals(name, known)) {
            info.*member = trimmed(value);
        }
    }
}

// An attribute's value, taken off the front: in quotes of either kind, or up to a blank or comma.
std::string_view takeValue(std::string_view& text) {
    const std::size_t start = text.find_first_not_of(kBlanks);
    if (start != std::string_view::npos && (text[start] == '"' || text[start] == '\'')) {
        const std::size_t close = text.find(text[start], start + 1);
        text.remove_prefix(start + 1);
        // A quote that nothing closes reaches to the comma before the name.
        const std::size_t end = close == std::string_view::npos ? text.rfind(',') : close - start - 1;
        const std::string_view quoted = text.substr(0, end);
        text.remove_prefix(quoted.size() + (close == std::string_view::npos ? 0 : 1));
        return quoted;
    }
    const std::string_view value = text.substr(0, std::min(text.find_first_of(" \t,"), text.size()));
    text.remove_prefix(value.size());
    return value;
}

// What follows "#EXTINF:": a number, attributes, a comma and the name; any of it may be missing.
Info parseInfo(std::string_view text) {
    Info info;
    text = trimmed(text);
    text.remove_prefix(std::min(text.find_first_not_of("+-.0123456789"), text.size()));
    const std::string_view all = trimmed(text);
    bool attributes = false;
    for (;;) {
        text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
        if (text.empty()) {
            // Without a comma, words that are no attributes are a name all the same.
            info.name = attributes ? std::string_view() : all;
            return info;
        }
        if (text[0] == ',') {
            info.name = trimmed(text.substr(1));
            return info;
        }
        const std::string_view word = text.substr(0, std::min(text.find_first_of(" \t,="), text.size()));
        text.remove_prefix(word.size());
        if (text.starts_with('=')) {
            text.remove_prefix(1);
            setAttribute(info, word, takeValue(text));
            attributes = true;
        }
    }
}

// Where an entry's address begins: behind "udp://", "rtp:", or "/udp/" of a proxy's URL. Nothing for others.
std::optional<std::string_view> addressPart(std::string_view url) {
    if (startsWith(url, "udp:") || startsWith(url, "rtp:")) {
        url.remove_prefix(4);
        url.remove_prefix(url.starts_with("//") ? 2 : 0);
        return url;
    }
    if (startsWith(url, "http://") || startsWith(url, "https://")) {
        std::string way(url.substr(0, url.find_first_of("?#|")));
        std::transform(way.begin(), way.end(), way.begin(), lower);
        const std::size_t host = way.find("//") + 2;
        const std::size_t at = std::min(way.find("/udp/", host), way.find("/rtp/", host));
        if (at != std::string::npos) {
            return url.substr(at + 5);
        }
    }
    return std::nullopt;
}

// The channel that a line names: SRC@GROUP:PORT in one of the usual wrappings, options behind it left out.
std::optional<Channel> parseEntry(std::string_view url) {
    std::optional<std::string_view> address = addressPart(url);
    if (!address) {
        return std::nullopt;
    }
    std::string_view rest = address->substr(0, address->find_first_of("?#| \t"));
    while (rest.ends_with('/')) {
        rest.remove_suffix(1);
    }
    const std::size_t at = std::min(rest.rfind('@'), rest.size());
    const std::string_view source = rest.substr(0, at == rest.size() ? 0 : at);
    rest.remove_prefix(at == rest.size() ? 0 : at + 1);
    const std::size_t colon = std::min(rest.find(':'), rest.size());
    const std::optional<Group> group = Group::parse(rest.substr(0, colon));
    uint16_t port = 0;
    rest.remove_prefix(std::min(colon + 1, rest.size()));
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), port);
    const bool portFine = rest.empty() || (error == std::errc{} && end == rest.data() + rest.size());
    if (!group || !portFine) {
        return std::nullopt;
    }
    Channel channel{.group = *group, .origin = Origin::kPlaylist};
    channel.source = printable(source, kNameLimit);
    channel.port = port;
    return channel;
}

class PlaylistParser {
  public:
    Playlist parse(std::string_view bytes) {
        if (bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF")) {
            ++playlist_.skipped;
            note("this is UTF-16; write the playlist as UTF-8");
            return std::move(playlist_);
        }
        bytes.remove_prefix(bytes.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
        while (!bytes.empty()) {
            ++line_;
            readLine(takeLine(bytes));
        }
        return std::move(playlist_);
    }

  private:
    void readLine(std::string_view bytes) {
        const std::string text = toUtf8(trimmed(bytes));
        if (startsWith(text, "#extinf:")) {
            info_ = text.substr(std::string_view("#extinf:").size());
        } else if (startsWith(text, "#extgrp:")) {
            group_ = trimmed(printable(std::string_view(text).substr(8), kNameLimit));
        } else if (startsWith(text, "#extm3u")) {
            playlist_.header = true;
        } else if (!text.empty() && text[0] != '#') {
            readEntry(text);
            info_.clear();
        }
    }

    void readEntry(std::string_view text) {
        std::optional<Channel> channel = parseEntry(text);
        if (!channel) {
            ++playlist_.skipped;
            note("no multicast group in \"" + printable(text, kQuotedLimit) + "\"; line skipped");
            return;
        }
        if (playlist_.channels.size() >= kChannelsLimit) {
            ++playlist_.skipped;
            note("more than " + std::to_string(kChannelsLimit) + " channels; line skipped");
            return;
        }
        const auto [first, isNew] = lines_.emplace(channel->group, line_);
        if (!isNew) {
            ++playlist_.skipped;
            note(channel->group.text() + " is already in line " + std::to_string(first->second) +
                 "; line skipped");
            return;
        }
        describe(*channel);
        playlist_.channels.push_back(std::move(*channel));
    }

    // Gives the channel what the lines before it say.
    void describe(Channel& channel) {
        const Info info = parseInfo(info_);
        channel.place.line = line_;
        channel.name = limited(info.name.empty() ? info.tvgName : info.name, "name");
        if (channel.name.empty()) {
            channel.name = channel.group.text();
        }
        const std::string group = info.group.empty() ? group_ : limited(info.group, "group-title");
        if (!group.empty()) {
            channel.labels["group"] = group;
        }
        if (const std::string id = limited(info.tvgId, "tvg-id"); !id.empty()) {
            channel.labels["tvg-id"] = id;
        }
        if (info.logo.size() <= kLogoLimit &&
            (startsWith(info.logo, "http://") || startsWith(info.logo, "https://"))) {
            channel.logo = trimmed(printable(info.logo, kLogoLimit));
        }
        // "12.1" is 12.
        int number = 0;
        std::from_chars(info.number.data(), info.number.data() + info.number.size(), number);
        channel.number = std::max(number, 0);
    }

    std::string limited(std::string_view text, std::string_view what) {
        std::string result(trimmed(printable(text, kNameLimit)));
        if (text.size() > kNameLimit) {
            note(std::string(what) + " cut to " + std::to_string(kNameLimit) + " bytes");
        }
        return result;
    }

    void note(std::string text) {
        if (playlist_.notes.size() < Playlist::kNotesLimit) {
            playlist_.notes.push_back({line_, std::move(text)});
        }
    }

    Playlist playlist_;
    uint32_t line_ = 0;
    std::string info_;   // behind "#EXTINF:", for the next entry
    std::string group_;  // of the last #EXTGRP
    std::map<Group, uint32_t> lines_;
};

// The text between double quotes, without what would end it.
std::string attribute(std::string_view name, std::string_view text) {
    std::string value = printable(text, kLogoLimit);
    std::replace(value.begin(), value.end(), '"', '\'');
    return value.empty() ? "" : " " + std::string(name) + "=\"" + value + "\"";
}

std::string label(const Channel& channel, const std::string& name) {
    const auto found = channel.labels.find(name);
    return found == channel.labels.end() ? "" : found->second;
}

}  // namespace

Playlist parsePlaylist(std::string_view bytes) {
    return PlaylistParser().parse(bytes);
}

std::optional<Playlist> readPlaylist(const std::filesystem::path& file, std::string& problem) {
    const std::string bytes = readTextFile(file, kPlaylistLimit, problem);
    return problem.empty() ? playlistOf(bytes, file, problem) : std::nullopt;
}

std::optional<Playlist> playlistOf(std::string_view bytes, const std::filesystem::path& file,
                                   std::string& problem) {
    Playlist playlist = parsePlaylist(bytes);
    if (playlist.channels.empty() && (!playlist.header || playlist.skipped > 0)) {
        problem = "holds no multicast group";
        if (!playlist.notes.empty()) {
            problem += "; line " + std::to_string(playlist.notes[0].line) + ": " + playlist.notes[0].text;
        }
        return std::nullopt;
    }
    for (Channel& channel : playlist.channels) {
        channel.place.file = file.string();
    }
    return playlist;
}

std::string writePlaylist(const ChannelMap& channels) {
    std::string text = "#EXTM3U\n";
    for (const auto& [group, channel] : channels) {
        text += "#EXTINF:-1" + attribute("tvg-id", label(channel, "tvg-id")) +
                attribute("tvg-chno", channel.number > 0 ? std::to_string(channel.number) : "") +
                attribute("tvg-logo", channel.logo) + attribute("group-title", label(channel, "group")) +
                "," + printable(channel.name, kNameLimit) + "\nudp://" +
                printable(channel.source, kNameLimit) + "@" + group.text() + ":" +
                std::to_string(channel.port > 0 ? channel.port : kUsualPort) + "\n";
    }
    return text;
}

Channel asInPlaylist(const Channel& channel) {
    const Playlist playlist = parsePlaylist(writePlaylist({{channel.group, channel}}));
    // A source that somebody made up may leave no group to be found.
    return playlist.channels.empty() ? channel : playlist.channels.front();
}

}  // namespace station
