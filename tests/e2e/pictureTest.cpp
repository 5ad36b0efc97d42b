// kestor-picture between a meter and a station that are played, with pictures that ffmpeg encoded.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>

#include "support/picturePeers.h"
#include "support/process.h"
#include "support/scratch.h"

namespace test {
namespace {

using testing::HasSubstr;

constexpr const char* kCoded = "/tmp/coded.sock";
constexpr const char* kStation = "/tmp/picture.sock";
constexpr uint32_t kA = 0xEF010101;
constexpr uint32_t kB = 0xEF010102;

// What ffmpeg makes of these options, as `format`.
std::string encoded(const std::string& options, const std::string& format) {
    const std::string file = "/tmp/encoded." + format;
    std::filesystem::remove(file);
    const std::string command = "ffmpeg -nostdin -v error -y " + options + " -f " + format + " " + file;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return station::contentOf(file);
}

std::string pictureOf(const std::string& source) {
    return encoded("-f lavfi -i " + source + " -frames:v 1 -c:v libx264 -preset ultrafast -pix_fmt yuv420p",
                   "h264");
}

// What the meter answers, by group; nothing: it keeps silent.
struct Answers {
    using Make = std::function<std::optional<picturing::Coded>(const picturing::Wanted&)>;
    std::mutex mutex;
    std::map<uint32_t, Make> byGroup;
    std::map<uint32_t, int64_t> arrived;  // by group: of the last one
};

picturing::Coded picture(std::string bytes, picturing::VideoCodec codec = picturing::VIDEO_H264) {
    picturing::Coded coded;
    coded.set_outcome(picturing::OUTCOME_TAKEN);
    coded.mutable_video()->set_codec(codec);
    coded.mutable_video()->set_data(std::move(bytes));
    return coded;
}

// What a worker was sent by its socket and has not read yet, in bytes.
int unread(pid_t worker) {
    constexpr int kWorkerSocket = 3;
    const basics::Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, worker, 0)));
    const basics::Descriptor socket(
        static_cast<int>(syscall(SYS_pidfd_getfd, process.number(), kWorkerSocket, 0)));
    int bytes = 0;
    ioctl(socket.number(), FIONREAD, &bytes);
    return bytes;
}

class Picture : public testing::Test {
  protected:
    void SetUp() override {
        if (std::system("command -v ffmpeg >/dev/null") != 0) {
            GTEST_SKIP() << "ffmpeg is not installed";
        }
        listener_ = basics::Descriptor(basics::listenUnix(kStation));
    }

    void start(std::vector<std::string> options = {}) {
        std::vector<std::string> command = {"kestor-picture", "--coded", kCoded, "--station", kStation};
        command.insert(command.end(), options.begin(), options.end());
        program_ = std::make_unique<Process>(command);
        connectStation();
        connectMeter();
    }
    void connectStation() {
        station_.reset();
        station_ =
            std::make_unique<PlayedStation>(acceptFrom(listener_), [this](const picturing::ToStation& told) {
                const std::lock_guard lock(mutex_);
                if (told.has_shot()) {
                    shots_.push_back(told.shot());
                } else if (told.has_status()) {
                    status_ = told.status();
                }
            });
    }
    void connectMeter() {
        basics::Descriptor socket;
        ASSERT_TRUE(eventually([&] { return (socket = connectTo(kCoded)).isOpen(); }));
        meter_.reset();
        const std::lock_guard made(answers_.mutex);  // before it answers, which is by meter_
        meter_ = std::make_unique<PlayedMeter>(std::move(socket), [this](const picturing::ToMeter& said) {
            if (!said.has_wanted()) {
                return;
            }
            std::optional<picturing::Coded> coded;
            {
                const std::lock_guard lock(answers_.mutex);
                const auto found = answers_.byGroup.find(said.wanted().group());
                coded = found == answers_.byGroup.end() ? std::nullopt : found->second(said.wanted());
                if (coded) {
                    answers_.arrived[said.wanted().group()] = ++arrived_;
                    coded->set_arrived_ns(arrived_);
                }
            }
            if (coded) {
                picturing::FromMeter message;
                coded->set_group(said.wanted().group());
                coded->set_id(said.wanted().id());
                *message.mutable_coded() = std::move(*coded);
                meter_->send(message);
            }
        });
    }
    void answer(uint32_t group, Answers::Make make) {
        const std::lock_guard lock(answers_.mutex);
        answers_.byGroup[group] = std::move(make);
    }
    void answer(uint32_t group, const picturing::Coded& coded) {
        answer(group, [coded](const picturing::Wanted&) { return coded; });
    }

