// What workers, meter and station may say, and what is not taken from them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "exchange.h"
#include "history.h"
#include "sessions.h"

namespace pictured {
namespace {

using testing::HasSubstr;

// Tables and a frame of 320 by 180, as far as they are looked at.
std::string jpeg() {
    using namespace std::string_literals;
    return "\xFF\xD8\xFF\xE0\x00\x04JF\xFF\xDB\x00\x03\x00\xFF\xC0\x00\x0B\x08\x00\xB4\x01\x40\x01\x01\x11"
           "\x00"
           "\xFF\xC4\x00\x03\x00\xFF\xDA\x00\x03\x00\x12\x34\xFF\x00\x56\xFF\xD9"s;
}

std::string answerOf(AnswerHead head, const std::string& picture) {
    head.jpegBytes = static_cast<uint32_t>(picture.size());
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
    return head.picture == PictureVerdict::kDecoded ? bytes + std::string(sizeof(Raster), '\x40') + picture
                                                    : bytes;
}

AnswerHead decoded() {
    AnswerHead head;
    head.picture = PictureVerdict::kDecoded;
    head.width = 1920;
    head.height = 1080;
    head.lumaMean = 100;
    head.lumaSpread = 50;
    head.sound = SoundVerdict::kMeasured;
    head.loudness = -23;
    return head;
}

TEST(PictureAnswer, IsTakenWholeHoweverItComes) {
    const std::string bytes = answerOf(decoded(), jpeg());
    for (const std::size_t step : {std::size_t{1}, std::size_t{7}, bytes.size()}) {
        AnswerReader reader;
        std::optional<Answer> answer;
        for (std::size_t at = 0; at < bytes.size(); at += step) {
            ASSERT_FALSE(answer);
            answer = reader.add(std::string_view(bytes).substr(at, step));
        }
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->jpeg, jpeg());
        EXPECT_EQ(answer->raster[0], 0x40);
    }
}

TEST(PictureAnswer, IsNotBelieved) {
    const auto changed = [](auto change) {
        AnswerHead head = decoded();
        change(head);
        return answerOf(head, jpeg());
    };
    const std::vector<std::pair<const char*, std::string>> lies = {
        {"mark", changed([](AnswerHead& head) { head.mark = 1; })},
        {"verdict", changed([](AnswerHead& head) { head.picture = static_cast<PictureVerdict>(5); })},
        {"sound", changed([](AnswerHead& head) { head.sound = static_cast<SoundVerdict>(4); })},
        {"no width", changed([](AnswerHead& head) { head.width = 0; })},
        {"height", changed([](AnswerHead& head) { head.height = kSideLimit + 1; })},
        {"samples", changed([](AnswerHead& head) { head.width = head.height = kSideLimit; })},
        {"mean", changed([](AnswerHead& head) { head.lumaMean = 256; })},
        {"no number", changed([](AnswerHead& head) { head.lumaSpread = std::nanf(""); })},
        {"loudness",
         changed([](AnswerHead& head) { head.loudness = -std::numeric_limits<float>::infinity(); })},
        {"JPEG beyond its limit", answerOf(decoded(), std::string(picturing::kJpegBytes + 1, 'x'))},
        {"none", answerOf(decoded(), "")},
        {"JPEG of no picture", answerOf(AnswerHead(), jpeg())},
        {"no JPEG", answerOf(decoded(), "<script>")},
        {"more behind it", answerOf(decoded(), jpeg()) + "x"},
    };
    for (const auto& [what, bytes] : lies) {
        EXPECT_THROW(AnswerReader().add(bytes), Untrustworthy) << what;
    }
}

TEST(PictureAnswer, HasAPlainJpeg) {
    ASSERT_TRUE(isPlainJpeg(jpeg()));
    for (std::size_t length = 0; length < jpeg().size(); ++length) {
        EXPECT_FALSE(isPlainJpeg(std::string_view(jpeg()).substr(0, length))) << length;
    }
    const auto with = [](std::size_t at, const std::string& bytes) {
        std::string changed = jpeg();
        changed.replace(at, bytes.size(), bytes);
        return changed;
    };
    const std::size_t frame = jpeg().find("\xFF\xC0");
    EXPECT_FALSE(isPlainJpeg(with(frame + 5, std::string("\x10", 1)))) << "720 or more lines";
    EXPECT_FALSE(isPlainJpeg(with(frame + 7, "\x02"))) << "576 samples";
    EXPECT_FALSE(isPlainJpeg(with(frame + 1, "\xC2"))) << "progressive";
    EXPECT_FALSE(isPlainJpeg(with(3, "\xE1"))) << "a segment of another kind";
    EXPECT_FALSE(isPlainJpeg(with(jpeg().size() - 5, "\xFF\xDA"))) << "a second scan";
    EXPECT_FALSE(isPlainJpeg(jpeg() + "PK")) << "something behind it";
}

template <typename Message>
std::string hello(uint32_t major = picturing::kMajor) {
    Message message;
    message.mutable_hello()->set_major(major);
    message.mutable_hello()->set_version("1.2\n");
    return metering::framed(message);
}

TEST(PictureSessions, TakeWhatKeepsTheLimits) {
    metering::quietParser();
    std::vector<picturing::Coded> taken;
    const auto session = [&] {
        return MeterSession([&](picturing::Coded&& coded) { taken.push_back(std::move(coded)); });
    };
    const auto coded = [](std::size_t video, std::size_t audio, picturing::Outcome outcome) {
        picturing::FromMeter message;
        message.mutable_coded()->set_outcome(outcome);
        message.mutable_coded()->mutable_video()->set_data(std::string(video, 'v'));
        message.mutable_coded()->mutable_audio()->set_data(std::string(audio, 'a'));
        return metering::framed(message);
    };
    MeterSession meter = session();
    meter.received(coded(1, 1, picturing::OUTCOME_TAKEN));
    EXPECT_TRUE(taken.empty()) << "before the hello";
    meter.received(hello<picturing::FromMeter>());
    EXPECT_EQ(meter.version(), "1.2");
    meter.received(coded(picturing::kVideoBytes, picturing::kAudioBytes, picturing::OUTCOME_TAKEN));
    meter.received(coded(0, 1, picturing::OUTCOME_TAKEN));
    meter.received(coded(5, 1, picturing::OUTCOME_SCRAMBLED));
    meter.received(coded(5, 1, static_cast<picturing::Outcome>(77)));
    ASSERT_EQ(taken.size(), 4U);
    EXPECT_EQ(taken[0].video().data().size(), picturing::kVideoBytes);
    EXPECT_EQ(taken[1].outcome(), picturing::OUTCOME_NO_RANDOM_ACCESS) << "a picture without content is none";
    EXPECT_FALSE(taken[2].has_video());
    EXPECT_EQ(taken[3].outcome(), picturing::OUTCOME_UNKNOWN);
    EXPECT_THROW(meter.received(coded(picturing::kVideoBytes + 1, 0, picturing::OUTCOME_TAKEN)), PeerLost);
    MeterSession another = session();
    another.received(hello<picturing::FromMeter>());
    EXPECT_THROW(another.received(coded(0, picturing::kAudioBytes + 1, picturing::OUTCOME_NO_VIDEO)),
                 PeerLost);
    EXPECT_THROW(session().received(std::string("\x7F\xFF\xFF\xFF", 4)), PeerLost);
    try {
        session().received(hello<picturing::FromMeter>(picturing::kMajor + 1));
        ADD_FAILURE() << "another version was taken";
    } catch (const PeerLost& lost) {
        EXPECT_TRUE(lost.refused);
        EXPECT_THAT(lost.what(), HasSubstr("install both from one release"));
    }
}

TEST(PictureSessions, TakeAListOfChannels) {
    metering::quietParser();
    ChannelList taken;
    StationSession station([&](ChannelList&& list) { taken = std::move(list); });
    station.received(hello<picturing::FromStation>());
    picturing::FromStation message;
    picturing::Channels& channels = *message.mutable_channels();
    channels.set_revision(7);
    for (uint32_t i = 0; i < picturing::kChannelsLimit + 3; ++i) {
        picturing::Channel& channel = *channels.add_channel();
        channel.set_group(0xEF000000 + i);
        channel.set_urgent(i == 0);
        channel.set_looked_at(i == 1);
        channel.set_audio(true);
    }
    // A share that is none.
    const double nan = std::nan("");
    for (const auto& [cores, expected] : {std::pair(0.5, 0.5), {nan, 0.0}, {-1.0, 0.0}, {1e9, 64.0}}) {
        channels.set_cores(cores);
        station.received(metering::framed(message));
        EXPECT_EQ(taken.cores, expected);
    }
    EXPECT_EQ(taken.revision, 7U);
    ASSERT_EQ(taken.channels.size(), picturing::kChannelsLimit);
    EXPECT_TRUE(taken.channels[0].urgent && !taken.channels[0].lookedAt && taken.channels[1].lookedAt);
    message.Clear();
    message.mutable_refused()->set_reason("another\x1B[2J");
    try {
        station.received(metering::framed(message));
        ADD_FAILURE() << "a refusal was not heard";
    } catch (const PeerLost& lost) {
        EXPECT_TRUE(lost.refused);
        EXPECT_EQ(std::string(lost.what()), "the station refuses: another[2J");
    }
}

TEST(PictureHistory, ComparesWithTheLastOfTheSameSize) {
    History history;
    Raster dark{};
    Raster light;
    light.fill(200);
    Raster clock = dark;  // one part of it moves
    clock[5] = 230;
    EXPECT_FALSE(history.take(1, 10, 720, 576, dark));
    EXPECT_FALSE(history.take(2, 11, 720, 576, light)) << "another channel";
    const auto same = history.take(1, 20, 720, 576, dark);
    ASSERT_TRUE(same);
    EXPECT_EQ(same->mean, 0);
    EXPECT_EQ(same->since, 10);
    const auto moved = history.take(1, 30, 720, 576, clock);
    EXPECT_NEAR(moved->mean, 230.0 / 2304, 1e-9);
    EXPECT_EQ(moved->peak, 230);
    EXPECT_NEAR(history.take(1, 40, 720, 576, light)->mean, 200, 0.2);
    EXPECT_FALSE(history.take(1, 50, 1920, 1080, light)) << "of another size";
    history.keep([](uint32_t group) { return group == 2; });
    EXPECT_FALSE(history.take(1, 60, 1920, 1080, light)) << "it was forgotten";
    EXPECT_TRUE(history.take(2, 60, 720, 576, light));
}

}  // namespace
}  // namespace pictured
