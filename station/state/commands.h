// What the owner thread can be asked: messages with a place for the answer.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "channels/channelAttributes.h"
#include "measures/history.h"
#include "meter/meterReport.h"
#include "pictures/pictureBook.h"
#include "state/state.h"
#include "store/event.h"
#include "store/minuteStore.h"

namespace station {

// Why a command was refused; `field` names what the asker gave, or is empty.
struct Refusal {
    enum class Why : uint8_t { kInvalid, kNotFound, kConflict, kBusy, kFailed };
    Why why = Why::kInvalid;
    std::string field;
    std::string text;
};

// Adds the channel, or changes what is given of it; it becomes a run-time channel.
struct PutChannel {
    explicit PutChannel(Group group) : channel{group} {}

    Channel channel;                   // its group, and of the attributes those that are given
    std::set<std::string_view> given;  // names of kChannelAttributes

    template <typename Value>
    PutChannel& set(Value Channel::*member, std::type_identity_t<Value> value) {
        channel.*member = std::move(value);
        forEachChannelAttribute([&](const auto& attribute) {
            if constexpr (std::is_same_v<decltype(attribute.member), Value Channel::*const> ||
                          std::is_same_v<decltype(attribute.member), Value Channel::*>) {
                if (attribute.member == member) {
                    given.insert(attribute.name);
                }
            }
        });
        return *this;
    }
    // Gives the channel what is given.
    void applyTo(Channel& other) const {
        forEachChannelAttribute([&](const auto& attribute) {
            if (given.contains(attribute.name)) {
                other.*attribute.member = channel.*attribute.member;
            }
        });
    }
};
struct DeleteChannel {
    Group group;
};
struct ImportPlaylist {
    std::string text;
};
struct ClearCounters {};
struct SetPassive {
    bool on;
};
struct SetIgmpLatency {
    std::chrono::milliseconds latency;
};
struct ReloadFiles {};
// Alarms or channels by one of these: ids of alarms, channels, a label, an incident.
struct Selection {
    static constexpr std::size_t kMost = 5'000;  // ids, and groups

    std::vector<int64_t> ids{};
    std::vector<Group> groups{};
    Labels labels{};  // all of which a channel has
    int64_t incident = 0;
    std::string alarm{};  // of these, those of that type; empty: all

    bool empty() const {
        return ids.empty() && groups.empty() && labels.empty() && incident == 0;
    }
};
struct AcknowledgeAlarm {
    int64_t id;
    std::string by;
    std::string remark;
};
// Does it to all that are chosen, in one. What is shelved may be raised or not where a type is named with
// groups or labels; else it is of what is raised. Those of which it holds already are left out.
struct HandleAlarms {
    enum class What : uint8_t { kAcknowledge, kUnacknowledge, kShelve, kUnshelve };
    What what = What::kAcknowledge;
    Selection which{};
    WallTime until{};  // kShelve
    std::string by{};
    std::string remark{};
};
struct SetMaintenance {
    WallTime from;
    WallTime until;
    std::optional<Group> group;  // or `which`; neither: all channels
    std::string by;
    std::string remark;
    Selection which{};  // the channels of it, as they are
};
struct EndMaintenance {
    int64_t id;
};
struct QueryHistory {
    Group group;
    std::vector<HistoryMetric> metrics;
    int resolution;  // 1 or 60
    WallTime since;
};
// Sparkline and strip of every channel, in the order of groups.
struct QueryOverview {
    std::size_t sparkCells;
    std::size_t sparkSeconds;
    bool day = false;  // with the five minutes of 24 hours
    bool operator==(const QueryOverview&) const = default;
};

using Action = std::variant<PutChannel, DeleteChannel, ImportPlaylist, ClearCounters, SetPassive,
                            SetIgmpLatency, ReloadFiles, AcknowledgeAlarm, HandleAlarms, SetMaintenance,
                            EndMaintenance, QueryHistory, QueryOverview>;

struct OverviewRow {
    Group group;
    std::vector<float> spark;            // bit/s, NaN where unknown, newest last
    std::array<DayCell, kDayCells> day;  // newest last; the last kStripCells are the strip
};

// The answer to a command: what was asked for, after the state that shows the change is published.
struct Answer {
    std::optional<Refusal> refusal;
    std::vector<std::vector<HistoryPoint>> series;  // QueryHistory: of each metric, at the same times
    std::vector<OverviewRow> overview;              // QueryOverview
    int64_t id = 0;                                 // SetMaintenance
    std::vector<int64_t> alarms;     // HandleAlarms: that were handled, those that passed as well
    std::size_t handled = 0;         // HandleAlarms: with those that are not raised
    std::vector<std::string> notes;  // ImportPlaylist, ReloadFiles
    std::size_t added = 0, changed = 0, skipped = 0;  // ImportPlaylist
};

struct Command {
    Action action;
    std::function<void(Answer&&)> answer;  // called on a thread of the station; must not wait
};

// What the web room needs of the rest. All calls come from any thread and return at once.
class StationInterface {
  public:
    virtual ~StationInterface() = default;
    virtual StatePointer state() const = 0;
    // False when the owner's queue is full; then the answer never comes.
    virtual bool command(Command&& command) = 0;
    virtual bool queryEvents(const EventFilter& filter, EventStore::QueryAnswer answer) = 0;
    // The meter's newest report of a group; none without a meter, or before its first.
    virtual std::optional<MeterReport> meterReport(const Group& group) const = 0;
    // Of all groups.
    virtual MeterReports meterReports() const = 0;
    // The group's cues that are kept, newest first.
    virtual std::vector<MeterCue> meterCues(const Group& group) const = 0;
    // The newest picture of a group; null: there is none.
    virtual PicturePointer picture(const Group& group) const = 0;
    // Somebody looks at the group's picture or at all of it.
    virtual void look(const Group& group) = 0;
    virtual EventStore::Statistics storeStatistics() const = 0;
    virtual std::vector<Delivery::ReceiverStatistics> deliveryStatistics() const = 0;
    virtual MinuteStore::Statistics historyStatistics() const = 0;
    virtual bool queryReport(const ReportQuestion& question, EventStore::ReportAnswer answer) = 0;
    // What channels lost in minutes that are on the disk; false when too many wait.
    virtual bool queryLosses(LossQuestion&& question, LossAnswer answer) = 0;
    // Minutes of a channel that are on the disk; false when too many wait.
    virtual bool queryMinutes(const Group& group, WallTime since, WallTime until,
                              MinuteStore::Answer answer) = 0;
};

}  // namespace station
