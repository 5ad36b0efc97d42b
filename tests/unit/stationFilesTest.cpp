// What the owner is told of files, and what it gives to the disk: nothing is lost, nothing is read half, and
// nobody waits for a disk that hangs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "channelBook.h"
#include "channelSaver.h"
#include "common/endWithin.h"
#include "common/fileWatch.h"
#include "common/log.h"
#include "common/textFile.h"
#include "configurationCopy.h"
#include "fileReader.h"
#include "knownFiles.h"
#include "playlistCopies.h"
#include "support/inScratch.h"

using namespace std::chrono_literals;
using namespace station;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
namespace fs = std::filesystem;

namespace {

// Hangs where it is told to, as a share whose server is gone does.
class Share {
  public:
    void hang(bool on) {
        const std::lock_guard lock(mutex_);
        hangs_ = on;
        changed_.notify_all();
    }
    std::string read(const fs::path& file, std::size_t limit, std::string& problem) {
        std::unique_lock lock(mutex_);
        read_.push_back(file.filename());
        if (file.string().find("share") != std::string::npos) {
            waited_ = hangs_;
            changed_.wait(lock, [this] { return !hangs_; });
        }
        lock.unlock();
        return readTextFile(file, limit, problem);
    }
    bool waited() {
        const std::lock_guard lock(mutex_);
        return waited_;
    }
    std::vector<std::string> takeRead() {
        const std::lock_guard lock(mutex_);
        return std::exchange(read_, {});
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool hangs_ = false;
    bool waited_ = false;  // whoever read it last
    std::vector<std::string> read_;
};

class StationFiles : public InScratch {
  protected:
    StationFiles() {
        fs::create_directory(directory / "state");
    }
    ~StationFiles() override {
        share.hang(false);
        reader.reset();
    }
    void configure(const std::string& more) {
        std::ofstream(directory / "station.toml.new") << "state_dir = \"state\"\n" + more;
        fs::rename(directory / "station.toml.new", directory / "station.toml");
    }
    static std::string playlist(const std::string& file) {
        return "[[playlist]]\nfile = \"" + file + "\"\n";
    }
    static std::string entries(int from, int count) {
        std::string text = "#EXTM3U\n";
        for (int i = from; i < from + count; ++i) {
            text += "udp://@239.1.1." + std::to_string(i) + ":5000\n";
        }
        return text;
    }

    // Starts a reader and returns what it finds before it hangs.
    LoadedFiles start() {
        return startWith({directory / "station.toml", [](Configuration&) {},
                          [this](const fs::path& file, std::size_t limit, std::string& problem) {
                              return share.read(file, limit, problem);
                          }});
    }
    LoadedFiles startWith(const FileReader::Options& options) {
        reader.reset();
        std::this_thread::sleep_for(kFileQuiet);  // what was written before rests, however late it is read
        reader = std::make_unique<FileReader>(options, [this](LoadedFiles&& files) {
            const std::size_t answered = files.askers.size();
            mailbox.send(std::move(files));
            answers += answered;
        });
        eventually([this] {
            pollfd item{reader->firstDone(), POLLIN, 0};
            return poll(&item, 1, 0) == 1 || share.waited();
        });
        LoadedFiles files = reader->first();
        reader->keepCopies();
        return files;
    }
    // What is delivered next, with so many channels where a number is given: what is new at the start may be
    // read twice.
    LoadedFiles delivered(std::optional<std::size_t> count = {}) {
        for (;;) {
            auto files = mailbox.drainUntil(std::chrono::steady_clock::now() + 60s).files;
            if (!files) {
                throw std::runtime_error("nothing is delivered");  // which fails the test
            }
            if (!count || channels(*files) == *count) {
                return std::move(*files);
            }
        }
    }
    static std::size_t channels(const LoadedFiles& files) {
        std::size_t count = 0;
        for (const auto& [source, list] : files.playlists) {
            count += list.channels.size();
        }
        return count;
    }