    struct Listed {
        uint32_t group;
        bool urgent = false;
    };
    void list(const std::vector<Listed>& channels, double cores = 4) {
        picturing::FromStation message;
        message.mutable_channels()->set_cores(cores);
        for (const Listed& listed : channels) {
            picturing::Channel& channel = *message.mutable_channels()->add_channel();
            channel.set_group(listed.group);
            channel.set_urgent(listed.urgent);
            channel.set_audio(true);
        }
        station_->send(message);
    }
    // Has the channel asked for anew at once: one that was not listed is new.
    void again(uint32_t group) {
        list({});
        list({{group}});
    }

    std::vector<picturing::Shot> shots() {
        const std::lock_guard lock(mutex_);
        return shots_;
    }
    picturing::Status status() {
        const std::lock_guard lock(mutex_);
        return status_;
    }
    // The next shot; one without an outcome when none comes.
    picturing::Shot next(std::chrono::milliseconds patience = kPatience) {
        eventually([&] { return shots().size() > taken_; }, patience);
        const auto all = shots();
        return all.size() > taken_ ? all[taken_++] : picturing::Shot();
    }
    std::vector<pid_t> workers() const {
        const std::string pid = program_->proc().substr(6);
        std::vector<pid_t> children;
        std::ifstream file("/proc/" + pid + "/task/" + pid + "/children");
        for (pid_t child = 0; file >> child;) {
            children.push_back(child);
        }
        return children;
    }

    basics::Descriptor listener_;
    std::mutex mutex_;  // guards the next two
    std::vector<picturing::Shot> shots_;
    picturing::Status status_;
    std::size_t taken_ = 0;
    int64_t arrived_ = 0;
    Answers answers_;
    std::unique_ptr<Process> program_;
    std::unique_ptr<PlayedStation> station_;
    std::unique_ptr<PlayedMeter> meter_;
};

TEST_F(Picture, TellsTheFirstPictureAtOnceAndWhatIsNotThere) {
    picturing::Coded both = picture(pictureOf("testsrc2=s=640x480"));
    both.mutable_audio()->set_codec(picturing::AUDIO_MPEG);
    both.mutable_audio()->set_data(encoded("-f lavfi -i sine=1000:r=48000 -t 2 -c:a mp2", "mp2"));
    answer(kA, both);
    picturing::Coded scrambled;
    scrambled.set_outcome(picturing::OUTCOME_SCRAMBLED);
    answer(kB, scrambled);
    start();
    list({{kA}, {kB}});
    std::map<uint32_t, picturing::Shot> told;
    for (int i = 0; i < 2; ++i) {
        const picturing::Shot shot = next();
        told[shot.group()] = shot;
    }
    const picturing::Shot& shot = told[kA];
    EXPECT_EQ(shot.outcome(), picturing::OUTCOME_TAKEN);
    EXPECT_EQ(shot.width(), 640U);
    EXPECT_EQ(shot.height(), 480U);
    EXPECT_EQ(shot.codec(), picturing::VIDEO_H264);
    EXPECT_THAT(shot.jpeg().substr(0, 3), "\xFF\xD8\xFF");
    EXPECT_LE(shot.jpeg().size(), picturing::kJpegBytes);
    EXPECT_GT(shot.luma_spread(), 20);
    EXPECT_TRUE(shot.has_loudness_lufs());
    EXPECT_FALSE(shot.has_difference());
    EXPECT_EQ(told[kB].outcome(), picturing::OUTCOME_SCRAMBLED);
    EXPECT_TRUE(told[kB].jpeg().empty());
    EXPECT_FALSE(told[kB].has_loudness_lufs());
    EXPECT_TRUE(eventually([&] {
        const picturing::Status now = status();
        return now.pictures() == 1 && now.failures() == 1 && now.meter() && now.problem().empty() &&
               now.interval_s() == 10 && now.waiting() == 0;
    }));
    program_->kill(SIGTERM);
    EXPECT_EQ(program_->wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(kCoded));
}

