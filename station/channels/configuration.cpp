#include "channels/configuration.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <map>
#include <ostream>

#include "channels/configurationKeys.h"
#include "channels/configurationValues.h"
#include "channels/textFile.h"
#include "common/text.h"

namespace station {

namespace {

constexpr std::size_t kConfigurationLimit = std::size_t{16} << 20;  // bytes
constexpr std::size_t kSecretLimit = 8192;
constexpr std::size_t kWebhooksLimit = 16;
constexpr std::size_t kPlaylistsLimit = 100;
constexpr std::size_t kProfilesLimit = 100;
constexpr std::string_view kSections =
    "[events], [metrics], [http], [influx], [[webhook]], [[playlist]], [[channel]], [profile.NAME.TYPE]";

template <typename Record>
std::string names(std::span<const Key<Record>> keys) {
    std::string list;
    for (const Key<Record>& key : keys) {
        list += (list.empty() ? "" : ", ") + std::string(key.name);
    }
    return list;
}

template <typename Record>
const Key<Record>* findKey(std::span<const Key<Record>> keys, std::string_view name) {
    const auto found =
        std::find_if(keys.begin(), keys.end(), [&](const auto& key) { return key.name == name; });
    return found == keys.end() ? nullptr : &*found;
}

template <typename Record>
void readTable(Reading& reading, const toml::table& table, std::string_view section,
               std::span<const Key<Record>> keys, Record& record) {
    for (const auto& [name, node] : table) {
        if (const Key<Record>* key = findKey(keys, name.str())) {
            key->read({reading, key->name, node, key->demand}, record);
        } else {
            reading.mistake(name.source(), "\"" + std::string(name.str()) + "\" is no key of " +
                                               std::string(section) + "; there are: " + names(keys));
        }
    }
    for (const Key<Record>& key : keys) {
        if (key.defaultWords == kRequired && !table.contains(key.name)) {
            reading.mistake(table.source(),
                            std::string(section) + " has no \"" + std::string(key.name) + "\"");
        }
    }
}

// A section that is a table: null, and a mistake, when it is something else.
const toml::table* asTable(Reading& reading, const toml::node& node, std::string_view section) {
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        reading.mistake(node.source(),
                        "this must be a table: write " + std::string(section) + " above its keys");
    }
    return table;
}

// Calls `read` with each table of an array of tables.
template <typename Read>
void readTables(Reading& reading, const toml::node& node, std::string_view section, std::size_t limit,
                Read read) {
    const toml::array* list = node.as_array();
    if (list == nullptr) {
        reading.mistake(node.source(),
                        "this must be a list of tables: write " + std::string(section) + " above each");
        return;
    }
    if (list->size() > limit) {
        reading.mistake((*list)[limit].source(),
                        "more than " + std::to_string(limit) + " of " + std::string(section));
        return;
    }
    for (const toml::node& item : *list) {
        if (const toml::table* table = asTable(reading, item, section)) {
            read(*table);
        }
    }
}

// Where a key of a table stands, or else the table.
const toml::source_region& whereIs(const toml::table& table, std::string_view key) {
    const toml::node* node = table.get(key);
    return node == nullptr ? table.source() : node->source();
}

// The one line of a file that holds a secret; reports what is wrong with it.
std::string readSecret(Reading& reading, const toml::source_region& at, const std::filesystem::path& file,
                       std::size_t limit = kSecretLimit) {
    std::string problem;
    std::string bytes = readTextFile(file, limit, problem);
    const std::size_t end = bytes.find_last_not_of(" \t\r\n");
    bytes.resize(end == std::string::npos ? 0 : end + 1);
    const bool plain =
        std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte >= ' ' && byte <= '~'; });
    if (problem.empty() && (bytes.empty() || !plain)) {
        problem = "must hold one line of plain text";
    }
    if (!problem.empty()) {
        reading.mistake(at, file.string() + " " + problem);
        return {};
    }
    return bytes;
}

