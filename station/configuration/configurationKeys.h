// The table of the configuration's keys: what reading, the effective configuration and the manual go by.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "configuration/configuration.h"
#include "configuration/configurationValues.h"

namespace station {

template <typename Record>
struct Key {
    std::string_view name;
    std::string_view type;
    std::string_view unit;
    std::string_view meaning;
    Demand demand;
    std::string_view defaultWords;  // where the default is no value; "required" is acted on
    void (*read)(const Value& value, Record& record);
    std::string (*write)(const Record& record);  // TOML; empty: not set
};

inline constexpr std::string_view kRequired = "required";

std::span<const Key<Configuration>> topKeys();
std::span<const Key<Configuration>> alarmsKeys();
std::span<const Key<Configuration>> eventsKeys();
std::span<const Key<Configuration>> historyKeys();
std::span<const Key<Configuration::Pictures>> picturesKeys();
std::span<const Key<Configuration>> metricsKeys();
std::span<const Key<Configuration::Http>> httpKeys();
std::span<const Key<Configuration::Influx>> influxKeys();
std::span<const Key<Webhook>> webhookKeys();
std::span<const Key<PlaylistSource>> playlistKeys();
std::span<const Key<Channel>> channelKeys();
std::span<const Key<MeasureRules>> measureKeys();
std::span<const Key<AlarmRule>> ruleKeys();
// Of the alarm service_information: what it counts as missing is a rule of the profile's measures.
const Key<MeasureRules>& tablesKey();
inline constexpr std::string_view kTablesAlarm = "service_information";

// The table in a rule with what is different while the meter judges.
inline constexpr std::string_view kMeterKey = "meter";
// Whether a rule of this kind has the key.
bool ruleHasKey(AlarmKind kind, std::string_view key);

// A channel with nothing but a group, for reading and for defaults.
Channel blankChannel();

}  // namespace station