TEST_F(Picture, TellsAFreezeFromAChangeOfSceneByWholePicturesAlone) {
    const std::string one = pictureOf("testsrc2=s=320x180");
    const std::string same = encoded(
        "-f lavfi -i testsrc2=s=320x180 -frames:v 1 -c:v libx264 -preset ultrafast -crf 30 -pix_fmt yuv420p",
        "h264");
    const std::string other = pictureOf("color=black:s=320x180");
    const std::string partly = one.substr(0, one.size() * 2 / 3);
    std::vector<std::string> order = {one, partly, same, other};
    std::size_t turn = 0;
    answer(kA, [&](const picturing::Wanted&) { return picture(order[std::min(turn++, order.size() - 1)]); });
    start();
    list({{kA}});
    EXPECT_FALSE(next().has_difference());
    const picturing::Shot damaged = next();
    EXPECT_EQ(damaged.outcome(), picturing::OUTCOME_TAKEN);
    EXPECT_FALSE(damaged.jpeg().empty());
    EXPECT_FALSE(damaged.has_luma_mean() || damaged.has_difference());
    EXPECT_THAT(damaged.problem(), HasSubstr("parts of it are lost"));
    const picturing::Shot frozen = next();
    EXPECT_LT(frozen.difference(), 2);
    EXPECT_EQ(frozen.difference_since_ns(), frozen.taken_ns() - 2);
    const picturing::Shot black = next();
    EXPECT_GT(black.difference(), 50);
    EXPECT_GT(black.difference_peak(), 100);
    EXPECT_LT(black.luma_mean(), 1);
    EXPECT_LT(black.luma_spread(), 1);
    meter_.reset();  // it answers by what ends here
}

TEST_F(Picture, SurvivesWhateverArrives) {
    // One that never could be a picture; sizes beyond the limit; cuts and bit errors of one that could.
    const std::string whole = pictureOf("testsrc2=s=640x360");
    const std::string huge = encoded(
        "-f lavfi -i color=gray:s=8192x8192 -frames:v 1 -c:v libx264 -preset ultrafast -pix_fmt yuv420p",
        "h264");
    std::vector<picturing::Coded> broken = {picture("not a picture"),
                                            picture(std::string(1 << 20, '\xFF')),
                                            picture(huge),
                                            picture(whole, picturing::VIDEO_H265),
                                            picture(whole, picturing::VIDEO_MPEG2),
                                            picture(whole.substr(0, whole.size() / 8))};
    std::mt19937 random(1);
    for (int i = 0; i < 30; ++i) {
        std::string damaged = whole;
        for (int errors = 0; errors < 200; ++errors) {
            damaged[random() % damaged.size()] ^= static_cast<char>(1U << random() % 8);
        }
        broken.push_back(picture(damaged));
        broken.back().mutable_audio()->set_codec(static_cast<picturing::AudioCodec>(1 + i % 5));
        broken.back().mutable_audio()->set_data(damaged);
    }
    std::vector<Listed> channels;
    for (std::size_t i = 0; i < broken.size(); ++i) {
        channels.push_back({kA + static_cast<uint32_t>(i)});
        answer(channels.back().group, broken[i]);
    }
    const uint32_t well = kA + static_cast<uint32_t>(broken.size());
    channels.push_back({well});
    answer(well, picture(whole));
    start();
    list(channels);
    std::map<uint32_t, picturing::Shot> told;
    while (told.size() < channels.size()) {
        const picturing::Shot shot = next(60s);
        ASSERT_NE(shot.outcome(), picturing::OUTCOME_UNKNOWN);
        told[shot.group()] = shot;
    }
    for (uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(told[kA + i].outcome(), picturing::OUTCOME_DAMAGED) << i;
    }
    EXPECT_THAT(told[kA + 2].problem(), HasSubstr("larger than 4096 by 2304"));
    EXPECT_EQ(told[well].outcome(), picturing::OUTCOME_TAKEN);
    EXPECT_EQ(status().workers_killed(), 0U);
    EXPECT_TRUE(program_->running());
}

