// What the owner is made of: for station.cpp, which starts it and takes what it is given, and
// stationCycle.cpp, which goes round.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "channelBook.h"
#include "channelWatch.h"
#include "commandDesk.h"
#include "eventDesk.h"
#include "influx/influx.h"
#include "machineDesk.h"
#include "meterDesk.h"
#include "meterIntake.h"
#include "pictureDesk.h"
#include "probe/controller.h"
#include "probe/pipeReader.h"
#include "probeWatch.h"
#include "processUse.h"
#include "restartNotes.h"
#include "snapshotIntake.h"
#include "statePublisher.h"
#include "station.h"
#include "streamNameKeeper.h"
#include "web/server.h"

namespace station {

// The loop of the owner, and what ties its parts to the threads.
struct Station::Implementation final : StationInterface, CommandEffects {
    FileKeeper& keeper;
    Mailbox& mailbox;
    std::shared_ptr<const Configuration> current;
    const bool mayHaveMeter{!current->meterSocket.empty()};  // as at the start, likewise
    const bool mayHavePictures{!current->pictures.socket.empty()};

    EventStore store;
    MinuteStore minutes;
    Delivery delivery;
    InfluxWriter influx;
    MeterDesk meter;
    PictureDesk pictures;

    // Below: the owner thread alone, once it runs, but for publisher.latest().
    ChannelBook book;
    StreamNameKeeper nameKeeper{current->state};
    uint64_t namesKept = 0;  // ChannelBook::streamNamesVersion()
    AlarmEngine engine;
    EventDesk desk;
    ProbeWatch probe{std::chrono::steady_clock::now()};
    MachineDesk machine{engine};
    ChannelWatch watch{engine};
    SnapshotIntake intake{watch, engine, probe};
    MeterIntake meterIntake{watch, engine};
    StatePublisher publisher{
        {watch, intake, engine, desk, {{&probe, &meter.presence(), &pictures}}, machine.watch()},
        systemNow().wall};
    CommandDesk commands{{book, engine, desk, watch}, *this};
    std::optional<bool> passiveAsked;
    std::optional<std::chrono::milliseconds> latencyAsked;
    UseMeter use;
    std::vector<std::string> fileNotes;  // of configuration and playlists
    RestartNotes restartNotes{current};
    SteadyTime namesAt{};         // when names of streams are looked at again
    int64_t minuteTaken = 0;      // of the clock: when the histories' minutes were given to the disk
    std::vector<Alarm> heldBack;  // of channels that are not known while channels.json could not be read

    // Made last and ended first is the owner, which uses all the others.
    std::unique_ptr<Server> server;
    std::unique_ptr<Controller> controller;
    std::unique_ptr<PipeReader> reader;
    std::thread owner;

    Implementation(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper_, Mailbox& mailbox_);
    ~Implementation() override;

    // What the web room asks, on its threads.
    StatePointer state() const override {
        return publisher.latest();
    }
    bool command(Command&& command) override {
        return mailbox.send(std::move(command));
    }
    bool queryEvents(const EventFilter& filter, EventStore::QueryAnswer answer) override {
        return store.query(filter, std::move(answer));
    }
    bool queryReport(const ReportQuestion& question, EventStore::ReportAnswer answer) override {
        return store.report(question, std::move(answer));
    }
    bool queryLosses(LossQuestion&& question, LossAnswer answer) override {
        return minutes.queryLosses(std::move(question), std::move(answer));
    }
    bool queryMinutes(const Group& group, WallTime since, WallTime until,
                      MinuteStore::Answer answer) override {
        return minutes.query(group, since, until, std::move(answer));
    }
    std::optional<MeterReport> meterReport(const Group& group) const override {
        return meter.find(group);
    }
    MeterReports meterReports() const override {
        return meter.reports();
    }
    std::vector<MeterCue> meterCues(const Group& group) const override {
        return meter.cues(group);
    }
    PicturePointer picture(const Group& group) const override {
        return pictures.find(group);
    }
    void look(const Group& group) override {
        pictures.look(group);
    }
    EventStore::Statistics storeStatistics() const override {
        return store.statistics();
    }
    MinuteStore::Statistics historyStatistics() const override {
        return minutes.statistics();
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
    void restoreAlarms(const Now& now);
    std::vector<Alarm> raised() const;

    void adopt(LoadedFiles& files, const Now& now, bool atStart);
    void adopt(LoadedRuntime&& runtime, const Now& now);
    void takeChannels(const Now& now, bool quietly);
    std::vector<Group> watchedGroups() const;
    void takeStreamNames(const MeterBriefs& briefs, const Now& now);
    void tellController();
    void tellMeter() {  // before the controller, which is told what the meter joins
        meter.watch(book.channels(), *current, passive());
    }
    std::vector<std::string> notes() const;

    void run();
    bool handle(Mailbox::Batch& batch, const Now& now);
    void handleReport(const Controller::Report& report);
    void handleSnapshot(RawSnapshot&& raw);
    void handleMeter(const Now& now);
    void storeMinutes(const Now& now);
    void finishCycle(const Now& now);
    void judgeProbe(const Now& now);
    void judgeMachine(const Now& now);
    void judgeMeter(const Now& now);
    void record(const std::vector<AlarmChange>& changes, const Now& now,
                const ChannelDifference* difference = nullptr);

    bool passive() const {
        return passiveAsked.value_or(current->passive.value_or(false));
    }
    ProbeState probeState() const;
    StationUse useNow() const;
};

}  // namespace station
