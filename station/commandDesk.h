// What commands do.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "alarms/alarmEngine.h"
#include "channelBook.h"
#include "channelWatch.h"
#include "eventDesk.h"
#include "mailbox.h"
#include "state/commands.h"

namespace station {

// What a command needs done by others. The calls return at once.
class CommandEffects {
  public:
    virtual ~CommandEffects() = default;

    virtual const Configuration& configuration() const = 0;
    // The book has other channels: they are watched, and the probe is told.
    virtual void channelsChanged(const Now& now) = 0;
    virtual void alarmsChanged() = 0;
    // Shows what is.
    virtual void publish(const Now& now) = 0;
    // Called back from any thread: with an empty text when the run-time channels are on the disk, else with
    // what is wrong.
    virtual void saveChannels(std::function<void(const std::string& problem)> saved) = 0;
    // Has the files read again. False when too many wait for that; else called back from any thread.
    virtual bool reload(std::function<void(const ReadResult&)> read) = 0;
    virtual void clearCounters() = 0;
    virtual void setPassive(bool on) = 0;
    virtual void setIgmpLatency(std::chrono::milliseconds latency) = 0;
};

// An answer that refuses.
Answer refused(Refusal::Why why, std::string field, std::string text);
// Answers when it is on the disk, or that it cannot be.
EventStore::Stored whenStored(Answer&& answer, const std::function<void(Answer&&)>& reply);

// Acts on commands and answers each once: what changes something when it is in effect, shown, and on the disk
// where it outlives a restart. The owner's thread; answers may come from others.
class CommandDesk {
  public:
    struct Owner {
        ChannelBook& book;
        AlarmEngine& engine;
        EventDesk& desk;
        const ChannelWatch& watch;
    };
    // All have to outlive it.
    CommandDesk(const Owner& owner, CommandEffects& effects) : owner_(owner), effects_(effects) {}

    void handle(Command&& command, const Now& now);

  private:
    using Reply = std::function<void(Answer&&)>;

    void act(const PutChannel& action, const Now& now, const Reply& reply);
    void act(const DeleteChannel& action, const Now& now, const Reply& reply);
    void act(const ImportPlaylist& action, const Now& now, const Reply& reply);
    void act(const ClearCounters& action, const Now& now, const Reply& reply);
    void act(const SetPassive& action, const Now& now, const Reply& reply);
    void act(const SetIgmpLatency& action, const Now& now, const Reply& reply);
    void act(const ReloadFiles& action, const Now& now, const Reply& reply);
    void act(const AcknowledgeAlarm& action, const Now& now, const Reply& reply);
    void act(const HandleAlarms& action, const Now& now, const Reply& reply);
    void act(const SetMaintenance& action, const Now& now, const Reply& reply);
    void act(const EndMaintenance& action, const Now& now, const Reply& reply);
    void act(const QueryHistory& action, const Now& now, const Reply& reply);
    void act(const QueryOverview& action, const Now& now, const Reply& reply);

    // All that are raised, as they are shown.
    std::vector<Alarm> shownAlarms() const;
    // What is meant to be shelved, or taken off the shelf.
    std::set<std::pair<Subject, std::size_t>> meant(const HandleAlarms& action,
                                                    const std::vector<Alarm>& chosen) const;
    std::vector<PassedAlarm> seen(const Selection& which, const std::vector<Alarm>& chosen) const;
    Answer nothingMeant(bool nothingChosen, const char* how) const;
    void acknowledge(const HandleAlarms& action, const std::vector<Alarm>& chosen, const Now& now,
                     const Reply& reply);
    void shelve(const HandleAlarms& action, const std::vector<Alarm>& chosen, const Now& now,
                const Reply& reply);
    void answerChannels(std::optional<Refusal>&& refusal, Answer&& answer, const Now& now,
                        const Reply& reply);

    const Owner owner_;
    CommandEffects& effects_;
};

}  // namespace station