TEST_F(Picture, ReplacesWorkersThatHangOrDieAndLeavesTheirChannelOut) {
    // What a decoder would hang or die of is done to the worker from outside: whenever B's picture is on its
    // way the worker, which A had started and is done with, is stopped, and hangs or is ended when it has the
    // picture.
    const picturing::Coded small = picture(pictureOf("testsrc2=s=320x180"));
    answer(kA, small);
    std::mutex mutex;
    std::vector<pid_t> stopped;
    answer(kB, [&](const picturing::Wanted&) {
        // The two may be asked for in each turn at once.
        const bool done = eventually(
            [this] {
                const auto all = shots();
                return std::any_of(all.begin(), all.end(), [this](const picturing::Shot& shot) {
                    return shot.taken_ns() == answers_.arrived[kA];
                });
            },
            5s);
        const auto found = workers();
        const std::lock_guard lock(mutex);
        if (!done || found.empty() || std::find(stopped.begin(), stopped.end(), found[0]) != stopped.end()) {
            return picturing::Coded();
        }
        kill(found[0], SIGSTOP);
        stopped.push_back(found[0]);
        return small;
    });
    start({"--workers", "1"});
    list({{kA}, {kB}});
    // The last of B's shots that say so.
    const auto gaveUp = [&] {
        std::vector<picturing::Shot> found;
        for (const picturing::Shot& shot : shots()) {
            if (shot.group() == kB && shot.outcome() == picturing::OUTCOME_GAVE_UP) {
                found.push_back(shot);
            }
        }
        return found;
    };
    const std::vector<std::pair<int, const char*>> ends = {
        {0, "did not answer within 20 s"}, {SIGABRT, "crashed (signal 6)"}, {SIGSYS, "may not do"}};
    for (std::size_t i = 0; i < ends.size(); ++i) {
        const auto count = [&] {
            const std::lock_guard lock(mutex);
            return stopped.size();
        };
        ASSERT_TRUE(eventually([&] { return count() > i; }, 40s));
        if (ends[i].first != 0) {
            ASSERT_TRUE(eventually([&] { return unread(stopped[i]) > 0; }));
            kill(stopped[i], ends[i].first);
            kill(stopped[i], SIGCONT);
        }
        ASSERT_TRUE(eventually([&] { return gaveUp().size() > i; }, 40s));
        EXPECT_THAT(gaveUp()[i].problem(), HasSubstr(ends[i].second));
    }
    ASSERT_TRUE(eventually([&] { return status().left_out_size() == 1; }));
    EXPECT_EQ(status().left_out(0).group(), kB);
    EXPECT_EQ(status().workers_killed(), 3U);
    EXPECT_THAT(program_->err(), HasSubstr("no picture of it is taken for an hour"));
    // Others go on, and it is asked for no more.
    const std::size_t before = shots().size();
    ASSERT_TRUE(eventually([&] { return shots().size() >= before + 2; }, 40s));
    for (std::size_t i = before; i < before + 2; ++i) {
        EXPECT_EQ(shots()[i].group(), kA);
        EXPECT_EQ(shots()[i].outcome(), picturing::OUTCOME_TAKEN);
    }
}

TEST_F(Picture, KeepsItsShare) {
    const std::string hd = pictureOf("testsrc2=s=1920x1080");
    std::vector<Listed> channels;
    for (uint32_t i = 0; i < 500; ++i) {
        channels.push_back({kA + i});
        answer(kA + i, picture(hd));
    }
    start();
    list(channels, 0.1);
    ASSERT_TRUE(eventually([&] { return status().pictures() >= 2; }));
    eventually([&, old = status().processor_us()] { return status().processor_us() != old; });
    const picturing::Status from = status();
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(10s);
    eventually([&, old = status().processor_us()] { return status().processor_us() != old; });
    const picturing::Status to = status();
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
    const double cores = static_cast<double>(to.processor_us() - from.processor_us()) / 1e6 / passed.count();
    EXPECT_LT(cores, 0.13);
    EXPECT_GT(cores, 0.05);
    EXPECT_GT(to.pictures(), from.pictures() + 5);
    // The interval that it tells is the one at which it goes round.
    const double rate = static_cast<double>(to.pictures() - from.pictures()) / passed.count();
    EXPECT_NEAR(to.interval_s(), 500 / rate, 0.6 * 500 / rate);
    list(channels, 0);
    // Turns that were under way come to their end; a status of before knows of neither.
    EXPECT_TRUE(eventually([&] {
        const picturing::Status now = status();
        return now.problem().find("cores = 0") != std::string::npos && now.waiting() == 0;
    }));
    const auto before = shots().size();
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(shots().size(), before);
}

