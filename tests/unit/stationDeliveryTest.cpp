// Notifications on their way to receivers that fail, restart and complain.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <set>

#include "common/log.h"
#include "common/text.h"
#include "influx/influx.h"
#include "store/delivery.h"
#include "store/payload.h"
#include "support/databaseHolder.h"
#include "support/recordLine.h"
#include "support/scratch.h"
#include "support/webhookServer.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr WallTime kTime{std::chrono::hours(24 * 365 * 50)};
constexpr DeliveryPace kPace{.firstWait = 10ms, .longestWait = 20ms, .minute = 300ms, .refresh = 60ms};

Notification raised(int64_t id) {
    Notification one;
    one.alarmId = id;
    one.time = one.raisedAt = kTime;
    one.alarm = "no_signal";
    one.meaning = "No packets";
    one.severity = Severity::kMajor;
    one.group = "239.1.1.1";
    one.channel = "News";
    one.labels = {{"site", "north"}, {"2nd-floor", "ä"}, {"__x", "y"}, {"severity", "own"}};
    one.text = "no packets for 1 s";
    return one;
}

Notification cleared(int64_t id) {
    Notification one = raised(id);
    one.raised = false;
    one.time = kTime + 5s;
    one.channel = "Renamed";
    one.labels.clear();
    return one;
}

struct Receiving {
    ScratchDirectory directory;
    WebhookServer server;
    Webhook webhook;
    DeliveryPace pace = kPace;
    std::unique_ptr<Delivery> delivery;

    explicit Receiving(WebhookFormat format = WebhookFormat::kJson) {
        webhook.url = server.url();
        webhook.format = format;
        webhook.minimumSeverity = Severity::kMinor;
        webhook.maxPerMinute = 1000;
    }
    void start() {
        delivery.reset();
        delivery = std::make_unique<Delivery>(directory.path(), "probe1", pace);
        delivery->configure({webhook});
    }
    // Nothing is taken before it starts anew, or else it could end between an answer and its arrival.
    void restart(std::deque<int> answers) {
        delivery.reset();
        server.answer(std::move(answers));
        start();
    }
    void tell(std::initializer_list<Notification> notifications) {
        for (const Notification& one : notifications) {
            delivery->notify(one);
        }
    }
    // "raised 1" for each notification in each message that was taken, in order.
    std::vector<std::string> told() const {
        std::vector<std::string> all;
        for (const std::string& body : server.taken()) {
            const json message = json::parse(body);
            for (const json& one : message["notifications"]) {
                all.push_back(one["state"].get<std::string>() + " " + one["alarmId"].dump());
            }
        }
        return all;
    }
    // So much is told, and nothing is owed any more. What was not taken up yet is not owed.
    bool settles(std::size_t least = 0) const {
        return eventually([this, least] {
            if (least > 0 && told().size() < least) {
                return false;
            }
            const auto statistics = delivery->statistics();
            return statistics.size() == 1 && statistics[0].owed == 0 &&
                   statistics[0].delivered + statistics[0].dropped > 0;
        });
    }
};

TEST(Delivery, TellsEachAlarmOnceInOrderWhateverFails) {
    Receiving receiving;
    std::deque<int> refusals(1000, 500);
    refusals[1] = 302;
    refusals[2] = WebhookServer::kClose;
    receiving.server.answer(refusals);
    receiving.start();
    receiving.tell({raised(1), raised(2), raised(3)});
    EXPECT_TRUE(eventually([&] { return receiving.server.requests().size() >= 3; }));
    receiving.restart({404, 200, 500});  // what was owed is owed still
    receiving.tell({raised(1), raised(3), cleared(9), raised(4)});
    Notification mild = raised(5);
    mild.severity = Severity::kWarning;
    receiving.tell({mild});
    ASSERT_TRUE(receiving.settles(4));
    EXPECT_THAT(receiving.told(), ElementsAre("raised 1", "raised 2", "raised 3", "raised 4"));

    receiving.start();  // and what was told is known to be told
    receiving.tell({raised(1), cleared(2), cleared(2)});
    receiving.delivery->resume(
        {{raised(3), false}, {raised(4), true}, {raised(6), false}, {raised(7), true}});
    ASSERT_TRUE(receiving.settles(7));
    EXPECT_THAT(receiving.told(), UnorderedElementsAre("raised 1", "raised 2", "raised 3", "raised 4",
                                                       "cleared 1", "cleared 2", "raised 6"));
    EXPECT_EQ(receiving.delivery->statistics()[0].url, receiving.server.url());
    for (const auto& request : receiving.server.requests()) {
        EXPECT_THAT(request.head, HasSubstr("POST / HTTP/1.1"));  // no redirect was followed
    }
}

