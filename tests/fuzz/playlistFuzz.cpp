// Playlists: any bytes give channels within their bounds, which read back from the playlist made of them.
#include <set>
#include <string>

#include "channels/channelAttributes.h"
#include "channels/playlist.h"
#include "common/text.h"
#include "fuzz/fuzzing.h"

namespace {

using station::Channel;

void require(bool kept) {
    if (!kept)
        __builtin_trap();
}

void requireText(const std::string& text, std::size_t limit) {
    require(station::isUtf8(text) && station::printable(text, limit) == text);
}

std::string withoutQuotes(std::string text) {
    std::replace(text.begin(), text.end(), '"', '\'');
    return text;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const station::Playlist playlist = station::parsePlaylist(text);
    require(playlist.notes.size() <= station::Playlist::kNotesLimit);
    station::ChannelMap channels;
    for (Channel channel : playlist.channels) {
        requireText(channel.name, station::kNameLimit);
        requireText(channel.source, station::kNameLimit);
        requireText(channel.logo, station::kLogoLimit);
        require(!channel.name.empty() && channel.place.line > 0 && channel.place.line <= size);
        for (auto& [name, value] : channel.labels) {
            requireText(value, station::kNameLimit);
            value = withoutQuotes(value);
        }
        channel.logo = withoutQuotes(channel.logo);
        channel.port = channel.port == 0 ? 5000 : channel.port;
        require(channels.emplace(channel.group, channel).second);
    }
    const station::Playlist again = station::parsePlaylist(station::writePlaylist(channels));
    require(again.skipped == 0 && again.notes.empty() && again.channels.size() == channels.size());
    for (const Channel& channel : again.channels)
        require(channel == channels.at(channel.group));
    return 0;
}
