// What a receiver is told, whatever it and the station go through: every alarm that it may have been told of
// is over for it in the end.
#include <gmock/gmock.h>

#include <deque>
#include <map>
#include <random>
#include <set>

#include "store/receiver.h"

namespace station {
namespace {

using namespace std::chrono_literals;

Notification raised(int64_t id, Severity severity = Severity::kMajor) {
    Notification one;
    one.alarmId = id;
    one.alarm = "no_signal";
    one.severity = severity;
    return one;
}

Notification cleared(int64_t id) {
    Notification one = raised(id);
    one.raised = false;
    return one;
}

HttpOutcome status(long code) {
    HttpOutcome outcome;
    outcome.status = code;
    outcome.problem = code == 200 ? "" : "it answered with status " + std::to_string(code);
    return outcome;
}

HttpOutcome noAnswer(bool doubt) {
    HttpOutcome outcome;
    outcome.doubt = doubt;
    outcome.problem = doubt ? "no answer" : "no connection";
    return outcome;
}

// What delivery.db would hold.
struct Disk {
    std::map<int64_t, StoredOwed> owed;
    std::map<int64_t, Notification> told;

    void apply(const DeliveryChanges& changes) {
        for (const StoredOwed& one : changes.owed) {
            owed[one.sequence] = one;
        }
        for (const auto& [sequence, sent] : changes.sent) {
            if (owed.contains(sequence)) {
                owed[sequence].sent = sent;
            }
        }
        for (const int64_t sequence : changes.settled) {
            owed.erase(sequence);
        }
        for (const Notification& one : changes.notified) {
            told[one.alarmId] = one;
        }
        for (const int64_t id : changes.forgotten) {
            told.erase(id);
        }
    }
    void replace(const StoredReceiver& all) {
        owed.clear();
        told.clear();
        apply({.owed = all.owed, .sent = {}, .settled = {}, .notified = all.notified, .forgotten = {}});
    }
    StoredReceiver all() const {
        StoredReceiver all;
        for (const auto& [sequence, one] : owed) {
            all.owed.push_back(one);
        }
        for (const auto& [id, one] : told) {
            all.notified.push_back(one);
        }
        return all;
    }
};

// A station with one receiver, both of which chance plays with. Time is moved by hand.
struct World {
    World(unsigned seed, WebhookFormat format) : random(seed) {
        webhook.format = format;
        webhook.maxPerMinute = roll(2) ? 5 : 1000;
        pace.owed = roll(2) ? 12 : 10'000;
        pace.accounts = roll(2) ? 20 : 20'000;
        receiver.emplace(webhook, pace);
    }

    unsigned roll(unsigned sides) {
        return std::uniform_int_distribution<unsigned>(0, sides - 1)(random);
    }
    Now now() const {
        return {SteadyTime(time), WallTime(std::chrono::duration_cast<std::chrono::milliseconds>(time))};
    }
    void keep(const DeliveryChanges& changes) {
        disk.apply(changes);
    }
    std::vector<ActiveNotification> allActive() const {
        std::vector<ActiveNotification> all;
        for (const auto& [id, severity] : active) {
            all.push_back({raised(id, severity), false});
        }
        return all;
    }

