#include "station.h"

#include <systemd/sd-daemon.h>
#include <algorithm>
#include <mutex>
#include <thread>

#include "channelBook.h"
#include "common/log.h"
#include "common/text.h"
#include "eventDesk.h"
#include "probe/controller.h"
#include "probe/pipeReader.h"
#include "probeWatch.h"
#include "processUse.h"
#include "store/influx.h"
#include "watchedChannel.h"
#include "web/server.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kTick = 1s;
// So long without a turn of the loop, and it was this process that stood still, not the probe.
constexpr auto kStandstill = 2500ms;
constexpr auto kMeasuresUse = 5s;
// From the last records of one probe to the first ones of the next that is told what to watch.
constexpr auto kRestartTakes = 10s;
constexpr std::size_t kNotesShown = 100;

// A channel that nothing is known of is not without signal: only an alarm says so.
StripCell stripCell(const ChannelSample& sample, ChannelStatus status) {
    switch (status) {
        case ChannelStatus::kOk:
            return StripCell::kOk;
        case ChannelStatus::kAlarm:
            return sample.signal ? StripCell::kAlarm : StripCell::kNoSignal;
        case ChannelStatus::kWaiting:
        case ChannelStatus::kDisabled:
            break;
    }
    return StripCell::kNoData;
}

}  // namespace

struct Station::Implementation : StationInterface {
    FileKeeper& keeper;
    Mailbox& mailbox;
    std::shared_ptr<const Configuration> configuration;

    mutable std::mutex publishedMutex;  // guards `published`; held for a copy of the pointer
    StatePointer published = std::make_shared<const StationState>();
    EventStore store;
    Delivery delivery;
    InfluxWriter influx;

    // Below: the owner thread alone, once it runs.
    ChannelBook book;
    AlarmEngine engine;
    EventDesk desk;
    std::map<Group, WatchedChannel> watched;
    std::size_t historyMinutes = kMinutesKept;
    std::shared_ptr<const records::Snapshot> lastRecords;
    std::optional<SteadyTime> replaced;  // when another asker took the last one's place, until it is judged
    Groups lastShown;                    // by the last snapshot
    std::optional<SteadyTime> recordsGone;  // when a snapshot had nothing of what the one before it showed
    ProbeWatch probe{std::chrono::steady_clock::now()};
    std::optional<bool> passiveAsked;
    std::optional<std::chrono::milliseconds> latencyAsked;
    StationUse use;
    SteadyTime useMeasured;
    uint64_t stateNumber = 0;
    uint64_t channelsVersion = 1;
    uint64_t alarmsVersion = 1;
    const WallTime started = systemNow().wall;
    std::vector<std::string> fileNotes;  // of configuration and playlists
    // Active alarms of channels that are not known as long as channels.json could not be read.
    std::vector<Alarm> heldBack;

    // Made last and ended first is the owner, which uses all the others.
    std::unique_ptr<Server> server;
    std::unique_ptr<Controller> controller;
    std::unique_ptr<PipeReader> reader;
    std::thread owner;

    Implementation(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper_, Mailbox& mailbox_)
        : keeper(keeper_),
          mailbox(mailbox_),
          configuration(files.configuration),
          store(configuration->state, {configuration->keepDays, configuration->keepRows}, systemNow),
          delivery(configuration->state, configuration->instance),
          influx(configuration->influx, configuration->instance),
          desk(store, delivery) {
        const Now now = systemNow();
        book.setRuntime(std::move(runtime));
        adopt(files, now, true);
        restoreAlarms(now);
        desk.record({.kind = EventKind::kStationStarted, .text = "the station started"}, now);
        publish(now);
        openServer();
        controller =
            std::make_unique<Controller>(configuration->controllerEndpoint,
                                         [this](const Controller::Report& report) { mailbox.send(report); });
        tellController();
        reader = std::make_unique<PipeReader>(
            configuration->pipe, [this](RawSnapshot&& snapshot) { mailbox.send(std::move(snapshot)); });
        owner = std::thread([this] { run(); });
    }

    ~Implementation() override {
        mailbox.stop();
        owner.join();
        reader.reset();
        controller.reset();
        server.reset();
    }