TEST(Delivery, TellsCuesToWhoWantsThem) {
    for (const bool wanted : {false, true}) {
        Receiving receiving;
        receiving.webhook.cues = wanted;
        receiving.webhook.minimumSeverity = Severity::kCritical;
        receiving.server.answer(std::deque<int>(1000, 500));
        receiving.start();
        Notification cue = raised(5);
        cue.cue = cue.momentary = true;
        cue.alarm.clear();
        Notification bad = raised(6);
        bad.severity = Severity::kCritical;
        receiving.tell({cue, bad});
        ASSERT_TRUE(eventually([&] { return receiving.server.requests().size() >= 1; }));
        receiving.restart({});  // it outlives one
        ASSERT_TRUE(receiving.settles());
        EXPECT_EQ(receiving.told(), wanted ? std::vector<std::string>({"cue 5", "raised 6"})
                                           : std::vector<std::string>({"raised 6"}));
        const json first = json::parse(receiving.server.taken().front())["notifications"][0];
        EXPECT_EQ(first["alarm"].is_null(), wanted) << first;
        EXPECT_EQ(first["severity"].is_null(), wanted) << first;
    }
}

TEST(Delivery, TellsOfAClearOnlyWhereTheRaiseMayHaveArrived) {
    struct Case {
        const char* what;
        int status;
        std::vector<std::string> told;
        bool restarted = false;  // the station, and it is over by then
    };
    const Case cases[] = {
        {"refused", 500, {}},
        {"given up by a gateway, which may have passed it on", 504, {"raised 1", "cleared 1"}},
        {"sent and not answered", WebhookServer::kClose, {"raised 1", "cleared 1"}},
        {"taken", 200, {"raised 1", "cleared 1"}},
        {"sent and not answered before a restart", WebhookServer::kClose, {"raised 1", "cleared 1"}, true},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        Receiving receiving;
        receiving.server.answer(std::deque<int>(1000, one.status));
        receiving.start();
        receiving.tell({raised(1)});
        EXPECT_TRUE(eventually([&] { return receiving.server.requests().size() >= 1; }));
        if (one.restarted) {
            receiving.restart({});
            receiving.delivery->resume({});
        } else {
            receiving.tell({cleared(1)});
        }
        if (one.told.empty()) {
            ASSERT_TRUE(receiving.settles()) << "it is over before it is taken";
        }
        receiving.server.answer({});
        ASSERT_TRUE(receiving.settles(one.told.size()));
        EXPECT_EQ(receiving.told(), one.told);
    }
}

TEST(Delivery, SumsUpWhatIsBeyondTheRate) {
    Receiving receiving;
    receiving.webhook.maxPerMinute = 2;
    receiving.pace.minute = 4s;  // for two messages and what they wait for the disk
    receiving.start();
    std::vector<Notification> all;
    for (int64_t id = 1; id <= 12; ++id) {
        all.push_back(raised(id));
    }
    all.push_back(cleared(12));
    receiving.delivery->notify(all);
    ASSERT_TRUE(receiving.settles());
    std::vector<std::pair<std::size_t, std::size_t>> messages;  // notifications listed, summed
    for (const std::string& body : receiving.server.taken()) {
        const json message = json::parse(body);
        messages.emplace_back(message["notifications"].size(), message["summed"].get<std::size_t>());
    }
    EXPECT_THAT(messages, ElementsAre(std::pair(1, 0), std::pair(1, 0), std::pair(9, 9)));
}

