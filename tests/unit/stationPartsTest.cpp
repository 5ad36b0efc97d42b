// The owner's parts without its threads: what snapshots say, what commands do, what is published.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <sstream>

#include "commandDesk.h"
#include "statePublisher.h"
#include "support/scratch.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

Group groupOf(int number) {
    return *Group::parse("239.1.1." + std::to_string(number));
}

// The owner's parts, tied to effects that only note what was asked for.
struct Owner : CommandEffects {
    ScratchDirectory directory;
    Now now{SteadyTime(1000s), WallTime(1'700'000'000s)};
    std::shared_ptr<Configuration> configuration_ = std::make_shared<Configuration>();
    EventStore store{directory.path(), {90, 1'000'000}, [this] { return now; }};
    Delivery delivery{directory.path(), "p"};
    EventDesk desk{store, delivery};
    ChannelBook book;
    AlarmEngine engine;
    ProbeWatch probe{now.steady};
    SnapshotIntake intake{engine, probe};
    MachineWatch machine;
    StatePublisher publisher{{intake, engine, desk, probe, machine}, now.wall};
    CommandDesk commands{{book, engine, desk, intake}, *this};
    std::vector<std::string> asked;  // of the effects, in order
    std::deque<std::function<void(const std::string&)>> saving;
    std::map<Group, uint64_t> received;  // what the next snapshot says
    Controller::Report request;

    Owner() {
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
        intake.setChannels(book.takeDifference());
        engine.configure(configuration_->profiles, book.channels(), at);
        publisher.channelsChanged();
    }
    void alarmsChanged() override {
        asked.emplace_back("alarms");
        publisher.alarmsChanged();
    }
    void publish(const Now& at) override {
        asked.emplace_back("publish");
        publisher.publish({probe.state(), {}, configuration_, {}, false, {}}, at);
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

    void pass(std::chrono::milliseconds time = 1s) {
        now.steady += time;
        now.wall += time;
    }
    std::optional<SnapshotIntake::Taken> snapshot() {
        pass();
        std::ostringstream text;
        for (const auto& [group, packets] : received) {
            for (const records::Column& column : records::kStreamColumns) {
                text << (&column == records::kStreamColumns.data() ? "" : ";");
                if (column.name == "label") {
                    text << "-1";
                } else if (column.name == "group") {
                    text << group.text();
                } else if (column.name == "pid") {
                    text << -1;
                } else if (column.name == "packetsReceived") {
                    text << packets;
                } else {
                    text << (column.type == records::Type::kFraction ? "0.000000" : "0");
                }
            }
            text << '\n';
        }
        return intake.take({text.str(), now, now});
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

TEST(StationParts, WhatASecondAskerSendsSaysNothing) {
    Owner owner;
    owner.snapshot();
    owner.request.time = owner.now;
    owner.request.secondAsker = true;
    owner.probe.request(owner.request);
    EXPECT_FALSE(owner.intake.take({"", owner.now, owner.now}));
    EXPECT_EQ(owner.intake.shown().size(), 3U);
    owner.request.secondAsker = false;
    owner.probe.request(owner.request);
    EXPECT_TRUE(owner.intake.take({"", owner.now, owner.now}));
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
        {SetMaintenance{owner.now.wall, owner.now.wall + 1h, groupOf(77), {}, {}}, "refused group"},
        {EndMaintenance{5}, "refused id"},
        {AskHistory{groupOf(77), historyMetric("bitRate"), 1, {}}, "refused group"},
        {ReloadFiles{}, "refused "},
    };
    for (const Case& one : refused) {
        EXPECT_EQ(*owner.command(one.action), one.answer);
    }
    EXPECT_THAT(owner.asked, IsEmpty()) << "what is refused changes nothing";
}

TEST(StationParts, StatesAreNumberedAndStayAsTheyWere) {
    Owner owner;
    owner.snapshot();
    owner.publish(owner.now);
    const StatePointer first = owner.publisher.latest();
    ASSERT_EQ(first->channels.size(), 3U);
    EXPECT_TRUE(first->channels[0]->sample.signal);
    owner.received.erase(groupOf(1));
    owner.pass(3s);
    owner.snapshot();
    owner.probe.update(owner.now.steady, {});
    owner.publish(owner.now);
    const StatePointer second = owner.publisher.latest();
    EXPECT_EQ(second->number, first->number + 1);
    EXPECT_EQ(second->channelsVersion, first->channelsVersion);
    EXPECT_FALSE(second->find(groupOf(1))->shown);
    EXPECT_TRUE(second->find(groupOf(2))->shown);
    EXPECT_NE(first->find(groupOf(1))->stream, nullptr) << "whoever reads the old one still may";
    EXPECT_EQ(first->find(groupOf(1))->stream->integer("packetsReceived"), 1000);
}

}  // namespace
}  // namespace station
