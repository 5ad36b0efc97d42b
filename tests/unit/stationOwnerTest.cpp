// The whole station without a probe: what its files say later than they should loses nothing, and what the
// main thread does on signals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "channelSaver.h"
#include "common/textFile.h"
#include "serviceUser.h"
#include "station.h"
#include "support/scratch.h"
#include "support/webhookServer.h"

namespace station {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr int64_t kId = 7;
constexpr int64_t kWindow = 6;

class SignalMask {  // FileKeeper blocks signals for the thread that makes it
  public:
    SignalMask() {
        pthread_sigmask(SIG_SETMASK, nullptr, &before_);
    }
    ~SignalMask() {
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    SignalMask(const SignalMask&) = delete;

  private:
    sigset_t before_{};
};

struct Site {
    ScratchDirectory directory;
    fs::path state = directory.path() / "state";
    WebhookServer server;
    std::shared_ptr<Configuration> configuration = std::make_shared<Configuration>();
    Group group = *Group::parse("239.1.1.1");

    Site() {
        configuration->listen = "";
        configuration->socket = directory.path() / "socket";
        configuration->meterSocket = directory.path() / "meter";
        configuration->state = state;
        configuration->pipe = directory.path() / "pipe";
        configuration->controllerEndpoint = "ipc://" + (directory.path() / "controller").string();
        configuration->page = directory.path();
        configuration->webhooks.emplace_back().url = server.url();
        configuration->profiles.at(std::string(kDefaultProfile))
            .at(*findAlarmType("probe_silent"))
            .raiseDelay = {};
    }
    RuntimeChannels channels() const {
        Channel channel{.group = group, .name = "News", .origin = Origin::kRuntime};
        return {{group, RuntimeChannel{channel}}};
    }
    // A channel's alarm that was raised and told when the station ended.
    void raiseBefore() {
        Event raised;
        raised.id = raised.alarmId = kId;
        raised.time = systemNow().wall;
        raised.kind = EventKind::kRaised;
        raised.alarm = "no_signal";
        raised.severity = Severity::kCritical;
        raised.group = group;
        {
            EventStore store(state, {90, 1'000'000}, systemNow);
            store.record(raised);
            std::promise<std::string> stored;
            store.putMaintenance(
                {kWindow, raised.time, raised.time + 1h, Group::parse("239.1.1.2"), "works", ""},
                [&](const std::string& problem) { stored.set_value(problem); });
            ASSERT_EQ(stored.get_future().get(), "");
        }
        Delivery delivery(state, configuration->instance);
        delivery.configure(configuration->webhooks);
        Notification told;
        told.alarmId = kId;
        told.alarm = raised.alarm;
        told.severity = Severity::kCritical;
        told.group = group.text();
        delivery.resume({{told, false}});
        ASSERT_TRUE(eventually([&] { return count("raised", "no_signal") == 1; }));
        ASSERT_TRUE(eventually([&] { return delivery.statistics().at(0).delivered == 1; }));
    }
    // Messages that were taken.
    std::ptrdiff_t count(const std::string& state_, const std::string& alarm) const {
        const auto bodies = server.taken();
        return std::ranges::count_if(bodies, [&](const std::string& body) {
            const auto message = nlohmann::json::parse(body);
            return std::ranges::any_of(message["notifications"], [&](const auto& one) {
                return one["state"] == state_ && one["alarm"] == alarm;
            });
        });
    }
};

// The station of a site, with what its main thread has.
struct Running {
    const SignalMask mask;
    Mailbox mailbox;
    FileKeeper keeper{{"", [](Configuration&) {}, readTextFile}, mailbox};
    Station station;

    Running(const Site& site, LoadedRuntime&& channels)
        : station(read(site, [](Configuration&) {}), std::move(channels), keeper, mailbox) {}

