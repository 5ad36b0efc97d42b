#include "configuration/channelSet.h"

#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include "channels/channelAttributes.h"
#include "common/log.h"
#include "common/text.h"
#include "common/textFile.h"

namespace station {

namespace {

using nlohmann::json;

constexpr int kRuntimeFileVersion = 1;

// Adds channels from the highest precedence to the lowest.
class Merger {
  public:
    Merger(const RuntimeChannels& runtime, const Profiles& profiles)
        : runtime_(runtime), profiles_(profiles) {}

    void add(Channel channel) {
        const auto changed = runtime_.find(channel.group);
        if (channel.origin != Origin::kRuntime && changed != runtime_.end()) {
            note(channel.group.text() + (changed->second.removed ? " was removed" : " was changed") +
                 " at run time, which overrides " + channel.place.text());
            return;
        }
        if (const auto first = merged_.channels.find(channel.group); first != merged_.channels.end()) {
            const std::string holder = first->second.place.text();
            note(channel.group.text() + " is in " + holder + " and in " + channel.place.text() + "; " +
                 holder + " applies");
            return;
        }
        if (merged_.channels.size() >= kChannelsLimit) {
            ++leftOut_;
            return;
        }
        if (!profiles_.contains(channel.profile)) {
            note(channel.group.text() + " names profile \"" + channel.profile + "\", which no [profile." +
                 channel.profile + "] defines; the default profile applies");
            channel.profile = kDefaultProfile;
        }
        merged_.channels.emplace(channel.group, std::move(channel));
    }

    MergedChannels merged() {
        if (leftOut_ > 0) {
            note("more than " + std::to_string(kChannelsLimit) + " channels; " + std::to_string(leftOut_) +
                 " are left out");
        }
        return std::move(merged_);
    }

  private:
    void note(std::string text) {
        if (merged_.notes.size() < MergedChannels::kNotesLimit) {
            merged_.notes.push_back(std::move(text));
        }
    }

    const RuntimeChannels& runtime_;
    const Profiles& profiles_;
    MergedChannels merged_;
    std::size_t leftOut_ = 0;
};

json toJson(const RuntimeChannel& entry) {
    const Channel& channel = entry.channel;
    if (entry.removed) {
        return {{"group", channel.group.text()}, {"removed", true}};
    }
    json object = {{"group", channel.group.text()}};
    forEachChannelAttribute(
        [&](const auto& attribute) { object[attribute.name] = channel.*attribute.member; });
    return object;
}

// Reads members of one object; false from `fine` once one was not as it should be. Missing ones are left
// alone.
struct Members {
    const json& object;
    bool fine = true;

