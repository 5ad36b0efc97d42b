#include "web/alarmMetrics.h"

#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "web/metrics.h"

namespace station {

namespace {

using enum MetricType;

// One that can be raised, and whether it is.
struct AlarmRow {
    Subject about;
    std::size_t type;
    Severity severity;
    const Alarm* raised;  // null when it is not
};

// The alarms that are configured for a channel, or for a source, and not raised.
void addConfigured(std::vector<AlarmRow>& rows, const Subject& about, const RuleSet& rules, bool metered,
                   bool pictured, const std::set<std::pair<Subject, std::size_t>>& raised) {
    const auto types = alarmTypes();
    for (std::size_t type = 0; type < types.size(); ++type) {
        if (types[type].ofSource == about.source() && types[type].kind != AlarmKind::kEvent &&
            (rules[type].enabled || (metered && rules[type].meter.enabled)) &&
            (metered || !needsMeter(types[type])) && (pictured || !needsPictures(types[type])) &&
            !raised.contains({about, type})) {
            rows.push_back({about, type, rules[type].severity, nullptr});
        }
    }
}

// The raised ones first. Of channels' others either all are told or none, so that no series comes and goes.
std::vector<AlarmRow> alarmRows(const StationState& state) {
    std::vector<AlarmRow> rows;
    std::set<std::pair<Subject, std::size_t>> raised;
    for (const Alarm& alarm : state.alarms) {
        if (alarm.about.source() || state.find(*alarm.about.group()) != nullptr) {
            rows.push_back({alarm.about, alarm.type, alarm.severity, &alarm});
            raised.emplace(alarm.about, alarm.type);
        }
    }
    if (state.configuration == nullptr || !state.configuration->profiles.contains("default")) {
        return rows;
    }
    const Profiles& profiles = state.configuration->profiles;
    const RuleSet& byDefault = profiles.at("default");
    const bool metered = state.meter.connections > 0;  // or nobody judges what the meter alone can
    const bool pictured = state.pictures.connections > 0;
    for (std::size_t source = 0; source < kSources; ++source) {
        addConfigured(rows, static_cast<Source>(source), byDefault, metered, pictured, raised);
    }
    const std::size_t always = rows.size();
    for (const auto& channel : state.channels) {
        if (channel->channel.enabled) {
            const auto named = profiles.find(channel->channel.profile);
            addConfigured(rows, channel->channel.group, named == profiles.end() ? byDefault : named->second,
                          metered, pictured, raised);
        }
        if (rows.size() > kMetricsAlarms) {
            rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(always), rows.end());
            break;
        }
    }
    return rows;
}

}  // namespace

void writeAlarmMetrics(Exposition& out, const StationState& state) {
    const std::vector<AlarmRow> rows = alarmRows(state);
    const auto labels = [](const AlarmRow& row) {
        std::string text;
        if (const auto group = row.about.group()) {
            appendLabel(text, "group", group->text());
        }
        appendLabel(text, "alarm", alarmTypes()[row.type].name);
        appendLabel(text, "severity", severityName(row.severity));
        return text;
    };
    out.family({"kestor_alarm_active", kGauge,
                "1 for a raised alarm, 0 for a configured one; alarms of the probe itself have no group."});
    for (const AlarmRow& row : rows) {
        out.sample(labels(row), {}, row.raised != nullptr ? 1 : 0);
    }
    out.family({"kestor_alarm_acknowledged", kGauge,
                "1 for a raised alarm that was acknowledged or is shelved, else 0."});
    for (const AlarmRow& row : rows) {
        if (row.raised != nullptr) {
            out.sample(labels(row), {}, row.raised->acknowledged || row.raised->shelved ? 1 : 0);
        }
    }
    out.family({"kestor_alarm_shelved", kGauge, "1 for a raised alarm that is shelved, else 0."});
    for (const AlarmRow& row : rows) {
        if (row.raised != nullptr) {
            out.sample(labels(row), {}, row.raised->shelved ? 1 : 0);
        }
    }
}

}  // namespace station
