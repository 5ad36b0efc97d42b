// The station's end of the link to kestor-meter: what a meter sends, and the socket where it does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "meter/meterPort.h"
#include "meter/meterSession.h"
#include "meter/reportText.h"
#include "meter/sourceJoins.h"
#include "support/fullReport.h"
#include "support/scratch.h"
#include "support/unixPeer.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr uint32_t kA = 0xEF010101;
constexpr uint32_t kB = 0xEF010102;
const Group kGroupA = *Group::parse("239.1.1.1");
const Group kGroupB = *Group::parse("239.1.1.2");

std::string hello(uint32_t major = metering::kMajor, const std::string& version = "1.2.3") {
    metering::FromMeter message;
    message.mutable_hello()->set_major(major);
    message.mutable_hello()->set_version(version);
    return metering::framed(message);
}

metering::FromMeter second(std::vector<metering::GroupReport> reports, bool last = true) {
    metering::FromMeter message;
    metering::Second& made = *message.mutable_second();
    made.set_threads(1);
    made.set_last(last);
    made.set_part(last ? 0 : 1);
    made.mutable_capture()->set_frames(12);
    for (metering::GroupReport& report : reports) {
        *made.add_report() = std::move(report);
    }
    return message;
}

// A message with this content, whatever it is, in the field of a second.
std::string rawSecond(const std::string& content) {
    std::string varint;
    for (std::size_t rest = content.size(); rest > 0 || varint.empty(); rest >>= 7) {
        varint += static_cast<char>((rest & 0x7F) | (rest > 0x7F ? 0x80 : 0));
    }
    const std::string message = "\x12" + varint + content;
    std::string framed;
    for (int shift = 24; shift >= 0; shift -= 8) {
        framed += static_cast<char>(message.size() >> shift & 0xFF);
    }
    return framed + message;
}

struct StationMeterSession : testing::Test {
    StationMeterSession() {
        book.watch({kA, kB}, 0);
        metering::quietParser();
    }
    MeterState state() const {
        return book.state(now.steady);
    }
    void hear(std::vector<metering::GroupReport> reports) {
        session.received(metering::framed(second(std::move(reports))), now);
    }
    void happen(uint32_t group, const std::function<void(metering::Happened&)>& fill) {
        metering::FromMeter message;
        message.mutable_happened()->set_group(group);
        fill(*message.mutable_happened());
        session.received(metering::framed(message), now);
    }

    MeterBook book;
    MeterSession session{book};
    Now now = systemNow();
};

TEST_F(StationMeterSession, KeepsTheNewestReportOfEachGroup) {
    EXPECT_FALSE(state().connected);
    session.received(hello(metering::kMajor, "1.2\n3"), now);
    EXPECT_TRUE(session.agreed());
    EXPECT_EQ(state().version, "1.23");
    const meter::Report full = test::fullReport(kA);
    const std::string bytes = metering::framed(
        second({test::reportMessage(full), test::reportMessage(test::fullReport(0xEF0909FF))}));
    for (const char byte : bytes) {  // however it comes
        session.received({&byte, 1}, now);
    }
    ASSERT_TRUE(book.find(kGroupA));
    EXPECT_FALSE(book.find(kGroupB));
    EXPECT_FALSE(book.find(*Group::parse("239.9.9.255"))) << "nobody wants it";
    const auto jsonOf = [&] { return nlohmann::json::parse(meter::toJson(book.find(kGroupA)->read())); };
    nlohmann::json told = jsonOf();
    EXPECT_EQ(told["live"]["disturbed"], false);
    told.erase("live");
    EXPECT_EQ(told, nlohmann::json::parse(meter::toJson(full)));

    // What seldom changes is not told again and stays.
    meter::Report later = full;
    later.seconds = 99;
    auto message = second({test::reportMessage(later, false)});
    message.mutable_second()->mutable_capture()->set_disturbed(true);
    session.received(metering::framed(message), now);
    told = jsonOf();
    EXPECT_EQ(told["seconds"], 99);
    EXPECT_EQ(told["services"].size(), 2U);
    EXPECT_EQ(told["live"]["disturbed"], true);
    EXPECT_EQ(state().reported, 1U);
    EXPECT_TRUE(state().disturbed);
    now.steady += MeterBook::kSilence + 1s;
    EXPECT_TRUE(state().silent);

    book.watch({kB}, 0);
    EXPECT_FALSE(book.find(kGroupA));
    hear({test::reportMessage(test::fullReport(kB))});
    EXPECT_TRUE(book.find(kGroupB));
    book.disconnected(now);
    EXPECT_FALSE(book.find(kGroupB)) << "nothing is known without a meter";
    EXPECT_FALSE(state().connected);
}