    static LoadedFiles read(const Site& site, const std::function<void(Configuration&)>& change) {
        LoadedFiles files;
        const auto configuration = std::make_shared<Configuration>(*site.configuration);
        change(*configuration);
        files.configuration = configuration;
        return files;
    }
    // Files are read anew, and the configuration has this change.
    void reload(const Site& site, const std::function<void(Configuration&)>& change) {
        mailbox.send(read(site, change));
    }
};

// The station's answer to a GET over its socket.
nlohmann::json asked(const fs::path& path, const std::string& target) {
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    std::string answer;
    if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const std::string request = "GET " + target + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
        send(connection, request.data(), request.size(), MSG_NOSIGNAL);
        std::array<char, 65536> bytes{};
        for (ssize_t count = 0; (count = recv(connection, bytes.data(), bytes.size(), 0)) > 0;) {
            answer.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }
    close(connection);
    const std::size_t body = answer.find("\r\n\r\n");
    return body == std::string::npos ? nlohmann::json()
                                     : nlohmann::json::parse(answer.substr(body), nullptr, false);
}

TEST(Station, AlarmsAndWindowsOutliveFilesThatCanBeReadLater) {
    for (const bool eventsToo : {false, true}) {
        SCOPED_TRACE(eventsToo ? "channels.json and events.db" : "channels.json");
        Site site;
        site.raiseBefore();
        if (eventsToo) {
            fs::rename(site.state / "events.db", site.state / "elsewhere");
            fs::create_directory(site.state / "events.db");
        }
        Running running(site, {std::nullopt, "channels.json cannot be read"});
        // By then receivers were told what is raised.
        ASSERT_TRUE(eventually([&] { return site.count("raised", "probe_silent") == 1; }));
        if (eventsToo) {
            fs::remove(site.state / "events.db");
            fs::rename(site.state / "elsewhere", site.state / "events.db");
        }
        nlohmann::json windows;
        ASSERT_TRUE(eventually([&] {
            windows = asked(site.configuration->socket, "/api/v1/maintenance");
            return windows.size() == 1;
        })) << windows;
        EXPECT_EQ(windows[0]["id"], kWindow);
        running.mailbox.send(LoadedRuntime{site.channels(), {}});
        std::this_thread::sleep_for(1500ms);
        EXPECT_EQ(site.count("cleared", "no_signal"), 0);
        running.mailbox.send(LoadedRuntime{RuntimeChannels{}, {}});
        EXPECT_TRUE(eventually([&] { return site.count("cleared", "no_signal") == 1; })) << "it was raised";
    }
}

TEST(Station, TellsAWebhookThatAReloadAddsWhatIsRaised) {
    Site site;
    site.raiseBefore();
    const WebhookServer added;
    Running running(site, {site.channels(), {}});
    ASSERT_TRUE(eventually([&] { return site.count("raised", "probe_silent") == 1; }));
    running.reload(site, [&](Configuration& read) { read.webhooks.emplace_back().url = added.url(); });
    EXPECT_TRUE(eventually([&] {
        const auto bodies = added.taken();
        return std::ranges::any_of(bodies, [](const std::string& body) {
            return body.find("\"alarmId\":" + std::to_string(kId) + ",") != std::string::npos;
        });
    }));
    EXPECT_EQ(site.count("raised", "no_signal"), 1) << "whoever knows it is told nothing";
}

TEST(Station, NotesWhatNeedsARestartAsLongAsItDoes) {
    const Site site;
    Running running(site, {RuntimeChannels{}, {}});
    const auto listen = [&](const char* where) {
        running.reload(site, [where](Configuration& read) { read.listen = where; });
    };
    const auto notes = [&] {
        const auto status = asked(site.configuration->socket, "/api/v1/status");
        return status.is_object() ? status["notes"].dump() : "no answer";
    };
    EXPECT_EQ(notes(), "[]");
    const char* const kNote = "listen was changed to";
    listen("127.0.0.1:1");
    EXPECT_TRUE(eventually([&] { return notes().find(kNote) != std::string::npos; })) << notes();
    listen("127.0.0.1:1");
    std::this_thread::sleep_for(1500ms);
    EXPECT_NE(notes().find(kNote), std::string::npos) << "a reload that changes nothing mends nothing";
    listen("");
    EXPECT_TRUE(eventually([&] { return notes() == "[]"; })) << notes();
}

TEST(ServiceUser, IsToldApartFromRootByWhatItCannotRead) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may be somebody else";
    }
    const ScratchDirectory directory;
    const auto write = [&](const char* name, const char* text, fs::perms rights) {
        std::ofstream(directory.path() / name) << text;
        fs::permissions(directory.path() / name, rights);
    };
    constexpr auto kAll = fs::perms(0644);
    constexpr auto kRoot = fs::perms(0600);
    fs::permissions(directory.path(), fs::perms(0755));
    const fs::path file = directory.path() / "station.toml";
    write("station.toml", "token_file = \"token\"\n[[playlist]]\nfile = \"a.m3u\"\n", kAll);
    const struct {
        fs::perms configuration, token, playlist;
        const char* told;
    } cases[] = {{kAll, kAll, kAll, ""},
                 {kAll, kAll, kRoot, "a.m3u cannot be read by the user nobody"},
                 {kAll, kRoot, kAll, "token"},
                 {kRoot, kAll, kAll, "station.toml"}};
    for (const auto& one : cases) {
        write("token", "secret", one.token);
        write("a.m3u", "#EXTM3U\n", one.playlist);
        fs::permissions(file, one.configuration);
        std::string told;
        for (const Mistake& mistake : unreadableFor("nobody", file)) {
            told += mistake.message() + "\n";
        }
        EXPECT_EQ(told.empty(), *one.told == '\0') << told;
        EXPECT_NE(told.find(one.told), std::string::npos) << told;
        EXPECT_EQ(told.empty(), told.find("nobody") == std::string::npos);
        EXPECT_EQ(geteuid(), 0U);
    }
    EXPECT_TRUE(unreadableFor("no such user", file).empty());
}