    Share share;
    Mailbox mailbox;
    std::atomic<std::size_t> answers{0};  // in the mailbox, to who asked
    std::unique_ptr<FileReader> reader;
};

Group group(const std::string& text) {
    return *Group::parse(text);
}

PutChannel put(const std::string& where, const std::string& name = {}) {
    PutChannel action(group(where));
    return name.empty() ? action : action.set(&Channel::name, name);
}

RuntimeChannels oneChannel(const std::string& name) {
    Channel channel{.group = *Group::parse("239.9.9.9"), .name = name, .origin = Origin::kRuntime};
    return {{channel.group, RuntimeChannel{channel}}};
}

}  // namespace

TEST_F(StationFiles, WhatIsHalfWrittenIsNotReadForAnythingElse) {
    write("a.m3u", entries(1, 34));
    write("b.m3u", entries(101, 2));
    configure(playlist("a.m3u") + playlist("b.m3u"));
    ASSERT_EQ(channels(start()), 36u);
    share.takeRead();

    std::ofstream half(directory / "a.m3u", std::ios::binary);
    half << entries(1, 17) << std::flush;
    write("b.m3u", entries(101, 3));
    LoadedFiles files = delivered(37);
    EXPECT_THAT(share.takeRead(), ElementsAre("b.m3u")) << "a change of one file has that one read";

    std::optional<ReadResult> asked;
    reader->readAll([&](const ReadResult& result) { asked = result; });
    files = delivered();
    EXPECT_EQ(channels(files), 37u);
    ASSERT_THAT(files.askers, SizeIs(1));
    files.askers[0]();
    EXPECT_THAT(asked->notes,
                ElementsAre(AllOf(HasSubstr("a.m3u is being written"), HasSubstr("34 channels"))));

    half << "udp://@239.1.1.99:5000\n";
    half.close();
    files = delivered();
    EXPECT_EQ(channels(files), 21u);
    EXPECT_THAT(files.result.notes, IsEmpty());

    // Half of a configuration is valid as well; and one that was just written is read by a reading on demand.
    std::ofstream open(directory / "station.toml", std::ios::binary);
    open << "state_dir = \"state\"\n" << playlist("a.m3u") << std::flush;
    reader->readAll(nullptr);
    files = delivered();
    EXPECT_THAT(files.configuration->playlists, SizeIs(2));
    EXPECT_THAT(files.result.notes, Contains(HasSubstr("station.toml is being written")));
    open << playlist("b.m3u") << "[events]\nkeep_days = 7\n";
    open.close();
    reader->readAll(nullptr);
    files = delivered();
    EXPECT_EQ(files.configuration->keepDays, 7u);
    EXPECT_THAT(files.configuration->playlists, SizeIs(2));
}

TEST_F(StationFiles, CopiesHoldForWhatIsHalfWrittenAtTheStart) {
    write("a.m3u", entries(1, 34));
    configure(playlist("a.m3u") + playlist("b.m3u"));
    write("b.m3u", entries(101, 2));
    ASSERT_EQ(channels(start()), 36u);
    ASSERT_TRUE(eventually([&] { return fs::exists(directory / "state/configuration"); }));
    reader.reset();
    const std::pair<std::string, std::string> halves[] = {
        {"a.m3u", entries(1, 17)}, {"station.toml", "state_dir = \"state\"\n" + playlist("a.m3u")}};
    for (const auto& [name, half] : halves) {
        SCOPED_TRACE(name);
        const std::string whole = read(name);
        std::ofstream file(directory / name, std::ios::binary);
        file << half << std::flush;
        std::jthread writer([&file](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                file << "#\n" << std::flush;
                std::this_thread::sleep_for(20ms);
            }
        });
        const LoadedFiles files = start();
        EXPECT_EQ(channels(files), 36u);
        EXPECT_THAT(files.result.notes, Contains(HasSubstr(name + " is being written")));
        writer = {};
        file << whole.substr(half.size());
        file.close();
        const LoadedFiles read = delivered();
        EXPECT_EQ(channels(read), 36u);
        EXPECT_THAT(read.result.notes, IsEmpty());
        reader.reset();
    }
}