    // What the web room asks, on its thread.

    StatePointer state() const override {
        const std::lock_guard lock(publishedMutex);
        return published;
    }
    bool command(Command&& asked) override {
        return mailbox.send(std::move(asked));
    }
    bool queryEvents(const EventFilter& filter, EventStore::QueryAnswer answer) override {
        return store.query(filter, std::move(answer));
    }
    EventStore::Statistics storeStatistics() const override {
        return store.statistics();
    }
    std::vector<Delivery::ReceiverStatistics> deliveryStatistics() const override {
        return delivery.statistics();
    }

    void restoreAlarms(const Now& now) {
        std::vector<Alarm> active = store.initial().active;
        if (!book.known()) {
            const auto unknown = std::ranges::partition(active, [this](const Alarm& alarm) {
                return !alarm.group || book.channels().contains(*alarm.group);
            });
            heldBack.assign(unknown.begin(), unknown.end());
            active.erase(unknown.begin(), unknown.end());
        }
        take(engine.restore(active, now), now);
        desk.restore(raised(), book.channels(), now);
    }

    // What is not over for receivers.
    std::vector<Alarm> raised() const {
        std::vector<Alarm> all = engine.active();
        all.insert(all.end(), heldBack.begin(), heldBack.end());
        return all;
    }

    // Configuration and files.

    void openServer() {
        ServerOptions options;
        options.listen = configuration->listen;
        options.socket = configuration->socket;
        options.access = serverAccess();
        options.page = configuration->page;
        server = std::make_unique<Server>(options, *this);
        log(LogLevel::kNotice, "serving " +
                                   (options.listen.empty() ? std::string() : options.listen + " and ") +
                                   options.socket.string());
    }

    ServerAccess serverAccess() const {
        return {.token = configuration->token,
                .socketToken = configuration->socketToken,
                .allowedHosts = configuration->allowedHosts,
                .connections = configuration->http.connections,
                .connectionsPerAddress = configuration->http.connectionsPerAddress};
    }

    // Takes the playlists out of `files`.
    void adopt(LoadedFiles& files, const Now& now, bool atStart) {
        if (files.configuration) {
            if (!atStart) {
                noteWhatNeedsARestart(*files.configuration);
            }
            configuration = files.configuration;
        }
        fileNotes = files.result.refusals;
        fileNotes.insert(fileNotes.end(), files.result.notes.begin(), files.result.notes.end());
        book.setFiles(*configuration, std::move(files.playlists));
        delivery.configure(configuration->webhooks);
        influx.configure(configuration->influx);
        store.setLimits({configuration->keepDays, configuration->keepRows});
        takeChannels(now, atStart);
        if (atStart) {
            return;
        }
        desk.record(files.refused.empty()
                        ? Event{.kind = EventKind::kConfigurationRead,
                                .text = "read again: " + std::to_string(book.channels().size()) + " channels"}
                        : Event{.kind = EventKind::kConfigurationRefused, .text = files.refused.front()},
                    now);
        server->setAccess(serverAccess());
        tellController();
    }

    std::vector<std::string> notes() const {
        std::vector<std::string> all;
        if (!book.problem().empty()) {
            all.push_back(book.problem());
        }
        all.insert(all.end(), fileNotes.begin(), fileNotes.end());
        all.insert(all.end(), book.notes().begin(), book.notes().end());
        all.resize(std::min(all.size(), kNotesShown));
        return all;
    }

    // What was changed at run time could be read after all.
    void adopt(LoadedRuntime&& runtime, const Now& now) {
        book.setRuntime(std::move(runtime));
        takeChannels(now, false);
        if (book.known()) {
            take(engine.restore(std::exchange(heldBack, {}), now), now);
            desk.restore(raised(), book.channels(), now);
        }
    }

    void noteWhatNeedsARestart(const Configuration& read) const {
        const auto note = [](const char* key, const auto& before, const auto& after) {
            if (before != after) {
                log(LogLevel::kWarning, std::string(key) + " has changed: restart kestor-station to use it");
            }
        };
        note("listen", configuration->listen, read.listen);
        note("socket", configuration->socket, read.socket);
        note("state_dir", configuration->state, read.state);
        note("pipe", configuration->pipe, read.pipe);
        note("controller_endpoint", configuration->controllerEndpoint, read.controllerEndpoint);
        note("page", configuration->page, read.page);
        note("instance", configuration->instance, read.instance);
    }

