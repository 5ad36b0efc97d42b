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

#include "alarms/history.h"
#include "channels/channelAttributes.h"
#include "meter/meterReport.h"
#include "state.h"
#include "store/event.h"

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
struct AcknowledgeAlarm {
    int64_t id;
    std::string by;
    std::string remark;
};
struct SetMaintenance {
    WallTime from;
    WallTime until;
    std::optional<Group> group;
    std::string by;
    std::string remark;
};
struct EndMaintenance {
    int64_t id;
};
struct AskHistory {
    Group group;
    HistoryMetric metric;
    int resolution;  // 1 or 60
    WallTime since;
};
// Sparkline, strip and sums of every channel, in the order of groups.
struct AskOverview {
    std::size_t sparkCells;
    std::size_t sparkSeconds;
};

using Action =
    std::variant<PutChannel, DeleteChannel, ImportPlaylist, ClearCounters, SetPassive, SetIgmpLatency,
                 ReloadFiles, AcknowledgeAlarm, SetMaintenance, EndMaintenance, AskHistory, AskOverview>;

struct OverviewRow {
    Group group;
    std::vector<float> spark;  // bit/s, NaN where unknown, newest last
    std::array<StripCell, kStripCells> strip;
};

// The answer to a command: what was asked for, after the state that shows the change is published.
struct Answer {
    std::optional<Refusal> refusal;
    std::vector<HistoryPoint> points;                 // AskHistory
    std::vector<OverviewRow> overview;                // AskOverview
    int64_t id = 0;                                   // SetMaintenance
    std::vector<std::string> notes;                   // ImportPlaylist, ReloadFiles
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
    virtual EventStore::Statistics storeStatistics() const = 0;
    virtual std::vector<Delivery::ReceiverStatistics> deliveryStatistics() const = 0;
};

}  // namespace station
