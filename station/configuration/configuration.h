// The configuration: station.toml, and what the command line overrides.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "alarms/alarm.h"
#include "channels/channel.h"

namespace station {

// The name of this machine; "localhost" where it has none.
std::string hostName();

struct PlaylistSource {
    std::filesystem::path file;
    std::string profile{kDefaultProfile};
    Labels labels;  // given to each of its channels, where the playlist's own do not say otherwise

    bool operator==(const PlaylistSource&) const = default;
};

enum class WebhookFormat : uint8_t { kJson, kAlertmanager };

struct Webhook {
    std::string name;  // in log, API and metrics; no two have the same
    std::string url;   // http or https; for Alertmanager without a path, to which /api/v2/alerts is added
    WebhookFormat format = WebhookFormat::kJson;
    Severity minimumSeverity = Severity::kWarning;
    bool cues = false;  // is told cues as well
    uint32_t maxPerMinute = 30;
    std::chrono::milliseconds timeout{5000};
    std::filesystem::path caFile;             // PEM; empty for the system's
    std::filesystem::path authorizationFile;  // empty for none
    std::string authorization;                // sent as Authorization header: the file's one line

    bool operator==(const Webhook&) const = default;
};

// By what the meter judges a channel, where the standard leaves a choice.
enum class ServiceInformation : uint8_t { kSeen, kRequired };
struct MeasureRules {
    uint32_t pidAbsenceMs = 5000;
    uint32_t pcrRepetitionMs = 100;
    // Whether a table of service information that was never seen is missing.
    ServiceInformation serviceInformation = ServiceInformation::kSeen;

    bool operator==(const MeasureRules&) const = default;
};

enum class MetricsPids : uint8_t { kNone, kListed, kAll };

inline constexpr std::size_t kTokenLimit = 4096;  // bytes; it has to fit into a request's headers

// Everything that can be configured, with its defaults. Relative paths count from the configuration's
// directory, and are taken from there when they are read.
struct Configuration {
    std::string instance = hostName();      // this probe's name, in what is delivered and measured
    std::string listen = "127.0.0.1:9427";  // "" for no TCP
    std::filesystem::path socket = "/run/kestor/station.sock";
    std::filesystem::path meterSocket = "/run/kestor/meter.sock";  // "" for no meter
    bool meterExpected = false;                                    // somebody named it: one is to be there
    std::filesystem::path state = "/var/lib/kestor";
    std::filesystem::path pipe = "/tmp/american_maid";
    std::string controllerEndpoint = "tcp://127.0.0.1:5999";
    std::filesystem::path page;             // directory of the page's files; empty: found by the program
    std::filesystem::path tokenFile;        // empty: no changes over TCP
    std::string token;                      // the file's one line, of at most kTokenLimit bytes
    bool socketToken = false;               // changes over the Unix socket need the token too
    std::vector<std::string> allowedHosts;  // beside the listening address, localhost and this machine's name
    std::optional<bool> passive;            // not set: the probe is told nothing
    std::optional<std::chrono::milliseconds> igmpLatency;

    std::vector<Channel> channels;
    std::vector<PlaylistSource> playlists;
    Profiles profiles{{std::string(kDefaultProfile), defaultRules()}};
    std::map<std::string, MeasureRules> measureRules{{std::string(kDefaultProfile), {}}};  // of all profiles

    AlarmSource alarmSource = AlarmSource::kAuto;

    std::vector<Webhook> webhooks;
    uint32_t keepDays = 90;
    uint64_t keepRows = 1'000'000;
    uint32_t historyDays = 1;  // of minutes on the disk; 0: none
    uint64_t historyMegabytes = 2'000;
    MetricsPids metricsPids = MetricsPids::kListed;

    struct Influx {
        std::string url;  // of the write call, with its query; empty: nothing is written
        std::filesystem::path authorizationFile;
        std::string authorization;  // Authorization header: the file's one line
        std::chrono::milliseconds timeout{5000};
        bool operator==(const Influx&) const = default;
    } influx;

    struct Pictures {
        std::filesystem::path socket = "/run/kestor/picture.sock";  // "" for none
        bool expected = false;                                      // somebody named it: one is to be there
        double cores = 0.5;                                         // that it may take; 0: no pictures
        bool operator==(const Pictures&) const = default;
    } pictures;

    struct Http {
        uint32_t connections = 256;
        uint32_t connectionsPerAddress = 64;
        bool operator==(const Http&) const = default;
    } http;

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
    std::vector<Mistake> notes;  // what is right and perhaps not meant
};

// Reads a file. Unknown keys, wrong types, values out of range, a profile that no [profile.NAME] defines, and
// groups named twice are mistakes; all of them are found in one go, but for text that is no TOML, whose first
// mistake ends the reading. Files that it names (token_file, authorization_file, ca_file) have to be
// readable; playlists need not be there.
ConfigurationResult readConfiguration(const std::filesystem::path& file);
// The same for a text; `name` stands in the messages and its directory is where relative paths count from.
ConfigurationResult parseConfiguration(std::string_view text, const std::filesystem::path& name);

// What is odd about serving on `listen`: other machines reach it and no token is set. Empty for nothing.
std::string openToAll(const Configuration& configuration);

// All keys with their values as TOML that reads back as an equal configuration. Secrets stay in their files.
std::string effectiveConfiguration(const Configuration& configuration);

// What --check does: writes the effective configuration to `out`, or every mistake to `errors`, a line each;
// notes go to `errors` as well. The exit status: 0, or 1 when there are mistakes.
int reportConfiguration(const ConfigurationResult& result, std::ostream& out, std::ostream& errors);

// A key as a manual describes it.
struct KeyDescription {
    std::string_view section;  // "" for the top, "[[channel]]", "[profile.NAME.TYPE]"
    std::string_view name;
    std::string_view type;     // "string", "integer", ...
    std::string unit;          // with the range where there is one; may be empty
    std::string defaultValue;  // TOML, or words: "required"
    std::string_view meaning;
};
// Every key that there is, in the order of the effective configuration.
std::vector<KeyDescription> describeKeys();

}  // namespace station