    // The channel set has changed, or may have.
    void takeChannels(const Now& now, bool atStart) {
        const ChannelDifference difference = book.takeDifference();
        for (const Channel& channel : difference.removed) {
            watched.erase(channel.group);
        }
        for (const Channel& channel : difference.added) {
            watched.try_emplace(channel.group, channel);
        }
        for (const auto& [before, after] : difference.changed) {
            watched.at(after.group).channel = after;
        }
        const std::size_t minutes = minutesKept(watched.size());
        if (std::exchange(historyMinutes, minutes) != minutes || !difference.added.empty()) {
            for (auto& [group, channel] : watched) {
                channel.history.keepMinutes(minutes);
            }
        }
        if (!atStart) {
            desk.record(difference, now);
        }
        // Clears what is raised for channels that are gone, under the name that they had.
        take(engine.configure(configuration->profiles, book.channels(), now), now, &difference);
        ++channelsVersion;
        tellController();
    }

    void tellController() {
        if (!controller) {
            return;
        }
        Groups wanted;
        for (const auto& [group, channel] : book.channels()) {
            if (channel.enabled) {
                wanted.insert(group);
            }
        }
        controller->want(std::move(wanted));
        controller->setPassive(passiveAsked ? passiveAsked : configuration->passive);
        controller->setIgmpLatency(latencyAsked ? latencyAsked : configuration->igmpLatency);
    }

    // The loop.

    void run() {
        SteadyTime tickAt = std::chrono::steady_clock::now() + kTick;
        bool told = false;
        for (;;) {
            Mailbox::Letters letters = mailbox.takeUntil(tickAt);
            const Now now = systemNow();
            if (now.steady - tickAt > kStandstill) {
                probe.wokeUp(now.steady);
            }
            bool news = handle(letters, now);
            if (now.steady >= tickAt || news) {
                finishCycle(now);
                if (letters.files) {
                    answerReloads(*letters.files);
                }
                tickAt = now.steady + kTick;
                sd_notify(0, told ? "WATCHDOG=1" : "READY=1\nWATCHDOG=1");
                told = true;
            }
            for (Command& command : letters.commands) {
                handleCommand(std::move(command));
            }
            if (letters.stop) {
                sd_notify(0, "STOPPING=1");
                return;
            }
        }
    }

    static void answerReloads(const LoadedFiles& files) {
        for (const auto& asker : files.askers) {
            asker();
        }
    }

    // Whether there is something to publish.
    bool handle(Mailbox::Letters& letters, const Now& now) {
        for (const Controller::Report& report : letters.reports) {
            handleReport(report);
        }
        if (letters.files) {
            adopt(*letters.files, now, false);
        }
        if (letters.runtime) {
            adopt(std::move(*letters.runtime), now);
        }
        for (RawSnapshot& snapshot : letters.snapshots) {
            handleSnapshot(std::move(snapshot));
        }
        return !letters.snapshots.empty() || letters.files || letters.runtime;
    }

    void finishCycle(const Now& now) {
        const bool asked = probe.state().asks;
        const bool turned = probe.update(now.steady, probeEnds());
        std::vector<AlarmChange> changes;
        engine.tick(probe.look(now.steady), now, changes);
        for (AlarmChange& change : changes) {
            if (change.what == AlarmChange::What::kRaised) {
                explain(change);
            }
        }
        take(changes, now);
        judgeDelivery(now);
        if (turned) {
            const bool connected = probe.state().connected;
            const std::string text = !connected           ? probe.whySilent()
                                     : probe.state().asks ? "the probe asks and shows snapshots"
                                                          : "the probe shows snapshots";
            desk.record({.kind = connected ? EventKind::kProbeCame : EventKind::kProbeWent, .text = text},
                        now);
            log(LogLevel::kNotice, text);
        } else if (!asked && probe.state().asks && probe.state().connected) {
            log(LogLevel::kNotice, "the probe asks and shows snapshots");
        }
        alarmsVersion +=
            desk.takeLate(engine, book.channels(), book.known() ? nullptr : &heldBack, now) ? 1 : 0;
        alarmsVersion += desk.tick(raised(), book.channels(), now) ? 1 : 0;
        if (now.steady - useMeasured > kMeasuresUse) {
            useMeasured = now.steady;
            use.cpuSeconds = processCpuSeconds();
            use.residentBytes = residentBytes();
        }
        publish(now);
    }

