#include "configuration/configuration.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <map>
#include <span>

#include "common/text.h"
#include "common/textFile.h"
#include "configuration/configurationKeys.h"
#include "configuration/configurationValues.h"

namespace station {

namespace {

constexpr std::size_t kConfigurationLimit = std::size_t{16} << 20;  // bytes
constexpr std::size_t kSecretLimit = 8192;
constexpr std::size_t kWebhooksLimit = 16;
constexpr std::size_t kPlaylistsLimit = 100;
constexpr std::size_t kProfilesLimit = 100;
constexpr std::chrono::seconds kLongestCounterWindow{600};
constexpr std::string_view kSections =
    "[alarms], [events], [history], [metrics], [http], [influx], [[webhook]], [[playlist]], [[channel]], "
    "[profile.NAME.TYPE]";

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

// `others`: keys that are read elsewhere.
template <typename Record>
void readTable(Reading& reading, const toml::table& table, std::string_view section,
               std::span<const Key<Record>> keys, Record& record,
               std::span<const std::string_view> others = {}) {
    for (const auto& [name, node] : table) {
        if (std::ranges::find(others, name.str()) != others.end()) {
            continue;
        }
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
        if (name == "alarms") {
            readPlain(node, "[alarms]", alarmsKeys(), configuration_);
        } else if (name == "events") {
            readPlain(node, "[events]", eventsKeys(), configuration_);
        } else if (name == "history") {
            readPlain(node, "[history]", historyKeys(), configuration_);
        } else if (name == "pictures") {
            readPlain(node, "[pictures]", picturesKeys(), configuration_.pictures);
            const toml::table* const table = node.as_table();
            configuration_.pictures.expected =
                table != nullptr && table->contains("socket") && !configuration_.pictures.socket.empty();
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
            if (key->name == "meter_socket") {
                configuration_.meterExpected = !configuration_.meterSocket.empty();
            }
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
            if (webhook.cues) {
                reading_.mistake(whereIs(table, "cues"),
                                 "\"cues\" is for webhooks of format \"json\": a cue is no alert");
            }
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
            if (typeName.str() == kTablesAlarm && !rule.is_table()) {  // short for its key `tables`
                tablesKey().read({reading_, kTablesAlarm, rule, tablesKey().demand}, measures);
                continue;
            }
            const std::optional<std::size_t> type = findAlarmType(typeName.str());
            if (!type) {
                reading_.mistake(typeName.source(), "there is no alarm \"" + std::string(typeName.str()) +
                                                        "\"; there are: " + alarmNames() + "; and the keys " +
                                                        names(measureKeys()));
            } else if (const toml::table* table = asTable(reading_, rule, "[profile.NAME.TYPE]")) {
                readRule(*table, alarmTypes()[*type], rules[*type]);
                const toml::node* const tables = table->get(tablesKey().name);
                if (tables != nullptr && typeName.str() == kTablesAlarm) {
                    tablesKey().read({reading_, tablesKey().name, *tables, tablesKey().demand}, measures);
                }
            }
        }
        configuration_.profiles[std::string(name)] = std::move(rules);
        configuration_.measureRules[std::string(name)] = measures;
    }

    // What is said of an alarm holds whoever judges it, what is in its table `meter` for the meter alone.
    void readRule(const toml::table& table, const AlarmType& type, AlarmRules& rules) {
        const toml::node* const byMeter = table.get(kMeterKey);
        const std::array<std::string_view, 2> elsewhere = {kMeterKey, tablesKey().name};
        const auto others = std::span(elsewhere).first(type.name == kTablesAlarm ? 2 : 1);
        const std::size_t before = reading_.mistakes.size();
        readRule(reading_, table, type, rules, others);
        if (reading_.mistakes.size() > before) {
            return;
        }
        Reading again({});
        readRule(again, table, type, rules.meter, others);
        checkRule(table, type, rules);
        if (byMeter == nullptr) {
            return;
        }
        if (type.meter.measure == nullptr) {
            reading_.mistake(byMeter->source(), "alarm " + std::string(type.name) +
                                                    " is judged by one source alone and has no \"meter\"");
        } else if (const toml::table* own = asTable(reading_, *byMeter, "[profile.NAME.TYPE.meter]")) {
            readRule(reading_, *own, type, rules.meter);
            checkRule(*own, type, rules.meter);
        }
    }

    static void readRule(Reading& reading, const toml::table& table, const AlarmType& type, AlarmRule& rule,
                         std::span<const std::string_view> others = {}) {
        std::vector<Key<AlarmRule>> keys;
        std::copy_if(ruleKeys().begin(), ruleKeys().end(), std::back_inserter(keys),
                     [&](const auto& key) { return ruleHasKey(type.kind, key.name); });
        readTable(reading, table, "alarm " + std::string(type.name), std::span<const Key<AlarmRule>>(keys),
                  rule, others);
    }

    void checkRule(const toml::table& table, const AlarmType& type, const AlarmRule& rule) {
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
        if (rule.window > kLongestCounterWindow) {
            reading_.mistake(table.source(),
                             "window_s of a counter must be at most " + written(kLongestCounterWindow));
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

}  // namespace station
