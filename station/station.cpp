#include "station.h"

#include <systemd/sd-daemon.h>
#include <algorithm>
#include <thread>

#include "channelBook.h"
#include "commandDesk.h"
#include "common/counted.h"
#include "common/log.h"
#include "eventDesk.h"
#include "machine/machineReader.h"
#include "machineWatch.h"
#include "meter/meterBook.h"
#include "meter/meterPort.h"
#include "meter/sourceJoins.h"
#include "probe/controller.h"
#include "probe/pipeReader.h"
#include "probeWatch.h"
#include "processUse.h"
#include "restartNotes.h"
#include "snapshotIntake.h"
#include "statePublisher.h"
#include "store/influx.h"
#include "web/server.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kTick = 1s;
// So long without a turn of the loop, and it was this process that stood still, not the probe.
constexpr auto kStandstill = 2500ms;
constexpr auto kMeasuresUse = 5s;
constexpr std::size_t kNotesShown = 100;
// The owner waits so long for this machine's counters when a loss is to be told.
constexpr auto kLossWaits = 20ms;

}  // namespace

// The loop of the owner, and what ties its parts to the threads.
struct Station::Implementation : StationInterface, CommandEffects {
    FileKeeper& keeper;
    Mailbox& mailbox;
    std::shared_ptr<const Configuration> current;
    const std::shared_ptr<const Configuration> started = current;

    EventStore store;
    Delivery delivery;
    InfluxWriter influx;
    MeterBook meterBook;

    // Below: the owner thread alone, once it runs, but for publisher.latest().
    ChannelBook book;
    AlarmEngine engine;
    EventDesk desk;
    ProbeWatch probe{std::chrono::steady_clock::now()};
    MachineWatch machine;
    SourceJoins sourceJoins;
    std::set<uint32_t> joinedByMeter;  // groups that it is told to join
    LogOnChange sourcesTold;
    LogOnChange machineUnseen;
    Groups machineLooksFor;  // what the machine's reader was told last
    SnapshotIntake intake{engine, probe};
    StatePublisher publisher{{intake, engine, desk, probe, machine}, systemNow().wall};
    CommandDesk commands{{book, engine, desk, intake}, *this};
    std::optional<bool> passiveAsked;
    std::optional<std::chrono::milliseconds> latencyAsked;
    StationUse use;
    SteadyTime useMeasured;
    std::vector<std::string> fileNotes;  // of configuration and playlists
    std::vector<std::string> unheeded;   // settings that need a restart
    // Active alarms of channels that are not known as long as channels.json could not be read.
    std::vector<Alarm> heldBack;

    // Made last and ended first is the owner, which uses all the others.
    std::unique_ptr<Server> server;
    std::unique_ptr<Controller> controller;
    std::unique_ptr<PipeReader> reader;
    std::unique_ptr<MachineReader> machineReader;
    std::unique_ptr<MeterPort> meterPort;
    std::thread owner;

    Implementation(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper_, Mailbox& mailbox_);
    ~Implementation() override;

    // What the web room asks, on its threads.
    StatePointer state() const override {
        return publisher.latest();
    }
    bool command(Command&& asked) override {
        return mailbox.send(std::move(asked));
    }
    bool queryEvents(const EventFilter& filter, EventStore::QueryAnswer answer) override {
        return store.query(filter, std::move(answer));
    }
    std::optional<MeterReport> meterReport(const Group& group) const override {
        return meterBook.find(group);
    }
    EventStore::Statistics storeStatistics() const override {
        return store.statistics();
    }
    std::vector<Delivery::ReceiverStatistics> deliveryStatistics() const override {
        return delivery.statistics();
    }

    // What commands do.
    const Configuration& configuration() const override {
        return *current;
    }
    void channelsChanged(const Now& now) override {
        takeChannels(now, false);
    }
    void alarmsChanged() override {
        publisher.alarmsChanged();
    }
    void publish(const Now& now) override;
    void saveChannels(std::function<void(const std::string&)> saved) override {
        keeper.save(book.runtime(), std::move(saved));
    }
    bool reload(std::function<void(const ReadResult&)> read) override {
        return keeper.reload(std::move(read));
    }
    void clearCounters() override {
        controller->clearCounters();
    }
    void setPassive(bool on) override {
        passiveAsked = on;
        tellMeter();
        tellController();
    }
    void setIgmpLatency(std::chrono::milliseconds latency) override {
        latencyAsked = latency;
        tellController();
    }

