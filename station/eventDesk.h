// Makes events of what happened: numbers them, has them stored, and has alarms delivered.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "alarms/alarmEngine.h"
#include "alarms/incidents.h"
#include "alarms/passed.h"
#include "alarms/shelf.h"
#include "configuration/channelSet.h"
#include "cueFold.h"
#include "state/commands.h"
#include "store/delivery.h"
#include "store/eventStore.h"

namespace station {

// One thread; nothing here waits.
class EventDesk {
  public:
    // Receivers are told of a raised alarm so long after it, when it is known which others began with it.
    static constexpr std::chrono::seconds kTellAfter{2};
    static constexpr std::size_t kMaintenanceLimit = 1000;
    static constexpr std::size_t kMaintenanceGroups = 100'000;  // of all windows

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

    // A cue of a channel: an event for who keeps and wants them, and no alarm. Many of them are told as one
    // (CueFold).
    void recordCue(const Channel& channel, const std::string& text, const Now& now);
    // A meter is known of an earlier start.
    bool meterKnown() const {
        return meterKnown_;
    }

    // Takes up what the store could not read at the start, once it can: its windows hold, its alarms are
    // raised, and one that was raised anew meanwhile goes on as the one it was. Those of channels that are
    // not known go into `unknown`, if there is one. True when there was something.
    bool takeLate(AlarmEngine& engine, const ChannelMap& channels, std::vector<Alarm>* unknown,
                  const Now& now);

    // Judges whether receivers take what they are sent.
    std::vector<AlarmChange> judgeDelivery(AlarmEngine& engine, const Now& now) const;

    // Tells cues that were held back, ends windows whose time is over, has alarms delivered that are still
    // raised behind one or off the shelf, and tells receivers that lack something what is raised. True when a
    // window or a shelving ended.
    bool tick(const std::vector<Alarm>& active, const ChannelMap& channels, const Now& now);

    // How many channels share what. To be called when channels change.
    void setChannels(const ChannelMap& channels) {
        incidents_.setChannels(channels);
    }
    // Finds the incidents of what was raised since the last call. True when there is another.
    bool findIncidents(const Now& now);
    // Takes up incidents of an earlier start, with the alarms of it that are raised.
    void restoreIncidents(const std::vector<Incident>& stored, const std::vector<Alarm>& raised,
                          const Now& now);
    const Incidents& incidents() const {
        return incidents_;
    }
    const PassedAlarms& passed() const {
        return passed_;
    }
    // Somebody has seen what passed. False when it is marked no more.
    bool see(const PassedAlarm& alarm, const HandleAlarms& action, const ChannelMap& channels,
             const Now& now);

    // What is shown of alarms beside what the engine says: whether they are shelved, and their incidents.
    void decorate(std::vector<Alarm>& alarms) const;

    // Shelves an alarm, raised or not. In effect at once; false when the shelf is full.
    bool shelve(const Subject& about, std::size_t type, const HandleAlarms& action,
                const ChannelMap& channels, const Now& now);
    // Back from the shelf, before its time: what is raised is told by the next tick(). False when it was not
    // shelved.
    bool unshelve(const Subject& about, std::size_t type, const HandleAlarms& action,
                  const ChannelMap& channels, const Now& now);
    // Told once all that was given to the store so far is on the disk, or cannot be.
    void afterStored(EventStore::Stored stored);
    const Shelf& shelf() const {
        return shelf_;
    }

    // Both are in effect at once; who has published that has them stored.
    // `chosen`: the channels that it is for, where it names no group and is not for all.
    int64_t setMaintenance(const SetMaintenance& action, const ChannelMap& channels, const Now& now,
                           const std::set<Group>& chosen = {});
    bool endMaintenance(int64_t id, const ChannelMap& channels, const Now& now);
    void store(int64_t window, EventStore::Stored stored);
    // False as long as the store could not be read: there may be windows that nobody knows.
    bool loaded() const {
        return loaded_;
    }
    const std::vector<Maintenance>& maintenance() const {
        return maintenance_;
    }
    // How many groups the windows name.
    std::size_t maintenanceGroups() const;
    // Whether a window holds: the channel's, or one for all.
    bool inMaintenance(const Subject& about, const Now& now) const;

  private:
    void deliver(const Alarm& alarm, AlarmChange::What what, const std::string& text, const Channel* channel,
                 const Now& now);
    Notification notification(const Alarm& alarm, AlarmChange::What what, const std::string& text,
                              const Channel* channel, const Now& now) const;

    void notePassed(const Alarm& alarm, int64_t incident, const ChannelMap& channels, const Now& now);
    // The incident that it leaves; 0: it was by itself.
    int64_t leaveIncident(int64_t alarm, const Now& now);
    void put(IncidentChange change);
    // Those of what passed, and those that something was shelved by: they are kept though they are over.
    std::set<int64_t> wantedIncidents() const;
    void forgetIncidents();
    // Tells of what was raised kTellAfter ago.
    void tellRaised(const ChannelMap& channels, const Now& now);
    void recordEnd(const Maintenance& window, const char* why, const ChannelMap& channels, const Now& now);
    void tellHeld(int64_t alarm, const Channel* channel, const Now& now);
    // Nobody is told: it is shelved, or a window holds.
    bool isSilent(const Subject& about, std::size_t type, const Now& now) const;
    void endShelvings(const ChannelMap& channels, const Now& now);
    int64_t recordShelving(EventKind kind, const Shelving& shelving, const ChannelMap& channels,
                           const std::string& text, const std::string& by, const Now& now);
    void tellCue(const Channel& channel, const std::string& text, const Now& now);
    int64_t takeId(const Now& now);

    EventStore& store_;
    Delivery& delivery_;
    bool loaded_;
    bool meterKnown_;
    int64_t lastId_;
    std::vector<Maintenance> maintenance_;
    CueFold cues_;
    Shelf shelf_;
    Incidents incidents_;
    std::vector<Alarm> fresh_;  // raised since findIncidents()
    PassedAlarms passed_;
    std::set<int64_t> storedIncidents_;
    bool incidentsEnded_ = false;               // since forgetIncidents()
    std::pair<uint64_t, uint64_t> wantedBy_{};  // versions of what passed and what is shelved at that time
    struct Held {
        Alarm alarm;
        std::string text;
        SteadyTime since;
    };
    std::map<int64_t, Held> held_;  // raised, and not told yet, by alarm
    std::set<int64_t> silenced_;    // alarms whose raise was held back, by a window or on the shelf
};

}  // namespace station