TEST_F(StationMeterSession, CountsWhatHappenedAndEachSecondsLossOnce) {
    session.received(hello(), now);
    const auto say = [&](uint32_t group, double seconds, uint64_t lossRate) {
        meter::Report report = test::fullReport(group);
        report.seconds = seconds;
        report.network->lossRate = lossRate;
        hear({test::reportMessage(report)});
    };
    const auto cue = [](metering::Happened& what) { what.mutable_cue(); };
    const auto change = [](metering::Happened& what) { what.mutable_change(); };
    happen(kA, cue);  // before the first report of the group
    say(kA, 10.1, 3);
    say(kA, 10.9, 3);  // the same second of the analysis
    say(kA, 11.1, 4);
    say(kB, 11.1, 5);
    happen(kA, change);
    happen(kA, change);
    happen(0xEF0909FF, cue);  // nobody wants it
    const MeterTallies a = book.find(kGroupA)->tallies;
    EXPECT_EQ(a.cues, 1U);
    EXPECT_EQ(a.changes, 2U);
    EXPECT_EQ(a.mediaLost, 7U);
    ASSERT_EQ(book.all().size(), 2U);
    EXPECT_EQ(book.all()[1].first, kB);
    EXPECT_EQ(book.all()[1].second.tallies.mediaLost, 5U);
    book.watch({kB}, 0);
    book.watch({kA, kB}, 0);
    say(kA, 12, 1);
    EXPECT_EQ(book.find(kGroupA)->tallies.mediaLost, 1U) << "a channel that was removed begins anew";
}

// A counter that falls was reset, as others see it, and all of it lost anew.
TEST_F(StationMeterSession, TalliesLossThatNeverFallsWhateverCountsIt) {
    session.received(hello(), now);
    struct Step {
        const char* what;
        uint64_t epoch;
        const char* basis;
        int64_t lost;
        uint64_t byCounter;
        uint64_t events;
        bool disturbed;
        std::array<uint64_t, 3> total;  // lost, events, lost while disturbed
    };
    const Step steps[] = {
        {"by counters", 1, "counter", 5, 5, 2, false, {5, 2, 0}},
        {"the clock knows of more, which was lost before", 1, "clock", 40, 5, 1, false, {5, 2, 0}},
        {"more by the clock", 1, "clock", 47, 6, 2, false, {12, 3, 0}},
        {"the clock takes two back", 1, "clock", 45, 6, 2, false, {12, 3, 0}},
        {"as many as it had told of", 1, "clock", 47, 6, 2, false, {12, 3, 0}},
        {"back to the counters, with one more of theirs", 1, "counter", 7, 7, 3, false, {13, 4, 0}},
        {"lost here", 1, "counter", 17, 17, 4, true, {23, 5, 10}},
        {"a meter that was started anew", 2, "counter", 3, 3, 1, false, {26, 6, 10}},
        {"nothing is known yet", 3, nullptr, 0, 0, 0, false, {26, 6, 10}},
        {"too many packets", 3, "clock", -4, 0, 0, false, {26, 6, 10}},
    };
    for (const Step& step : steps) {
        meter::Report report = test::fullReport(kA);
        report.packets.lost = {};
        if (step.basis != nullptr) {
            report.packets.lost.packets = step.lost;
            report.packets.lost.basis = step.basis;
            report.packets.lost.byCounter = step.byCounter;
        }
        report.packets.lost.events = step.events;
        report.network->rtp->lost = step.lost;
        metering::GroupReport message = test::reportMessage(report);
        message.set_epoch(step.epoch);
        metering::FromMeter whole = second({message});
        whole.mutable_second()->mutable_capture()->set_disturbed(step.disturbed);
        session.received(metering::framed(whole), now);
        const LossTotals loss = book.find(kGroupA)->tallies.loss;
        EXPECT_EQ((std::array{loss.best, loss.events, loss.disturbed}), step.total) << step.what;
    }
    EXPECT_EQ(book.find(kGroupA)->tallies.loss.rtpLost, 47U + 3) << "the most of each epoch";
    book.disconnected(now);
    MeterSession again(book);
    again.received(hello(), now);
    again.received(metering::framed(second({test::reportMessage(test::fullReport(kA))})), now);
    EXPECT_GE(book.find(kGroupA)->tallies.loss.best, 26U) << "over a loss of the connection";
}

