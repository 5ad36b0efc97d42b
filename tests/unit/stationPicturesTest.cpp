// Pictures at the station: what kestor-picture sends, the socket where it does, and what alarms make of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

#include "framing.h"
#include "pictureDesk.h"
#include "pictureLimits.h"
#include "pictures/picturePort.h"
#include "pictures/pictureReader.h"
#include "support/scratch.h"
#include "support/unixPeer.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr uint32_t kA = 0xEF010101;
constexpr uint32_t kB = 0xEF010102;
const Group kGroupA = *Group::parse("239.1.1.1");
const Now kStart{SteadyTime(1000s), WallTime(1'700'000'000s)};

Now at(double seconds) {
    const auto passed = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    return {kStart.steady + passed, kStart.wall + passed};
}

std::string jpeg(std::size_t size = 100) {
    return "\xFF\xD8\xFF" + std::string(size, 'x') + "\xFF\xD9";
}

picturing::Shot shotOf(uint32_t group, const Now& when) {
    picturing::Shot shot;
    shot.set_group(group);
    shot.set_taken_ns(std::chrono::nanoseconds(when.wall.time_since_epoch()).count());
    shot.set_outcome(picturing::OUTCOME_TAKEN);
    shot.set_jpeg(jpeg());
    shot.set_width(1920);
    shot.set_height(1080);
    shot.set_luma_mean(100);
    shot.set_luma_spread(40);
    return shot;
}

TEST(StationPictureBook, KeepsTheNewestOfEachWatchedGroupAndNoNonsense) {
    PictureBook book;
    book.watch({kA});
    book.shot(shotOf(kA, kStart), kStart);
    const PicturePointer first = book.find(kGroupA);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->jpeg, jpeg());
    EXPECT_EQ(first->taken, kStart.wall);
    book.shot(shotOf(kB, kStart), kStart);
    EXPECT_EQ(book.state(kStart.steady).held, 1U) << "not watched";

    struct Case {
        const char* what;
        std::function<void(picturing::Shot&)> change;
    };
    const Case cases[] = {
        {"no JPEG", [](auto& shot) { shot.set_jpeg("GIF89a..........."); }},
        {"cut JPEG", [](auto& shot) { shot.set_jpeg(jpeg().substr(0, 50)); }},
        {"large", [](auto& shot) { shot.set_jpeg(jpeg(picturing::kJpegBytes)); }},
        {"none", [](auto& shot) { shot.clear_jpeg(); }},
        {"no size", [](auto& shot) { shot.clear_width(); }},
    };
    uint64_t refused = 0;
    for (const Case& one : cases) {
        picturing::Shot shot = shotOf(kA, at(10));
        one.change(shot);
        book.shot(std::move(shot), at(10));
        EXPECT_EQ(book.state(kStart.steady).refused, ++refused) << one.what;
        EXPECT_EQ(book.find(kGroupA), first) << one.what;
        EXPECT_EQ(book.briefs().at(kA).last->outcome, PictureOutcome::kDamaged) << one.what;
        EXPECT_FALSE(book.takeFigures().at(kA).luma) << one.what;
    }
    // Numbers that cannot be are none.
    picturing::Shot odd = shotOf(kA, at(20));
    odd.set_luma_mean(std::numeric_limits<double>::quiet_NaN());
    odd.set_luma_spread(1e9);
    odd.set_difference(-1);
    odd.set_loudness_lufs(std::numeric_limits<double>::infinity());
    odd.set_taken_ns(std::numeric_limits<int64_t>::max());
    odd.set_problem("two\nlines" + std::string(1000, 'x'));
    book.shot(std::move(odd), at(20));
    const PictureFigures figures = book.takeFigures().at(kA);
    EXPECT_FALSE(figures.luma || figures.spread || figures.difference || figures.loudness);
    EXPECT_EQ(figures.time, at(20).wall);
    EXPECT_LT(book.briefs().at(kA).problem.size(), 300U);
    EXPECT_EQ(book.briefs().at(kA).problem.find('\n'), std::string::npos);
    EXPECT_NE(book.find(kGroupA)->tag, first->tag);
    // Scrambled from now on: the picture stays, with its time.
    picturing::Shot scrambled;
    scrambled.set_group(kA);
    scrambled.set_outcome(picturing::OUTCOME_SCRAMBLED);
    book.shot(std::move(scrambled), at(30));
    EXPECT_NE(book.find(kGroupA), nullptr);
    EXPECT_EQ(whyNoPicture(book.briefs().at(kA).last->outcome), "Scrambled");
    EXPECT_EQ(first->jpeg, jpeg()) << "whoever has it keeps it";
    book.watch({kB});
    EXPECT_EQ(book.find(kGroupA), nullptr);
    EXPECT_EQ(book.state(kStart.steady).bytes, 0U);
}

TEST(StationPictureBook, KnowsWhoLooks) {
    PictureBook book;
    book.watch({kA});
    book.look(kGroupA, kStart.steady);
    book.look(*Group::parse("239.9.9.9"), kStart.steady);
    EXPECT_EQ(book.lookedAt(kStart.steady + 60s), std::set<uint32_t>{kA});
    EXPECT_TRUE(book.lookedAt(kStart.steady + 61s).empty());
}

std::string framed(const picturing::ToStation& message) {
    return metering::framed(message);
}
std::string hello(uint32_t major = picturing::kMajor) {
    picturing::ToStation message;
    message.mutable_hello()->set_major(major);
    message.mutable_hello()->set_version("9.9");
    return framed(message);
}

TEST(StationPictureReader, RefusesWhatMakesNoSense) {
    picturing::ToStation shot;
    *shot.mutable_shot() = shotOf(kA, kStart);
    picturing::ToStation huge;
    huge.mutable_shot()->set_jpeg(std::string(PictureReader::kMessageBytes, 'x'));
    const std::pair<std::string, const char*> cases[] = {
        {framed(shot), "before it said"},
        {hello(picturing::kMajor + 1), "speaks version"},
        {hello() + hello(), "twice"},
        {hello() + framed(huge), "cannot be read"},
        {hello() + std::string("\0\0\0\3\xFF\xFF\xFF", 7), "cannot be read"},
        {std::string("\x7F\0\0\0", 4), "bytes"},
    };
    for (const auto& [bytes, why] : cases) {
        PictureBook book;
        PictureReader reader(book);
        try {
            reader.received(bytes, kStart);
            ADD_FAILURE() << why;
        } catch (const PeerRefused& error) {
            EXPECT_THAT(error.what(), HasSubstr(why));
        }
    }
    PictureBook book;
    book.watch({kA});
    PictureReader reader(book);
    for (const char byte : hello() + framed(shot))
        reader.received({&byte, 1}, kStart);
    EXPECT_NE(book.find(kGroupA), nullptr);
}

using Peer = UnixPeer<picturing::FromStation>;

TEST(StationPicturePort, TellsOneKestorPictureTheChannelsAndRefusesAnother) {
    const ScratchDirectory directory;
    const std::filesystem::path path = directory.path() / "picture.sock";
    PictureBook book;
    PicturePort port(path, "1", book);
    port.tell({{kA, true, false}, {kB, false, true}}, 0.25);
    Peer peer(path);
    EXPECT_TRUE(peer.next()->has_hello());
    peer.send(hello());
    const auto channels = peer.next()->channels();
    ASSERT_EQ(channels.channel_size(), 2);
    EXPECT_EQ(channels.cores(), 0.25);
    EXPECT_TRUE(channels.channel(0).urgent());
    EXPECT_TRUE(channels.channel(1).looked_at());
    EXPECT_TRUE(channels.channel(1).audio());
    Peer second(path);
    EXPECT_TRUE(second.next()->has_refused());
    EXPECT_FALSE(second.next()) << "and closed";
    port.tell({{kA, true, false}, {kB, false, true}}, 0.25);
    port.tell({{kA, false, false}}, 0.25);
    EXPECT_EQ(peer.next()->channels().channel_size(), 1) << "only what changed";
    peer.send("nonsense");
    EXPECT_FALSE(peer.next());
    Peer third(path);
    EXPECT_TRUE(third.next()->has_hello());
}

// ---- alarms

struct Watched {
    AlarmEngine engine;
    ChannelWatch watch{engine};
    std::vector<AlarmChange> changes;

    explicit Watched(const Now& start = kStart) {
        Channel channel{.group = kGroupA};
        engine.configure({}, {{kGroupA, channel}}, start);
        ChannelDifference difference;
        difference.added.push_back(channel);
        watch.setChannels(difference);
    }
    // Names of what was raised (+) and cleared (-) by it.
    std::string see(const PictureFigures& figures, double when) {
        changes.clear();
        watch.observe(watch.channels().at(kGroupA), sampleOf(figures), at(when), changes);
        std::string text;
        for (const AlarmChange& change : changes) {
            text += (text.empty() ? "" : " ");
            text += change.what == AlarmChange::What::kRaised ? "+" : "-";
            text += alarmTypes()[change.alarm.type].name;
        }
        return text;
    }
};

PictureFigures moving() {
    PictureFigures figures;
    figures.group = kA;
    figures.outcome = PictureOutcome::kTaken;
    figures.luma = 100;
    figures.spread = 40;
    figures.difference = 20;
    figures.change = 150;
    figures.loudness = -23;
    return figures;
}

PictureFigures still() {
    PictureFigures figures = moving();
    figures.change = 0;
    return figures;
}

PictureFigures scrambled() {
    PictureFigures figures;
    figures.group = kA;
    figures.outcome = PictureOutcome::kScrambled;
    return figures;
}

TEST(StationPictureAlarms, TellWhatIsFrozenBlackOrSilentByPicturesAlone) {
    PictureFigures frozen = moving();
    frozen.difference = 0.1;
    frozen.change = 0.8;
    PictureFigures clockMoves = frozen;  // one part alone
    clockMoves.change = 60;
    PictureFigures black = frozen;
    black.luma = 1;
    black.spread = 2;
    PictureFigures logo = black;
    logo.spread = 20;
    PictureFigures silent = moving();
    silent.loudness = -120;
    PictureFigures noSound = moving();
    noSound.loudness.reset();
    const std::map<std::string, PictureFigures> pictures = {
        {"well", moving()}, {"frozen", frozen}, {"clock", clockMoves}, {"black", black},
        {"logo", logo},     {"silent", silent}, {"mute", noSound},     {"scrambled", scrambled()}};
    // A picture each 20 s, and what it raises (+) and clears (-).
    for (const std::string script : {
             "well; frozen; frozen; frozen +frozen; frozen; well -frozen",
             "frozen; frozen; well; frozen; frozen; well",  // it moves now and then
             "clock; clock; clock; clock",
             "black; black +black; black; black; well -black",  // and not frozen too
             "logo; logo; logo +frozen; logo",
             "silent; silent; silent +silent; well -silent",
             "mute; mute; mute",  // no sound that could be heard
             "frozen; scrambled; frozen; frozen; frozen +frozen; scrambled",
         }) {
        Watched watched;
        double when = 0;
        std::string told;
        std::istringstream steps(script);
        for (std::string step; std::getline(steps >> std::ws, step, ';');) {
            const std::string picture = step.substr(0, step.find(' '));
            const std::string changes = watched.see(pictures.at(picture), when += 20);
            told += (told.empty() ? "" : "; ") + picture + (changes.empty() ? "" : " " + changes);
        }
        EXPECT_EQ(told, script);
    }
}

TEST(StationPictureAlarms, AreSilentWhereNobodyExpectsPicturesAndGivenUpAfterALongTimeWithout) {
    const ScratchDirectory directory;
    Configuration configuration;
    configuration.pictures.socket = directory.path() / "p.sock";
    const auto raised = [](const std::vector<AlarmChange>& changes) {
        return std::ranges::count_if(changes, [](const AlarmChange& change) {
            return change.what == AlarmChange::What::kRaised &&
                   alarmTypes()[change.alarm.type].name == "picture_silent";
        });
    };
    for (const bool expected : {false, true}) {
        configuration.pictures.expected = expected;
        Watched watched;
        PictureDesk desk;
        desk.start(configuration, "1", [] {});
        std::ptrdiff_t times = 0;
        for (int second = 0; second < 60; ++second)
            times += raised(desk.judgePresence(watched.engine, configuration.pictures, at(second)));
        EXPECT_EQ(times, expected ? 1 : 0);
        EXPECT_FALSE(desk.fresh(at(59).steady, at(60).steady));
        for (int i = 0; i < 4; ++i)
            watched.see(still(), 60 + 20 * i);
        ASSERT_EQ(watched.engine.activeOf(kGroupA).size(), 1U);
        desk.judgePresence(watched.engine, configuration.pictures, at(599));
        EXPECT_EQ(watched.engine.activeOf(kGroupA).size(), 1U);
        desk.judgePresence(watched.engine, configuration.pictures, at(602));
        EXPECT_TRUE(watched.engine.activeOf(kGroupA).empty());
    }
}

TEST(StationPictureAlarms, AreGivenUpWhereAChannelHasNoPictureForLong) {
    Watched watched;
    PictureDesk desk;
    std::vector<AlarmChange> changes;
    const auto take = [&](const PictureFigures& figures, double when) {
        changes.clear();
        desk.take(figures, watched.watch.channels().at(kGroupA), watched.watch, watched.engine, at(when),
                  changes);
    };
    PictureFigures dead = still();
    dead.loudness = -120;
    double when = 0;
    for (; when < 100; when += 20)
        take(dead, when);
    const double last = when - 20;
    ASSERT_EQ(watched.engine.activeOf(kGroupA).size(), 2U) << "frozen and silent";
    PictureFigures hidden = scrambled();
    hidden.loudness = -120;  // the sound is not
    PictureFigures partly = hidden;
    partly.outcome = PictureOutcome::kTaken;  // and not measured
    for (bool none = false; when <= last + 600; when += 20, none = !none) {
        take(none ? hidden : partly, when);
        ASSERT_TRUE(changes.empty()) << when;
    }
    take(partly, when);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(alarmTypes()[changes[0].alarm.type].name, "frozen");
    EXPECT_THAT(changes[0].text,
                HasSubstr("no whole picture of the channel for 10 min (Parts of them are lost)"));
    // Its pictures come back, and are as they were.
    for (int i = 0; i < 4; ++i)
        take(dead, when += 20);
    EXPECT_EQ(watched.engine.activeOf(kGroupA).size(), 2U);
}

TEST(StationPictureAlarms, TellThatAConnectedOneGetsNoPacketsButNotThatNoneAreWanted) {
    const ScratchDirectory directory;
    Configuration configuration;
    configuration.pictures.socket = directory.path() / "p.sock";
    PictureDesk desk;
    desk.start(configuration, "1", [] {});
    Peer peer(configuration.pictures.socket);
    peer.send(hello());
    const auto tellMeter = [&](bool meter) {
        picturing::ToStation message;
        message.mutable_status()->set_meter(meter);
        peer.send(framed(message));
        EXPECT_TRUE(eventually([&] {
            const auto state = desk.state(systemNow());
            return state.connected && state.meter == meter;
        }));
    };
    tellMeter(false);
    // The port has the time from the clock: what is judged lies before what it heard last.
    const auto before = [now = systemNow()](int seconds) {
        return Now{now.steady - std::chrono::seconds(seconds), now.wall - std::chrono::seconds(seconds)};
    };
    Watched watched(before(2000));
    std::vector<AlarmChange> changes;
    for (int second = 1990; second > 1900; --second)
        std::ranges::move(desk.judgePresence(watched.engine, configuration.pictures, before(second)),
                          std::back_inserter(changes));
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_THAT(changes[0].text, HasSubstr("gets no packets"));
    for (int second = 1900; second > 1800; second -= 20)
        watched.watch.observe(watched.watch.channels().at(kGroupA), sampleOf(still()), before(second),
                              changes);
    ASSERT_EQ(watched.engine.activeOf(kGroupA).size(), 1U);
    tellMeter(true);
    configuration.pictures.cores = 0;
    changes.clear();
    for (int second = 1800; second > 1000; --second)
        std::ranges::move(desk.judgePresence(watched.engine, configuration.pictures, before(second)),
                          std::back_inserter(changes));
    ASSERT_EQ(changes.size(), 2U);
    EXPECT_THAT(changes[0].text, HasSubstr("cores = 0"));
    EXPECT_EQ(alarmTypes()[changes[1].alarm.type].name, "frozen");
    EXPECT_TRUE(watched.engine.activeOf(kGroupA).empty());
}

}  // namespace
}  // namespace station