// Alarms of one incident, which come together, are one message; those of another, and what is over, are none
// of it.
TEST(Delivery, TellsAnIncidentInOneMessage) {
    Receiving receiving;
    receiving.start();
    std::vector<Notification> told;
    for (int64_t id = 1; id <= 42; ++id) {
        told.push_back(raised(id));
        told.back().incident = id <= 40 ? 1 : id;
        told.back().shared = Shared{Shared::Kind::kLabel, "site", "north"};
    }
    receiving.delivery->notify(told);
    ASSERT_TRUE(receiving.settles());
    std::vector<Notification> over;
    for (int64_t id = 40; id >= 1; --id) {
        over.push_back(cleared(id));
        over.back().incident = 1;
    }
    receiving.delivery->notify(over);
    ASSERT_TRUE(eventually([&] { return receiving.server.taken().size() >= 4; }));
    std::vector<std::pair<std::size_t, std::string>> messages;  // summed, text
    for (const std::string& body : receiving.server.taken()) {
        const json message = json::parse(body);
        messages.emplace_back(message["summed"].get<std::size_t>(), message["text"].get<std::string>());
        EXPECT_EQ(message["notifications"].size(), std::max<std::size_t>(messages.back().first, 1));
    }
    const std::string alone = "News (239.1.1.1): no packets for 1 s";
    EXPECT_THAT(messages,
                ElementsAre(std::pair(40U, "site=north: 40 alarms raised, the first of them " + alone),
                            std::pair(0U, alone), std::pair(0U, alone),
                            std::pair(40U, "site=north: 40 alarms cleared, the first of them " + alone)));
}

// What the receiver holds for raised: by what it took, and by what it got and did not answer.
std::set<int64_t> heldFor(const WebhookServer& server) {
    std::set<int64_t> held;
    for (const auto& request : server.requests()) {
        if (request.status == 200 || request.status == WebhookServer::kClose) {
            const json message = json::parse(request.body);
            for (const json& one : message["notifications"]) {
                const auto id = one["alarmId"].get<int64_t>();
                one["state"] == "raised" ? static_cast<void>(held.insert(id))
                                         : static_cast<void>(held.erase(id));
            }
        }
    }
    return held;
}

TEST(Delivery, TellsANewUrlWhatIsRaisedAndTheOldOneWhatIsOver) {
    Receiving receiving;
    receiving.start();
    receiving.tell({raised(1)});
    ASSERT_TRUE(eventually([&] { return receiving.told().size() == 1; }));
    receiving.delivery->resume({{raised(1), false}});
    const WebhookServer other;
    Webhook mended = receiving.webhook;
    mended.url = other.url();
    receiving.delivery->configure({mended});
    ASSERT_TRUE(eventually([&] { return receiving.delivery->wantsActive(); }));
    receiving.delivery->resume({{raised(1), false}});
    ASSERT_TRUE(eventually([&] { return heldFor(other).size() == 1; }));
    EXPECT_FALSE(receiving.delivery->wantsActive());
    receiving.tell({raised(2), cleared(1), cleared(2)});
    EXPECT_TRUE(eventually([&] { return heldFor(other).empty() && heldFor(receiving.server).empty(); }));
    EXPECT_THAT(receiving.told(), ElementsAre("raised 1", "cleared 1"));
    EXPECT_THAT(receiving.delivery->statistics(), SizeIs(1));
}