template <typename Record>
void readAuthorization(Reading& reading, const toml::table& table, Record& record) {
    if (!record.authorizationFile.empty()) {
        record.authorization =
            readSecret(reading, whereIs(table, "authorization_file"), record.authorizationFile);
    }
}

// Reads the whole text, section by section.
class ConfigurationParser {
  public:
    ConfigurationParser(Reading& reading, Configuration& configuration)
        : reading_(reading), configuration_(configuration) {}

    void read(const toml::table& root) {
        for (const auto& [name, node] : root) {
            if (!readSection(name.str(), node)) {
                readTop(name, node);
            }
        }
        checkTop(root);
        checkProfiles();
    }

  private:
    // False when the name is none of a section.
    bool readSection(std::string_view name, const toml::node& node) {
        if (name == "events") {
            readPlain(node, "[events]", eventsKeys(), configuration_);
        } else if (name == "metrics") {
            readPlain(node, "[metrics]", metricsKeys(), configuration_);
        } else if (name == "http") {
            readPlain(node, "[http]", httpKeys(), configuration_.http);
        } else if (name == "influx") {
            readPlain(node, "[influx]", influxKeys(), configuration_.influx);
            if (const toml::table* table = node.as_table()) {
                readAuthorization(reading_, *table, configuration_.influx);
            }
        } else if (name == "webhook") {
            readTables(reading_, node, "[[webhook]]", kWebhooksLimit,
                       [this](const auto& table) { readWebhook(table); });
        } else if (name == "playlist") {
            readTables(reading_, node, "[[playlist]]", kPlaylistsLimit,
                       [this](const auto& table) { readPlaylist(table); });
        } else if (name == "channel") {
            readTables(reading_, node, "[[channel]]", kChannelsLimit,
                       [this](const auto& table) { readChannel(table); });
        } else if (name == "profile") {
            readProfiles(node);
        } else {
            return false;
        }
        return true;
    }

    template <typename Record>
    void readPlain(const toml::node& node, std::string_view section, std::span<const Key<Record>> keys,
                   Record& record) {
        if (const toml::table* table = asTable(reading_, node, section)) {
            readTable(reading_, *table, section, keys, record);
        }
    }

    void readTop(const toml::key& name, const toml::node& node) {
        if (const auto* key = findKey(topKeys(), name.str())) {
            key->read({reading_, key->name, node, key->demand}, configuration_);
            return;
        }
        reading_.mistake(name.source(), "\"" + std::string(name.str()) + "\" is no key; there are: " +
                                            names(topKeys()) + ", " + std::string(kSections));
    }

    void checkTop(const toml::table& root) {
        if (!configuration_.tokenFile.empty()) {
            configuration_.token =
                readSecret(reading_, whereIs(root, "token_file"), configuration_.tokenFile, kTokenLimit);
        } else if (configuration_.socketToken) {
            reading_.mistake(whereIs(root, "socket_token"),
                             "\"socket_token\" needs a token_file: without one nobody could change anything");
        }
        if (const std::string note = openToAll(configuration_); !note.empty()) {
            reading_.note(whereIs(root, "listen"), note);
        }
    }

    void readWebhook(const toml::table& table) {
        Webhook webhook;
        readTable(reading_, table, "[[webhook]]", webhookKeys(), webhook);
        if (webhook.format == WebhookFormat::kAlertmanager) {
            while (webhook.url.ends_with('/')) {
                webhook.url.pop_back();
            }
            if (webhook.url.ends_with("/api/v2/alerts")) {
                reading_.mistake(whereIs(table, "url"),
                                 "\"url\" must end before /api/v2/alerts, which is added");
            }
        }
        readAuthorization(reading_, table, webhook);
        std::string problem;
        if (!webhook.caFile.empty() &&
            (readTextFile(webhook.caFile, kConfigurationLimit, problem), !problem.empty())) {
            reading_.mistake(whereIs(table, "ca_file"), webhook.caFile.string() + " " + problem);
        }
        if (webhook.name.empty()) {
            webhook.name = std::to_string(configuration_.webhooks.size() + 1);
        }
        if (std::ranges::count(configuration_.webhooks, webhook.name, &Webhook::name) > 0) {
            reading_.mistake(whereIs(table, "name"),
                             "\"name\": another [[webhook]] has the name \"" + webhook.name + "\"");
        }
        configuration_.webhooks.push_back(std::move(webhook));
    }