TEST_F(StationMeterSession, MakesSamplesOfReportsAndHandsOverWhatHappens) {
    int told = 0;
    book.mail().setReady([&] { ++told; });
    session.received(hello(), now);
    const auto cue = [](metering::Happened& what) { what.mutable_cue()->set_command("splice_insert\x07"); };
    meter::Report report = test::fullReport(kA);
    hear({test::reportMessage(report)});
    happen(kA, cue);
    happen(0xEF0909FF, cue);  // nobody watches it
    happen(kA, [](metering::Happened& what) {
        what.mutable_change()->set_what("codec");
        what.mutable_change()->set_text(std::string(2000, 'x'));
    });
    report.packets.received += 100;
    hear({test::reportMessage(report)});
    EXPECT_EQ(told, 4);
    MeterMail::Batch batch = book.mail().drain();
    ASSERT_EQ(batch.figures.size(), 1U);
    const ChannelSample& sample = batch.figures.at(kA).sample;
    EXPECT_EQ(sample.received, report.packets.received);
    EXPECT_EQ(sample.count(measureOf("meter.cues")).total, 1U);
    EXPECT_EQ(sample.count(measureOf("meter.otherSources")).total, 8U);
    ASSERT_EQ(batch.happened.size(), 2U);
    EXPECT_TRUE(batch.happened[0].what.empty());
    EXPECT_THAT(batch.happened[0].text, HasSubstr("splice_insert"));
    EXPECT_THAT(batch.happened[0].text, testing::Not(HasSubstr("\x07")));
    EXPECT_EQ(batch.happened[1].what, "codec");
    EXPECT_EQ(batch.happened[1].text.size(), MeterHappened::kTextBytes);

    auto blind = second({test::reportMessage(report)});
    blind.mutable_second()->mutable_capture()->set_problem("eth0 is down");
    session.received(metering::framed(blind), now);
    EXPECT_TRUE(book.mail().drain().figures.empty()) << "it knows nothing of channels";
    hear({test::reportMessage(report)});
    book.disconnected(now);
    EXPECT_TRUE(book.mail().drain().figures.empty());
}

TEST_F(StationMeterSession, SaysInBriefWhatAChannelIs) {
    session.received(hello(), now);
    meter::Report report = test::fullReport(kA);
    std::swap(report.services[0], report.services[1]);  // "one" has the lower number
    hear({test::reportMessage(report)});
    ASSERT_EQ(book.briefs(now.steady).size(), 1U);
    MeterBrief brief = book.briefs(now.steady)[0].second;
    EXPECT_EQ(*brief.facts, (MeterFacts{"one", "1920x1080i", "H.264"}));
    EXPECT_EQ(brief.lastCue, WallTime{});
    // Not told again, and still so.
    hear({test::reportMessage(report, false)});
    ASSERT_TRUE(book.briefs(now.steady)[0].second.facts);

    report.services.resize(2);
    report.services[0] = {
        2, "\xC2\x85 \xC3\x84\n " + std::string(400, 'x'), {}, {}, {}, 300, {}, {}, {}, {}, {}, {}, {}, {}};
    report.services[1].name.reset();
    report.services[1].streams[0].video.reset();
    hear({test::reportMessage(report)});
    brief = book.briefs(now.steady)[0].second;
    EXPECT_TRUE(brief.facts->serviceName.starts_with("\xC3\x84 x")) << brief.facts->serviceName;
    EXPECT_LE(brief.facts->serviceName.size(), kNameLimit);
    EXPECT_EQ(brief.facts->resolution, "");
    EXPECT_FALSE(book.briefs(now.steady + kMeterReportHolds + 1s)[0].second.facts) << "of long ago";
}

