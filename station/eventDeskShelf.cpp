// The event desk's shelf: alarms of which nobody is told until a time.
#include <utility>

#include "eventDesk.h"

namespace station {

void EventDesk::decorate(std::vector<Alarm>& alarms) const {
    for (Alarm& alarm : alarms) {
        alarm.incident = incidents_.incidentOf(alarm.id);
        if (const Shelving* const shelving = shelf_.find(alarm.about, alarm.type)) {
            alarm.shelved = Shelved{shelving->until, shelving->by, shelving->remark};
        }
    }
}

int64_t EventDesk::recordShelving(EventKind kind, const Shelving& shelving, const ChannelMap& channels,
                                  const std::string& text, const std::string& by, const Now& now) {
    Event event{.kind = kind,
                .group = shelving.about.group(),
                .alarm = std::string(alarmTypes()[shelving.type].name),
                .text = text,
                .by = by,
                .silenced = true};
    if (event.group) {
        const auto channel = channels.find(*event.group);
        event.channel = channel != channels.end() ? channel->second.name : std::string();
    }
    if (kind == EventKind::kShelved) {
        event.until = shelving.until;
    }
    return record(std::move(event), now);
}

bool EventDesk::shelve(const Subject& about, std::size_t type, const HandleAlarms& action,
                       const ChannelMap& channels, const Now& now) {
    const Shelving* const before = shelf_.find(about, type);
    if (before == nullptr && shelf_.size() >= Shelf::kLimit) {
        return false;
    }
    if (before != nullptr) {
        store_.removeShelving(before->id);
    }
    Shelving shelving{.type = type,
                      .about = about,
                      .since = now.wall,
                      .until = action.until,
                      .by = action.by,
                      .remark = action.remark,
                      .incident = action.which.incident};
    shelving.id = recordShelving(EventKind::kShelved, shelving, channels, action.remark, action.by, now);
    shelf_.put(shelving);
    store_.putShelving(shelving);
    return true;
}

bool EventDesk::unshelve(const Subject& about, std::size_t type, const HandleAlarms& action,
                         const ChannelMap& channels, const Now& now) {
    const auto shelving = shelf_.take(about, type);
    if (!shelving) {
        return false;
    }
    recordShelving(EventKind::kUnshelved, *shelving, channels,
                   action.remark.empty() ? "ended on demand" : action.remark, action.by, now);
    store_.removeShelving(shelving->id);
    return true;
}

// Entries reach the disk in the order in which they were given: an end of nothing stands for all before it.
void EventDesk::afterStored(EventStore::Stored stored) {
    store_.removeShelving(0, std::move(stored));
}

void EventDesk::endShelvings(const ChannelMap& channels, const Now& now) {
    for (const Shelving& shelving : shelf_.takeEnded(now.wall)) {
        recordShelving(EventKind::kUnshelved, shelving, channels, "its time is over", {}, now);
        store_.removeShelving(shelving.id);
    }
}

}  // namespace station
