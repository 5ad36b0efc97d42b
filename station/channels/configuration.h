// The configuration: station.toml, and what the command line overrides.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "alarms/alarm.h"
#include "channels/channel.h"

namespace station {

struct PlaylistSource {
    std::filesystem::path file;  // a relative path counts from the configuration's directory
    std::string profile{kDefaultProfile};
    Labels labels;  // given to each of its channels, where the playlist's own do not say otherwise

    bool operator==(const PlaylistSource&) const = default;
};

enum class WebhookFormat : uint8_t { kJson, kAlertmanager };

struct Webhook {
    std::string url;  // http or https; for Alertmanager without a path, to which /api/v2/alerts is added
    WebhookFormat format = WebhookFormat::kJson;
    Severity minimumSeverity = Severity::kWarning;
    uint32_t maxPerMinute = 30;
    std::chrono::milliseconds timeout{5000};
    std::string caFile;         // PEM; empty for the system's
    std::string authorization;  // sent as Authorization header, from authorization_file; empty for none

    bool operator==(const Webhook&) const = default;
};

enum class MetricsPids : uint8_t { kNone, kListed, kAll };

// Everything that can be configured, with its defaults.
struct Configuration {
    std::string listen = "127.0.0.1:9427";  // "" for no TCP
    std::filesystem::path socket = "/run/kestor/station.sock";
    std::filesystem::path state = "/var/lib/kestor";
    std::filesystem::path pipe = "/tmp/american_maid";
    std::string controllerEndpoint = "tcp://127.0.0.1:5999";
    std::filesystem::path page;             // directory of the page's files; empty: found by the program
    std::filesystem::path tokenFile;        // empty: no changes over TCP
    std::vector<std::string> allowedHosts;  // beside the listening address, localhost and this machine's name
    std::optional<bool> passive;            // not set: the probe is told nothing
    std::optional<std::chrono::milliseconds> igmpLatency;

    std::vector<Channel> channels;
    std::vector<PlaylistSource> playlists;
    Profiles profiles;  // at least "default"

    std::vector<Webhook> webhooks;
    uint32_t keepDays = 90;
    uint64_t keepRows = 1'000'000;
    MetricsPids metricsPids = MetricsPids::kListed;

    struct Influx {
        std::string url;            // of the write call, with its query; empty: nothing is written
        std::string authorization;  // Authorization header, from authorization_file
        std::chrono::milliseconds timeout{5000};
        bool operator==(const Influx&) const = default;
    } influx;

    bool operator==(const Configuration&) const = default;
};

// One mistake in a file.
struct Mistake {
    std::string file;
    uint32_t line = 0;  // from 1; 0 when the whole file is meant
    uint32_t column = 0;
    std::string text;  // what is wrong and what would be right

    // "station.toml:12:5: text"
    std::string message() const;
};

struct ConfigurationResult {
    Configuration configuration;  // usable only without mistakes
    std::vector<Mistake> mistakes;
};

// Reads a file. Unknown keys, wrong types, values out of range, a profile that no [profile.NAME] defines, and
// groups named twice are mistakes; all of them are found in one go. Files that it names (token_file,
// authorization_file) have to be readable; playlists need not be there.
ConfigurationResult readConfiguration(const std::filesystem::path& file);
// The same for a text; `name` stands in the messages and its directory is where relative paths count from.
ConfigurationResult parseConfiguration(std::string_view text, const std::filesystem::path& name);

// All keys with their values as TOML that reads back as an equal configuration; secrets are left out.
std::string effectiveConfiguration(const Configuration& configuration);

}  // namespace station