    void openServer();
    ServerAccess serverAccess() const;
    void restoreAlarms(const Now& now);
    std::vector<Alarm> raised() const;

    void takeRestartNotes(const Configuration& read);
    void adopt(LoadedFiles& files, const Now& now, bool atStart);
    void adopt(LoadedRuntime&& runtime, const Now& now);
    void takeChannels(const Now& now, bool atStart);
    void tellController();
    void tellMeter();  // before the controller, which is told what the meter joins
    std::vector<std::string> notes() const;

    void run();
    bool handle(Mailbox::Letters& letters, const Now& now);
    void handleReport(const Controller::Report& report);
    void handleSnapshot(RawSnapshot&& raw);
    void finishCycle(const Now& now);
    void judgeProbe(const Now& now);
    void judgeMachine(const Now& now);
    void explainByMachine(std::vector<AlarmChange>& changes, const Now& now);
    void lookForShown();
    bool hasSignal(const Group& group, const Now& now) const;
    void judgeDelivery(const Now& now);
    void judgeMeter(const Now& now);
    MeterState meterState(const Now& now) const;
    std::string sourcesNote() const;
    void explain(AlarmChange& change) const;
    void record(const std::vector<AlarmChange>& changes, const Now& now,
                const ChannelDifference* difference = nullptr);

    bool passive() const {
        return passiveAsked.value_or(current->passive.value_or(false));
    }
    ProbeState probeState() const;
    StationUse useNow() const;
};

Station::Implementation::Implementation(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper_,
                                        Mailbox& mailbox_)
    : keeper(keeper_),
      mailbox(mailbox_),
      current(files.configuration),
      store(current->state, {current->keepDays, current->keepRows}, systemNow),
      delivery(current->state, current->instance),
      influx(current->influx, current->instance),
      desk(store, delivery) {
    const Now now = systemNow();
    book.setRuntime(std::move(runtime));
    adopt(files, now, true);
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
    machineReader = std::make_unique<MachineReader>();
    meterPort = std::make_unique<MeterPort>(current->meterSocket, KESTOR_VERSION, meterBook);
    tellMeter();
    owner = std::thread([this] { run(); });
}

Station::Implementation::~Implementation() {
    mailbox.stop();
    owner.join();
    meterPort.reset();
    machineReader.reset();
    reader.reset();
    controller.reset();
    server.reset();
}

void Station::Implementation::openServer() {
    ServerOptions options;
    options.listen = current->listen;
    options.socket = current->socket;
    options.access = serverAccess();
    options.page = current->page;
    server = std::make_unique<Server>(options, *this);
    log(LogLevel::kNotice, "serving " + (options.listen.empty() ? std::string() : options.listen + " and ") +
                               options.socket.string());
}

ServerAccess Station::Implementation::serverAccess() const {
    return {.token = current->token,
            .socketToken = current->socketToken,
            .allowedHosts = current->allowedHosts,
            .connections = current->http.connections,
            .connectionsPerAddress = current->http.connectionsPerAddress};
}

void Station::Implementation::restoreAlarms(const Now& now) {
    std::vector<Alarm> active = store.initial().active;
    if (!book.known()) {
        const auto unknown = std::partition(active.begin(), active.end(), [this](const Alarm& alarm) {
            return !alarm.group || book.channels().contains(*alarm.group);
        });
        heldBack.assign(unknown, active.end());
        active.erase(unknown, active.end());
    }
    record(engine.restore(active, now), now);
    desk.restore(raised(), book.channels(), now);
}

// What is not over for receivers.
std::vector<Alarm> Station::Implementation::raised() const {
    std::vector<Alarm> all = engine.active();
    all.insert(all.end(), heldBack.begin(), heldBack.end());
    return all;
}

// Settings that the station runs with until it is restarted: they stay noted as long as they differ.
void Station::Implementation::takeRestartNotes(const Configuration& read) {
    std::vector<std::string> notes = restartNotes(*started, read);
    for (const std::string& note : notes) {
        if (std::ranges::find(unheeded, note) == unheeded.end()) {
            log(LogLevel::kWarning, note);
        }
    }
    unheeded = std::move(notes);
}