TEST_F(StationMeterSession, KeepsTheNewestCuesWithinItsBounds) {
    session.received(hello(), now);
    const auto cue = [&](uint32_t group, uint32_t event, std::optional<bool> out,
                         const std::string& upid = "") {
        now.wall += 1s;
        happen(group, [&](metering::Happened& what) {
            metering::Cue& made = *what.mutable_cue();
            made.set_command("splice_insert");
            made.set_event_id(event);
            if (out) {
                made.set_out(*out);
            }
            made.add_segmentation()->set_upid(upid);
        });
    };
    for (uint32_t event = 1; event <= MeterBook::kCuesKept + 3; ++event) {
        cue(kA, event, event % 2 == 0);
    }
    cue(kA, 1000, {});
    std::vector<MeterCue> kept = book.cues(kGroupA);
    ASSERT_EQ(kept.size(), MeterBook::kCuesKept);
    EXPECT_EQ(kept[0].read().eventId, 1000U) << "newest first";
    EXPECT_EQ(kept[0].time, now.wall);
    EXPECT_EQ(kept.back().read().eventId, 5U);
    const MeterBrief brief = book.briefs(now.steady)[0].second;
    EXPECT_EQ(brief.lastCue, now.wall);
    EXPECT_EQ(brief.cueOut, false);
    EXPECT_FALSE(brief.facts);

    book.disconnected(now);
    EXPECT_EQ(book.cues(kGroupA).size(), MeterBook::kCuesKept) << "they came all the same";
    book.watch({kB}, 0);
    EXPECT_TRUE(book.cues(kGroupA).empty());

    // Large ones of many channels: all together stay within the bound.
    std::set<uint32_t> groups;
    for (uint32_t number = 0; number < 20; ++number) {
        groups.insert(kA + number);
    }
    book.watch(groups, 0);
    const std::string large(60'000, 'x');
    for (uint32_t event = 0; event < 50; ++event) {
        for (const uint32_t group : groups) {
            cue(group, event, true, large);
        }
    }
    std::size_t bytes = 0;
    for (const uint32_t group : groups) {
        const auto cues = book.cues(*Group::parse("239.1.1." + std::to_string(group & 0xFF)));
        ASSERT_FALSE(cues.empty());
        EXPECT_EQ(cues[0].read().eventId, 49U) << "the newest is there";
        for (const MeterCue& one : cues) {
            bytes += one.bytes->size();
        }
    }
    EXPECT_LE(bytes, MeterBook::kCueBytes);
}

TEST_F(StationMeterSession, RefusesWhatMakesNoSense) {
    const std::string report =
        second({test::reportMessage(test::fullReport(kA))}).second().SerializeAsString();
    auto threads = second({});
    threads.mutable_second()->set_thread(7);
    auto talkative = second({});
    talkative.mutable_second()->mutable_capture()->set_problem(std::string(MeterSession::kHeadBytes, 'x'));
    std::string many;
    for (std::size_t i = 0; i <= metering::kGroupsLimit; ++i) {
        many += std::string("\x42\x00", 2);  // a report without anything in it
    }
    const struct {
        const char* what;
        std::string bytes;
        const char* why;
        bool greeted = true;
    } kCases[] = {
        {"a length beyond the limit", "\x7F\xFF\xFF\xFF", "bytes"},
        {"no message", rawSecond("\xFF\xFF\xFF"), "cannot be read"},
        {"HTTP", "GET / HTTP/1.1\r\n\r\n", "bytes", false},
        {"before the hello", metering::framed(second({})), "before it said who it is", false},
        {"another version", hello(2, "9.9"), "(9.9) speaks version 2", false},
        {"a second hello", hello(), "twice"},
        {"half a report", rawSecond(report.substr(0, report.size() / 2)), "cannot be read"},
        {"a report that is none", rawSecond(second({}).second().SerializeAsString() + "\x42\x02\xFF\xFF"),
         "cannot be read"},
        {"a large head", metering::framed(talkative), "too long"},
        {"more groups than there can be", rawSecond(many), "more groups"},
        {"a thread that cannot be", metering::framed(threads), "thread 7 of 1"},
    };
    for (const auto& one : kCases) {
        SCOPED_TRACE(one.what);
        MeterSession other(book);
        if (one.greeted) {
            other.received(hello(), now);
        }
        try {
            other.received(one.bytes, now);
            ADD_FAILURE() << "was taken";
        } catch (const PeerRefused& refused) {
            EXPECT_THAT(refused.what(), HasSubstr(one.why));
        }
    }
}

TEST_F(StationMeterSession, SkipsAReportThatIsTooLargeAndTakesThoseBesideIt) {
    session.received(hello(), now);
    metering::GroupReport large;
    large.set_group(kA);
    large.mutable_flow()->set_encapsulation(std::string(metering::kReportLimit, 'x'));
    hear({large, test::reportMessage(test::fullReport(kB))});
    EXPECT_FALSE(book.find(kGroupA));
    EXPECT_TRUE(book.find(kGroupB));
    EXPECT_EQ(state().reportsDropped, 1U);
}

TEST_F(StationMeterSession, SurvivesReportsThatAreDamaged) {
    session.received(hello(), now);
    std::mt19937 random(7);
    const std::string whole = test::reportMessage(test::fullReport(kA)).SerializeAsString();
    int taken = 0;
    for (int i = 0; i < 800; ++i) {
        std::string bytes = whole;
        for (int flips = 1 + i % 4; flips > 0; --flips) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        metering::GroupReport report;
        if (!report.ParseFromString(bytes)) {
            continue;
        }
        report.set_group(kA);
        hear({report});
        const meter::Report read = book.find(kGroupA)->read();
        EXPECT_TRUE(nlohmann::json::accept(meter::toJson(read)));
        EXPECT_FALSE(meter::reportText(read, {}).empty());
        ++taken;
    }
    EXPECT_GT(taken, 100);
}

TEST_F(StationMeterSession, KeepsNoMoreThanItsBound) {
    std::set<uint32_t> groups;
    const std::size_t fit = MeterBook::kBytes / 200'000;
    for (uint32_t i = 0; i < fit + 10; ++i) {
        groups.insert(kA + i);
    }
    book.watch(groups, 0);
    const auto levels = std::make_shared<const std::string>(200'000, 'x');
    for (int round = 0; round < 2; ++round) {
        for (const uint32_t group : groups) {
            book.report(group, {.levels = levels, .description = {}});
        }
    }
    const auto described = std::make_shared<const std::string>(50'000, 'x');
    const auto all = std::make_shared<const std::string>(250'000, 'x');
    EXPECT_EQ(book.find(kGroupA)->levels, levels);
    ASSERT_FALSE(book.report(kA, {.levels = all, .description = described}));
    ASSERT_TRUE(book.find(kGroupA)) << "without room for the newest the one before stays";
    EXPECT_GE(state().reportsDropped, 20U);
    EXPECT_LE(state().reportsDropped, 24U);
    book.watch({kA}, 3);
    EXPECT_EQ(state().groupsLeftOut, 3U);
    EXPECT_TRUE(book.report(kA, {.levels = levels, .description = {}}));
}

TEST(StationSourceJoins, ChangeNothingForAMeterThatIsRestarted) {
    SourceJoins joins;
    SteadyTime now{1h};
    SteadyTime since;
    bool connected = false;
    int changes = 0;
    const auto pass = [&](std::chrono::seconds time, bool there, bool failing = false) {
        since = there && !connected ? now : since;
        connected = there;
        for (const SteadyTime end = now + time; now < end; now += 1s) {
            changes += joins.update({connected, since, !failing}, now) ? 1 : 0;
        }
    };
    pass(20s, false);
    pass(5s, true);
    EXPECT_FALSE(joins.byMeter()) << "it may end at once";
    pass(10s, true, true);
    EXPECT_FALSE(joins.byMeter()) << "it could not join";
    pass(2s, true);
    EXPECT_TRUE(joins.byMeter());
    pass(10s, true, true);
    EXPECT_TRUE(joins.byMeter()) << "the link may be down";
    for (int i = 0; i < 5; ++i) {
        pass(5s, false);
        pass(60s, true);
    }
    EXPECT_EQ(changes, 1);
    pass(15s, false);
    EXPECT_FALSE(joins.byMeter());
    pass(60s, true);
    EXPECT_TRUE(joins.byMeter());
    for (int i = 0; i < 20; ++i) {  // one that ends again and again
        pass(3s, false);
        pass(3s, true);
    }
    EXPECT_FALSE(joins.byMeter());
    EXPECT_EQ(changes, 4);
    pass(60s, true);
    pass(40s, true, true);
    EXPECT_FALSE(joins.byMeter()) << "nobody would receive them";
}

TEST(StationSourceJoins, KeepThoseThatOnlyTheMeterCanJoinWhereThereAreTooMany) {
    std::vector<MeteredChannel> channels(metering::kGroupsLimit + 10);
    for (std::size_t i = 0; i < channels.size(); ++i) {
        channels[i].group = kA + static_cast<uint32_t>(i);
        channels[i].join = i >= metering::kGroupsLimit;
    }
    EXPECT_EQ(chooseMetered(channels), 10U);
    ASSERT_EQ(channels.size(), metering::kGroupsLimit);
    EXPECT_TRUE(channels[9].join);
    EXPECT_EQ(channels[10].group, kA);
    MeterBook book;
    MeterPort port({}, "", book);
    for (MeteredChannel& channel : channels) {
        channel.join = true;
    }
    channels.push_back({.group = kA - 1, .join = true});
    const auto joins = port.watch(channels);
    EXPECT_EQ(joins.size(), metering::kGroupsLimit);
    EXPECT_FALSE(joins.contains(kA - 1)) << "it is left out, and not joined";
    EXPECT_EQ(book.state({}).toJoin, metering::kGroupsLimit);
    EXPECT_EQ(book.state({}).groupsLeftOut, 1U);
}

using Peer = UnixPeer<metering::FromStation>;

struct StationMeterPort : testing::Test {
    StationMeterPort() : path(directory.path() / "meter.sock") {}

    void open() {
        port.emplace(path, "4.5.6", book);
        port->watch({{.group = kA, .source = 0x0A000007, .port = 5000, .join = true}, {.group = kB}});
    }
    bool shows(const std::function<bool(const MeterState&)>& what) const {
        return eventually([&] { return what(book.state(std::chrono::steady_clock::now())); });
    }
    ScratchDirectory directory;
    std::filesystem::path path;
    MeterBook book;
    std::optional<MeterPort> port;
};

TEST_F(StationMeterPort, TellsOneMeterWhatToWatchAndEachChange) {
    open();
    Peer meter(path);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
    const auto said = meter.next();
    ASSERT_TRUE(said && said->has_hello());
    EXPECT_EQ(said->hello().version(), "4.5.6");
    meter.send(hello());
    auto told = meter.next();
    ASSERT_TRUE(told && told->has_groups());
    ASSERT_EQ(told->groups().group_size(), 2);
    EXPECT_EQ(told->groups().group(0).source(), 0x0A000007U);
    EXPECT_EQ(told->groups().group(0).port(), 5000U);
    EXPECT_TRUE(told->groups().group(0).join());
    EXPECT_FALSE(told->groups().group(1).has_source() || told->groups().group(1).join());
    const uint64_t revision = told->groups().revision();

    Peer second(path);
    const auto refused = second.next();
    ASSERT_TRUE(refused && refused->has_refused());
    EXPECT_THAT(refused->refused().reason(), HasSubstr("another meter"));
    EXPECT_FALSE(second.next());

    port->watch({{.group = kB}});
    told = meter.next();
    ASSERT_TRUE(told && told->has_groups());
    EXPECT_GT(told->groups().revision(), revision);
    EXPECT_EQ(told->groups().group_size(), 1);
    meter.send(metering::framed(::station::second({test::reportMessage(test::fullReport(kB))})));
    EXPECT_TRUE(shows([](const MeterState& state) { return state.reported == 1; }));
    EXPECT_TRUE(
        eventually([&] { return book.find(kGroupB).has_value(); }));  // told before its reports are kept
}

TEST_F(StationMeterPort, EndsWithWhoSendsNonsenseAndTakesTheNextOne) {
    open();
    const std::pair<std::string, const char*> kCases[] = {{"GET / HTTP/1.1\r\n\r\n", "the meter sent"},
                                                          {hello(2, "9.9"), "speaks version 2"},
                                                          {hello() + hello(), "twice"}};
    for (const auto& [bytes, why] : kCases) {
        Peer other(path);
        other.send(bytes);
        while (other.next()) {
        }
        EXPECT_TRUE(shows([&](const MeterState& state) {
            return !state.connected && state.problem.find(why) != std::string::npos;
        })) << why;
    }
    Peer meter(path);
    meter.send(hello());
    EXPECT_TRUE(shows([](const MeterState& state) { return state.connected && state.problem.empty(); }));
}

TEST_F(StationMeterPort, FindsItsSocketAgain) {
    std::ofstream(path) << "something";
    open();
    EXPECT_TRUE(
        shows([](const MeterState& state) { return state.problem.find("no socket") != std::string::npos; }));
    EXPECT_TRUE(std::filesystem::is_regular_file(path)) << "it is not the station's";
    std::filesystem::remove(path);
    Peer{path};
    EXPECT_TRUE(shows([](const MeterState& state) { return state.problem.empty(); }));
    std::filesystem::remove(path);
    Peer{path};  // though somebody removed it
    MeterBook otherBook;
    MeterPort other(path, "4.5.6", otherBook);
    EXPECT_TRUE(eventually(
        [&] { return otherBook.state({}).problem.find("another program listens") != std::string::npos; }));
    port.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace station
