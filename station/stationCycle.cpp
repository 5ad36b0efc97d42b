// The owner's loop: what comes, what it means, what is published.
#include <systemd/sd-daemon.h>

#include <map>
#include <string>
#include <utility>

#include "common/log.h"
#include "stationOwner.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kTick = 1s;
// So long without a turn of the loop: this process stood still, not the probe.
constexpr auto kStandstill = 2500ms;
constexpr auto kNamesEvery = 10s;  // names of streams are taken up

}  // namespace

void Station::Implementation::run() {
    SteadyTime tickAt = std::chrono::steady_clock::now() + kTick;
    bool startNotified = false;
    for (;;) {
        Mailbox::Batch batch = mailbox.drainUntil(tickAt);
        const Now now = systemNow();
        if (now.steady - tickAt > kStandstill) {
            probe.wokeUp(now.steady);
        }
        const bool news = handle(batch, now);
        if (now.steady >= tickAt || news) {
            finishCycle(now);
            if (batch.files) {
                for (const auto& asker : batch.files->askers) {
                    asker();
                }
            }
            tickAt = now.steady + kTick;
            sd_notify(0, startNotified ? "WATCHDOG=1" : "READY=1\nWATCHDOG=1");
            startNotified = true;
        }
        for (Command& command : batch.commands) {
            commands.handle(std::move(command), systemNow());
        }
        if (batch.stop) {
            sd_notify(0, "STOPPING=1");
            return;
        }
    }
}

// Whether there is something to publish.
bool Station::Implementation::handle(Mailbox::Batch& batch, const Now& now) {
    for (const Controller::Report& report : batch.reports) {
        handleReport(report);
    }
    if (batch.files) {
        adopt(*batch.files, now, false);
    }
    if (batch.runtime) {
        adopt(std::move(*batch.runtime), now);
    }
    if (batch.meter) {
        handleMeter(now);
    }
    if (batch.minutes) {
        watch.restore(minutes.takeRestored(), now);
    }
    for (RawSnapshot& snapshot : batch.snapshots) {
        handleSnapshot(std::move(snapshot));
    }
    return !batch.snapshots.empty() || batch.files || batch.runtime;
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
    const UseMeter::Snapshot work(use);
    const Now ended = raw.ended;
    const SteadyTime began = raw.began.steady;
    auto result = intake.apply(std::move(raw));
    if (!result) {
        return;
    }
    if (result->restarted && result->restart.empty()) {  // nobody wants it as an alarm
        desk.record({.kind = EventKind::kProbeRestarted, .text = "the probe was restarted"}, ended);
    }
    record(result->restart, ended);
    machine.explain(result->changes, ended);
    record(result->changes, ended);
    store.observed(ended);
    machine.lookFor(intake.shown());
    controller->shown(intake.shown(), began);
}

// What it says is shown with the next cycle.
void Station::Implementation::handleMeter(const Now& now) {
    MeterIntake::Result result = meterIntake.apply(meter.drainMail(), now);
    meter.explain(result.changes);
    machine.explain(result.changes, now);
    record(result.changes, now);
    record(pictures.apply(watch, engine, now), now);
    for (const MeterIntake::Cue& cue : result.cues) {
        desk.recordCue(*cue.channel, cue.text, now);
    }
}

// A channel without a name takes its service's. That is no change of the configuration, so no event; and a
// stream whose name changes all the time has all channels looked through once in kNamesEvery.
void Station::Implementation::takeStreamNames(const MeterBriefs& briefs, const Now& now) {
    if (now.steady < namesAt) {
        return;
    }
    StreamNames names = nameKeeper.takeRead({}).value_or(StreamNames{});
    auto brief = briefs.begin();
    for (const auto& [group, channel] : book.channels()) {
        while (brief != briefs.end() && brief->first < group.hostOrder()) {
            ++brief;
        }
        if (brief != briefs.end() && brief->first == group.hostOrder() && brief->second.facts) {
            names.insert_or_assign(group, brief->second.facts->serviceName);
        }
    }
    if (book.takeStreamNames(std::move(names))) {
        takeChannels(now, true);
        namesAt = now.steady + kNamesEvery;
    }
    if (std::exchange(namesKept, book.streamNamesVersion()) != book.streamNamesVersion()) {
        nameKeeper.save(book.streamNames());
    }
}

