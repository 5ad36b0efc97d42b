// What the station tells the probe, and how it reads the pipe.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <thread>

#include "basics/descriptor.h"
#include "common/log.h"
#include "mailbox.h"
#include "probe/pipeReader.h"
#include "probe/probeLink.h"
#include "probeWatch.h"
#include "support/inScratch.h"

using namespace std::chrono_literals;
using station::Group;
using station::Groups;
using station::ProbeLink;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

Group group(int last) {
    return *Group::parse("239.1." + std::to_string(last / 250) + "." + std::to_string(last % 250 + 1));
}

Groups groups(int count) {
    Groups all;
    for (int i = 0; i < count; ++i) {
        all.insert(group(i));
    }
    return all;
}

// A probe that does as it is told, and shows a snapshot a second.
struct FakeProbe {
    explicit FakeProbe(ProbeLink& tried) : link(tried) {}

    ProbeLink& link;
    station::SteadyTime now{1h};
    int32_t sequence = 0;
    Groups list;
    std::size_t told = 0;
    ProbeLink::Event event{};

    ProbeLink::Answer ask(std::chrono::milliseconds pace = 500ms) {
        now += pace;
        event = link.request(sequence++, now);
        const auto answer = link.answer(now);
        for (const Group& gone : answer.remove) {
            list.erase(gone);
        }
        list.insert(answer.append.begin(), answer.append.end());
        told += answer.append.size();
        return answer;
    }
    void second() {
        ask();
        ask();
        link.shown(list, now - 100ms);
    }
};

struct StationProbe : testing::Test {
    // It has been told so many groups, and shows them.
    void settle(int count, int seconds = 2) {
        link.want(groups(count));
        for (int i = 0; i < seconds; ++i) {
            probe.second();
        }
        ASSERT_EQ(probe.list, groups(count));
    }

    ProbeLink link;
    FakeProbe probe{link};
};

}  // namespace

TEST_F(StationProbe, HasGroupsJoinedAgainWithoutTouchingOthers) {
    settle(3);
    link.rejoin({group(1), group(7)});
    const auto answer = probe.ask();
    EXPECT_THAT(answer.remove, ElementsAre(group(1)));
    EXPECT_THAT(answer.append, ElementsAre(group(1))) << "what is not wanted is left alone";
    for (int i = 0; i < 5; ++i) {
        probe.second();
        EXPECT_EQ(probe.list, groups(3));
    }
    const std::size_t told = probe.told;

    // All that it has in one answer, without the cost of removals.
    link.rejoin(groups(3));
    EXPECT_TRUE(probe.ask().clearAll);
    EXPECT_FALSE(probe.ask().clearAll);
    EXPECT_EQ(probe.told, told);
}

// What the probe holds when it joins and leaves by the mode that it was told last.
struct ProbesMemberships {
    void act(const ProbeLink::Answer& answer) {
        if (answer.clearAll) {
            for (const Group& group : passively) {
                igmp.insert(group);
            }
            return;
        }
        passive = answer.passive.value_or(passive);
        for (const Group& group : answer.remove) {
            EXPECT_EQ((passive ? passively : igmp).erase(group), 1U) << group.text();
        }
        for (const Group& group : answer.append) {
            (passive ? passively : igmp).insert(group);
        }
    }

    bool passive = false;
    Groups igmp;
    Groups passively;
};

