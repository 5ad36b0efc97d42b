// The owner's parts without its threads: what snapshots say, what commands do, what is published.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <fstream>
#include <sstream>

#include "commandDesk.h"
#include "meterIntake.h"
#include "statePublisher.h"
#include "support/recordLine.h"
#include "support/scratch.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

Group groupOf(int number) {
    return *Group::parse("239.1.1." + std::to_string(number));
}

struct SilentSource : Presence {
    bool fresh(SteadyTime /*sample*/, SteadyTime /*now*/) const override {
        return false;
    }
};

// The owner's parts, tied to effects that only note what was asked for.
struct Owner : CommandEffects {
    ScratchDirectory directory;
    bool made;  // what the store finds
    const Now begin{SteadyTime(1000s), WallTime(1'700'000'000s)};
    Now now = begin;
    std::atomic<std::chrono::milliseconds> passed{};  // since the begin, for the store's thread
    std::shared_ptr<Configuration> configuration_ = std::make_shared<Configuration>();
    EventStore store{directory.path(), {90, 1'000'000}, [this] { return after(passed); }};
    Delivery delivery{directory.path(), "p"};
    EventDesk desk{store, delivery};
    ChannelBook book;
    AlarmEngine engine;
    ProbeWatch probe{now.steady};
    ChannelWatch watch{engine};
    SnapshotIntake intake{watch, engine, probe};
    MeterIntake meterIntake{watch, engine};
    SilentSource meter;
    SilentSource pictures;
    MachineWatch machine;
    StatePublisher publisher{{watch, intake, engine, desk, {{&probe, &meter, &pictures}}, machine}, now.wall};
    CommandDesk commands{{book, engine, desk, watch}, *this};
    std::vector<std::string> asked;  // of the effects, in order
    std::deque<std::function<void(const std::string&)>> saving;
    std::map<Group, uint64_t> received;  // what the next snapshot says
    Controller::Report request;
    MeterBriefs briefs;

    explicit Owner(bool readable = true)
        : made(readable || std::filesystem::create_directory(directory.path() / "events.db")) {
        book.setRuntime({RuntimeChannels{}, {}});
        for (const int number : {1, 2, 3}) {
            const Group group = groupOf(number);
            configuration_->channels.push_back(Channel{.group = group, .name = std::to_string(number)});
            received[group] = 1000;
        }
        book.setFiles(*configuration_, {});
        channelsChanged(now);
        asked.clear();
    }

    const Configuration& configuration() const override {
        return *configuration_;
    }
    void channelsChanged(const Now& at) override {
        asked.emplace_back("channels");
        watch.setChannels(book.takeDifference());
        engine.configure(configuration_->profiles, book.channels(), at);
        publisher.channelsChanged();
    }
    void alarmsChanged() override {
        asked.emplace_back("alarms");
        publisher.alarmsChanged();
    }
    void publish(const Now& at) override {
        asked.emplace_back("publish");
        publisher.publish({probe.state(), {}, briefs, {}, {}, configuration_, {}, false, {}}, at);
    }
    void saveChannels(std::function<void(const std::string&)> saved) override {
        asked.emplace_back("save");
        saving.push_back(std::move(saved));
    }
    bool reload(std::function<void(const ReadResult&)> /*read*/) override {
        return false;
    }
    void clearCounters() override {
        asked.emplace_back("clear");
    }
    void setPassive(bool on) override {
        asked.emplace_back(on ? "passive" : "active");
    }
    void setIgmpLatency(std::chrono::milliseconds /*latency*/) override {}

    Now after(std::chrono::milliseconds time) const {
        return {begin.steady + time, begin.wall + time};
    }
    void pass(std::chrono::milliseconds time = 1s) {
        now = after(passed = passed.load() + time);
    }
    std::optional<SnapshotIntake::Result> snapshot() {
        pass();
        std::ostringstream text;
        for (const auto& [group, packets] : received) {
            text << recordLine(records::Kind::kStream,
                               {{"group", group.text()},
                                {"pid", "-1"},
                                {"packetsReceived", std::to_string(packets)}},
                               [](const records::Column& column) { return columnText(column, 0); })
                 << '\n';
        }
        return intake.apply({text.str(), now, now});
    }
    // The answer, when it has come; "refused FIELD" or "done".
    std::shared_ptr<std::string> command(Action action) {
        auto said = std::make_shared<std::string>();
        commands.handle({std::move(action),
                         [said](Answer&& answer) {
                             *said = answer.refusal ? "refused " + answer.refusal->field : "done";
                         }},
                        now);
        return said;
    }
};

TEST(StationParts, ARestartOfTheProbeIsToldByItsNumbers) {
    struct Case {
        std::string what;
        bool replaced;
        std::vector<uint64_t> then;  // packets of the channels in the snapshot behind it; 0: not there
        bool restarted;
    };
    const std::vector<Case> cases = {
        {"nobody came", false, {10, 10, 10}, false},
        {"another asker, the numbers go on", true, {1100, 1100, 1100}, false},
        {"another asker, most numbers began anew", true, {10, 10, 1100}, true},
        {"another asker, one channel alone began anew", true, {10, 1100, 1100}, false},
        {"another asker, the numbers stand still", true, {1000, 1000, 1000}, false},
        {"another asker, and all channels are gone", true, {0, 0, 0}, true},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        Owner owner;
        ASSERT_FALSE(owner.snapshot()->restarted);
        if (one.replaced) {
            owner.intake.askerReplaced(owner.now.steady);
        }
        for (std::size_t i = 0; i < one.then.size(); ++i) {
            const Group group = groupOf(static_cast<int>(i) + 1);
            owner.received[group] = one.then[i];
            if (one.then[i] == 0) {
                owner.received.erase(group);
            }
        }
        EXPECT_EQ(owner.snapshot()->restarted, one.restarted);
        EXPECT_FALSE(owner.snapshot()->restarted) << "told once";
        EXPECT_EQ(owner.probe.state().restarts, one.restarted ? 1U : 0U);
    }
}

TEST(StationParts, ASnapshotFromBeforeAnotherAskerSaysNothingOfARestart) {
    Owner owner;
    owner.received.erase(groupOf(3));
    owner.snapshot();
    owner.received = {{groupOf(1), 10}, {groupOf(2), 1100}};  // as many began anew as went on
    owner.intake.askerReplaced(owner.now.steady + 1500ms);
    EXPECT_FALSE(owner.snapshot()->restarted);
    owner.received[groupOf(1)] = 5;
    EXPECT_TRUE(owner.snapshot()->restarted);
}

TEST(StationParts, WhatIsKeptOfAChannelIsOfPacketsThatCame) {
    Owner owner;
    auto& channel = owner.watch.channels().at(groupOf(1));
    auto& observed = channel.observed[Source::kProbe];
    const std::size_t packets = measureOf("packetsReceived").place;
    const auto lastMinute = [&] { return observed.minute.sums(owner.now.steady)[packets]; };
    owner.snapshot();
    const WallTime first = owner.now.wall;
    owner.received[groupOf(1)] += 100;
    owner.snapshot();
    const WallTime last = owner.now.wall;
    for (int second = 0; second < 5; ++second) {
        owner.snapshot();  // nothing more came
    }
    EXPECT_EQ(channel.countsSince, first);
    EXPECT_EQ(channel.lastSeen, last);
    EXPECT_EQ(observed.lastError[packets], last);
    EXPECT_FALSE(owner.intake.hasSignal(groupOf(1), owner.now.steady));
    owner.received[groupOf(1)] += 100;
    owner.snapshot();
    owner.probe.update(owner.now.steady, {});
    EXPECT_TRUE(owner.intake.hasSignal(groupOf(1), owner.now.steady));
    EXPECT_FALSE(owner.intake.hasSignal(groupOf(1), owner.now.steady + 4s)) << "too old to tell";
    EXPECT_EQ(lastMinute(), 200U);
    owner.pass(58s);
    owner.received[groupOf(1)] += 50;
    owner.snapshot();
    EXPECT_EQ(lastMinute(), 150U) << "what came a minute ago is gone";
}

TEST(StationParts, ReportsOfTheMeterAreSamplesAndEventsOfTheirChannels) {
    Owner owner;
    owner.configuration_->channels[1].enabled = false;
    owner.book.setFiles(*owner.configuration_, {});
    owner.channelsChanged(owner.now);
    MeterMail::Batch batch;
    for (const int number : {1, 2, 3}) {
        const uint32_t group = groupOf(number).hostOrder();
        batch.figures[group].group = group;
        batch.figures[group].sample.source = Source::kMeter;
        batch.figures[group].sample.received = 1000;
    }
    owner.meterIntake.apply(batch, owner.now);
    owner.pass(2s);
    batch.figures.erase(groupOf(1).hostOrder());
    batch.figures[groupOf(3).hostOrder()].sample.received = 1500;
    for (const int number : {1, 2}) {
        const uint32_t group = groupOf(number).hostOrder();
        batch.happened.push_back({group, "codec", "PID 257 is HEVC"});
        batch.happened.push_back({group, "", "splice_insert"});
        batch.happened.push_back({group, "service", "News is Sport"});
        batch.happened.push_back({group, "flow", "It comes from elsewhere"});
        batch.happened.push_back({group, "version", "of no interest"});
    }
    const MeterIntake::Result result = owner.meterIntake.apply(batch, owner.now);
    std::vector<std::string> told;
    for (const AlarmChange& change : result.changes) {
        if (change.what == AlarmChange::What::kHappened) {
            told.push_back(change.alarm.about.text() + " " +
                           std::string(alarmTypes()[change.alarm.type].name) + " " + change.text);
        }
    }
    EXPECT_THAT(told, testing::UnorderedElementsAre("239.1.1.1 service_changed News is Sport",
                                                    "239.1.1.1 flow_changed It comes from elsewhere",
                                                    "239.1.1.1 streams_changed PID 257 is HEVC"))
        << "a disabled channel has no events";
    ASSERT_EQ(result.cues.size(), 1U);
    EXPECT_EQ(result.cues[0].channel->group, groupOf(1));
    const auto& sample = owner.watch.channels().at(groupOf(3)).observed[Source::kMeter].sample;
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->seconds, 2);
    EXPECT_TRUE(sample->signal);
    EXPECT_EQ(owner.watch.channels().at(groupOf(1)).observed[Source::kMeter].sample->received, 1000U);
    owner.publish(owner.now);
    const auto state = owner.publisher.latest();
    EXPECT_FALSE(state->find(groupOf(3))->measured[Source::kMeter].shown) << "by its own source's presence";
}

TEST(StationParts, AnAcknowledgementIsShownWithTheNextState) {
    Owner owner;
    const std::size_t type = *findAlarmType("meter_silent");
    std::vector<AlarmChange> changes;
    for (int second = 0; second < 10; ++second) {
        owner.pass();
        owner.engine.judge(type, Source::kMeter, {true, owner.now.steady - 20s, 1}, owner.now, changes);
    }
    ASSERT_EQ(changes.size(), 1U);
    owner.engine.setRaise(type, Source::kMeter, 7, "silent");
    owner.asked.clear();
    owner.command(AcknowledgeAlarm{7, "ann", "on it"});
    EXPECT_THAT(owner.asked, ElementsAre("alarms", "publish"));
    ASSERT_EQ(owner.publisher.latest()->alarms.size(), 1U);
    EXPECT_TRUE(owner.publisher.latest()->alarms[0].acknowledged);
}

TEST(StationParts, WhatASecondAskerSendsSaysNothing) {
    Owner owner;
    owner.snapshot();
    owner.request.time = owner.now;
    owner.request.secondAsker = true;
    owner.probe.request(owner.request);
    EXPECT_FALSE(owner.intake.apply({"", owner.now, owner.now}));
    EXPECT_EQ(owner.intake.shown().size(), 3U);
    owner.request.secondAsker = false;
    owner.probe.request(owner.request);
    EXPECT_TRUE(owner.intake.apply({"", owner.now, owner.now}));
    EXPECT_THAT(owner.intake.shown(), IsEmpty());
}

TEST(StationParts, AChangeIsAnsweredWhenItIsShownAndOnTheDisk) {
    Owner owner;
    PutChannel put(groupOf(9));
    put.set(&Channel::name, "New");
    const auto saved = owner.command(put);
    EXPECT_THAT(owner.asked, ElementsAre("channels", "publish", "save"));
    ASSERT_NE(owner.publisher.latest()->find(groupOf(9)), nullptr);
    EXPECT_EQ(*saved, "") << "not on the disk yet";
    owner.saving.front()("");
    EXPECT_EQ(*saved, "done");
    const auto failed = owner.command(DeleteChannel{groupOf(9)});
    owner.saving.back()("no space left on device");
    EXPECT_EQ(*failed, "refused ");
    EXPECT_EQ(owner.publisher.latest()->find(groupOf(9)), nullptr) << "in effect all the same";

    owner.asked.clear();
    put.set(&Channel::profile, "none");
    struct Case {
        Action action;
        std::string answer;
    };
    const std::vector<Case> refused = {
        {put, "refused profile"},
        {DeleteChannel{groupOf(77)}, "refused group"},
        {ImportPlaylist{"nothing"}, "refused playlist"},
        {AcknowledgeAlarm{5, {}, {}}, "refused id"},
        {SetMaintenance{owner.now.wall, owner.now.wall, {}, {}, {}}, "refused until"},
        {SetMaintenance{owner.now.wall + 2h, owner.now.wall + 1h, {}, {}, {}}, "refused until"},
        {SetMaintenance{owner.now.wall, owner.now.wall + 1h, groupOf(77), {}, {}}, "refused group"},
        {SetMaintenance{owner.now.wall, owner.now.wall + 1h, {}, {}, {}, {.labels = {{"site", "none"}}}},
         "refused "},
        {HandleAlarms{.which = {.ids = {5}}}, "refused "},
        {HandleAlarms{.which = {.groups = {groupOf(1)}, .alarm = "nonsense"}}, "refused alarm"},
        {HandleAlarms{HandleAlarms::What::kShelve,
                      {.groups = {groupOf(1)}, .alarm = "no_signal"},
                      owner.now.wall + 24h * 31 + 1s},
         "refused until"},
        {HandleAlarms{HandleAlarms::What::kShelve, {.ids = {5}}, owner.now.wall}, "refused until"},
        {EndMaintenance{5}, "refused id"},
        {QueryHistory{groupOf(77), {historyMetric("bitRate")}, 1, {}}, "refused group"},
        {ReloadFiles{}, "refused "},
    };
    for (const Case& one : refused) {
        EXPECT_EQ(*owner.command(one.action), one.answer);
    }
    EXPECT_THAT(owner.asked, IsEmpty()) << "what is refused changes nothing";
    Owner unread(false);
    for (const Action& action : std::vector<Action>{AcknowledgeAlarm{5, {}, {}}, EndMaintenance{5}}) {
        EXPECT_EQ(*unread.command(action), "refused ") << "there may be one";
    }
}

TEST(StationParts, NumbersAreAboveThoseOfAFileThatTookThePlaceOfTheOwnOne) {
    Owner owner;
    EXPECT_LT(owner.desk.record(Event{}, owner.now), 100);
    std::ofstream(owner.directory.path() / "other") << "somebody else's";
    std::filesystem::rename(owner.directory.path() / "other", owner.directory.path() / "events.db");
    ASSERT_TRUE(eventually([&] { return owner.store.givenTo() > 0; }));
    EXPECT_GT(owner.desk.record(Event{}, owner.now), owner.store.givenTo());
}

TEST(StationParts, StatesAreNumberedAndStayAsTheyWere) {
    Owner owner;
    const WallTime cue = owner.now.wall;
    owner.briefs = {{groupOf(0).hostOrder(), {{}, cue + 9s, {}}},
                    {groupOf(1).hostOrder(), {{}, cue + 1s, {}}},
                    {groupOf(3).hostOrder(), {{}, cue + 3s, {}}}};
    owner.snapshot();
    owner.publish(owner.now);
    const StatePointer first = owner.publisher.latest();
    ASSERT_EQ(first->channels.size(), 3U);
    EXPECT_EQ(first->find(groupOf(1))->meter.lastCue, cue + 1s);
    EXPECT_EQ(first->find(groupOf(2))->meter.lastCue, WallTime{});
    EXPECT_EQ(first->find(groupOf(3))->meter.lastCue, cue + 3s);
    EXPECT_TRUE(first->channels[0]->measured[Source::kProbe].sample.signal);
    owner.received.erase(groupOf(1));
    owner.pass(3s);
    owner.snapshot();
    owner.probe.update(owner.now.steady, {});
    owner.publish(owner.now);
    const StatePointer second = owner.publisher.latest();
    EXPECT_EQ(second->number, first->number + 1);
    EXPECT_EQ(second->channelsVersion, first->channelsVersion);
    EXPECT_FALSE(second->find(groupOf(1))->measured[Source::kProbe].shown);
    EXPECT_TRUE(second->find(groupOf(2))->measured[Source::kProbe].shown);
    EXPECT_EQ(second->find(groupOf(1))->stream, nullptr) << "no whole snapshot is kept for it";
    EXPECT_NE(first->find(groupOf(1))->stream, nullptr) << "whoever reads the old one still may";
    EXPECT_EQ(first->find(groupOf(1))->stream->integer("packetsReceived"), 1000);
}

}  // namespace
}  // namespace station