    void raise() {
        const auto severity = roll(4) == 0 ? Severity::kWarning : Severity::kMajor;
        active[++lastId] = severity;
        keep(receiver->owe(raised(lastId, severity), lastSequence));
    }
    void clear() {
        if (!active.empty()) {
            const auto one = std::next(active.begin(), roll(static_cast<unsigned>(active.size())));
            const int64_t id = one->first;
            active.erase(one);
            keep(receiver->owe(cleared(id), lastSequence));
        }
    }
    void restart() {  // what was not settled never will be
        if (message) {
            remember();
        }
        message.reset();
        receiver.emplace(webhook, pace);
        receiver->restore(disk.all(), lastSequence);
        disk.replace(receiver->stored());
        for (unsigned missed = roll(3); missed > 0 && !active.empty(); --missed) {
            active.erase(active.begin());
        }
        keep(receiver->resume(allActive(), lastSequence, now().wall));
    }
    bool isBad(int64_t id) const {
        return !healthy && id % 7 == 3;
    }
    void reach() {  // the message gets there
        for (const Notification& one : message->notifications) {
            firing[one.alarmId] = one.raised ? time + pace.alertLife : 0ms;
            ASSERT_TRUE(one.raised || sent.contains(one.alarmId)) << "never told of: " << one.alarmId;
        }
        remember();
    }
    void remember() {  // that the message may have got there
        for (const Notification& one : message->notifications) {
            sent.insert(one.alarmId);
        }
    }
    void prepare() {
        if (!message) {
            DeliveryChanges changes;
            message = receiver->next(now().steady, changes);
            keep(changes);
        }
    }
    void answer() {
        if (!message) {
            return;
        }
        HttpOutcome outcome = status(200);
        const bool bad = std::ranges::any_of(message->notifications,
                                             [this](const Notification& one) { return isBad(one.alarmId); });
        const unsigned what = healthy ? 9 : roll(10);
        if (what == 0) {
            outcome = status(500);
        } else if (what == 1) {
            outcome = noAnswer(false);
        } else if (what <= 3) {
            what == 2 ? remember() : reach();
            outcome = noAnswer(true);
        } else if (bad) {
            outcome = status(400);
        } else {
            reach();
        }
        message.reset();
        keep(receiver->settle(outcome, now()));
    }
    void step() {
        const unsigned what = roll(12);
        if (what <= 2) {
            raise();
        } else if (what <= 4) {
            clear();
        } else if (what == 5) {
            roll(6) == 0 ? restart() : clear();
        } else if (what == 6) {
            time += std::chrono::seconds(roll(100));
        } else if (what == 7 && roll(5) == 0) {
            webhook.minimumSeverity = roll(2) ? Severity::kWarning : Severity::kMajor;
            receiver->configure(webhook);
        } else if (what >= 8) {
            prepare();
        }
        if (what >= 10) {
            answer();
        }
        if (receiver->wantsActive()) {
            keep(receiver->resume(allActive(), lastSequence, now().wall));
        }
    }
    // What was kept piece by piece is what there is.
    void expectDiskComplete() const {
        const StoredReceiver all = receiver->stored();
        std::set<int64_t> sequences, told, kept;
        for (const StoredOwed& one : all.owed) {
            sequences.insert(one.sequence);
            ASSERT_TRUE(disk.owed.contains(one.sequence));
            ASSERT_EQ(disk.owed.at(one.sequence).notification, one.notification);
            if (one.notification.raised) {
                ASSERT_EQ(disk.owed.at(one.sequence).sent, one.sent);
                kept.insert(one.notification.alarmId);
            }
        }
        ASSERT_EQ(disk.owed.size(), sequences.size());
        for (const Notification& one : all.notified) {
            ASSERT_TRUE(disk.told.contains(one.alarmId));
            kept.insert(one.alarmId);
        }
        for (const auto& [id, one] : disk.told) {
            ASSERT_TRUE(kept.contains(id)) << id;
        }
    }
    void settleDown() {
        healthy = true;
        for (int i = 0; i < 20'000; ++i) {
            prepare();
            if (message) {
                answer();
            } else if (const SteadyTime due = receiver->due(now().steady); due > now().steady) {
                time = std::min(time + 60s,
                                std::chrono::ceil<std::chrono::milliseconds>(due.time_since_epoch()));
            }
            if (receiver->wantsActive()) {
                keep(receiver->resume(allActive(), lastSequence, now().wall));
            }
            if (receiver->statistics().owed == 0 && !message && !receiver->wantsActive() && i > 60) {
                return;
            }
        }
        FAIL() << "there is always something to tell";
    }
    // What the receiver holds for raised.
    std::set<int64_t> held() const {
        std::set<int64_t> all;
        for (const auto& [id, until] : firing) {
            if (until > (webhook.format == WebhookFormat::kJson ? 0ms : time)) {
                all.insert(id);
            }
        }
        return all;
    }