TEST_F(StationFiles, AGoodConfigurationHoldsWhenABadOneFollowsBeforeItIsTaken) {
    configure("");
    start();
    std::vector<std::string> told;
    const auto ask = [&](const char* who) {
        reader->readAll([&told, who](const ReadResult& result) {
            told.push_back(std::string(who) + (result.configurationRefused ? " refused" : " fine"));
        });
    };
    std::this_thread::sleep_for(kFileQuiet);
    configure("[events]\nkeep_days = 7\n");
    ask("good");
    ASSERT_TRUE(eventually([&] { return answers == 1; }));
    configure("[events]\nkeep_days = \n");
    ask("bad");
    ASSERT_TRUE(eventually([&] { return answers == 2; }));
    const LoadedFiles files = delivered();
    EXPECT_EQ(files.configuration->keepDays, 7u);
    EXPECT_THAT(files.result.refusals, ElementsAre(HasSubstr("station.toml:3")));
    EXPECT_THAT(files.refused, SizeIs(testing::Ge(1u)));
    for (const auto& asker : files.askers) {
        asker();
    }
    EXPECT_THAT(told, testing::UnorderedElementsAre("good fine", "bad refused")) << "each of its own reading";
}

TEST_F(StationFiles, CopiesOfPlaylistsHoldForTheirOwnPathAlone) {
    fs::create_directories(directory / "a/b");
    fs::create_directories(directory / "a-b");
    const std::string both = playlist("a/b/x.m3u") + playlist("a-b/x.m3u");
    write("a/b/x.m3u", entries(1, 1));
    write("a-b/x.m3u", entries(2, 1));
    configure(both);
    ASSERT_EQ(channels(start()), 2u);
    const auto copied = [&] {
        return std::distance(fs::directory_iterator(directory / "state/playlists"), {});
    };
    ASSERT_TRUE(eventually([&] { return fs::exists(directory / "state/playlists") && copied() == 2; }));
    fs::remove_all(directory / "a");
    fs::remove_all(directory / "a-b");
    LoadedFiles files = start();
    ASSERT_THAT(files.playlists, SizeIs(2));
    EXPECT_EQ(files.playlists[0].second.channels[0].group.text(), "239.1.1.1");
    EXPECT_EQ(files.playlists[1].second.channels[0].group.text(), "239.1.1.2");
    EXPECT_EQ(files.playlists[0].second.channels[0].place.file, (directory / "a/b/x.m3u").string());
    EXPECT_THAT(files.result.refusals,
                ElementsAre(HasSubstr("its last good list of 1 channel stays in force"),
                            HasSubstr("a-b/x.m3u cannot be read")));

    // Copies under the names of 1.1 are found, unless two playlists share one.
    const std::string old = PlaylistCopies::oldNameOf(directory / "a/b/x.m3u");
    EXPECT_EQ(old, PlaylistCopies::oldNameOf(directory / "a-b/x.m3u"));
    fs::remove_all(directory / "state/playlists");
    fs::create_directory(directory / "state/playlists");
    write("state/playlists/" + old, entries(7, 3));
    EXPECT_EQ(channels(start()), 0u);
    configure(playlist("a-b/x.m3u"));
    EXPECT_EQ(channels(start()), 3u);
    fs::create_directory(directory / "a-b");
    write("a-b/x.m3u", entries(7, 4));
    delivered(4);
    EXPECT_TRUE(
        eventually([&] { return copied() == 1 && !fs::exists(directory / "state/playlists" / old); }));
}

TEST_F(StationFiles, AShareThatHangsHoldsUpNobody) {
    fs::create_directory(directory / "share");
    write("share/list.m3u", entries(1, 3));
    configure(playlist("share/list.m3u"));
    ASSERT_EQ(channels(start()), 3u);
    ASSERT_TRUE(eventually([&] { return fs::exists(directory / "state/playlists"); }));

    // At the start the copy holds, and what is read at last is delivered.
    reader.reset();
    write("share/list.m3u", entries(1, 5));
    share.hang(true);
    const LoadedFiles files = start();
    EXPECT_EQ(channels(files), 3u);
    EXPECT_THAT(files.result.refusals, ElementsAre(AllOf(HasSubstr("list.m3u"), HasSubstr("takes long"))));
    ASSERT_TRUE(reader->busy());
    EXPECT_EQ(reader->busy()->file, directory / "share/list.m3u");
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(reader->end(100ms));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);
    share.hang(false);
    const LoadedFiles late = delivered();
    EXPECT_EQ(channels(late), 5u);
    EXPECT_THAT(late.result.refusals, IsEmpty());
}

