#include "station.h"

#include <algorithm>
#include <utility>

#include "common/counted.h"
#include "common/log.h"
#include "serverSettings.h"
#include "stationOwner.h"

namespace station {

namespace {

constexpr std::size_t kNotesShown = 100;
// For names on a slow disk; later ones are taken up when they come.
constexpr std::chrono::milliseconds kNamesTime{500};

}  // namespace

Station::Implementation::Implementation(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper_,
                                        Mailbox& mailbox_)
    : keeper(keeper_),
      mailbox(mailbox_),
      current(files.configuration),
      store(current->state, {current->keepDays, current->keepRows}, systemNow),
      minutes(current->state, {current->historyDays, current->historyMegabytes}, systemNow,
              [this] { mailbox.sendMinutes(); }),
      delivery(current->state, current->instance),
      influx(current->influx, current->instance),
      desk(store, delivery) {
    const Now now = systemNow();
    book.setRuntime(std::move(runtime));
    adopt(files, now, true);
    if (book.takeStreamNames(nameKeeper.takeRead(kNamesTime).value_or(StreamNames{}))) {
        takeChannels(now, true);
    }
    restoreAlarms(now);
    desk.record({.kind = EventKind::kStationStarted, .text = "the station started"}, now);
    if (files.result.configurationRefused) {
        desk.record({.kind = EventKind::kConfigurationRefused, .text = files.result.refusals.front()}, now);
    }
    publish(now);
    openServer();
    controller = std::make_unique<Controller>(
        current->controllerEndpoint, [this](const Controller::Report& report) { mailbox.send(report); });
    tellController();
    reader = std::make_unique<PipeReader>(
        current->pipe, [this](RawSnapshot&& snapshot) { mailbox.send(std::move(snapshot)); });
    machine.start();
    meter.start(*current, KESTOR_VERSION, [this] { mailbox.sendMeter(); });
    pictures.start(*current, KESTOR_VERSION, [this] { mailbox.sendMeter(); });
    tellMeter();
    owner = std::thread([this] { run(); });
}

Station::Implementation::~Implementation() {
    mailbox.stop();
    owner.join();
    minutes.take(watch.takeMinutes(systemNow()));
    meter.stop();
    pictures.stop();
    machine.stop();
    reader.reset();
    controller.reset();
    server.reset();
}

void Station::Implementation::openServer() {
    const ServerOptions options = serverOptions(*current);
    server = std::make_unique<Server>(options, *this);
    log(LogLevel::kNotice, "serving " + (options.listen.empty() ? std::string() : options.listen + " and ") +
                               options.socket.string());
}

void Station::Implementation::restoreAlarms(const Now& now) {
    std::vector<Alarm> active = store.initial().active;
    if (!book.known()) {
        const auto unknown = std::partition(active.begin(), active.end(), [this](const Alarm& alarm) {
            return alarm.about.source() || book.channels().contains(*alarm.about.group());
        });
        heldBack.assign(unknown, active.end());
        active.erase(unknown, active.end());
    }
    record(engine.restore(active, now), now);
    desk.restoreIncidents(store.initial().incidents, raised(), now);
    desk.restore(raised(), book.channels(), now);
}

// What is not over for receivers.
std::vector<Alarm> Station::Implementation::raised() const {
    std::vector<Alarm> all = engine.active();
    all.insert(all.end(), heldBack.begin(), heldBack.end());
    return all;
}

// Takes the playlists out of `files`.
void Station::Implementation::adopt(LoadedFiles& files, const Now& now, bool atStart) {
    if (files.configuration) {
        restartNotes.compare(*files.configuration);
        current = files.configuration;
    }
    fileNotes = files.result.refusals;
    fileNotes.insert(fileNotes.end(), files.result.notes.begin(), files.result.notes.end());
    book.setFiles(*current, std::move(files.playlists));
    delivery.configure(current->webhooks);
    influx.configure(current->influx);
    store.setLimits({current->keepDays, current->keepRows});
    minutes.setLimits({current->historyDays, current->historyMegabytes});
    takeChannels(now, atStart);
    if (atStart) {
        return;
    }
    if (files.refused.empty()) {
        log(LogLevel::kInfo,
            "configuration and playlists are in force, " + counted(book.channels().size(), "channel"));
    }
    desk.record(files.refused.empty()
                    ? Event{.kind = EventKind::kConfigurationRead,
                            .text = "read again: " + counted(book.channels().size(), "channel")}
                    : Event{.kind = EventKind::kConfigurationRefused, .text = files.refused.front()},
                now);
    server->setAccess(serverAccess(*current));
    tellMeter();
    tellController();
}

// What was changed at run time could be read after all.
void Station::Implementation::adopt(LoadedRuntime&& runtime, const Now& now) {
    book.setRuntime(std::move(runtime));
    takeChannels(now, false);
    if (book.known()) {
        record(engine.restore(std::exchange(heldBack, {}), now), now);
        desk.restore(raised(), book.channels(), now);
    }
}

// The channel set has changed, or may have.
void Station::Implementation::takeChannels(const Now& now, bool quietly) {
    const ChannelDifference difference = book.takeDifference();
    watch.setChannels(difference);
    std::vector<Group> added;
    for (const Channel& channel : difference.added) {
        added.push_back(channel.group);
    }
    minutes.restore(added, now.wall - std::chrono::minutes(minutesKept(book.channels().size())));
    if (!quietly) {
        desk.record(difference, now);
    }
    // Clears what is raised for channels that are gone, under the name that they had.
    record(engine.configure(current->profiles, book.channels(), now,
                            {current->alarmSource, mayHaveMeter, mayHavePictures}),
           now, &difference);
    if (book.known()) {
        store.watched(watchedGroups());
    }
    desk.setChannels(book.channels());
    publisher.channelsChanged();
    tellMeter();
    tellController();
}

std::vector<Group> Station::Implementation::watchedGroups() const {
    std::vector<Group> groups;
    for (const auto& [group, channel] : book.channels()) {
        if (channel.enabled) {
            groups.push_back(group);
        }
    }
    return groups;
}

void Station::Implementation::tellController() {
    if (!controller) {
        return;
    }
    Groups wanted;
    Groups passively;
    for (const auto& [group, channel] : book.channels()) {
        if (channel.enabled) {
            wanted.insert(group);
            if (meter.joins(channel)) {
                passively.insert(group);
            }
        }
    }
    controller->want(std::move(wanted), std::move(passively));
    controller->setPassive(passiveAsked ? passiveAsked : current->passive);
    controller->setIgmpLatency(latencyAsked ? latencyAsked : current->igmpLatency);
}

std::vector<std::string> Station::Implementation::notes() const {
    std::vector<std::string> all;
    if (!book.problem().empty()) {
        all.push_back(book.problem());
    }
    if (const std::string problem = minutes.statistics().problem; !problem.empty()) {
        all.push_back("history.db cannot be written (" + problem +
                      "): plots would begin anew with a restart");
    }
    all.insert(all.end(), restartNotes.all().begin(), restartNotes.all().end());
    all.insert(all.end(), fileNotes.begin(), fileNotes.end());
    all.insert(all.end(), book.notes().begin(), book.notes().end());
    all.insert(all.end(), book.nameNotes().begin(), book.nameNotes().end());
    all.resize(std::min(all.size(), kNotesShown));
    return all;
}

Station::Station(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper, Mailbox& mailbox)
    : implementation_(
          std::make_unique<Implementation>(std::move(files), std::move(runtime), keeper, mailbox)) {}

Station::~Station() = default;

}  // namespace station