TEST_F(StationProbe, HasSomeGroupsJoinedWithoutIgmp) {
    ProbesMemberships held;
    const auto settled = [&] {
        for (int i = 0; i < 12; ++i) {
            held.act(probe.ask());
            if (i % 2 == 1) {
                link.shown(probe.list, probe.now - 100ms);
            }
        }
        EXPECT_EQ(probe.list, groups(10));
        EXPECT_FALSE(held.passive) << "others may tell it groups too";
    };
    const Groups some = {group(2), group(3)};
    Groups rest = groups(10);
    for (const Group& one : some) {
        rest.erase(one);
    }
    link.want(groups(10));
    settled();
    EXPECT_EQ(held.igmp, groups(10));
    for (int i = 0; i < 2; ++i) {
        link.want(groups(10), some);
        settled();
        EXPECT_EQ(held.igmp, rest);
        EXPECT_EQ(held.passively, some);
        for (int quiet = 0; quiet < 10; ++quiet) {
            const auto answer = probe.ask();
            EXPECT_THAT(answer.append, IsEmpty());
            EXPECT_THAT(answer.remove, IsEmpty());
            EXPECT_EQ(answer.passive, false);
        }
        link.want(groups(10));
        settled();
        EXPECT_EQ(held.igmp, groups(10));
        EXPECT_THAT(held.passively, IsEmpty());
    }
    // From the begin, through a reset of all counters, and to the end.
    ProbeLink fresh;
    FakeProbe second(fresh);
    ProbesMemberships anew;
    fresh.want(groups(10), some);
    // Whether it was told to clear its counters.
    const auto turns = [&](int count) {
        bool cleared = false;
        for (int i = 0; i < count; ++i) {
            const auto answer = second.ask();
            cleared = cleared || answer.clearAll;
            anew.act(answer);
        }
        return cleared;
    };
    turns(6);
    EXPECT_EQ(anew.igmp, rest);
    EXPECT_EQ(anew.passively, some);
    fresh.clearCounters();
    EXPECT_TRUE(turns(8));
    EXPECT_EQ(anew.igmp, rest);
    fresh.want({});
    turns(6);
    EXPECT_THAT(anew.igmp, IsEmpty());
    EXPECT_THAT(anew.passively, IsEmpty());
    EXPECT_FALSE(anew.passive);
}

TEST_F(StationProbe, JoinsManyAgainAtTheProbesPace) {
    settle(2000, 12);
    Groups most = groups(1990);
    link.rejoin(most);
    std::size_t largest = 0;
    for (int i = 0; i < 2000 && !most.empty(); ++i) {
        const auto answer = probe.ask();
        EXPECT_EQ(answer.remove, answer.append);
        EXPECT_FALSE(answer.clearAll);
        largest = std::max(largest, answer.remove.size());
        for (const Group& again : answer.append) {
            most.erase(again);
        }
    }
    EXPECT_THAT(most, IsEmpty());
    EXPECT_EQ(largest, 4U) << "each removal costs the square of the list";
    EXPECT_EQ(probe.list, groups(2000));
}

TEST_F(StationProbe, TellsAFreshProbeTwoHundredGroupsAnAnswerOnce) {
    link.want(groups(450));
    EXPECT_THAT(probe.ask().append, IsEmpty()) << "whether it monitors is not known yet";
    EXPECT_THAT(probe.ask().append, SizeIs(200));
    EXPECT_THAT(probe.ask().append, SizeIs(200));
    EXPECT_THAT(probe.ask().append, SizeIs(50));
    for (int i = 0; i < 10; ++i) {
        probe.second();
    }
    EXPECT_EQ(probe.told, 450U);
    EXPECT_EQ(probe.list, groups(450));
}

TEST_F(StationProbe, TellsAProbeThatLostItsListAllGroupsAgain) {
    settle(3);
    // It is back at once, and the one before is not known to be gone yet.
    probe.sequence = 0;
    probe.list.clear();
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(probe.ask().append, IsEmpty());
        EXPECT_EQ(probe.event, ProbeLink::Event::kAside) << i;
    }
    probe.ask();
    EXPECT_EQ(probe.event, ProbeLink::Event::kReplaced);
    EXPECT_FALSE(link.secondAsker(probe.now));
    EXPECT_EQ(probe.list, groups(3));
    probe.now += 1min;
    probe.ask();
    EXPECT_EQ(probe.event, ProbeLink::Event::kCame);
    // It takes its time.
    probe.now += 10s;
    probe.sequence = 0;
    probe.ask();
    EXPECT_EQ(probe.event, ProbeLink::Event::kReplaced);
}