TEST_F(StationFiles, AStartWithABrokenConfigurationTakesUpItsCopy) {
    write("a.m3u", entries(1, 3));
    const std::string good = playlist("a.m3u") + "[events]\nkeep_days = 7\n";
    const fs::path file = directory / "station.toml";
    const fs::path copy = configurationCopy(directory / "state", file);
    EXPECT_NE(copy, configurationCopy(directory / "state", directory / "other.toml"));
    configure("[events\n");
    EXPECT_FALSE(start().configuration) << "there is no copy";
    configure(good);
    start();
    ASSERT_TRUE(eventually([&] { return fs::exists(copy); }));
    for (const char* broken : {"[events]\nkeep_days = 0\n", "[events\n", "keep_days = \n", ""}) {
        SCOPED_TRACE(broken);
        const bool gone = *broken == '\0';
        gone ? static_cast<void>(fs::remove(file)) : configure(broken);
        reader.reset();
        FileReader::Options options{file, {}, readTextFile};
        options.override = [this](Configuration& read) { read.state = directory / "state"; };  // --state
        const LoadedFiles files = gone ? startWith(options) : start();
        ASSERT_TRUE(files.configuration);
        EXPECT_EQ(files.configuration->keepDays, 7u);
        EXPECT_EQ(channels(files), 3u);
        EXPECT_TRUE(files.result.configurationRefused);
        EXPECT_THAT(files.result.refusals, ElementsAre(HasSubstr("station.toml")));
        EXPECT_THAT(files.result.notes,
                    Contains(HasSubstr("the last good configuration stays in force, a copy of 20")));
    }
    configure("[events]\nkeep_days = 8\n");
    LoadedFiles corrected = delivered();
    while (!corrected.configuration || corrected.configuration->keepDays != 8) {
        corrected = delivered();  // that one was of a reading before
    }
    EXPECT_FALSE(corrected.result.configurationRefused);
    EXPECT_THAT(corrected.result.notes, IsEmpty());
    EXPECT_TRUE(eventually([&] { return read(copy).find("keep_days = 8") != std::string::npos; }));
}

TEST_F(StationFiles, WhatIsReadAndSkippedOfEachPlaylistIsToldAndLogged) {
    std::string bad;
    for (int i = 0; i < 250; ++i) {
        bad += "http://nothing/here\n";
    }
    write("a.m3u", entries(1, 3) + bad);
    write("b.m3u", entries(4, 2) + "udp://@239.1.1.4:5000\nno\n");
    write("c.m3u", entries(6, 2) + "http://nothing/here\n");
    write("d.m3u", entries(8, 2));
    configure(playlist("a.m3u") + playlist("b.m3u") + playlist("c.m3u") + playlist("d.m3u"));
    testing::internal::CaptureStderr();
    const LoadedFiles files = start();
    flushLog(10s);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, HasSubstr("a.m3u: read, 3 channels, 250 lines skipped; line 5: "));
    EXPECT_THAT(said, HasSubstr("b.m3u: read, 2 channels, 2 lines skipped; line 4: "));
    EXPECT_THAT(said, HasSubstr("c.m3u: read, 2 channels, 1 line skipped; line 4: "));
    EXPECT_THAT(said, HasSubstr("d.m3u: read, 2 channels\n"));
    EXPECT_THAT(files.result.notes, SizeIs(3 + KnownFiles::kNotes));
    EXPECT_EQ(files.result.notes[0], "a.m3u: 250 lines skipped");
    EXPECT_EQ(files.result.notes[1], "b.m3u: 2 lines skipped");
}