    std::mt19937 random;
    Webhook webhook;
    DeliveryPace pace;
    std::optional<Receiver> receiver;
    Disk disk;
    std::map<int64_t, Severity> active;
    std::map<int64_t, std::chrono::milliseconds> firing;  // until when, as the receiver has it
    std::set<int64_t> sent;
    std::optional<Message> message;
    std::chrono::milliseconds time{1h};
    int64_t lastId = 0, lastSequence = 0;
    bool healthy = false;
};

TEST(Receiver, ThatWasToldOfAnAlarmIsToldInTheEndThatItIsOver) {
    for (const WebhookFormat format : {WebhookFormat::kJson, WebhookFormat::kAlertmanager}) {
        for (unsigned seed = 0; seed < 150; ++seed) {
            SCOPED_TRACE("seed " + std::to_string(seed) +
                         (format == WebhookFormat::kJson ? " json" : " alertmanager"));
            World world(seed, format);
            for (int i = 0; i < 300 && !testing::Test::HasFatalFailure(); ++i) {
                world.step();
                world.expectDiskComplete();
            }
            ASSERT_FALSE(testing::Test::HasFatalFailure());
            world.settleDown();
            std::set<int64_t> wanted;  // what is raised and severe enough is told, whatever happened
            const std::set<int64_t> held = world.held();
            for (const auto& [id, severity] : world.active) {
                const bool spoilt = id % 7 == 3;  // may have been given up
                if (severity <= world.webhook.minimumSeverity && world.active.size() < 15 && !spoilt) {
                    ASSERT_TRUE(held.contains(id)) << "silent: " << id;
                }
                wanted.insert(id);
            }
            ASSERT_THAT(wanted, testing::IsSupersetOf(held)) << "told and over, and never cleared";
            while (!world.active.empty()) {
                world.clear();
            }
            world.settleDown();
            world.time += world.pace.alertLife;
            ASSERT_THAT(world.held(), testing::IsEmpty());
            ASSERT_TRUE(world.receiver->done());
            ASSERT_TRUE(world.disk.owed.empty() && world.disk.told.empty());
        }
    }
}

TEST(Receiver, FindsTheOneBadNotificationWithoutHoldingUpTheOthers) {
    struct Case {
        WebhookFormat format;
        int64_t alarms;
        std::set<int64_t> bad;
    };
    const Case cases[] = {{WebhookFormat::kAlertmanager, 500, {1}},
                          {WebhookFormat::kAlertmanager, 500, {250, 251, 500}},
                          {WebhookFormat::kJson, 900, {77}}};
    for (const Case& one : cases) {
        Webhook webhook;
        webhook.format = one.format;
        webhook.maxPerMinute = one.format == WebhookFormat::kJson ? 40 : 1000;
        Receiver receiver(webhook, {});
        int64_t sequence = 0;
        for (int64_t id = 1; id <= one.alarms; ++id) {
            receiver.owe(raised(id), sequence);
        }
        std::set<int64_t> told;
        SteadyTime time{1h};
        const SteadyTime begin = time;
        for (int i = 0; i < 500 && told.size() + one.bad.size() < static_cast<std::size_t>(one.alarms); ++i) {
            DeliveryChanges changes;
            const auto message = receiver.next(time, changes);
            if (!message) {
                time = std::max(time, receiver.due(time));
                continue;
            }
            bool bad = false;
            for (const Notification& notification : message->notifications) {
                bad = bad || one.bad.contains(notification.alarmId);
            }
            for (const Notification& notification : message->notifications) {
                if (!bad) {
                    told.insert(notification.alarmId);
                }
            }
            receiver.settle(status(bad ? 400 : 200), {time, {}});
        }
        EXPECT_EQ(told.size() + one.bad.size(), static_cast<std::size_t>(one.alarms));
        EXPECT_LE(time - begin, one.format == WebhookFormat::kJson ? 61s : 0s);
        EXPECT_EQ(receiver.statistics().owed, one.bad.size()) << "tried again";
        EXPECT_FALSE(receiver.statistics().failingSince);
    }
}

TEST(Receiver, LeavesOneAloneThatRefusesEverythingAndSaysSo) {
    for (const long code : {400, 503}) {
        Receiver receiver(Webhook{}, {});
        int64_t sequence = 0;
        for (int64_t id = 1; id <= 50; ++id) {
            receiver.owe(raised(id), sequence);
        }
        SteadyTime time{1h};
        int attempts = 0;
        while (time < SteadyTime{2h}) {
            DeliveryChanges changes;
            if (receiver.next(time, changes)) {
                ++attempts;
                receiver.settle(status(code), {time, {}});
            } else {
                time = std::max(time, receiver.due(time));
            }
        }
        EXPECT_LT(attempts, 200) << code;
        EXPECT_TRUE(receiver.statistics().failingSince) << code;
        EXPECT_LT(*receiver.statistics().failingSince, SteadyTime{1h + 1min});
    }
}

TEST(Receiver, DropsTheOldestRaisesAndNoClear) {
    DeliveryPace pace;
    pace.owed = 10;
    Webhook webhook;
    webhook.maxPerMinute = 1000;
    Receiver receiver(webhook, pace);
    int64_t sequence = 0;
    DeliveryChanges changes;
    const Now now{SteadyTime{1h}, {}};
    for (int64_t id = 1; id <= 8; ++id) {
        receiver.owe(raised(id), sequence);
        ASSERT_TRUE(receiver.next(now.steady, changes));
        receiver.settle(status(200), now);
    }
    for (int64_t id = 1; id <= 8; ++id) {
        receiver.owe(cleared(id), sequence);
    }
    for (int64_t id = 11; id <= 30; ++id) {
        receiver.owe(raised(id), sequence);
    }
    std::vector<int64_t> told;
    while (const auto message = receiver.next(now.steady, changes)) {
        told.push_back(message->notifications.at(0).alarmId);
        receiver.settle(status(200), now);
    }
    EXPECT_THAT(told, testing::ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 29, 30));
    EXPECT_EQ(receiver.statistics().dropped, 18);
    EXPECT_TRUE(receiver.wantsActive()) << "those left out are still raised, perhaps";
    receiver.resume({{raised(15), false}, {raised(29), false}, {raised(30), false}}, sequence, {});
    const auto message = receiver.next(now.steady, changes);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->notifications.at(0).alarmId, 15);
}