    void judgeDelivery(const Now& now) {
        const Delivery::Health health = delivery.health();
        std::vector<AlarmChange> changes;
        const double value = health.failing.value_or(false) ? 1 : 0;
        engine.judge(*findAlarmType("delivery_failing"), {}, {health.failing, health.since, value}, now,
                     changes);
        for (AlarmChange& change : changes) {
            if (change.what == AlarmChange::What::kRaised) {
                change.text += ": " + health.problem;
            }
        }
        take(changes, now);
    }

    ProbeWatch::Ends probeEnds() const {
        return {controller->problem(), reader->statistics()};
    }

    // Adds to an alarm of the probe what is known of its cause.
    void explain(AlarmChange& change) const {
        const std::string_view type = alarmTypes()[change.alarm.type].name;
        const std::string cause = type == "probe_silent"       ? probe.whySilent()
                                  : type == "probe_not_asking" ? probe.whyNotAsking()
                                                               : std::string();
        if (!cause.empty()) {
            change.text = cause;
        }
    }

    void handleReport(const Controller::Report& report) {
        const bool scanned = probe.scanning();
        probe.request(report);
        if (report.event == ProbeLink::Event::kReplaced) {
            log(LogLevel::kNotice, "another probe asks in place of the last one; it is told all channels");
            replaced = report.time.steady;
        }
        if (report.cleared) {
            engine.countersCleared(report.time);
        }
        if (report.scanning != scanned) {
            log(LogLevel::kWarning,
                report.scanning ? "the probe scans (kestor -c): channels wait until it monitors (kestor -s)"
                                : "the probe monitors");
        }
    }

    // After another asker took the place of the last one: a restart is one if the numbers began anew.
    // Requests alone say nothing, since anybody on this machine can make some.
    void judgeRestart(const records::Snapshot& snapshot, const RawSnapshot& raw) {
        if (!replaced || raw.began.steady < *replaced) {
            return;
        }
        replaced.reset();
        const bool listLost = recordsGone && raw.began.steady - *recordsGone < kRestartTakes;
        if (!listLost && !numbersBeganAnew(snapshot)) {
            return;
        }
        probe.restarted();
        log(LogLevel::kWarning, "the probe was restarted");
        std::vector<AlarmChange> changes;
        engine.probeRestarted(raw.ended, changes);
        if (changes.empty()) {  // nobody wants it as an alarm
            desk.record({.kind = EventKind::kProbeRestarted, .text = "the probe was restarted"}, raw.ended);
        }
        take(changes, raw.ended);
    }

    // Whether more channels lost their packets than kept them; true when there is nothing to compare.
    bool numbersBeganAnew(const records::Snapshot& snapshot) const {
        std::map<Group, uint64_t> received;
        for (const Record& record : snapshot) {
            if (record.kind() == records::Kind::kStream) {
                if (const auto group = Group::parse(record.text("group"))) {
                    received[*group] = static_cast<uint64_t>(record.integer("packetsReceived"));
                }
            }
        }
        std::size_t anew = 0;
        std::size_t kept = 0;
        for (const auto& [group, channel] : watched) {
            const uint64_t before = channel.sample ? channel.sample->totals[kPacketsReceivedCounter] : 0;
            if (before > 0) {
                const auto now = received.find(group);
                ++(now == received.end() || now->second < before ? anew : kept);
            }
        }
        return anew > 0 ? anew >= kept : kept == 0;
    }

