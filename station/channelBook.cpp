#include "channelBook.h"

#include <algorithm>

#include "common/counted.h"
#include "common/text.h"

namespace station {

namespace {

// Nothing gave it a name.
bool isNameless(const Channel& channel) {
    return channel.name == channel.group.text();
}

// What two names have in common that are written with other capitals and spaces.
std::string plainName(std::string_view name) {
    std::string plain;
    for (const char c : name) {
        if (c != ' ') {
            plain += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
    }
    return plain;
}

Refusal invalid(std::string field, std::string text) {
    return {Refusal::Why::kInvalid, std::move(field), std::move(text)};
}

}  // namespace

void ChannelBook::setRuntime(LoadedRuntime&& loaded) {
    known_ = loaded.channels.has_value();
    problem_ = std::move(loaded.problem);
    runtime_ = std::move(loaded.channels).value_or(RuntimeChannels{});
    merge();
}

std::optional<Refusal> ChannelBook::refuseUnknown() const {
    return known_ ? std::nullopt
                  : std::optional(Refusal{
                        Refusal::Why::kFailed, "",
                        "no change is taken until the channels of the run time can be read: " + problem_});
}

std::optional<Refusal> ChannelBook::takeRuntime(RuntimeChannels&& channels, const char* field) {
    if (std::string beyond = beyondRuntimeLimits(channels); !beyond.empty()) {
        return Refusal{Refusal::Why::kConflict, field, std::move(beyond)};
    }
    runtime_ = std::move(channels);
    merge();
    return std::nullopt;
}

void ChannelBook::setFiles(const Configuration& configuration,
                           std::vector<std::pair<PlaylistSource, Playlist>> playlists) {
    configuration_ = configuration;
    playlists_ = std::move(playlists);
    merge();
}

void ChannelBook::merge() {
    merged_ = mergeChannels(runtime_, configuration_, playlists_);
    show();
}

void ChannelBook::show() {
    shown_ = merged_.channels;
    for (auto entry = streamNames_.begin(); entry != streamNames_.end();) {
        const auto channel = shown_.find(entry->first);
        if (channel == shown_.end()) {
            entry = streamNames_.erase(entry);
            continue;
        }
        if (isNameless(channel->second)) {
            channel->second.name = entry->second;
        }
        ++entry;
    }
    noteNames();
}

const std::string* ChannelBook::streamName(const Group& group) const {
    const auto found = streamNames_.find(group);
    return found == streamNames_.end() ? nullptr : &found->second;
}

bool ChannelBook::takeStreamNames(StreamNames&& names) {
    bool changed = false;
    bool news = false;
    for (auto& [group, name] : names) {
        const auto channel = merged_.channels.find(group);
        if (name.empty() || channel == merged_.channels.end()) {
            continue;
        }
        if (std::string& known = streamNames_[group]; known != name) {
            known = std::move(name);
            news = true;
            changed = changed || isNameless(channel->second);
        }
    }
    if (news) {
        ++streamNamesVersion_;
        show();
    }
    return changed;
}

void ChannelBook::noteNames() {
    nameNotes_.clear();
    std::size_t more = 0;
    for (const auto& [group, name] : streamNames_) {
        const auto channel = merged_.channels.find(group);
        if (channel == merged_.channels.end() || isNameless(channel->second) ||
            plainName(channel->second.name) == plainName(name)) {
            continue;
        }
        if (nameNotes_.size() == kNameNotes) {
            ++more;
            continue;
        }
        nameNotes_.push_back(group.text() + " is named \"" + channel->second.name +
                             "\", and its stream calls it \"" + name + "\"");
    }
    if (more > 0) {
        nameNotes_.back() += "; " + counted(more, "more channel") + (more == 1 ? " is" : " are") +
                             " named otherwise than in the stream";
    }
}

std::optional<Refusal> ChannelBook::put(const PutChannel& action, const Configuration& configuration) {
    auto refusal = refuseUnknown();
    if (refusal) {
        return refusal;
    }
    const std::string& profile = action.channel.profile;
    if (action.given.contains("profile") && !configuration.profiles.contains(profile)) {
        return invalid("profile", "the configuration has no profile \"" + printable(profile, 40) + "\"");
    }
    RuntimeChannels before = runtime_;
    if (const auto removed = runtime_.find(action.channel.group);
        removed != runtime_.end() && removed->second.removed) {
        runtime_.erase(removed);  // what the files say of it holds again
        merge();
    }
    refusal = assignChannel(action);
    if (refusal && runtime_ != before) {
        runtime_ = std::move(before);
        merge();
    }
    return refusal;
}

std::optional<Refusal> ChannelBook::assignChannel(const PutChannel& action) {
    const auto known = merged_.channels.find(action.channel.group);
    if (known == merged_.channels.end() && merged_.channels.size() >= kChannelsLimit) {
        return Refusal{Refusal::Why::kConflict, "group",
                       "there are " + std::to_string(kChannelsLimit) + " channels; remove some first"};
    }
    Channel channel = known != merged_.channels.end() ? known->second : Channel{action.channel.group};
    action.applyTo(channel);
    if (channel.name.empty()) {
        channel.name = channel.group.text();
    }
    if (known != merged_.channels.end() && channel == known->second) {
        return std::nullopt;  // a file's channel goes on as the file's
    }
    channel.origin = Origin::kRuntime;
    channel.place = {};
    RuntimeChannels next = runtime_;
    next.insert_or_assign(action.channel.group, RuntimeChannel{channel, false});
    return takeRuntime(std::move(next), "group");
}

std::optional<Refusal> ChannelBook::remove(Group group) {
    if (auto refusal = refuseUnknown()) {
        return refusal;
    }
    const auto channel = merged_.channels.find(group);
    if (channel == merged_.channels.end()) {
        return Refusal{Refusal::Why::kNotFound, "group", "no channel has the group " + group.text()};
    }
    const Channel removed = channel->second;
    RuntimeChannels before = runtime_;
    runtime_.erase(group);
    merge();
    if (!merged_.channels.contains(group)) {
        return std::nullopt;
    }
    // A file names it too, so it has to be said that it is not wanted.
    RuntimeChannels next = before;
    next.insert_or_assign(group, RuntimeChannel{removed, true});
    auto refusal = takeRuntime(std::move(next), "group");
    if (refusal) {
        runtime_ = std::move(before);
        merge();
    }
    return refusal;
}

std::optional<Refusal> ChannelBook::import(const std::string& text, Answer& answer) {
    if (auto refusal = refuseUnknown()) {
        return refusal;
    }
    const Playlist playlist = parsePlaylist(text);
    if (playlist.channels.empty()) {
        return invalid("playlist", playlist.notes.empty() ? "the playlist names no channel"
                                                          : "the playlist names no channel; line " +
                                                                std::to_string(playlist.notes[0].line) +
                                                                ": " + playlist.notes[0].text);
    }
    std::size_t added = 0;
    for (const Channel& channel : playlist.channels) {
        added += merged_.channels.contains(channel.group) ? 0 : 1;
    }
    if (merged_.channels.size() + added > kChannelsLimit) {
        return Refusal{Refusal::Why::kConflict, "playlist",
                       "that would be more than " + std::to_string(kChannelsLimit) + " channels"};
    }
    RuntimeChannels next = runtime_;
    std::size_t unchanged = 0;
    for (Channel channel : playlist.channels) {
        if (const auto known = merged_.channels.find(channel.group); known != merged_.channels.end()) {
            // Else its own export would have the run time override every channel of the files, or give a name
            // of its own to one that goes by its stream's.
            if (const std::string* const name = streamName(channel.group);
                name != nullptr && *name == channel.name && isNameless(known->second)) {
                channel.name = known->second.name;
            }
            if (asInPlaylist(known->second) == asInPlaylist(channel)) {
                ++unchanged;
                continue;
            }
            forEachChannelAttribute([&](const auto& attribute) {
                if (!attribute.ofPlaylist) {
                    channel.*attribute.member = known->second.*attribute.member;
                }
            });
        }
        channel.origin = Origin::kRuntime;
        channel.place = {};
        next.insert_or_assign(channel.group, RuntimeChannel{channel, false});
    }
    if (auto refusal = takeRuntime(std::move(next), "playlist")) {
        return refusal;
    }
    for (const PlaylistNote& note : playlist.notes) {
        answer.notes.push_back("line " + std::to_string(note.line) + ": " + note.text);
    }
    answer.skipped = playlist.skipped;
    answer.added = added;
    answer.changed = playlist.channels.size() - added - unchanged;
    return std::nullopt;
}

ChannelDifference ChannelBook::takeDifference() {
    ChannelDifference difference = compareChannels(taken_, shown_);
    taken_ = shown_;
    return difference;
}

}  // namespace station