    void readPlaylist(const toml::table& table) {
        PlaylistSource playlist;
        readTable(reading_, table, "[[playlist]]", playlistKeys(), playlist);
        profilesNamed_.emplace_back(&whereIs(table, "profile"), playlist.profile);
        configuration_.playlists.push_back(std::move(playlist));
    }

    void readChannel(const toml::table& table) {
        Channel channel = blankChannel();
        readTable(reading_, table, "[[channel]]", channelKeys(), channel);
        profilesNamed_.emplace_back(&whereIs(table, "profile"), channel.profile);
        const auto* group = table.get_as<std::string>("group");
        if (group == nullptr || !Group::parse(group->get())) {
            return;
        }
        const toml::source_region& at = whereIs(table, "group");
        if (channel.name.empty()) {
            channel.name = channel.group.text();
        }
        channel.place = reading_.place(at);
        const auto [other, isNew] = groups_.emplace(channel.group, at.begin.line);
        if (!isNew) {
            reading_.mistake(
                at, "group " + channel.group.text() + " is already in line " + std::to_string(other->second));
            return;
        }
        configuration_.channels.push_back(std::move(channel));
    }

    void readProfiles(const toml::node& node) {
        const toml::table* profiles = asTable(reading_, node, "[profile.NAME.TYPE]");
        if (profiles == nullptr) {
            return;
        }
        if (profiles->size() > kProfilesLimit) {
            reading_.mistake(profiles->source(), "more than " + std::to_string(kProfilesLimit) + " profiles");
            return;
        }
        // The others start from it, wherever it stands.
        if (const toml::node* basis = profiles->get(kDefaultProfile)) {
            readProfile(kDefaultProfile, *basis);
        }
        for (const auto& [name, profile] : *profiles) {
            const std::string_view problem = name.str().empty() ? "must not be empty" : checkName(name.str());
            if (!problem.empty()) {
                reading_.mistake(name.source(), "a profile's name " + std::string(problem));
            } else if (name.str() != kDefaultProfile) {
                readProfile(name.str(), profile);
            }
        }
    }

    void readProfile(std::string_view name, const toml::node& node) {
        RuleSet rules = configuration_.profiles.at(std::string(kDefaultProfile));
        MeasureRules measures = configuration_.measureRules.at(std::string(kDefaultProfile));
        const toml::table* types = asTable(reading_, node, "[profile.NAME.TYPE]");
        if (types == nullptr) {
            return;
        }
        for (const auto& [typeName, rule] : *types) {
            if (const auto* key = findKey(measureKeys(), typeName.str())) {
                key->read({reading_, key->name, rule, key->demand}, measures);
                continue;
            }
            const std::optional<std::size_t> type = findAlarmType(typeName.str());
            if (!type) {
                reading_.mistake(typeName.source(), "there is no alarm \"" + std::string(typeName.str()) +
                                                        "\"; there are: " + alarmNames() + "; and the keys " +
                                                        names(measureKeys()));
            } else if (const toml::table* table = asTable(reading_, rule, "[profile.NAME.TYPE]")) {
                readRule(*table, alarmTypes()[*type], rules[*type]);
            }
        }
        configuration_.profiles[std::string(name)] = std::move(rules);
        configuration_.measureRules[std::string(name)] = measures;
    }