    void read(const char* name, std::string& target, std::size_t limit) {
        if (const auto found = object.find(name); found != object.end()) {
            const auto* text = found->get_ptr<const std::string*>();
            fine = fine && text != nullptr && textProblem(*text, limit).empty();
            target = fine ? *text : target;
        }
    }
    void read(const char* name, bool& target) {
        if (const auto found = object.find(name); found != object.end()) {
            fine = fine && found->is_boolean();
            target = fine ? found->get<bool>() : target;
        }
    }
    void read(const ChannelAttribute<std::string>& attribute, Channel& channel) {
        read(attribute.name, channel.*attribute.member, attribute.limit);
    }
    void read(const ChannelAttribute<bool>& attribute, Channel& channel) {
        read(attribute.name, channel.*attribute.member);
    }
    template <typename Integer>
    void read(const ChannelAttribute<Integer>& attribute, Channel& channel) {
        if (const auto found = object.find(attribute.name); found != object.end()) {
            fine = fine && found->is_number_integer() && found->template get<int64_t>() >= 0 &&
                   found->template get<int64_t>() <= attribute.highest;
            channel.*attribute.member =
                fine ? static_cast<Integer>(found->template get<int64_t>()) : channel.*attribute.member;
        }
    }
    void read(const ChannelAttribute<Labels>& attribute, Channel& channel) {
        const auto found = object.find(attribute.name);
        if (found == object.end()) {
            return;
        }
        fine = fine && found->is_object() && found->size() <= kLabelsLimit;
        for (auto item = found->begin(); fine && item != found->end(); ++item) {
            Members label{*found};
            std::string value;
            label.read(item.key().c_str(), value, attribute.limit);
            fine = label.fine && textProblem(item.key(), attribute.limit).empty();
            (channel.*attribute.member)[item.key()] = value;
        }
    }
};

std::optional<RuntimeChannel> fromJson(const json& object) {
    const auto* text = object.is_object() && object.contains("group")
                           ? object["group"].get_ptr<const std::string*>()
                           : nullptr;
    const std::optional<Group> group = text == nullptr ? std::nullopt : Group::parse(*text);
    if (!group) {
        return std::nullopt;
    }
    RuntimeChannel entry{{.group = *group, .origin = Origin::kRuntime}};
    Channel& channel = entry.channel;
    Members members{object};
    members.read("removed", entry.removed);
    forEachChannelAttribute([&](const auto& attribute) { members.read(attribute, channel); });
    if (channel.name.empty()) {
        channel.name = group->text();
    }
    return members.fine ? std::optional(std::move(entry)) : std::nullopt;
}

// What of the text is right. `damage` says what is not.
RuntimeChannels parseRuntimeChannels(const std::string& bytes, std::string& damage) {
    const json document = json::parse(bytes, nullptr, false);
    if (!document.is_object() || !document.contains("channels") || !document["channels"].is_array()) {
        damage = "no list of channels";
        return {};
    }
    if (document.value("version", json()) != kRuntimeFileVersion) {
        damage = "another version";
        return {};
    }
    RuntimeChannels channels;
    std::size_t wrong = 0;
    std::size_t room[] = {kAdditionsLimit, kRemovalsLimit};
    for (const json& object : document["channels"]) {
        std::optional<RuntimeChannel> entry = fromJson(object);
        if (!entry || room[entry->removed ? 1 : 0] == 0) {
            ++wrong;
            continue;
        }
        --room[entry->removed ? 1 : 0];
        const Group group = entry->channel.group;
        channels.insert_or_assign(group, std::move(*entry));
    }
    if (wrong > 0) {
        damage = std::to_string(wrong) + " of its channels cannot be read";
    }
    return channels;
}

}  // namespace

MergedChannels mergeChannels(const RuntimeChannels& runtime, const Configuration& configuration,
                             const std::vector<std::pair<PlaylistSource, Playlist>>& playlists) {
    Merger merger(runtime, configuration.profiles);
    for (const auto& [group, entry] : runtime) {
        if (!entry.removed) {
            merger.add(entry.channel);
        }
    }
    for (const Channel& channel : configuration.channels) {
        merger.add(channel);
    }
    for (const auto& [source, playlist] : playlists) {
        for (Channel channel : playlist.channels) {
            channel.profile = source.profile;
            for (const auto& [name, value] : source.labels) {
                if (channel.labels.size() < kLabelsLimit) {
                    channel.labels.emplace(name, value);
                }
            }
            merger.add(std::move(channel));
        }
    }
    return merger.merged();
}

ChannelDifference compareChannels(const ChannelMap& before, const ChannelMap& after) {
    ChannelDifference difference;
    for (const auto& [group, channel] : before) {
        const auto found = after.find(group);
        if (found == after.end()) {
            difference.removed.push_back(channel);
        } else if (found->second != channel) {
            difference.changed.emplace_back(channel, found->second);
        }
    }
    for (const auto& [group, channel] : after) {
        if (!before.contains(group)) {
            difference.added.push_back(channel);
        }
    }
    return difference;
}

RuntimeChannelFile::RuntimeChannelFile(const std::filesystem::path& stateDirectory)
    : file_(stateDirectory / "channels.json") {}

std::string beyondRuntimeLimits(const RuntimeChannels& channels) {
    // What one takes in JSON at most: every character may need a second one in front.
    constexpr std::size_t kFixed = 320;
    constexpr std::size_t kFixedLabel = 32;
    std::size_t removals = 0;
    std::size_t bytes = kFixed;
    for (const auto& [group, entry] : channels) {
        const Channel& channel = entry.channel;
        removals += entry.removed ? 1 : 0;
        bytes += kFixed;
        if (entry.removed) {
            continue;
        }
        forEachChannelAttribute([&](const auto& attribute) {
            if constexpr (std::is_same_v<typename std::decay_t<decltype(attribute)>::Value, std::string>) {
                bytes += 2 * (channel.*attribute.member).size();
            }
        });
        for (const auto& [name, value] : channel.labels) {
            bytes += kFixedLabel + 2 * (name.size() + value.size());
        }
    }
    if (channels.size() - removals > kAdditionsLimit) {
        return "there are " + std::to_string(kAdditionsLimit) +
               " channels that were added or changed at run time; name some in a file instead";
    }
    if (removals > kRemovalsLimit) {
        return "there are " + std::to_string(kRemovalsLimit) +
               " channels of files that were removed at run time; take some out of their files and add them "
               "again";
    }
    if (bytes > kRuntimeFileLimit) {
        return "the channels of the run time would take more than 64 MiB on the disk; give them shorter "
               "texts";
    }
    return {};
}

RuntimeChannelFile::Identity RuntimeChannelFile::identity() const {
    struct stat status {};
    return lstat(file_.c_str(), &status) == 0 ? Identity{status.st_dev, status.st_ino, status.st_size,
                                                         status.st_mtim.tv_sec, status.st_mtim.tv_nsec}
                                              : Identity{};
}

LoadedRuntime RuntimeChannelFile::load() {
    known_ = identity();  // before it is read: what changes meanwhile is another one
    std::error_code error;
    if (std::filesystem::symlink_status(file_, error).type() == std::filesystem::file_type::not_found) {
        return {RuntimeChannels{}, {}};
    }
    std::string problem;
    const std::string bytes = readTextFile(file_, kRuntimeFileLimit, problem);
    if (!problem.empty()) {
        return {std::nullopt, file_.string() + " " + problem};
    }
    std::string damage;
    RuntimeChannels channels = parseRuntimeChannels(bytes, damage);
    if (damage.empty()) {
        return {std::move(channels), {}};
    }
    damage = file_.string() + " is damaged (" + damage + "); ";
    std::filesystem::path aside;
    if (const std::string failed = putAside("damaged", aside); !failed.empty()) {
        return {std::nullopt, damage + failed};
    }
    problem = damage + "put aside as " + aside.string() + "; add what is missing anew";
    const std::string failed = channels.empty() ? "" : save(channels);
    return {std::move(channels), problem + (failed.empty() ? "" : "; " + failed), !failed.empty()};
}

std::string RuntimeChannelFile::putAside(const std::string& why, std::filesystem::path& aside) const {
    for (int number = 0; number < kAside; ++number) {
        aside = file_;
        aside += "." + why + (number == 0 ? "" : "." + std::to_string(number));
        std::error_code error;
        if (std::filesystem::symlink_status(aside, error).type() != std::filesystem::file_type::not_found) {
            continue;
        }
        std::filesystem::rename(file_, aside, error);
        return error ? "it cannot be put aside: " + error.message() : "";
    }
    return "it cannot be put aside: there are " + std::to_string(kAside) + " like it; move some away";
}

std::string RuntimeChannelFile::save(const RuntimeChannels& channels) {
    if (const Identity found = identity(); found != Identity{} && found != known_) {
        const std::string other = file_.string() + " is not the file that was read or written last; ";
        std::filesystem::path aside;
        if (const std::string failed = putAside("replaced", aside); !failed.empty()) {
            return other + failed;
        }
        log(LogLevel::kError, other + "put aside as " + aside.string() +
                                  ", the channels added at run time go into a new one; to go on with that "
                                  "one, stop the station and rename it back");
    }
    json list = json::array();
    for (const auto& [group, entry] : channels) {
        list.push_back(toJson(entry));
    }
    const json document = {{"version", kRuntimeFileVersion}, {"channels", std::move(list)}};
    const std::string problem =
        replaceTextFile(file_, document.dump(1, ' ', false, json::error_handler_t::replace) + "\n");
    if (!problem.empty()) {
        return file_.string() + " " + problem;
    }
    known_ = identity();
    return {};
}

}  // namespace station