TEST(SendPace, SplitsWhatIsRefusedAndLeavesAloneWhoeverTakesNothing) {
    using State = SendPace::State;
    struct Step {
        char what;  // d: delivered, f: failed, r: refused, R: refused again alone, h: configured anew
        std::size_t size;
        State state;
        std::size_t limit;
        std::chrono::milliseconds wait;  // give or take a fifth
    };
    const Step steps[] = {
        {'r', 1000, State::kSplitting, 500, 0s}, {'r', 500, State::kSplitting, 250, 0s},
        {'r', 3, State::kSplitting, 2, 0s},      {'r', 1, State::kSplitting, 2, 0s},
        {'d', 2, State::kTaking, 4, 0s},         {'f', 4, State::kFailing, 4, 1s},
        {'f', 4, State::kFailing, 4, 2s},        {'r', 4, State::kSplitting, 2, 2s},
        {'f', 2, State::kFailing, 2, 4s},        {'h', 0, State::kTaking, 2, 0s},
        {'f', 2, State::kFailing, 2, 1s},        {'d', 2, State::kTaking, 4, 0s},
    };
    SendPace pace({}, 100);
    const SteadyTime now{1h};
    const auto act = [&](char what, std::size_t size) {
        switch (what) {
            case 'd':
                return pace.delivered(false);
            case 'f':
                return pace.failed(now);
            case 'h':
                return pace.hurry();
            default:
                return pace.refused(size, what == 'R', now);
        }
    };
    const auto expectWait = [&](std::chrono::milliseconds wait) {
        EXPECT_GE(pace.retryAt(), wait == 0ms ? SteadyTime{} : now + wait * 4 / 5);
        EXPECT_LE(pace.retryAt(), wait == 0ms ? SteadyTime{} : now + wait * 6 / 5);
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(&step - steps);
        act(step.what, step.size);
        EXPECT_EQ(pace.state(), step.state);
        EXPECT_EQ(pace.limit(), step.limit);
        expectWait(step.wait);
    }
    for (unsigned i = 0; i < SendPace::kQuickRefusals; ++i) {
        act('r', 1);
        act('R', 1);  // counts for nothing
        EXPECT_EQ(pace.state(), State::kSplitting) << i;
        expectWait(0s);
    }
    for (const auto wait : {1s, 2s, 4s}) {
        act('r', 1);
        EXPECT_EQ(pace.state(), State::kRefusing);
        expectWait(wait);
    }
    EXPECT_TRUE(pace.waits(now));
    for (int i = 0; i < 40; ++i) {
        act('f', 1);
    }
    expectWait(DeliveryPace{}.longestWait);
}

TEST(SendPace, CountsTheMessagesOfAMinute) {
    SendPace pace({}, 4);
    const SteadyTime begin{1h};
    pace.enterMinute(begin);
    pace.delivered(true);  // a refresh is not of them
    for (int sent = 0; sent < 4; ++sent) {
        EXPECT_FALSE(pace.minuteSpent(begin)) << sent;
        EXPECT_EQ(pace.halfSpent(), sent > 2);
        pace.delivered(false);
    }
    pace.failed(begin);
    pace.enterMinute(begin + 59s);
    EXPECT_TRUE(pace.minuteSpent(begin + 59s));
    EXPECT_EQ(pace.minuteEnd(), begin + 60s);
    EXPECT_FALSE(pace.minuteSpent(begin + 60s));
    pace.enterMinute(begin + 60s);
    EXPECT_FALSE(pace.halfSpent());
    pace.setPerMinute(0);
    EXPECT_FALSE(pace.minuteSpent(begin + 60s)) << "one a minute at least";
    pace.delivered(false);
    EXPECT_TRUE(pace.minuteSpent(begin + 60s));
}

TEST(RefreshCycle, GoesThroughAllOnceAMinuteAndRepeatsWhatWasNotTaken) {
    RefreshCycle cycle(60s);
    const SteadyTime now{1h};
    EXPECT_LE(cycle.due(), now);
    cycle.beginMessage();
    cycle.cover(7);
    EXPECT_EQ(cycle.position(), 7);
    cycle.beginMessage();
    cycle.cover(9);
    cycle.finish(now);
    EXPECT_EQ(cycle.position(), 0);
    EXPECT_EQ(cycle.due(), now + 60s);
    cycle.repeatMessage();
    EXPECT_EQ(cycle.position(), 7) << "the last message alone";
    EXPECT_LE(cycle.due(), now);
    cycle.restart();
    EXPECT_EQ(cycle.position(), 0);
    EXPECT_LE(cycle.due(), now);
}

}  // namespace
}  // namespace station