TEST_F(Picture, OutlivesMeterAndStation) {
    answer(kA, picture(pictureOf("testsrc2=s=320x180")));
    start();
    list({{kA}});
    EXPECT_EQ(next().outcome(), picturing::OUTCOME_TAKEN);
    // A second meter is told why it is not wanted.
    std::atomic<bool> refused = false;
    PlayedMeter second(connectTo(kCoded), [&](const picturing::ToMeter& said) {
        refused = refused || said.refused().reason().find("another meter") != std::string::npos;
    });
    EXPECT_TRUE(eventually([&] { return second.ended() && refused.load(); }));
    // Nonsense ends a connection and nothing else.
    meter_->sendBytes(std::string("\x7F\xFF\xFF\xFF", 4));
    EXPECT_TRUE(eventually([&] { return meter_->ended(); }));
    EXPECT_TRUE(eventually([&] { return status().problem().find("no meter") != std::string::npos; }));
    connectMeter();
    station_->sendBytes(std::string("\0\0\0\1\xFF", 5));
    EXPECT_TRUE(eventually([&] { return station_->ended(); }));
    connectStation();
    again(kA);
    EXPECT_EQ(next().outcome(), picturing::OUTCOME_TAKEN);
    EXPECT_THAT(program_->err(), HasSubstr("the meter sent a message of"));
    // A meter that never answers costs the channel its turn, no more.
    answer(kB, [](const picturing::Wanted&) { return std::nullopt; });
    list({{kB}});
    picturing::Shot shot = next();
    while (shot.group() == kA)  // asked in its turn as well, if all that took long
        shot = next();
    EXPECT_EQ(shot.outcome(), picturing::OUTCOME_NO_ANSWER);
}

TEST_F(Picture, SaysWhoIsOfAnotherVersionAndThatItIsNotAlone) {
    program_ = std::make_unique<Process>(
        std::vector<std::string>{"kestor-picture", "--coded", kCoded, "--station", kStation});
    {  // Each side is told; it does not come again at once.
        const PlayedStation other(
            acceptFrom(listener_), [](const picturing::ToStation&) {}, picturing::kMajor + 1);
        EXPECT_TRUE(eventually([&] { return other.ended(); }));
        EXPECT_TRUE(eventually([&] {  // it closes, then it says why
            return program_->err().find("the station (played) speaks version") != std::string::npos;
        }));
    }
    connectStation();
    {
        std::atomic<bool> heard = false;
        const PlayedMeter other(
            connectTo(kCoded), [&](const picturing::ToMeter& said) { heard = heard || said.has_hello(); },
            picturing::kMajor + 1);
        EXPECT_TRUE(eventually([&] { return other.ended() && heard; }));
    }
    EXPECT_TRUE(eventually(
        [&] { return status().problem().find("the meter (played) speaks version") != std::string::npos; }));
    connectMeter();
    answer(kA, picture(pictureOf("testsrc2=s=320x180")));
    list({{kA}});
    EXPECT_EQ(next().outcome(), picturing::OUTCOME_TAKEN);
    // A second one at the same sockets goes on trying, says why, and is no meter to the first.
    basics::Descriptor elsewhere(basics::listenUnix("/tmp/second.sock"));
    Process second({"kestor-picture", "--coded", kCoded, "--station", "/tmp/second.sock"});
    std::string problem;
    PlayedStation stationOfSecond(acceptFrom(elsewhere), [&](const picturing::ToStation& told) {
        const std::lock_guard lock(mutex_);
        problem = told.has_status() ? told.status().problem() : problem;
    });
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard lock(mutex_);
        return problem.find("another program listens there") != std::string::npos;
    }));
    std::this_thread::sleep_for(3s);
    again(kA);
    EXPECT_EQ(next().outcome(), picturing::OUTCOME_TAKEN);
    EXPECT_FALSE(meter_->ended());
    // It takes the place of the first when that is gone.
    program_->kill(SIGTERM);
    EXPECT_EQ(program_->wait(), 0);
    meter_.reset();
    EXPECT_TRUE(eventually([&] { return connectTo(kCoded).isOpen(); }));
}

}  // namespace
}  // namespace test