// Of many webhooks that go at once as many are told what is over as there are places, and the log names the
// rest.
TEST(Delivery, GivesUpSingleOnesOfTheManyThatAreConfiguredNoMore) {
    constexpr std::size_t kWebhooks = 20;
    constexpr std::size_t kPlaces = 16;
    Receiving receiving;
    std::vector<Webhook> webhooks;
    for (std::size_t i = 0; i < kWebhooks; ++i) {
        webhooks.push_back(receiving.webhook);
        webhooks.back().url += "/" + std::to_string(i / 2);  // two of each are two all the same
    }
    receiving.start();
    receiving.delivery->configure(webhooks);
    receiving.tell({raised(1)});
    ASSERT_TRUE(eventually([&] { return receiving.told().size() == kWebhooks; }));
    EXPECT_THAT(receiving.delivery->statistics(), SizeIs(kWebhooks));
    testing::internal::CaptureStderr();
    receiving.delivery->configure({});
    receiving.tell({cleared(1)});
    EXPECT_TRUE(eventually([&] { return receiving.told().size() == kWebhooks + kPlaces; }));
    EXPECT_TRUE(flushLog(5s));
    const std::string log = testing::internal::GetCapturedStderr();
    std::size_t lines = 0;
    for (std::size_t at = log.find("given up"); at != std::string::npos; at = log.find("given up", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, kWebhooks - kPlaces) << log;
}

TEST(Delivery, DoesNotWaitForADiskThatHangs) {
    Receiving receiving;
    receiving.start();
    receiving.tell({raised(1)});
    ASSERT_TRUE(receiving.settles());
    std::optional<Holder> holder(receiving.directory.path() / "delivery.db");
    const auto before = std::chrono::steady_clock::now();
    receiving.tell({raised(2)});
    EXPECT_TRUE(eventually([&] { return receiving.told().size() == 2; }));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);
    receiving.tell({cleared(1), raised(3)});
    EXPECT_TRUE(eventually([&] { return receiving.told().size() == 4; }));
    const auto end = std::chrono::steady_clock::now();
    receiving.delivery.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - end, 5s);
}

TEST(Delivery, ReadsItsFileBeforeItWritesItHoweverLateThatIs) {
    Receiving receiving;
    receiving.start();
    receiving.tell({raised(1), raised(2)});
    ASSERT_TRUE(receiving.settles());
    receiving.delivery.reset();
    std::filesystem::rename(receiving.directory.path() / "delivery.db", receiving.directory.path() / "away");
    std::filesystem::create_directory(receiving.directory.path() / "delivery.db");  // cannot be opened
    receiving.start();
    receiving.delivery->resume({{raised(2), false}, {raised(3), false}});
    ASSERT_TRUE(eventually([&] { return heldFor(receiving.server).contains(3); }));
    std::filesystem::remove(receiving.directory.path() / "delivery.db");
    std::filesystem::rename(receiving.directory.path() / "away", receiving.directory.path() / "delivery.db");
    const auto clearedTheFirst = [&] {
        if (receiving.delivery->wantsActive()) {
            receiving.delivery->resume({{raised(2), false}, {raised(3), false}});
        }
        return heldFor(receiving.server) == std::set<int64_t>{2, 3};
    };
    EXPECT_TRUE(eventually(clearedTheFirst));
}

TEST(Delivery, KnowsWhatItToldWhenItsFileIsRemovedOrReplaced) {
    for (const bool replaced : {false, true}) {
        SCOPED_TRACE(replaced);
        Receiving receiving;
        const auto file = receiving.directory.path() / "delivery.db";
        receiving.start();
        receiving.tell({raised(1)});
        ASSERT_TRUE(receiving.settles());
        if (replaced) {
            std::ofstream(receiving.directory.path() / "other") << "somebody else's";
            std::filesystem::rename(receiving.directory.path() / "other", file);
        } else {
            std::filesystem::remove(file);
        }
        EXPECT_TRUE(eventually([&] {
            std::error_code error;
            return std::filesystem::file_size(file, error) > 1000 && !error;
        }));
        receiving.start();
        receiving.delivery->resume({});  // it is over by now
        EXPECT_TRUE(eventually([&] { return heldFor(receiving.server).empty(); }));
        std::string others;
        for (const auto& entry : std::filesystem::directory_iterator(receiving.directory.path())) {
            if (entry.path().string().find(".replaced-") != std::string::npos) {
                others += contentOf(entry.path());
            }
        }
        EXPECT_EQ(others, replaced ? "somebody else's" : "");
    }
}