// Once a minute, what is over of the histories.
void Station::Implementation::storeMinutes(const Now& now) {
    const int64_t minute = std::chrono::floor<std::chrono::minutes>(now.wall.time_since_epoch()).count();
    if (std::exchange(minuteTaken, minute) != minute) {
        minutes.take(watch.takeMinutes(now));
    }
}

void Station::Implementation::finishCycle(const Now& now) {
    storeMinutes(now);
    judgeProbe(now);
    judgeMachine(now);
    record(desk.judgeDelivery(engine, now), now);
    judgeMeter(now);
    record(pictures.judgePresence(engine, current->pictures, now), now);
    pictures.tell(book.channels(), engine, current->pictures.cores, now);
    if (meter.judge(book.channels(), passive(), now)) {
        tellController();
    }
    machine.setOthers(meter.sockets(now));
    takeStreamNames(meter.briefs(now), now);
    if (desk.takeLate(engine, book.channels(), book.known() ? nullptr : &heldBack, now)) {
        publisher.alarmsChanged();
    }
    if (desk.tick(raised(), book.channels(), now)) {
        publisher.alarmsChanged();
    }
    use.measure(now.steady);
    publish(now);
}

void Station::Implementation::judgeProbe(const Now& now) {
    const bool wasAsking = probe.state().asks;
    const bool turned = probe.update(
        now.steady, {controller->problem(), reader->statistics(), machine.watch().captureProblem()});
    std::vector<AlarmChange> changes;
    engine.tick(probe.look(now.steady), now, changes);
    for (AlarmChange& change : changes) {
        const std::string cause = probe.causeOf(alarmTypes()[change.alarm.type].name);
        if (change.what == AlarmChange::What::kRaised && !cause.empty()) {
            change.text = cause;
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
    } else if (!wasAsking && probe.state().asks && connected) {
        log(LogLevel::kNotice, shows);
    }
}

void Station::Implementation::judgeMeter(const Now& now) {
    if (current->meterExpected || desk.meterKnown()) {
        meter.expect();
    }
    record(meter.judgePresence(engine, now), now);
    if (meter.measured()) {
        store.noteMeter(true);
    } else if (!mayHaveMeter) {
        store.noteMeter(false);
    }
}

void Station::Implementation::judgeMachine(const Now& now) {
    record(machine.judge({probe.state().connected, passive(),
                          [this, &now](const Group& group) { return intake.hasSignal(group, now.steady); }},
                         now),
           now);
    const Groups again = machine.rejoin(now);
    if (!again.empty()) {
        controller->rejoin(again);
    }
}

void Station::Implementation::record(const std::vector<AlarmChange>& changes, const Now& now,
                                     const ChannelDifference* difference) {
    for (const AlarmChange& change : changes) {
        desk.record(change, engine, book.channels(), difference, now);
        publisher.alarmsChanged();
    }
    desk.findIncidents(now);
}

void Station::Implementation::publish(const Now& now) {
    influx.write(
        publisher.publish({probeState(), meter.state(book.channels(), passive(), now), meter.briefs(now),
                           pictures.state(now), pictures.briefs(), current, notes(), passive(), useNow()},
                          now));
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
    StationUse now = use.use();
    now.commandsRefused = mailbox.refusedCommands();
    now.logDropped = droppedLogLines();
    const InfluxWriter::Statistics points = influx.statistics();
    now.influxWritten = points.written;
    now.influxDropped = points.dropped;
    now.influxFailed = points.failed;
    now.influxProblem = points.lastProblem;
    return now;
}

}  // namespace station