TEST_F(StationFiles, ChannelsThatCannotBeReadAreNeverWrittenOver) {
    const fs::path state = directory / "state";
    ASSERT_EQ(RuntimeChannelFile(state).save(oneChannel("kept")), "");
    const std::string whole = read("state/channels.json");
    // A link in a circle: its kind can be told, and it cannot be read.
    fs::rename(state / "channels.json", state / "elsewhere");
    fs::create_symlink("channels.json", state / "channels.json");

    ChannelSaver saver(state, [this](LoadedRuntime&& loaded) { mailbox.send(std::move(loaded)); });
    ChannelBook book;
    book.setRuntime(saver.load(5s));
    book.setFiles({}, {});
    EXPECT_FALSE(book.known());
    Answer answer;
    for (const auto& refusal : {book.put(put("239.1.1.1"), {}), book.remove(*Group::parse("239.9.9.9")),
                                book.import("udp://@239.1.1.1:1\n", answer)}) {
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->why, Refusal::Why::kFailed);
        EXPECT_THAT(refusal->text, AllOf(HasSubstr("channels.json"), HasSubstr("cannot be read")));
    }
    EXPECT_THAT(book.channels(), IsEmpty());
    std::string refused;  // should one come all the same
    saver.save(oneChannel("other"), [&](const std::string& problem) { refused = problem; });
    EXPECT_THAT(refused, HasSubstr("not written over"));

    fs::rename(state / "elsewhere", state / "channels.json");
    auto batch = mailbox.drainUntil(std::chrono::steady_clock::now() + 10s);
    ASSERT_TRUE(batch.runtime);
    book.setRuntime(std::move(*batch.runtime));
    EXPECT_EQ(book.channels().at(*Group::parse("239.9.9.9")).name, "kept");
    EXPECT_FALSE(book.put(put("239.1.1.1"), {}));
    EXPECT_TRUE(saver.end(5s));
    EXPECT_EQ(read("state/channels.json"), whole);
}

TEST(EndDeathTest, WhatHangsIsNotWaitedFor) {
    EXPECT_EXIT(
        {
            endWithin(50ms, 0);
            for (;;) {
                std::this_thread::sleep_for(1h);
            }
        },
        testing::ExitedWithCode(0), "a disk hangs");
}

TEST_F(StationFiles, RefusedChangesChangeNothing) {
    ChannelBook book;
    book.setRuntime({RuntimeChannels{}, {}});
    std::string all = "#EXTM3U\n";
    for (std::size_t i = 0; i < kRemovalsLimit; ++i) {
        all += "udp://@239.2." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ":1\n";
    }
    const auto setFiles = [&](const std::string& text) {
        book.setFiles({}, {{PlaylistSource{"l.m3u", "default", {}}, parsePlaylist(text)}});
    };
    setFiles(all);
    while (!book.channels().empty() && book.runtime().size() < 3) {
        ASSERT_FALSE(book.remove(book.channels().begin()->first));
    }
    RuntimeChannels removed = book.runtime();
    const Channel sample = removed.begin()->second.channel;
    for (std::size_t i = removed.size(); i < kRemovalsLimit; ++i) {
        const Group other = group("239.3." + std::to_string(i / 250) + "." + std::to_string(i % 250));
        removed.emplace(other, RuntimeChannel{{.group = other}, true});
    }
    book.setRuntime({removed, {}});
    const ChannelMap before = book.channels();
    const auto refusal = book.remove(before.begin()->first);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->why, Refusal::Why::kConflict);
    EXPECT_TRUE(book.channels() == before);
    EXPECT_TRUE(book.runtime() == removed);

    // The place of a removed channel is taken meanwhile: it stays removed.
    std::string other = "#EXTM3U\n";
    for (std::size_t i = 0; i < kChannelsLimit; ++i) {
        other += "udp://@239.4." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ":1\n";
    }
    setFiles(other);
    EXPECT_EQ(book.put(put(sample.group.text()), {})->why, Refusal::Why::kConflict);
    EXPECT_TRUE(book.runtime() == removed);
}