    void handleSnapshot(RawSnapshot&& raw) {
        const double cpuBefore = threadCpuMs();
        const Now now = raw.ended;
        if (raw.text.empty() && probe.secondAsker() && lastRecords && !lastRecords->empty()) {
            return;  // of the one that is told nothing
        }
        probe.snapshot(raw);
        const auto snapshot = std::make_shared<const records::Snapshot>(
            records::parseSnapshot(std::move(raw.text), [&](std::size_t line, const std::string& problem) {
                probe.droppedLine();
                if (probe.state().droppedLines == 1) {
                    log(LogLevel::kWarning,
                        "a line of the snapshot is no record and dropped, as all like it will be: "
                        "line " +
                            std::to_string(line) + ": " + problem);
                }
            }));
        judgeRestart(*snapshot, raw);
        std::vector<AlarmChange> changes;
        const Groups shown = observe(snapshot, now, changes);
        for (auto& [group, channel] : watched) {
            if (shown.contains(group)) {
                continue;
            }
            if (channel.channel.enabled) {
                engine.observeMissing(group, now, changes);
            }
            if (!probe.fresh(channel.sampleTime, now.steady)) {
                channel.forgetRecords();
            }
        }
        take(changes, now);
        if (!lastShown.empty() &&
            std::ranges::none_of(lastShown, [&](const Group& group) { return shown.contains(group); })) {
            recordsGone = now.steady;
        }
        lastShown = shown;
        controller->shown(shown, raw.began.steady);
        lastRecords = snapshot;
        use.lastSnapshotCpuMs = threadCpuMs() - cpuBefore;
    }

    Groups observe(const std::shared_ptr<const records::Snapshot>& snapshot, const Now& now,
                   std::vector<AlarmChange>& changes) {
        Groups shown;
        for (const records::GroupRecords& records : records::groupsOf(*snapshot)) {
            const auto group = Group::parse(records.stream->text("group"));
            if (group && shown.insert(*group).second) {
                if (const auto channel = watched.find(*group); channel != watched.end()) {
                    observeChannel(channel->second, *records.stream, records.pids, snapshot, now, changes);
                }
            }
        }
        return shown;
    }

    void observeChannel(WatchedChannel& channel, const Record& stream, std::span<const Record> pids,
                        const std::shared_ptr<const void>& snapshot, const Now& now,
                        std::vector<AlarmChange>& changes) {
        const Group group = channel.channel.group;
        const ChannelSample sample = makeSample(stream, pids, channel.sample ? &*channel.sample : nullptr,
                                                now.steady - channel.sampleTime);
        if (!channel.sample) {
            channel.countsSince = now.wall;
        }
        channel.sample = sample;
        channel.sampleTime = now.steady;
        channel.stream = &stream;
        channel.pids = pids;
        channel.snapshot = snapshot;
        if (sample.signal) {
            channel.lastSeen = now.wall;
        }
        channel.minute.add(sample, now.steady);
        for (std::size_t i = 0; i < kSampleCounters; ++i) {
            if (sample.increments[i] > 0) {
                channel.lastError[i] = now.wall;
            }
        }
        if (!channel.channel.enabled) {
            return;
        }
        engine.observe(group, sample, now, changes);
        channel.history.add(sample, stripCell(sample, engine.status(group)), now);
    }

    void take(const std::vector<AlarmChange>& changes, const Now& now,
              const ChannelDifference* difference = nullptr) {
        for (const AlarmChange& change : changes) {
            desk.record(change, engine, book.channels(), difference, now);
            ++alarmsVersion;
        }
    }

    // What is published.

    void publish(const Now& now) {
        auto next = std::make_shared<StationState>();
        next->number = ++stateNumber;
        next->now = now;
        next->started = started;
        next->probe = probeState();
        next->snapshot = lastRecords;
        next->channels.reserve(watched.size());
        for (auto& [group, channel] : watched) {
            next->channels.push_back(channelState(channel, now));
        }
        next->alarms = engine.active();
        next->maintenance = desk.maintenance();
        next->configuration = configuration;
        next->notes = notes();
        next->passive = passiveAsked.value_or(configuration->passive.value_or(false));
        next->use = use;
        next->use.commandsRefused = mailbox.refusedCommands();
        next->use.logDropped = droppedLogLines();
        takeInfluxUse(next->use);
        next->channelsVersion = channelsVersion;
        next->alarmsVersion = alarmsVersion;
        {
            const std::lock_guard lock(publishedMutex);
            published = next;
        }
        influx.write(next);
        if (server) {
            server->statePublished();
        }
    }

