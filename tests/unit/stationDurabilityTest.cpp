// What the station says is stored is on the disk: the order of its calls, and what disks that fail leave.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <mutex>

#include "channelSaver.h"
#include "common/textFile.h"
#include "store/deliveryDatabase.h"
#include "store/eventStore.h"
#include "support/scratch.h"

namespace {

// The calls that make a file last, as this process made them: "sync NAME", "rename NAME".
struct Calls {
    std::mutex mutex;
    std::vector<std::string> made;
};

Calls& calls() {
    static Calls all;
    return all;
}

void note(const std::string& call) {
    const std::lock_guard lock(calls().mutex);
    calls().made.push_back(call);
}

int noted(long number, int file) {
    std::error_code error;
    const auto link = "/proc/self/fd/" + std::to_string(file);
    note("sync " + std::filesystem::read_symlink(link, error).filename().string());
    return static_cast<int>(syscall(number, file));
}

std::vector<std::string> takeCalls() {
    const std::lock_guard lock(calls().mutex);
    return std::exchange(calls().made, {});
}

}  // namespace

// Found before those of the C library, by SQLite as well.
extern "C" {
int fsync(int file) {
    return noted(SYS_fsync, file);
}
int fdatasync(int file) {
    return noted(SYS_fdatasync, file);
}
int rename(const char* from, const char* to) noexcept {
    note("rename " + std::filesystem::path(to).filename().string());
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}
}

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr WallTime kTime{std::chrono::hours(24 * 365 * 50)};

// No file of this process gets larger.
class SmallFiles {
  public:
    explicit SmallFiles(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit small{bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~SmallFiles() {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }

  private:
    rlimit before_{};
    sighandler_t handler_;
};

TEST(StationDurability, ATextFileIsOnTheDiskBeforeItsNameIsAndItsNameAfterwards) {
    const ScratchDirectory directory;
    const auto file = directory.path() / "channels.json";
    takeCalls();
    const mode_t mask = umask(0);
    ASSERT_EQ(replaceTextFile(file, "before"), "");
    umask(mask);
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0640));
    EXPECT_THAT(takeCalls(), ElementsAre("sync channels.json.new", "rename channels.json",
                                         "sync " + directory.path().filename().string()));
    {
        const SmallFiles full(1000);
        EXPECT_THAT(replaceTextFile(file, std::string(3000, 'x')), HasSubstr("cannot be written"));
    }
    EXPECT_EQ(contentOf(file), "before");
    EXPECT_THAT(takeCalls(), Not(Contains("rename channels.json")));
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "channels.json.new")) << "it takes space";
}

Event event(int64_t id, EventKind kind, int64_t alarmId = 0) {
    Event one;
    one.id = id;
    one.time = kTime;
    one.kind = kind;
    one.group = *Group::parse("239.1.1.1");
    one.alarm = alarmId == 0 ? "" : "no_signal";
    one.alarmId = alarmId;
    one.severity = Severity::kMajor;
    return one;
}

struct Store : EventStore {
    explicit Store(const ScratchDirectory& directory)
        : EventStore(directory.path(), {90, 1'000'000}, [] {
              return Now{std::chrono::steady_clock::now(), kTime};
          }) {}

    // What was synced by the time at which the entry was said to be stored.
    std::vector<std::string> syncedBy(const std::function<void(Stored)>& give) {
        std::promise<std::vector<std::string>> stored;
        takeCalls();
        give([&](const std::string& problem) {
            EXPECT_EQ(problem, "");
            stored.set_value(takeCalls());
        });
        return stored.get_future().get();
    }
    std::vector<std::string> syncedBy(const Event& one) {
        return syncedBy([&](Stored stored) { record(one, std::move(stored)); });
    }
};

TEST(StationDurability, WhatBelongsToAnAlarmIsOnTheDiskWhenItIsSaidToBe) {
    const ScratchDirectory directory;
    Store store(directory);
    int64_t id = 0;
    for (const EventKind kind :
         {EventKind::kRaised, EventKind::kAcknowledged, EventKind::kCleared, EventKind::kHappened}) {
        SCOPED_TRACE(eventKindName(kind));
        EXPECT_THAT(store.syncedBy(event(++id, EventKind::kChannelChanged)), IsEmpty())
            << "of ten thousand channels at once none may wait for a disk";
        EXPECT_THAT(store.syncedBy(event(++id, kind, 2)), Contains("sync events.db-wal"));
    }
    for (const bool put : {true, false}) {
        EXPECT_THAT(store.syncedBy(event(++id, EventKind::kChannelChanged)), IsEmpty());
        EXPECT_THAT(store.syncedBy([&](EventStore::Stored stored) {
            put ? store.putMaintenance({1, kTime, kTime + 1h, {}, "", ""}, std::move(stored))
                : store.removeMaintenance(1, std::move(stored));
        }),
                    Contains("sync events.db-wal"))
            << put;
    }
}

TEST(StationDurability, WhatAReceiverMayKnowIsOnTheDiskBeforeItIsSent) {
    const ScratchDirectory directory;
    const Patience patience;
    DeliveryDatabase database(directory.path() / "delivery.db", patience);
    Notification raised;
    raised.alarmId = 1;
    raised.alarm = "no_signal";
    raised.time = raised.raisedAt = kTime;
    ReceiverChanges owed(1);
    owed[0].first = "receiver";
    owed[0].second.owed.push_back({1, raised, false});
    ReceiverChanges sent(1);
    sent[0].first = "receiver";
    sent[0].second.sent.emplace_back(1, true);
    for (const ReceiverChanges& changes : {owed, sent}) {
        takeCalls();
        database.apply(changes);
        EXPECT_THAT(takeCalls(), Contains("sync delivery.db-wal"));
    }
    const StoredReceivers stored = database.load();
    ASSERT_EQ(stored.at("receiver").owed.size(), 1U);
    EXPECT_TRUE(stored.at("receiver").owed[0].sent);
    database.replace(stored);
    EXPECT_EQ(database.load().at("receiver").owed.size(), 1U);
}

TEST(StationDurability, ASaveThatFailedIsMadeUpForAtTheEnd) {
    const ScratchDirectory directory;
    ChannelSaver saver(directory.path(), [](LoadedRuntime&&) {});
    ASSERT_TRUE(saver.load(5s).channels);
    Channel channel{.group = *Group::parse("239.9.9.9"), .name = "kept", .origin = Origin::kRuntime};
    std::promise<std::string> told;
    std::filesystem::create_directory(directory.path() / "channels.json.new");  // cannot be written
    saver.save({{channel.group, RuntimeChannel{channel}}},
               [&](const std::string& problem) { told.set_value(problem); });
    EXPECT_THAT(told.get_future().get(), HasSubstr("cannot be created"));
    std::filesystem::remove(directory.path() / "channels.json.new");
    EXPECT_TRUE(saver.end(5s));
    EXPECT_THAT(contentOf(directory.path() / "channels.json"), HasSubstr("\"kept\""));
}

}  // namespace
}  // namespace station
