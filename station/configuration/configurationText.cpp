// The configuration as text: what is in force, and what keys there are.
#include <ostream>

#include "configuration/configurationKeys.h"
#include "configuration/configurationValues.h"

namespace station {

namespace {

template <typename Record>
void writeKeys(std::string& text, std::span<const Key<Record>> keys, const Record& record) {
    for (const Key<Record>& key : keys) {
        const std::string value = key.write(record);
        text += value.empty() ? "# " + std::string(key.name) + ": " + std::string(key.defaultWords) + "\n"
                              : std::string(key.name) + " = " + value + "\n";
    }
}

void writeDifference(std::string& text, const AlarmRules& rules) {
    for (const Key<AlarmRule>& key : ruleKeys()) {
        if (const std::string value = key.write(rules.meter); value != key.write(rules)) {
            text.append(kMeterKey).append(".").append(key.name).append(" = " + value + "\n");
        }
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

std::string effectiveConfiguration(const Configuration& configuration) {
    std::string text;
    writeKeys(text, topKeys(), configuration);
    writeSection(text, "[alarms]", alarmsKeys(), configuration);
    writeSection(text, "[events]", eventsKeys(), configuration);
    writeSection(text, "[history]", historyKeys(), configuration);
    writeSection(text, "[pictures]", picturesKeys(), configuration.pictures);
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
                    writeKeys<AlarmRule>(text, std::span(&key, 1), rules[type]);
                }
            }
            if (alarmTypes()[type].name == kTablesAlarm) {
                writeKeys(text, std::span(&tablesKey(), 1), configuration.measureRules.at(name));
            }
            if (alarmTypes()[type].meter.measure != nullptr) {
                writeDifference(text, rules[type]);
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
    describe(list, "[alarms]", alarmsKeys(), Configuration{});
    describe(list, "[events]", eventsKeys(), Configuration{});
    describe(list, "[history]", historyKeys(), Configuration{});
    describe(list, "[pictures]", picturesKeys(), Configuration::Pictures{});
    describe(list, "[metrics]", metricsKeys(), Configuration{});
    describe(list, "[http]", httpKeys(), Configuration::Http{});
    describe(list, "[influx]", influxKeys(), Configuration::Influx{});
    describe(list, "[[webhook]]", webhookKeys(), Webhook{});
    describe(list, "[[playlist]]", playlistKeys(), PlaylistSource{});
    describe(list, "[[channel]]", channelKeys(), blankChannel());
    describe(list, "[profile.NAME]", measureKeys(), MeasureRules{});
    describe(list, "[profile.NAME.TYPE]", ruleKeys(), AlarmRule{});
    describe(list, "[profile.NAME.TYPE]", std::span(&tablesKey(), 1), MeasureRules{});
    list.push_back({"[profile.NAME.TYPE]", kMeterKey, "table", "", "the alarm's",
                    "What of the above is different while the meter judges: meter.enabled and so on"});
    return list;
}

}  // namespace station