// Takes the playlists out of `files`.
void Station::Implementation::adopt(LoadedFiles& files, const Now& now, bool atStart) {
    if (files.configuration) {
        takeRestartNotes(*files.configuration);
        current = files.configuration;
    }
    fileNotes = files.result.refusals;
    fileNotes.insert(fileNotes.end(), files.result.notes.begin(), files.result.notes.end());
    book.setFiles(*current, std::move(files.playlists));
    delivery.configure(current->webhooks);
    influx.configure(current->influx);
    store.setLimits({current->keepDays, current->keepRows});
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
    server->setAccess(serverAccess());
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
void Station::Implementation::takeChannels(const Now& now, bool atStart) {
    const ChannelDifference difference = book.takeDifference();
    intake.setChannels(difference);
    if (!atStart) {
        desk.record(difference, now);
    }
    // Clears what is raised for channels that are gone, under the name that they had.
    record(engine.configure(current->profiles, book.channels(), now), now, &difference);
    publisher.channelsChanged();
    tellMeter();
    tellController();
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
            if (sourceJoins.byMeter() && joinedByMeter.contains(group.hostOrder())) {
                passively.insert(group);
            }
        }
    }
    controller->want(std::move(wanted), std::move(passively));
    controller->setPassive(passiveAsked ? passiveAsked : current->passive);
    controller->setIgmpLatency(latencyAsked ? latencyAsked : current->igmpLatency);
}

void Station::Implementation::tellMeter() {
    if (!meterPort) {
        return;
    }
    std::vector<MeteredChannel> wanted;
    for (const auto& [group, channel] : book.channels()) {
        if (channel.enabled) {
            const auto rules = current->measureRules.find(channel.profile);
            wanted.push_back({.group = group.hostOrder(),
                              .source = sourceAddress(channel.source),
                              .port = channel.port == 0 ? std::nullopt : std::optional(channel.port),
                              .join = !passive() && sourceAddress(channel.source).has_value(),
                              .rules = rules == current->measureRules.end()
                                           ? current->measureRules.at(std::string(kDefaultProfile))
                                           : rules->second});
        }
    }
    joinedByMeter = meterPort->watch(std::move(wanted));
}

std::vector<std::string> Station::Implementation::notes() const {
    std::vector<std::string> all;
    if (!book.problem().empty()) {
        all.push_back(book.problem());
    }
    all.insert(all.end(), unheeded.begin(), unheeded.end());
    all.insert(all.end(), fileNotes.begin(), fileNotes.end());
    all.insert(all.end(), book.notes().begin(), book.notes().end());
    all.resize(std::min(all.size(), kNotesShown));
    return all;
}

void Station::Implementation::run() {
    SteadyTime tickAt = std::chrono::steady_clock::now() + kTick;
    bool told = false;
    for (;;) {
        Mailbox::Letters letters = mailbox.takeUntil(tickAt);
        const Now now = systemNow();
        if (now.steady - tickAt > kStandstill) {
            probe.wokeUp(now.steady);
        }
        const bool news = handle(letters, now);
        if (now.steady >= tickAt || news) {
            finishCycle(now);
            if (letters.files) {
                for (const auto& asker : letters.files->askers) {
                    asker();
                }
            }
            tickAt = now.steady + kTick;
            sd_notify(0, told ? "WATCHDOG=1" : "READY=1\nWATCHDOG=1");
            told = true;
        }
        for (Command& command : letters.commands) {
            commands.handle(std::move(command), systemNow());
        }
        if (letters.stop) {
            sd_notify(0, "STOPPING=1");
            return;
        }
    }
}