    void takeInfluxUse(StationUse& shown) const {
        const InfluxWriter::Statistics points = influx.statistics();
        shown.influxWritten = points.written;
        shown.influxDropped = points.dropped;
        shown.influxFailed = points.failed;
        shown.influxProblem = points.lastProblem;
    }

    ProbeState probeState() const {
        ProbeState state = probe.state();
        state.droppedSnapshots = mailbox.droppedSnapshots();
        if (reader) {
            const PipeReader::Statistics statistics = reader->statistics();
            state.pipeProblem = statistics.problem;
            state.droppedSnapshots += statistics.cut;
            state.tooLargeSnapshots = statistics.tooLarge;
            state.longestPipeWaitMs = static_cast<double>(statistics.longestFull.count()) / 1000;
        }
        if (controller) {
            state.otherController = !controller->problem().empty();
        }
        return state;
    }

    std::shared_ptr<const ChannelState> channelState(WatchedChannel& channel, const Now& now) const {
        auto state = std::make_shared<ChannelState>(ChannelState{channel.channel});
        state->alarms = engine.activeOf(channel.channel.group);
        state->shown = channel.sample && probe.fresh(channel.sampleTime, now.steady);
        if (channel.sample) {
            state->sample = *channel.sample;
            state->stream = channel.stream;
            state->pids = channel.pids;
            state->snapshot = channel.snapshot;
        }
        state->status = engine.status(channel.channel.group);
        state->lastSeen = channel.lastSeen;
        state->countsSince = channel.countsSince;
        state->maintenance = desk.inMaintenance(channel.channel.group, now);
        state->lastError = channel.lastError;
        state->lastMinute = channel.minute.sums(now.steady);
        return state;
    }

    // Commands.

    void handleCommand(Command&& command) {
        const auto answer = std::make_shared<std::function<void(Answer &&)>>(std::move(command.answer));
        std::visit(
            [&](auto& action) { act(action, [answer](Answer&& said) { (*answer)(std::move(said)); }); },
            command.action);
    }

    using Reply = std::function<void(Answer&&)>;

    static Answer refused(Refusal::Why why, std::string field, std::string text) {
        Answer answer;
        answer.refusal = Refusal{why, std::move(field), std::move(text)};
        return answer;
    }

    // Shows a changed channel set, has it saved, and answers when it is on the disk, or that it cannot be.
    void applyChannels(Answer&& answer, const Reply& reply) {
        const Now now = systemNow();
        takeChannels(now, false);
        publish(now);
        keeper.save(book.runtime(), [reply, said = std::move(answer)](const std::string& problem) mutable {
            if (!problem.empty()) {
                said = refused(Refusal::Why::kFailed, "",
                               "in effect, but not on the disk, which is tried again: " + problem);
            }
            reply(std::move(said));
        });
    }

    void act(const PutChannel& action, const Reply& reply) {
        if (auto refusal = book.put(action, *configuration)) {
            Answer answer;
            answer.refusal = std::move(refusal);
            reply(std::move(answer));
            return;
        }
        applyChannels({}, reply);
    }

    void act(const DeleteChannel& action, const Reply& reply) {
        if (auto refusal = book.remove(action.group)) {
            Answer answer;
            answer.refusal = std::move(refusal);
            reply(std::move(answer));
            return;
        }
        applyChannels({}, reply);
    }

    void act(const ImportPlaylist& action, const Reply& reply) {
        Answer answer;
        if (auto refusal = book.import(action.text, answer)) {
            answer.refusal = std::move(refusal);
            reply(std::move(answer));
            return;
        }
        applyChannels(std::move(answer), reply);
    }

    void act(const ClearCounters& /*action*/, const Reply& reply) {
        controller->clearCounters();
        log(LogLevel::kNotice, "all counters start anew on demand");
        reply({});
    }

    void act(const SetPassive& action, const Reply& reply) {
        passiveAsked = action.on;
        tellController();
        publish(systemNow());
        reply({});
    }