TEST_F(StationFiles, LabelsOfAnyPlaylistCanBeEdited) {
    ChannelBook book;
    book.setRuntime({RuntimeChannels{}, {}});
    book.setFiles({}, {});
    Answer answer;
    ASSERT_FALSE(book.import("#EXTINF:-1 group-title=\"News, World = 1\",A\nudp://@239.1.1.1:1\n", answer));
    const Labels imported = book.channels().begin()->second.labels;
    EXPECT_EQ(imported.at("group"), "News, World = 1");
    PutChannel edit = put("239.1.1.1", "B");
    edit.set(&Channel::labels, imported);
    ASSERT_FALSE(book.put(edit, {}));
    EXPECT_EQ(book.channels().begin()->second.labels, imported);
    EXPECT_EQ(book.channels().begin()->second.name, "B");
}

TEST_F(StationFiles, ChannelsWithoutANameGoByTheirStreams) {
    ChannelBook book;
    book.setRuntime({RuntimeChannels{}, {}});
    std::string list = "#EXTINF:-1,News  HD\nudp://@239.1.1.1\nudp://@239.1.1.2\nudp://@239.1.1.3\n";
    for (int i = 1; i <= 5; ++i) {
        list += "#EXTINF:-1,Channel " + std::to_string(i) + "\nudp://@239.1.2." + std::to_string(i) + "\n";
    }
    book.setFiles({}, {{PlaylistSource{}, parsePlaylist(list)}});
    book.takeDifference();
    const auto nameOf = [&](const std::string& text) { return book.channels().at(group(text)).name; };

    EXPECT_FALSE(book.takeStreamNames({{group("239.1.1.1"), "Other"}, {group("239.9.9.9"), "Nobody's"}}))
        << "a name of its own stays";
    EXPECT_TRUE(book.takeStreamNames({{group("239.1.1.2"), "Sports"}, {group("239.1.1.3"), ""}}));
    EXPECT_FALSE(book.takeStreamNames({{group("239.1.1.2"), ""}})) << "kept while nobody tells it";
    EXPECT_FALSE(book.takeStreamNames({}));
    EXPECT_EQ(nameOf("239.1.1.1"), "News  HD");
    EXPECT_EQ(nameOf("239.1.1.2"), "Sports");
    EXPECT_EQ(nameOf("239.1.1.3"), "239.1.1.3");
    const ChannelDifference difference = book.takeDifference();
    ASSERT_EQ(difference.changed.size(), 1U);
    EXPECT_EQ(difference.changed[0].second.name, "Sports");

    // What is changed at run time takes no stream's name along, and an export changes nothing.
    Answer same;
    ASSERT_FALSE(book.import(writePlaylist(book.channels()), same));
    EXPECT_EQ(same.added + same.changed, 0U);
    PutChannel labels(group("239.1.1.2"));
    labels.set(&Channel::labels, {{"site", "north"}});
    ASSERT_FALSE(book.put(labels, {}));
    ASSERT_TRUE(book.takeStreamNames({{group("239.1.1.2"), "More sports"}}));
    EXPECT_EQ(nameOf("239.1.1.2"), "More sports");
    ASSERT_FALSE(book.put(put("239.1.1.2", "Mine"), {}));
    EXPECT_EQ(nameOf("239.1.1.2"), "Mine");

    // Of many differences a few are told, and their number; capitals and spaces are none.
    std::map<Group, std::string> names{{group("239.1.1.1"), "news hd"}};
    for (int i = 1; i <= 5; ++i) {
        names.emplace(group("239.1.2." + std::to_string(i)), "Stream " + std::to_string(i));
    }
    book.takeStreamNames(std::move(names));
    const auto notes = book.nameNotes();
    ASSERT_EQ(notes.size(), ChannelBook::kNameNotes);
    EXPECT_EQ(notes[0], "239.1.1.2 is named \"Mine\", and its stream calls it \"More sports\"");
    EXPECT_THAT(notes.back(), HasSubstr("; 3 more channels are named otherwise than in the stream"));
}