TEST_F(StationProbe, TellsOneOfTwoAndSaysThatThereAreTwo) {
    struct Case {
        const char* what;
        int32_t second;                         // its first number
        std::function<int32_t(int32_t)> next;   // its number after that one
        std::chrono::milliseconds offset{250};  // behind the first
    };
    const auto following = [](int32_t number) { return number + 1; };
    const Case cases[] = {
        {"two probes that were started together", 0, following, 5ms},
        {"a younger one", 0, following},
        {"an older one", 100'000, following},
        {"always the same number", 0, [](int32_t number) { return number; }},
        {"numbers that fall", 100'000, [](int32_t number) { return number - 1; }},
        {"no sense", 7, [](int32_t number) { return (number * 75 + 74) % 65537 + 1'000'000; }},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        ProbeLink asked;
        asked.want(groups(3));
        FakeProbe first(asked);
        first.second();
        int32_t number = one.second;
        for (int i = 0; i < 240; ++i) {
            first.ask();
            ASSERT_EQ(first.event, ProbeLink::Event::kNone) << i;
            ASSERT_EQ(asked.request(number, first.now + one.offset), ProbeLink::Event::kAside) << i;
            const auto answer = asked.answer(first.now + one.offset);
            EXPECT_TRUE(answer.append.empty() && answer.remove.empty() && !answer.clearAll);
            number = one.next(number);
            asked.shown(first.list, first.now);
            if (i == 0) {
                EXPECT_FALSE(asked.secondAsker(first.now)) << "may be a restart";
            }
        }
        EXPECT_TRUE(asked.secondAsker(first.now));
        EXPECT_EQ(first.told, 3U);
        // The other one is gone.
        for (int i = 0; i < 22; ++i) {
            first.ask();
        }
        EXPECT_FALSE(asked.secondAsker(first.now));
    }
}

TEST_F(StationProbe, TellsAnotherWhenTheFirstAskerDoesNotDoAsItIsTold) {
    link.want(groups(3));
    FakeProbe idle(link);
    idle.sequence = 50;
    for (int i = 0; i < 20; ++i) {
        idle.ask();
        probe.now = idle.now + 100ms - 500ms;
        probe.ask();
        link.shown(probe.list, probe.now - 50ms);
    }
    EXPECT_EQ(probe.list, groups(3));
    EXPECT_TRUE(link.secondAsker(probe.now));
}

TEST_F(StationProbe, TellsAProbeThatWasRunningOnlyTheDifference) {
    link.want(groups(3));
    probe.sequence = 1000;
    probe.list = {group(0), group(1), group(7)};
    probe.second();
    EXPECT_EQ(probe.told, 0U) << "its list is not known before a snapshot showed it";
    const auto answer = probe.ask();
    EXPECT_THAT(answer.append, ElementsAre(group(2)));
    EXPECT_THAT(answer.remove, ElementsAre(group(7)));
    probe.second();
    probe.second();
    EXPECT_EQ(probe.told, 1U);
    EXPECT_EQ(probe.list, groups(3));
}

TEST_F(StationProbe, TellsAGroupAgainThatThreeSnapshotsMissed) {
    settle(2, 3);
    ASSERT_EQ(probe.told, 2U);
    probe.list.erase(group(1));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(probe.told, 2U) << i;
        probe.second();
    }
    probe.ask();
    EXPECT_EQ(probe.told, 3U);
    EXPECT_EQ(probe.list, groups(2));
}

TEST_F(StationProbe, LeavesAScanningProbeAlone) {
    link.want(groups(2));
    link.clearCounters();
    for (int i = 0; i < 5; ++i) {
        const auto answer = probe.ask(2500ms);
        EXPECT_FALSE(answer.clearAll);
        EXPECT_THAT(answer.append, IsEmpty());
    }
    EXPECT_TRUE(link.scanning());
}

TEST_F(StationProbe, RemovesFewGroupsAnAnswerFromALongList) {
    settle(1000, 10);
    link.want(groups(900));
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(probe.ask().remove, SizeIs(16)) << "the probe prints a million lines for each";
    }
    link.want({});
    std::size_t most = 0;
    for (int i = 0; i < 2000 && !probe.list.empty(); ++i) {
        most = std::max(most, probe.ask().remove.size());
        link.shown(probe.list, probe.now);
    }
    EXPECT_THAT(probe.list, IsEmpty());
    EXPECT_GT(most, 10U);
}