    void act(const SetIgmpLatency& action, const Reply& reply) {
        latencyAsked = action.latency;
        tellController();
        reply({});
    }

    void act(const ReloadFiles& /*action*/, const Reply& reply) {
        const bool waits = keeper.reload([reply](const ReadResult& result) {
            Answer answer;
            answer.notes = result.refusals;
            answer.notes.insert(answer.notes.end(), result.notes.begin(), result.notes.end());
            if (result.configurationRefused) {
                answer.refusal = Refusal{Refusal::Why::kInvalid, "configuration", result.refusals.front()};
            }
            reply(std::move(answer));
        });
        if (!waits) {
            reply(refused(Refusal::Why::kBusy, "", "too many wait for the files to be read"));
        }
    }

    void act(const AcknowledgeAlarm& action, const Reply& reply) {
        const Now now = systemNow();
        std::vector<AlarmChange> changes;
        if (!engine.acknowledge(action.id, {now.wall, action.by, action.remark}, changes)) {
            reply(refused(Refusal::Why::kNotFound, "id",
                          "no alarm with the id " + std::to_string(action.id) + " is raised"));
            return;
        }
        ++alarmsVersion;
        publish(now);
        for (const AlarmChange& change : changes) {
            desk.record(change, engine, book.channels(), nullptr, now, whenStored({}, reply));
        }
    }

    // Answers when it is on the disk, or that it cannot be.
    static EventStore::Stored whenStored(Answer&& answer, const Reply& reply) {
        return [reply, said = std::move(answer)](const std::string& problem) mutable {
            if (!problem.empty()) {
                said = refused(Refusal::Why::kFailed, "",
                               "in effect, but not on the disk, which is tried again: " + problem);
            }
            reply(std::move(said));
        };
    }

    void act(const SetMaintenance& action, const Reply& reply) {
        const Now now = systemNow();
        Answer answer;
        if (action.until <= std::max(action.from, now.wall)) {
            answer = refused(Refusal::Why::kInvalid, "until",
                             "until has to be later than from and later than now");
        } else if (action.group && !book.channels().contains(*action.group)) {
            answer =
                refused(Refusal::Why::kNotFound, "group", "no channel has the group " + action.group->text());
        } else if (desk.maintenance().size() >= EventDesk::kMaintenanceLimit) {
            answer = refused(Refusal::Why::kConflict, "",
                             "there are too many maintenance windows; end some first");
        } else {
            const int64_t id = answer.id = desk.setMaintenance(action, book.channels(), now);
            publish(now);
            desk.store(id, whenStored(std::move(answer), reply));
            return;
        }
        reply(std::move(answer));
    }

    void act(const EndMaintenance& action, const Reply& reply) {
        const Now now = systemNow();
        if (!desk.endMaintenance(action.id, now)) {
            if (!desk.loaded()) {
                reply(refused(Refusal::Why::kFailed, "",
                              "events.db could not be read yet: which windows there are is not known"));
                return;
            }
            reply(refused(Refusal::Why::kNotFound, "id",
                          "no maintenance window has the id " + std::to_string(action.id)));
            return;
        }
        publish(now);
        desk.store(action.id, whenStored({}, reply));
    }

    void act(const AskHistory& action, const Reply& reply) {
        const auto channel = watched.find(action.group);
        if (channel == watched.end()) {
            reply(
                refused(Refusal::Why::kNotFound, "group", "no channel has the group " + action.group.text()));
            return;
        }
        Answer answer;
        answer.points =
            channel->second.history.points(action.metric, action.resolution, action.since, systemNow());
        reply(std::move(answer));
    }

    void act(const AskOverview& action, const Reply& reply) {
        const Now now = systemNow();
        Answer answer;
        for (const auto& [group, channel] : watched) {
            answer.overview.push_back(
                {group,
                 channel.history.spark(HistoryMetric::kBitRate, action.sparkCells, action.sparkSeconds, now),
                 channel.history.strip(now)});
        }
        reply(std::move(answer));
    }
};

Station::Station(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper, Mailbox& mailbox)
    : implementation_(
          std::make_unique<Implementation>(std::move(files), std::move(runtime), keeper, mailbox)) {}

Station::~Station() = default;

}  // namespace station