// FileKeeper on a configuration of one playlist, with a disk that hangs where a test says so.
struct Kept {
    ScratchDirectory directory;
    const SignalMask mask;
    Mailbox mailbox;
    std::mutex hanging;  // while it is held no playlist is read
    std::atomic<int> readings{0};
    std::optional<FileKeeper> keeper;
    std::thread serving;
    std::atomic<bool> over{false};

    // With the files loaded and their changes followed, or with neither.
    explicit Kept(bool serves = true) {
        std::ofstream(directory.path() / "station.toml") << "[[playlist]]\nfile = \"a.m3u\"\n";
        write(1);
        keeper.emplace(FileReader::Options{directory.path() / "station.toml", [](Configuration&) {},
                                           [this](const fs::path& file, std::size_t limit, auto& problem) {
                                               ++readings;
                                               const std::lock_guard lock(hanging);
                                               return readTextFile(file, limit, problem);
                                           }},
                       mailbox);
        if (!serves) {
            return;
        }
        EXPECT_EQ(keeper->load()->playlists.at(0).second.channels.size(), 1U);
        EXPECT_TRUE(keeper->loadRuntime(directory.path()).channels);
        serving = std::thread([this] {
            keeper->run();
            over = true;
        });
    }
    ~Kept() {
        if (!over) {
            kill(getpid(), SIGTERM);
        }
        if (serving.joinable()) {
            serving.join();
        }
        keeper.reset();
    }
    // The playlist, so that nothing tells that it changed but what is in it.
    void write(int channels) {
        std::string text = "#EXTM3U\n";
        for (int i = 1; i <= channels; ++i) {
            text += "udp://@239.1.1." + std::to_string(i) + ":1\n";
        }
        std::ofstream(directory.path() / "a.m3u") << text;
    }
};

TEST(FileKeeper, ReadsAllFilesOnSighupAndEndsOnSigterm) {
    Kept kept;
    for (int times = 0; times < 2; ++times) {
        kill(getpid(), SIGHUP);
        const auto files = kept.mailbox.drainUntil(std::chrono::steady_clock::now() + 30s).files;
        ASSERT_TRUE(files) << "told though nothing changed";
        EXPECT_EQ(files->playlists.at(0).second.channels.size(), 1U);
        EXPECT_FALSE(kept.over);
    }
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(eventually([&] { return kept.over.load(); }));
    EXPECT_TRUE(kept.keeper->end());
}

TEST(FileKeeper, EndsOnSigtermWhileTheFirstReadingHangs) {
    Kept kept(false);
    std::unique_lock hang(kept.hanging);
    std::optional<LoadedFiles> files;
    std::thread loading([&] {
        files = kept.keeper->load();
        kept.over = true;
    });
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(kept.over) << "the disk hangs";
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(eventually([&] { return kept.over.load(); }));
    hang.unlock();
    loading.join();
    EXPECT_FALSE(files) << "nothing is started any more";
}

TEST(FileKeeper, LetsNoMoreWaitForAReadingThanItMay) {
    Kept kept;
    std::atomic<std::size_t> told{0};
    const auto ask = [&] { return kept.keeper->reload([&](const ReadResult&) { ++told; }); };
    std::unique_lock hang(kept.hanging);
    const int before = kept.readings;
    kill(getpid(), SIGHUP);
    ASSERT_TRUE(eventually([&] { return kept.readings > before; })) << "and that reading does not end";
    for (std::size_t i = 0; i < FileKeeper::kAskers; ++i) {
        ASSERT_TRUE(ask()) << i;
    }
    EXPECT_FALSE(ask());
    hang.unlock();
    while (told < FileKeeper::kAskers) {
        const auto files = kept.mailbox.drainUntil(std::chrono::steady_clock::now() + 30s).files;
        ASSERT_TRUE(files);
        for (const auto& asker : files->askers) {
            asker();
        }
    }
    EXPECT_TRUE(ask()) << "there is room again";
}

TEST(FileKeeper, LetsNoMoreWaitForASlowDiskThanItMay) {
    Kept kept;
    const fs::path slow = kept.directory.path() / "channels.json.new";
    ASSERT_EQ(mkfifo(slow.c_str(), 0600), 0);  // opening it waits until somebody reads it
    std::atomic<std::size_t> told{0};
    std::atomic<std::size_t> refused{0};
    const auto save = [&] {
        kept.keeper->save({}, [&](const std::string& problem) {
            problem.find("too many changes wait") == std::string::npos ? ++told : ++refused;
        });
    };
    for (std::size_t i = 0; i < ChannelSaver::kAskers; ++i) {
        save();
    }
    EXPECT_EQ(refused, 0U);
    constexpr std::size_t kMore = 300;  // what is being written makes room once
    for (std::size_t i = 0; i < kMore; ++i) {
        save();
    }
    EXPECT_GE(refused, kMore - ChannelSaver::kAskers);
    const int reader = open(slow.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(eventually([&] { return told + refused == ChannelSaver::kAskers + kMore; })) << told;
    close(reader);
}

}  // namespace
}  // namespace station