    void readRule(const toml::table& table, const AlarmType& type, AlarmRule& rule) {
        std::vector<Key<AlarmRule>> keys;
        std::copy_if(ruleKeys().begin(), ruleKeys().end(), std::back_inserter(keys),
                     [&](const auto& key) { return ruleHasKey(type.kind, key.name); });
        const std::size_t before = reading_.mistakes.size();
        readTable(reading_, table, "alarm " + std::string(type.name), std::span<const Key<AlarmRule>>(keys),
                  rule);
        if (reading_.mistakes.size() > before) {
            return;
        }
        const auto level = [](double value) { return written(value); };
        if ((type.kind == AlarmKind::kHigh && rule.clearLevel > rule.raiseLevel) ||
            (type.kind == AlarmKind::kLow && rule.clearLevel < rule.raiseLevel)) {
            reading_.mistake(table.source(), "clear_level " + level(rule.clearLevel) + " must not be " +
                                                 (type.kind == AlarmKind::kHigh ? "above" : "below") +
                                                 " raise_level " + level(rule.raiseLevel) + "; set both");
        }
        if (type.kind != AlarmKind::kCounter) {
            return;
        }
        if (rule.count == 0 && rule.errorSeconds == 0) {
            reading_.mistake(
                table.source(),
                "count and error_seconds are both 0, so it is never raised; set enabled = false");
        }
        if (rule.errorSeconds > static_cast<uint64_t>(rule.window.count())) {
            reading_.mistake(table.source(), "error_seconds " + std::to_string(rule.errorSeconds) +
                                                 " can never be reached within window_s " +
                                                 written(rule.window));
        }
    }

    void checkProfiles() {
        for (const auto& [at, profile] : profilesNamed_) {
            if (!configuration_.profiles.contains(profile)) {
                reading_.mistake(*at, "no [profile." + profile + "] defines this profile");
            }
        }
    }

    static std::string alarmNames() {
        std::string list;
        for (const AlarmType& type : alarmTypes()) {
            list += (list.empty() ? "" : ", ") + std::string(type.name);
        }
        return list;
    }

    Reading& reading_;
    Configuration& configuration_;
    std::map<Group, uint32_t> groups_;  // with the lines that name them
    std::vector<std::pair<const toml::source_region*, std::string>> profilesNamed_;
};

template <typename Record>
void writeKeys(std::string& text, std::span<const Key<Record>> keys, const Record& record) {
    for (const Key<Record>& key : keys) {
        const std::string value = key.write(record);
        text += value.empty() ? "# " + std::string(key.name) + ": " + std::string(key.defaultWords) + "\n"
                              : std::string(key.name) + " = " + value + "\n";
    }
}

template <typename Record>
void writeSection(std::string& text, std::string_view header, std::span<const Key<Record>> keys,
                  const Record& record) {
    text += "\n" + std::string(header) + "\n";
    writeKeys(text, keys, record);
}

template <typename Record>
void describe(std::vector<KeyDescription>& list, std::string_view section, std::span<const Key<Record>> keys,
              const Record& defaults) {
    for (const Key<Record>& key : keys) {
        std::string unit(key.unit);
        if (key.demand.to > key.demand.from && key.demand.from >= 0) {
            unit += ", " + written(key.demand.from) + " to " + written(key.demand.to);
        }
        const bool words = !key.defaultWords.empty();
        list.push_back({section, key.name, key.type, unit,
                        words ? std::string(key.defaultWords) : key.write(defaults), key.meaning});
    }
}

}  // namespace

std::string hostName() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') {
        return "localhost";
    }
    return printable(toUtf8(name.data()), kNameLimit);
}

std::string Mistake::message() const {
    std::string place = file;
    if (line > 0) {
        place += ":" + std::to_string(line) + ":" + std::to_string(column);
    }
    return place + ": " + text;
}

