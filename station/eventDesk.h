// Makes events of what happened: numbers them, has them stored, and has alarms delivered.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "alarms/alarmEngine.h"
#include "channels/channelSet.h"
#include "commands.h"
#include "store/delivery.h"
#include "store/eventStore.h"

namespace station {

// One thread; nothing here waits.
class EventDesk {
  public:
    static constexpr std::size_t kMaintenanceLimit = 1000;

    // Goes on counting where the store's last event was.
    EventDesk(EventStore& store, Delivery& delivery);

    // Takes up alarms that were raised before: receivers that were not told yet are, and those that were told
    // of others hear that they are over. One of a channel that is not known is told to nobody.
    void restore(const std::vector<Alarm>& active, const ChannelMap& channels, const Now& now);

    // Gives the event its id and time and has it stored.
    int64_t record(Event event, const Now& now, EventStore::Stored stored = {});
    void record(const ChannelDifference& difference, const Now& now);
    // An alarm's change; a raised alarm gets its id. Channels that are gone are named by `removed`.
    void record(const AlarmChange& change, AlarmEngine& engine, const ChannelMap& channels,
                const ChannelDifference* removed, const Now& now, EventStore::Stored stored = {});

    // Takes up what the store could not read at the start, once it can: its windows hold, its alarms are
    // raised, and one that was raised anew meanwhile goes on as the one it was. Those of channels that are
    // not known go into `unknown`, if there is one. True when there was something.
    bool takeLate(AlarmEngine& engine, const ChannelMap& channels, std::vector<Alarm>* unknown,
                  const Now& now);

    // Ends windows whose time is over, has alarms delivered that are still raised behind one, and tells
    // receivers that lack something what is raised. True when a window ended.
    bool tick(const std::vector<Alarm>& active, const ChannelMap& channels, const Now& now);

    // Both are in effect at once; who has published that has them stored.
    int64_t setMaintenance(const SetMaintenance& action, const ChannelMap& channels, const Now& now);
    bool endMaintenance(int64_t id, const Now& now);
    void store(int64_t window, EventStore::Stored stored);
    // False as long as the store could not be read: there may be windows that nobody knows.
    bool loaded() const {
        return loaded_;
    }
    const std::vector<Maintenance>& maintenance() const {
        return maintenance_;
    }
    // Whether a window holds for the group, or, without a group, for the probe.
    bool inMaintenance(const std::optional<Group>& group, const Now& now) const;

  private:
    void deliver(const Alarm& alarm, AlarmChange::What what, const std::string& text, const Channel* channel,
                 const Now& now);
    static Notification notification(const Alarm& alarm, AlarmChange::What what, const std::string& text,
                                     const Channel* channel, const Now& now);

    int64_t takeId(const Now& now);

    EventStore& store_;
    Delivery& delivery_;
    bool loaded_;
    int64_t lastId_;
    std::vector<Maintenance> maintenance_;
    std::set<int64_t> silenced_;  // alarms whose raise was held back by a window
};

}  // namespace station