TEST(Delivery, KnowsWhoFails) {
    Receiving receiving;
    receiving.server.answer(std::deque<int>(1000, 503));
    receiving.start();
    ASSERT_TRUE(eventually([&] { return receiving.delivery->health().failing == false; }));
    receiving.tell({raised(1)});
    ASSERT_TRUE(eventually([&] { return receiving.delivery->health().failing == true; }));
    EXPECT_THAT(receiving.delivery->health().problem,
                testing::AllOf(HasSubstr(receiving.server.url()), HasSubstr("503")));
    receiving.server.answer({});
    EXPECT_TRUE(eventually([&] { return receiving.delivery->health().failing == false; }));
}

TEST(Payload, KeepsLabelsWhoseNamesComeOutAlike) {
    Notification one = raised(1);
    one.labels = {{"a b", "1"}, {"a-b", "2"}, {"a.b", "3"}, {"a/b", "4"}};
    const json labels = json::parse(alertmanagerBody(std::vector{one}, "probe1", kTime, 5min))[0]["labels"];
    std::set<std::string> values;
    for (const char* name : {"a_b", "label_a_b", "label_a_b_2", "label_a_b_3"}) {
        values.insert(labels.value(name, ""));
    }
    EXPECT_THAT(values, ElementsAre("1", "2", "3", "4")) << labels;
}

TEST(Payload, EndsNoAlertBeforeItsBeginNorAheadOfNow) {
    struct Case {
        const char* what;
        WallTime raisedAt, clearedAt, now;
    };
    const Case cases[] = {{"no step", kTime, kTime + 5s, kTime + 6s},
                          {"set back before the clear", kTime, kTime - 1h, kTime - 1h + 1s},
                          {"set back before it is sent", kTime, kTime + 5s, kTime - 24h * 365},
                          {"set ahead", kTime, kTime + 24h * 365, kTime + 24h * 365}};
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        Notification alert = cleared(1);
        alert.raisedAt = one.raisedAt;
        alert.time = one.clearedAt;
        const json over = json::parse(alertmanagerBody(std::span(&alert, 1), "p", one.now, 5min))[0];
        EXPECT_LE(over["startsAt"].get<std::string>(), over["endsAt"].get<std::string>());
        EXPECT_LE(over["endsAt"].get<std::string>(), rfc3339(one.now)) << "would still fire";
        alert.raised = true;
        const json firing = json::parse(alertmanagerBody(std::span(&alert, 1), "p", one.now, 5min))[0];
        EXPECT_LE(firing["startsAt"].get<std::string>(), rfc3339(one.now));
        EXPECT_EQ(firing["endsAt"].get<std::string>(), rfc3339(one.now + 5min));
    }
}

TEST(Delivery, KeepsSecretsToItself) {
    Receiving receiving;
    receiving.webhook.url = receiving.server.url("ann:secret@") + "/hook/secret?token=hidden";
    receiving.server.answer({500});
    receiving.start();
    testing::internal::CaptureStderr();
    receiving.tell({raised(1)});
    ASSERT_TRUE(receiving.settles());
    receiving.delivery->configure({});
    EXPECT_TRUE(flushLog(5s));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::AllOf(HasSubstr(receiving.server.url()), Not(HasSubstr("secret")),
                               Not(HasSubstr("/hook")), Not(HasSubstr("hidden"))));
    EXPECT_THAT(receiving.server.requests()[0].head,
                testing::AllOf(HasSubstr("Authorization: Basic "), HasSubstr("/hook/secret?token=hidden")));
}