// A restart, and whatever became of the file meanwhile.
TEST_F(StationFiles, NamesOfStreamsOutliveARestart) {
    const StreamNames names{{group("239.1.1.1"), "News  HD"}, {group("239.1.1.2"), "\xC3\x84 2"}};
    const auto read = [this] { return StreamNameKeeper(directory / "state").takeRead(10s); };
    EXPECT_EQ(read(), StreamNames{}) << "none yet";
    {
        StreamNameKeeper keeper(directory / "state");
        keeper.save({{group("239.1.1.1"), "old"}});
        keeper.save(names);  // and ends before its time
    }
    EXPECT_EQ(read(), names);
    const fs::path file = directory / "state" / "stream-names";
    std::ofstream(file)
        << "239.1.1.1 One\x07\n239.1.1.2\n239.1.1.3 \n10.0.0.1 No group\nnonsense\n\n239.1.1.4 L\xE9"
        << std::string(1000, 'x');
    const auto odd = read();
    ASSERT_TRUE(odd);
    ASSERT_EQ(odd->size(), 2U);
    EXPECT_EQ(odd->at(group("239.1.1.1")), "One");
    EXPECT_EQ(odd->at(group("239.1.1.4")).substr(0, 4), "L\xC3\xA9x");
    EXPECT_LE(odd->at(group("239.1.1.4")).size(), kNameLimit);
    fs::remove(file);
    fs::create_directory(file);
    EXPECT_EQ(read(), StreamNames{}) << "cannot be read";
}

TEST_F(StationFiles, AnExportThatIsImportedChangesNothing) {
    ChannelBook book;
    book.setRuntime({RuntimeChannels{}, {}});
    Configuration configuration;
    Channel channel{.group = *Group::parse("239.1.1.1"), .name = " \"One\"  "};
    channel.labels = {{"group", "a \"b\""}, {"site", "north"}};
    channel.source = "10.0.0.7";
    configuration.channels = {channel};
    book.setFiles(configuration,
                  {{PlaylistSource{}, parsePlaylist("#EXTINF:-1 tvg-chno=7,Two\nudp://@239.1.1.2\n")}});
    const std::string exported = writePlaylist(book.channels());
    Answer same;
    ASSERT_FALSE(book.import(exported, same));
    EXPECT_EQ(same.added + same.changed, 0U);
    EXPECT_TRUE(book.runtime().empty()) << "the files still say what these channels are";

    Answer other;
    ASSERT_FALSE(book.import("#EXTINF:-1 tvg-chno=7,Zwei\nudp://@239.1.1.2\nudp://@239.1.1.3\n", other));
    EXPECT_EQ(other.added, 1U);
    EXPECT_EQ(other.changed, 1U);
    Answer again;
    ASSERT_FALSE(book.import("#EXTINF:-1 tvg-chno=7,Zwei\nudp://@239.1.1.2\nudp://@239.1.1.3\n", again));
    EXPECT_EQ(again.added + again.changed, 0U) << "without a port as well";
}

TEST_F(StationFiles, SavesAreTriedAgainAndNobodyIsToldTooLate) {
    const fs::path state = directory / "state";
    ChannelSaver saver(state, [](LoadedRuntime&&) {});
    ASSERT_TRUE(saver.load(5s).channels);
    const auto saved = [&](const char* name) {
        std::promise<std::string> told;
        saver.save(oneChannel(name), [&](const std::string& problem) { told.set_value(problem); });
        return told.get_future().get();
    };
    EXPECT_EQ(saved("one"), "");
    fs::create_directory(state / "channels.json.new");  // cannot be written
    EXPECT_THAT(saved("two"), HasSubstr("cannot be created"));
    saver.mute();
    std::atomic<int> late{0};
    saver.save(oneChannel("three"), [&](const std::string&) { ++late; });
    fs::remove(state / "channels.json.new");
    EXPECT_TRUE(saver.end(5s));
    EXPECT_EQ(late, 0);
    EXPECT_EQ(RuntimeChannelFile(state).load().channels->begin()->second.channel.name, "three");
}
