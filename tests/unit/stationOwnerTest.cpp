// The whole station without a probe: what its files say later than they should loses nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>

#include "channels/textFile.h"
#include "station.h"
#include "support/scratch.h"
#include "support/webhookServer.h"

namespace station {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr int64_t kId = 7;

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
        EventStore(state, {90, 1'000'000}, systemNow).record(raised);
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

TEST(Station, AlarmsOutliveFilesThatCanBeReadLater) {
    for (const bool eventsToo : {false, true}) {
        SCOPED_TRACE(eventsToo ? "channels.json and events.db" : "channels.json");
        Site site;
        site.raiseBefore();
        if (eventsToo) {
            fs::rename(site.state / "events.db", site.state / "elsewhere");
            fs::create_directory(site.state / "events.db");
        }
        const SignalMask mask;
        Mailbox mailbox;
        FileKeeper keeper({"", [](Configuration&) {}, readTextFile}, mailbox);
        LoadedFiles files;
        files.configuration = site.configuration;
        const Station station(std::move(files), {std::nullopt, "channels.json cannot be read"}, keeper,
                              mailbox);
        // By then receivers were told what is raised.
        ASSERT_TRUE(eventually([&] { return site.count("raised", "probe_silent") == 1; }));
        if (eventsToo) {
            fs::remove(site.state / "events.db");
            fs::rename(site.state / "elsewhere", site.state / "events.db");
            std::this_thread::sleep_for(3s);  // read within a second, taken up within another
        }
        mailbox.send(LoadedRuntime{site.channels(), {}});
        std::this_thread::sleep_for(1500ms);
        EXPECT_EQ(site.count("cleared", "no_signal"), 0);
        mailbox.send(LoadedRuntime{RuntimeChannels{}, {}});
        EXPECT_TRUE(eventually([&] { return site.count("cleared", "no_signal") == 1; })) << "it was raised";
    }
}

}  // namespace
}  // namespace station