ConfigurationResult parseConfiguration(std::string_view text, const std::filesystem::path& name) {
    ConfigurationResult result;
    Reading reading(name);
    try {
        const toml::table root = toml::parse(text);
        ConfigurationParser(reading, result.configuration).read(root);
    } catch (const toml::parse_error& error) {
        reading.mistake(error.source(), std::string(error.description()));
    }
    const auto byPlace = [](const Mistake& left, const Mistake& right) {
        return std::pair(left.line, left.column) < std::pair(right.line, right.column);
    };
    std::stable_sort(reading.mistakes.begin(), reading.mistakes.end(), byPlace);
    result.mistakes = std::move(reading.mistakes);
    result.notes = std::move(reading.notes);
    return result;
}

ConfigurationResult readConfiguration(const std::filesystem::path& file) {
    std::string problem;
    const std::string text = readTextFile(file, kConfigurationLimit, problem);
    if (!problem.empty()) {
        return {{}, {{file.string(), 0, 0, problem}}, {}};
    }
    return parseConfiguration(text, file);
}

std::string openToAll(const Configuration& configuration) {
    const std::string_view listen = configuration.listen;
    const bool loopback = listen.empty() || listen.starts_with("127.") || listen.starts_with("[::1]");
    if (loopback || !configuration.tokenFile.empty()) {
        return {};
    }
    return "everybody who reaches " + configuration.listen +
           " can read, and nobody can change anything there without a token_file";
}

std::string effectiveConfiguration(const Configuration& configuration) {
    std::string text;
    writeKeys(text, topKeys(), configuration);
    writeSection(text, "[events]", eventsKeys(), configuration);
    writeSection(text, "[metrics]", metricsKeys(), configuration);
    writeSection(text, "[http]", httpKeys(), configuration.http);
    writeSection(text, "[influx]", influxKeys(), configuration.influx);
    for (const Webhook& webhook : configuration.webhooks) {
        writeSection(text, "[[webhook]]", webhookKeys(), webhook);
    }
    for (const PlaylistSource& playlist : configuration.playlists) {
        writeSection(text, "[[playlist]]", playlistKeys(), playlist);
    }
    for (const Channel& channel : configuration.channels) {
        writeSection(text, "[[channel]]", channelKeys(), channel);
    }
    for (const auto& [name, rules] : configuration.profiles) {
        writeSection(text, "[profile." + writtenKey(name) + "]", measureKeys(),
                     configuration.measureRules.at(name));
        for (std::size_t type = 0; type < rules.size(); ++type) {
            text += "\n[profile." + writtenKey(name) + "." + std::string(alarmTypes()[type].name) + "]\n";
            for (const Key<AlarmRule>& key : ruleKeys()) {
                if (ruleHasKey(alarmTypes()[type].kind, key.name)) {
                    writeKeys(text, std::span(&key, 1), rules[type]);
                }
            }
        }
    }
    return text;
}

int reportConfiguration(const ConfigurationResult& result, std::ostream& out, std::ostream& errors) {
    for (const Mistake& mistake : result.mistakes) {
        errors << mistake.message() << '\n';
    }
    for (const Mistake& note : result.notes) {
        errors << note.message() << '\n';
    }
    if (!result.mistakes.empty()) {
        return 1;
    }
    out << effectiveConfiguration(result.configuration) << std::flush;
    return 0;
}

std::vector<KeyDescription> describeKeys() {
    std::vector<KeyDescription> list;
    describe(list, "", topKeys(), Configuration{});
    describe(list, "[events]", eventsKeys(), Configuration{});
    describe(list, "[metrics]", metricsKeys(), Configuration{});
    describe(list, "[http]", httpKeys(), Configuration::Http{});
    describe(list, "[influx]", influxKeys(), Configuration::Influx{});
    describe(list, "[[webhook]]", webhookKeys(), Webhook{});
    describe(list, "[[playlist]]", playlistKeys(), PlaylistSource{});
    describe(list, "[[channel]]", channelKeys(), blankChannel());
    describe(list, "[profile.NAME]", measureKeys(), MeasureRules{});
    describe(list, "[profile.NAME.TYPE]", ruleKeys(), AlarmRule{});
    return list;
}

}  // namespace station
