// What happens at the bounds of the station's queues: what is dropped, what is refused, and that it is
// counted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "common/boundedQueue.h"
#include "store/eventStore.h"
#include "store/receiver.h"
#include "support/scratch.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr WallTime kTime{std::chrono::hours(24 * 365 * 57)};

TEST(StationBounds, AQueueBetweenThreadsTakesItsBoundAndNothingOnceClosed) {
    BoundedQueue<int> queue(3);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(queue.push(int(i)), i < 3) << i;
    }
    const SteadyTime past{};
    EXPECT_EQ(queue.popUntil(past), 0);
    EXPECT_TRUE(queue.push(7)) << "there is room again";
    queue.popUntil(past);
    queue.close();
    EXPECT_FALSE(queue.push(8)) << "though there is room: nobody would answer it";
    EXPECT_EQ(queue.popUntil(past), 2) << "what is queued can still be taken";
    EXPECT_EQ(queue.popUntil(past), 7);
    EXPECT_EQ(queue.popUntil(SteadyTime::max()), std::nullopt) << "and nobody waits for more";
}

TEST(StationBounds, EventsThatWaitForTheDiskLoseTheOldest) {
    const ScratchDirectory directory;
    std::filesystem::create_directory(directory.path() / "events.db");  // cannot be opened
    EventStore store(directory.path(), {90, 1'000'000}, [] {
        return Now{std::chrono::steady_clock::now(), kTime};
    });
    constexpr auto kBound = static_cast<int64_t>(EventStore::kStoreQueue);
    const int64_t first = store.initial().lastId + 1;
    for (int64_t id = first; id < first + kBound + 5; ++id) {
        Event one;
        one.id = id;
        one.time = kTime;
        one.kind = EventKind::kChannelChanged;
        store.record(std::move(one));
    }
    EXPECT_TRUE(eventually([&] { return store.statistics().dropped == 5; }));
    std::filesystem::remove(directory.path() / "events.db");
    EXPECT_TRUE(eventually([&] { return store.statistics().written == EventStore::kStoreQueue; }));
    EXPECT_EQ(store.statistics().dropped, 5U);
    for (const auto& [before, id] :
         {std::pair(first + 6, first + 5), {first + kBound + 9, first + kBound + 4}}) {
        std::promise<int64_t> found;
        ASSERT_TRUE(
            store.query({.before = before, .limit = 1}, [&](std::vector<Event>&& events, const std::string&) {
                found.set_value(events.empty() ? 0 : events[0].id);
            }));
        EXPECT_EQ(found.get_future().get(), id) << "the oldest went, the newest is there";
    }
}

TEST(StationBounds, NotificationsThatFoundNoRoomAreCounted) {
    Receiver receiver(Webhook{}, DeliveryPace{});
    receiver.lost(0);
    EXPECT_EQ(receiver.statistics().dropped, 0U);
    receiver.lost(7);
    EXPECT_EQ(receiver.statistics().dropped, 7U);
}

TEST(StationBounds, AReceiverKeepsAccountOfNoMoreAlarmsThanItMay) {
    DeliveryPace pace;
    pace.accounts = 5;
    Webhook webhook;
    webhook.maxPerMinute = 1000;
    Receiver receiver(webhook, pace);
    int64_t sequence = 0;
    for (int64_t id = 1; id <= 7; ++id) {
        Notification one;
        one.alarmId = id;
        one.severity = Severity::kCritical;
        receiver.owe(one, sequence);
    }
    EXPECT_EQ(receiver.statistics().owed, 5U);
    EXPECT_EQ(receiver.statistics().dropped, 2U);
}

}  // namespace
}  // namespace station