namespace {

// A pipe with a reader that takes at most 100 kB, and a writer that opens and closes it like the probe.
class StationPipe : public station::InScratch {
  protected:
    const std::filesystem::path path{directory / "results"};
    std::mutex mutex;
    std::vector<std::string> taken;
    basics::Descriptor closings;  // of the reader's end
    std::unique_ptr<station::PipeReader> reader;

    void SetUp() override {
        makePipe();
        reader = std::make_unique<station::PipeReader>(
            path,
            [this](station::RawSnapshot&& raw) {
                const std::lock_guard lock(mutex);
                taken.push_back(std::move(raw.text));
            },
            100'000);
    }
    void TearDown() override {
        reader.reset();
    }
    void makePipe() {
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        closings = basics::Descriptor(inotify_init1(IN_CLOEXEC));
        ASSERT_GE(inotify_add_watch(closings.number(), path.c_str(), IN_CLOSE_NOWRITE), 0);
    }
    int openWriter() const {
        const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_GE(writer, 0);
        return writer;
    }
    static void put(int writer, std::string_view text) {
        EXPECT_EQ(::write(writer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void writeWhole(std::string_view text) const {
        const int writer = openWriter();
        put(writer, text);
        end(writer);
    }
    // Until the reader has seen it: then it opens the pipe anew, and closes what it had.
    void end(int writer) const {
        close(writer);
        pollfd item{closings.number(), POLLIN, 0};
        EXPECT_EQ(poll(&item, 1, 60'000), 1);
        std::array<char, 4096> event;
        EXPECT_GT(::read(closings.number(), event.data(), event.size()), 0);
    }
    std::vector<std::string> takeAll() {
        const std::lock_guard lock(mutex);
        return std::exchange(taken, {});
    }
};

}  // namespace

TEST_F(StationPipe, TakesWholeSnapshotsAlone) {
    writeWhole("one\ntwo\n");
    EXPECT_THAT(takeAll(), ElementsAre("one\ntwo\n"));
    writeWhole("cut in the mid");
    EXPECT_THAT(takeAll(), IsEmpty());
    EXPECT_EQ(reader->statistics().cut, 1U);
    // In pieces, with a line that is not whole when the first ends.
    const int writer = openWriter();
    for (const char* piece : {"thr", "ee\n", "four\n"}) {
        put(writer, piece);
        std::this_thread::sleep_for(50ms);  // it is read
        EXPECT_THAT(takeAll(), IsEmpty()) << "its end is not known";
    }
    end(writer);
    EXPECT_THAT(takeAll(), ElementsAre("three\nfour\n"));
    EXPECT_EQ(reader->statistics().tooLarge, 0U);
}

TEST_F(StationPipe, DropsWhatIsTooLargeAndSaysSo) {
    const std::string line(999, 'x');
    std::string fits;
    for (int i = 0; i < 100; ++i) {
        fits += line + "\n";
    }
    writeWhole(fits);
    EXPECT_THAT(takeAll(), ElementsAre(fits));
    EXPECT_EQ(reader->statistics().tooLarge, 0U);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; ++i) {
        writeWhole(fits + "\n");
        EXPECT_THAT(takeAll(), IsEmpty());
    }
    EXPECT_TRUE(station::flushLog(5s));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("larger than 100000 bytes"), std::string::npos) << log;
    EXPECT_EQ(log.find("larger than"), log.rfind("larger than")) << "said once";
    EXPECT_EQ(reader->statistics().tooLarge, 3U);
    EXPECT_EQ(reader->statistics().cut, 0U);
    writeWhole("small\n");
    EXPECT_THAT(takeAll(), ElementsAre("small\n"));
    const int endless = openWriter();  // it never closes the pipe
    put(endless, fits + "\n");
    EXPECT_TRUE(station::eventually([&] { return reader->statistics().tooLarge == 4; }));
    const auto told = reader->statistics().lastTooLarge;
    put(endless, fits + "\n");
    EXPECT_TRUE(station::eventually([&] { return reader->statistics().lastTooLarge > told; }))
        << "it goes on";
    end(endless);
    EXPECT_EQ(reader->statistics().tooLarge, 4U);
}

TEST_F(StationPipe, FollowsThePipeThatIsMadeAnew) {
    const int before = openWriter();
    put(before, "begun, and never ended\n");
    std::filesystem::remove(path);
    makePipe();
    writeWhole("of the new one\n");  // opening it waits for the reader
    EXPECT_THAT(takeAll(), ElementsAre("of the new one\n"));
    EXPECT_EQ(reader->statistics().cut, 1U);
    close(before);

    std::filesystem::remove(path);
    EXPECT_TRUE(station::eventually([&] { return !reader->statistics().problem.empty(); }));
    makePipe();
    writeWhole("and again\n");
    EXPECT_THAT(takeAll(), ElementsAre("and again\n"));
    EXPECT_EQ(reader->statistics().problem, "");
}

TEST(StationMailbox, DropsTheOldestAndRefusesCommandsWhenFull) {
    station::Mailbox mailbox;
    const station::SteadyTime past{};
    for (int i = 0; i < 5; ++i) {
        mailbox.send(station::RawSnapshot{std::to_string(i), {}, {}});
    }
    for (int i = 0; i < 300; ++i) {
        station::Controller::Report report;
        report.sequence = i;
        mailbox.send(report);
        EXPECT_EQ(mailbox.send(station::Command{station::QueryOverview{}, {}}), i < 64)
            << "readers leave room";
        EXPECT_EQ(mailbox.send(station::Command{station::ClearCounters{}, {}}), i < 192) << i;
    }
    int told = 0;
    for (int i = 0; i < 2; ++i) {
        station::LoadedFiles files;
        files.askers.push_back([&] { ++told; });
        mailbox.send(std::move(files));
    }
    station::Mailbox::Batch batch = mailbox.drainUntil(past);
    ASSERT_THAT(batch.snapshots, SizeIs(3));
    EXPECT_EQ(batch.snapshots.front().text, "2");
    ASSERT_THAT(batch.reports, SizeIs(256));
    EXPECT_EQ(batch.reports.front().sequence, 44);
    EXPECT_THAT(batch.commands, SizeIs(256));
    ASSERT_TRUE(batch.files);
    for (const auto& asker : batch.files->askers) {
        asker();
    }
    EXPECT_EQ(told, 2) << "who asked for files that were replaced hears of those that replaced them";
    EXPECT_EQ(mailbox.droppedSnapshots(), 2U);
    EXPECT_EQ(mailbox.refusedCommands(), 344U);
    EXPECT_TRUE(mailbox.send(station::Command{station::QueryOverview{}, {}})) << "those before are taken";
    mailbox.stop();
    EXPECT_FALSE(mailbox.send(station::Command{station::ClearCounters{}, {}})) << "nobody would answer it";
    EXPECT_TRUE(mailbox.drainUntil(past).stop);
}

TEST(StationProbeWatch, TellsTheFaultsApart) {
    using station::ProbeWatch;
    struct Case {
        const char* what;
        bool asks;
        bool shows;
        ProbeWatch::Ends ends;
        std::optional<bool> silent;
        std::optional<bool> notAsking;
        const char* text;  // part of it, or empty for no problem
    };
    station::PipeReader::Statistics removed;
    removed.problem = "no pipe";
    station::PipeReader::Statistics large;
    large.tooLarge = 1;
    large.lastTooLarge = station::SteadyTime{2h};
    const ProbeWatch::Ends taken{"port taken", {}};
    const ProbeWatch::Ends alone{"", {}, "no interface"};
    const Case cases[] = {
        {"all is well", true, true, {}, false, false, ""},
        {"gone", false, false, {}, true, {}, "is kestor -s running?"},
        {"gone, and the port is not ours", false, false, taken, true, {}, "port taken"},
        {"gone, and nothing to capture on", false, false, alone, true, {}, "3 s: no interface"},
        {"asks alone", true, false, {}, true, false, "does something else read its pipe?"},
        {"asks, and has no pipe", true, false, {"", removed}, true, false, "no pipe"},
        {"asks, and says too much", true, false, {"", large}, true, false, "larger than 64 MiB"},
        {"shows, and at times says too much", true, true, {"", large}, false, false, "some snapshots"},
        {"shows alone", false, true, {}, false, true, "did not ask what to watch"},
        {"shows, and the port is not ours", false, true, taken, false, true, "port taken"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        station::SteadyTime now{1h};
        ProbeWatch watch(now);
        watch.update(now, one.ends);
        EXPECT_FALSE(watch.look(now).silent || watch.look(now).notAsking) << "nothing is known yet";
        for (int i = 0; i < 20; ++i) {
            now += 500ms;
            if (one.asks) {
                station::Controller::Report report;
                report.time.steady = now;
                watch.request(report);
            }
            if (one.shows) {
                watch.snapshot({"", {now, {}}, {now, {}}});
            }
            watch.update(now, one.ends);
        }
        EXPECT_EQ(watch.look(now).silent, one.silent);
        EXPECT_EQ(watch.look(now).notAsking, one.notAsking);
        EXPECT_EQ(watch.state().connected, one.shows);
        EXPECT_EQ(watch.state().asks, one.asks);
        EXPECT_EQ(watch.fresh(now - 1s, now), one.shows) << "what is shown goes by snapshots alone";
        EXPECT_THAT(watch.state().problem, testing::HasSubstr(one.text));
        EXPECT_EQ(watch.state().problem.empty(), *one.text == '\0');
        // This process stood still: that says nothing.
        now += 1min;
        watch.wokeUp(now);
        watch.update(now, one.ends);
        EXPECT_EQ(watch.state().connected, one.shows);
        EXPECT_FALSE(watch.look(now).silent);
    }
}

TEST(StationLog, NeverWaitsForItsReader) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int before = dup(STDERR_FILENO);
    ASSERT_TRUE(station::flushLog(5s));
    dup2(ends[1], STDERR_FILENO);
    const uint64_t dropped = station::droppedLogLines();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5000; ++i) {
        station::log(station::LogLevel::kNotice, std::string(100, 'x') + std::to_string(i));
    }
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(station::flushLog(10ms)) << "the pipe takes 64 KiB";
    EXPECT_GT(station::droppedLogLines(), dropped + 1000);
    // Everything that was not dropped comes, in order, and how many were dropped.
    std::string read;
    std::jthread reading([&] {
        std::array<char, 4096> part;
        for (ssize_t size; read.find("were dropped") == std::string::npos &&
                           (size = ::read(ends[0], part.data(), part.size())) > 0;) {
            read.append(part.data(), static_cast<std::size_t>(size));
        }
    });
    reading.join();
    EXPECT_TRUE(station::flushLog(5s));
    dup2(before, STDERR_FILENO);
    for (const int one : {before, ends[0], ends[1]}) {
        close(one);
    }
    EXPECT_LT(took, 10s);
    EXPECT_LT(read.find("x0\n"), read.find("x999\n"));
    EXPECT_NE(read.find("<4>" + std::to_string(station::droppedLogLines() - dropped) + " lines of the log"),
              std::string::npos);
}