TEST(Delivery, KeepsAnAlertmanagerInformed) {
    Receiving receiving(WebhookFormat::kAlertmanager);
    receiving.webhook.url += "/prefix/";
    receiving.webhook.authorization = "Bearer abc";
    receiving.start();
    receiving.tell({raised(1)});
    // Told again and again, so that it does not resolve by itself.
    ASSERT_TRUE(eventually([&] { return receiving.server.taken().size() >= 3; }));
    receiving.start();
    const std::size_t before = receiving.server.taken().size();
    ASSERT_TRUE(eventually([&] { return receiving.server.taken().size() >= before + 2; }));
    receiving.tell({cleared(1)});
    ASSERT_TRUE(eventually([&] {
        return receiving.server.taken().back().find("2019-12-20T00:00:05.000Z") != std::string::npos;
    }));
    const std::size_t after = receiving.server.taken().size();
    std::this_thread::sleep_for(150ms);
    ASSERT_EQ(receiving.server.taken().size(), after);

    const json labels = {{"alertname", "no_signal"}, {"severity", "major"},  {"group", "239.1.1.1"},
                         {"channel", "News"},        {"instance", "probe1"}, {"site", "north"},
                         {"_2nd_floor", "ä"},        {"label__x", "y"},      {"label_severity", "own"}};
    for (const auto& request : receiving.server.requests()) {
        EXPECT_THAT(request.head, HasSubstr("POST /prefix/api/v2/alerts HTTP/1.1"));
        EXPECT_THAT(request.head, HasSubstr("Authorization: Bearer abc"));
        const json alerts = json::parse(request.body);
        ASSERT_EQ(alerts.size(), 1);
        EXPECT_EQ(alerts[0]["labels"], labels);
        EXPECT_EQ(alerts[0]["annotations"]["summary"], "News (239.1.1.1): no packets for 1 s");
        EXPECT_EQ(alerts[0]["startsAt"], "2019-12-20T00:00:00.000Z");
    }
    const auto taken = receiving.server.taken();
    EXPECT_EQ(json::parse(taken.back())[0]["endsAt"], "2019-12-20T00:00:05.000Z");
    EXPECT_GT(json::parse(taken[after - 2])[0]["endsAt"].get<std::string>(), "2026");
}

TEST(InfluxWriter, WritesEachSnapshotOnceAndNamesThatTheProtocolTakes) {
    const auto other = [](const records::Column& column) {
        return column.type == records::Type::kFraction ? "0.250000" : column.maximum < 7 ? "1" : "7";
    };
    const std::string line = recordLine(
        records::Kind::kStream,
        {{"kind", "0"}, {"pid", "-1"}, {"packetsLost", "18446744073709551615"}, {"bitRate", "3000000"}},
        other);
    const auto stream = std::get<records::Record>(records::parseRecord(line));
    ChannelState channel{.channel = {.group = *Group::parse("239.1.1.1")}};
    channel.channel.name = "News, HD=1 \\";
    channel.channel.labels = {{"time", "x"}, {"empty", ""}, {"the site", "a\nb"},
                              {"a\\", "1"},  {"a", "2"},    {"label_time", "y"}};
    channel.measured[Source::kProbe].shown = true;
    channel.stream = &stream;
    auto state = std::make_shared<StationState>();
    state->channels.push_back(std::make_shared<ChannelState>(channel));
    state->probe.snapshots = 1;
    state->probe.lastSnapshot = kTime;

    WebhookServer server;
    server.answer({503});
    Configuration::Influx options;
    options.url = server.url() + "/write?db=x";
    InfluxWriter writer({}, "probe1");
    writer.configure(options);
    writer.write(state);
    ASSERT_TRUE(eventually([&] { return server.requests().size() == 1; }));
    writer.write(state);  // no new snapshot
    ASSERT_TRUE(eventually([&] { return writer.statistics().written == 1; }));
    ASSERT_THAT(server.taken(), SizeIs(1));
    const std::string point = server.taken()[0];
    EXPECT_THAT(point, StartsWith("kestor_stream,probe=probe1,group=239.1.1.1,channel=News\\,\\ HD\\=1\\ ,"
                                  "a=2,a_2=1,label_time=y,the\\ site=a_b,label_time_2=x "));
    EXPECT_THAT(point, HasSubstr(",bitRate=3000000i,"));
    EXPECT_THAT(point, HasSubstr("=0.25,"));
    EXPECT_THAT(point, Not(HasSubstr("packetsLost=")));  // beyond what the server can hold
    EXPECT_THAT(point, EndsWith(" 1576800000000000000\n"));
}

}  // namespace
}  // namespace station