// Whether there is something to publish.
bool Station::Implementation::handle(Mailbox::Letters& letters, const Now& now) {
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

void Station::Implementation::handleReport(const Controller::Report& report) {
    const bool scanned = probe.scanning();
    probe.request(report);
    if (report.event == ProbeLink::Event::kReplaced) {
        log(LogLevel::kNotice, "another probe asks in place of the last one; it is told all channels");
        intake.askerReplaced(report.time.steady);
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

void Station::Implementation::handleSnapshot(RawSnapshot&& raw) {
    const double cpuBefore = threadCpuMs();
    const Now ended = raw.ended;
    const SteadyTime began = raw.began.steady;
    auto taken = intake.take(std::move(raw));
    if (!taken) {
        return;
    }
    if (taken->restarted && taken->restart.empty()) {  // nobody wants it as an alarm
        desk.record({.kind = EventKind::kProbeRestarted, .text = "the probe was restarted"}, ended);
    }
    record(taken->restart, ended);
    explainByMachine(taken->changes, ended);
    record(taken->changes, ended);
    lookForShown();
    controller->shown(intake.shown(), began);
    use.lastSnapshotCpuMs = threadCpuMs() - cpuBefore;
}

void Station::Implementation::finishCycle(const Now& now) {
    judgeProbe(now);
    judgeMachine(now);
    judgeDelivery(now);
    judgeMeter(now);
    if (desk.takeLate(engine, book.channels(), book.known() ? nullptr : &heldBack, now)) {
        publisher.alarmsChanged();
    }
    if (desk.tick(raised(), book.channels(), now)) {
        publisher.alarmsChanged();
    }
    if (now.steady - useMeasured > kMeasuresUse) {
        useMeasured = now.steady;
        use.cpuSeconds = processCpuSeconds();
        use.residentBytes = residentBytes();
    }
    publish(now);
}

void Station::Implementation::judgeProbe(const Now& now) {
    const bool asked = probe.state().asks;
    const bool turned =
        probe.update(now.steady, {controller->problem(), reader->statistics(), machine.captureProblem()});
    std::vector<AlarmChange> changes;
    engine.tick(probe.look(now.steady), now, changes);
    for (AlarmChange& change : changes) {
        if (change.what == AlarmChange::What::kRaised) {
            explain(change);
        }
    }
    record(changes, now);
    const bool connected = probe.state().connected;
    const char* const shows =
        probe.state().asks ? "the probe asks and shows snapshots" : "the probe shows snapshots";
    if (turned) {
        const std::string text = connected ? shows : probe.whySilent();
        desk.record({.kind = connected ? EventKind::kProbeCame : EventKind::kProbeWent, .text = text}, now);
        log(LogLevel::kNotice, text);
    } else if (!asked && probe.state().asks && connected) {
        log(LogLevel::kNotice, shows);
    }
}

// Adds to an alarm of the probe what is known of its cause.
void Station::Implementation::explain(AlarmChange& change) const {
    const std::string_view type = alarmTypes()[change.alarm.type].name;
    const std::string cause = type == "probe_silent"       ? probe.whySilent()
                              : type == "probe_not_asking" ? probe.whyNotAsking()
                                                           : std::string();
    if (!cause.empty()) {
        change.text = cause;
    }
}

bool Station::Implementation::hasSignal(const Group& group, const Now& now) const {
    const auto found = intake.channels().find(group);
    return found != intake.channels().end() && found->second.sample && found->second.sample->signal &&
           probe.fresh(found->second.sampleTime, now.steady);
}

void Station::Implementation::judgeMachine(const Now& now) {
    if (auto reading = machineReader->take()) {
        machine.take(std::move(*reading));
    }
    const MachineFindings found =
        machine.judge({probe.state().connected, passive(),
                       [this, &now](const Group& group) { return hasSignal(group, now); }},
                      now.steady);
    if (const std::string& unseen = machine.problem(); !unseen.empty()) {
        machineUnseen.say(LogLevel::kWarning, unseen);
    } else {
        machineUnseen.over("this machine's interfaces can be looked at again");
    }
    std::vector<AlarmChange> changes;
    engine.judge(*findAlarmType("not_joined"), {}, {found.notJoined, now.steady, found.groups}, now, changes);
    engine.judge(*findAlarmType("link_down"), {},
                 {found.linkDown, found.linkDownSince, found.linkDown == true ? 1.0 : 0.0}, now, changes);
    engine.count(*findAlarmType("machine_drops"), {}, found.drops, now, changes);
    explainByMachine(changes, now);
    record(changes, now);
    const Groups again = machine.rejoin(now);
    if (!again.empty()) {
        controller->rejoin(again);
        const bool one = again.size() == 1;
        log(LogLevel::kNotice, "the probe is told to join " +
                                   (one ? again.begin()->text() + " again: its"
                                        : std::to_string(again.size()) + " groups again, from " +
                                              again.begin()->text() + " on: their") +
                                   " route leads to " + machine.card());
    }
}

// What this machine has to do with alarms that are raised now.
void Station::Implementation::explainByMachine(std::vector<AlarmChange>& changes, const Now& now) {
    bool fresh = false;
    for (AlarmChange& change : changes) {
        const AlarmType& type = alarmTypes()[change.alarm.type];
        if (change.what != AlarmChange::What::kRaised) {
            continue;
        }
        if (!fresh && MachineWatch::tellsLoss(type.name)) {
            fresh = true;
            if (auto reading = machineReader->takeNow(kLossWaits)) {
                machine.take(std::move(*reading));
            }
        }
        const AlarmRule& rule = engine.rule(change.alarm);
        const std::string remark = machine.remark(type.name, rule, change.alarm.group, now.steady);
        if (auto text = machine.raisedText(type.name, rule, now.steady)) {
            change.text = std::move(*text);
        } else if (!remark.empty()) {
            change.text += ": " + remark;
        }
    }
}

// The groups that the probe watches are looked for in this machine's memberships.
void Station::Implementation::lookForShown() {
    if (machineLooksFor == intake.shown()) {
        return;
    }
    machineLooksFor = intake.shown();
    std::vector<Ipv4Address> groups;
    groups.reserve(machineLooksFor.size());
    for (const Group& group : machineLooksFor) {
        groups.push_back(group.hostOrder());
    }
    machineReader->watch(std::move(groups));
}

void Station::Implementation::judgeDelivery(const Now& now) {
    const Delivery::Health health = delivery.health();
    const double value = health.failing.value_or(false) ? 1 : 0;
    std::vector<AlarmChange> changes;
    engine.judge(*findAlarmType("delivery_failing"), {}, {health.failing, health.since, value}, now, changes);
    for (AlarmChange& change : changes) {
        if (change.what == AlarmChange::What::kRaised) {
            change.text += ": " + health.problem;
        }
    }
    record(changes, now);
}

void Station::Implementation::judgeMeter(const Now& now) {
    const MeterState meter = meterBook.state(now.steady);
    const bool joinedAll = meter.joinFailures == 0 && meter.joined == meter.toJoin;
    if (sourceJoins.update({meter.connected, meter.sinceSteady, joinedAll}, now.steady)) {
        tellController();
    }
    machineReader->setOthers(meter.sockets);
    const std::string note = sourcesNote();
    if (note.empty()) {
        sourcesTold.over("channels that name a source are joined for it alone, by kestor-meter");
    } else {
        sourcesTold.say(LogLevel::kNotice, note);
    }
}

MeterState Station::Implementation::meterState(const Now& now) const {
    MeterState state = meterBook.state(now.steady);
    state.sourcesNote = sourcesNote();
    return state;
}

// That channels are joined without the source that they name.
std::string Station::Implementation::sourcesNote() const {
    std::size_t count = 0;
    const Channel* first = nullptr;
    for (const auto& [group, channel] : book.channels()) {
        if (channel.enabled && sourceAddress(channel.source)) {
            first = first == nullptr ? &channel : first;
            ++count;
        }
    }
    if (count == 0 || passive() || sourceJoins.byMeter()) {
        return {};
    }
    return first->source + "@" + first->group.text() +
           (count == 1 ? " names a source"
                       : " and " + std::to_string(count - 1) + " more channels name a source") +
           ": without kestor-meter the probe joins " + (count == 1 ? "its group" : "their groups") +
           " from all sources";
}

void Station::Implementation::record(const std::vector<AlarmChange>& changes, const Now& now,
                                     const ChannelDifference* difference) {
    for (const AlarmChange& change : changes) {
        desk.record(change, engine, book.channels(), difference, now);
        publisher.alarmsChanged();
    }
}

void Station::Implementation::publish(const Now& now) {
    influx.write(
        publisher.publish({probeState(), meterState(now), current, notes(), passive(), useNow()}, now));
    if (server) {
        server->statePublished();
    }
}

ProbeState Station::Implementation::probeState() const {
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

StationUse Station::Implementation::useNow() const {
    StationUse now = use;
    now.commandsRefused = mailbox.refusedCommands();
    now.logDropped = droppedLogLines();
    const InfluxWriter::Statistics points = influx.statistics();
    now.influxWritten = points.written;
    now.influxDropped = points.dropped;
    now.influxFailed = points.failed;
    now.influxProblem = points.lastProblem;
    return now;
}

Station::Station(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper, Mailbox& mailbox)
    : implementation_(
          std::make_unique<Implementation>(std::move(files), std::move(runtime), keeper, mailbox)) {}

Station::~Station() = default;

}  // namespace station
