// What happens at the bounds of the station's queues: what is dropped, what is refused, and that it is
// counted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "common/boundedQueue.h"
#include "store/delivery.h"
#include "store/deliveryKeeper.h"
#include "store/eventStore.h"
#include "store/receiver.h"
#include "support/databaseHolder.h"
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

TEST(StationBounds, EventsThatWaitForTheDiskLoseTheOldestAndNoWindow) {
    const ScratchDirectory directory;
    std::filesystem::create_directory(directory.path() / "events.db");  // cannot be opened
    const auto open = [&directory] {
        return std::make_unique<EventStore>(directory.path(), EventStore::Limits{90, 1'000'000}, [] {
            return Now{std::chrono::steady_clock::now(), kTime};
        });
    };
    std::unique_ptr<EventStore> store = open();
    constexpr auto kBound = static_cast<int64_t>(EventStore::kStoreQueue);
    const int64_t first = store->initial().lastId + 1;
    const Maintenance window{first, kTime, kTime + 1h, {}, "works", "ann"};
    store->putMaintenance(window);  // takes one of the places
    for (int64_t id = first; id < first + kBound + 4; ++id) {
        Event one;
        one.id = id;
        one.time = kTime;
        one.kind = EventKind::kChannelChanged;
        store->record(std::move(one));
    }
    EXPECT_TRUE(eventually([&] { return store->statistics().dropped == 5; }));
    std::filesystem::remove(directory.path() / "events.db");
    EXPECT_TRUE(eventually([&] { return store->statistics().written == EventStore::kStoreQueue - 1; }));
    EXPECT_EQ(store->statistics().dropped, 5U);
    for (const auto& [before, id] :
         {std::pair(first + 6, first + 5), {first + kBound + 9, first + kBound + 3}}) {
        std::promise<int64_t> found;
        ASSERT_TRUE(store->query({.before = before, .limit = 1},
                                 [&](std::vector<Event>&& events, const std::string&) {
                                     found.set_value(events.empty() ? 0 : events[0].id);
                                 }));
        EXPECT_EQ(found.get_future().get(), id) << "the oldest went, the newest is there";
    }
    store.reset();
    EXPECT_THAT(open()->initial().maintenance, ElementsAre(window)) << "nobody would set it again";
}

TEST(StationBounds, OfDatabasesThatWerePutAsideTheNewestAreKept) {
    const ScratchDirectory directory;
    const auto file = directory.path() / "events.db";
    std::string newest;
    for (std::size_t i = 0; i < kPutAsideKept + 2; ++i) {
        std::ofstream(file) << i;
        std::ofstream(file.string() + "-wal") << i;
        newest = putAside(file, "damaged");
        ASSERT_NE(newest, "");
    }
    EXPECT_EQ(contentOf(newest), std::to_string(kPutAsideKept + 1));
    const std::filesystem::directory_iterator left(directory.path());
    EXPECT_EQ(std::distance(left, {}), 2 * static_cast<std::ptrdiff_t>(kPutAsideKept)) << "with their logs";
}

TEST(StationBounds, ChangesOfDeliveriesThatWaitForTheDiskMakeWayForAllAtOnce) {
    const ScratchDirectory directory;
    DeliveryKeeper keeper(directory.path() / "delivery.db", [] {});
    ASSERT_TRUE(eventually([&] { return keeper.takeLoaded().has_value(); }));
    auto ticket = keeper.replace({});
    ASSERT_TRUE(eventually([&] { return !keeper.pending(ticket); }));
    std::optional<Holder> holder(directory.path() / "delivery.db");
    for (std::size_t i = 0; i < DeliveryKeeper::kJobs; ++i) {
        ticket = keeper.save({});
    }
    EXPECT_TRUE(keeper.pending(ticket));
    for (std::size_t i = 0; i < DeliveryKeeper::kJobs; ++i) {  // as many may be being written
        keeper.save({});
    }
    EXPECT_FALSE(keeper.pending(keeper.save({}))) << "nobody waits for what was left out";
    holder.reset();
    EXPECT_TRUE(eventually([&] { return keeper.wantsAll(); }));
}

// While the disk is waited for nothing is taken up, so that they come faster than they go.
TEST(StationBounds, NotificationsThatFoundNoRoomAreCountedAndWhatIsRaisedIsAskedFor) {
    const ScratchDirectory directory;
    std::optional<Holder> holder(directory.path() / "delivery.db");
    constexpr std::size_t kMany = 3 * Delivery::kNotifyQueue;
    DeliveryPace pace;
    pace.owed = pace.accounts = 2 * kMany;
    const auto flood = [](Delivery& delivery) {
        Notification one;
        one.severity = Severity::kCritical;
        for (std::size_t number = 0; number < kMany; ++number) {
            ++one.alarmId;
            delivery.notify(one);
        }
    };
    {
        Delivery delivery(directory.path(), "p", pace);
        Webhook webhook;
        webhook.url = "http://127.0.0.1:1";  // takes nothing
        delivery.configure({webhook});
        flood(delivery);
        const auto counted = [&delivery] {
            const auto all = delivery.statistics();
            return all.empty() ? Delivery::ReceiverStatistics{} : all[0];
        };
        EXPECT_TRUE(eventually([&] { return counted().owed + counted().dropped == kMany; }))
            << counted().owed << " owed, " << counted().dropped << " dropped";
        EXPECT_GT(counted().dropped, 0U);
    }
    {
        Delivery delivery(directory.path(), "p", pace);  // without a receiver that would ask by itself
        EXPECT_FALSE(delivery.wantsActive());
        flood(delivery);
        EXPECT_TRUE(eventually([&] { return delivery.wantsActive(); }));
    }
    holder.reset();
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
