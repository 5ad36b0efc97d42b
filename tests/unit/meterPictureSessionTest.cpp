// What kestor-picture asks of the meter, and how it is answered.
#include <gmock/gmock.h>

#include <string>

#include "framing.h"
#include "pictureSession.h"

namespace {

using meter::ExcerptOutcome;
using meter::ExcerptVideo;

struct Asker {
    std::vector<std::pair<uint32_t, uint64_t>> begun;
    meterd::PictureSession session{
        "1.2", [this](uint32_t group, uint64_t ticket, bool) { begun.emplace_back(group, ticket); }};

    void say(const picturing::ToMeter& message, int64_t nowMs = 0) {
        session.received(metering::framed(message), nowMs);
    }
    void hello(uint32_t major = picturing::kMajor) {
        picturing::ToMeter message;
        message.mutable_hello()->set_major(major);
        message.mutable_hello()->set_version("3\n4");
        say(message);
    }
    void want(uint32_t group, uint64_t id, int64_t nowMs = 0) {
        picturing::ToMeter message;
        message.mutable_wanted()->set_group(group);
        message.mutable_wanted()->set_id(id);
        say(message, nowMs);
    }
    std::optional<picturing::FromMeter> answer() {
        if (session.front().empty())
            return std::nullopt;
        picturing::FromMeter message;
        EXPECT_TRUE(message.ParseFromString(session.front().substr(4)));
        session.pop();
        return message;
    }
};

TEST(MeterPictureSession, HasSoManyTurnsAtATimeAndAnswersEach) {
    Asker asker;
    asker.session.connected();
    EXPECT_EQ(asker.answer()->hello().version(), "1.2");
    asker.want(1, 1);
    EXPECT_TRUE(asker.begun.empty()) << "before it said who it is";
    asker.hello();
    EXPECT_EQ(asker.session.peer(), "34");
    constexpr uint32_t kOpen = picturing::kWantedLimit;
    for (uint32_t group = 1; group <= kOpen + 1; ++group)
        asker.want(group, 10 + group);
    ASSERT_EQ(asker.begun.size(), kOpen);
    auto busy = asker.answer();
    EXPECT_EQ(busy->coded().group(), kOpen + 1);
    EXPECT_EQ(busy->coded().outcome(), picturing::OUTCOME_BUSY);

    meter::Excerpt excerpt;
    excerpt.outcome = ExcerptOutcome::kTaken;
    excerpt.video = {ExcerptVideo::kH265, "coded"};
    excerpt.wall = 77;
    asker.session.taken({2, asker.begun[1].second, excerpt});
    asker.want(kOpen + 1, 1);  // the answer is not sent: its room is not free
    EXPECT_EQ(asker.begun.size(), kOpen);
    const auto coded = asker.answer()->coded();
    EXPECT_EQ(coded.id(), 12U);
    EXPECT_EQ(coded.video().data(), "coded");
    EXPECT_EQ(coded.video().codec(), picturing::VIDEO_H265);
    EXPECT_EQ(coded.arrived_ns(), 77);
    EXPECT_EQ(asker.answer()->coded().outcome(), picturing::OUTCOME_BUSY);
    asker.want(1, 2);
    EXPECT_EQ(asker.answer()->coded().outcome(), picturing::OUTCOME_BUSY) << "a group has one turn at a time";
    asker.want(kOpen + 6, 3);
    ASSERT_EQ(asker.begun.size(), kOpen + 1);
    asker.session.taken({kOpen + 6, asker.begun[kOpen].second, std::nullopt});
    EXPECT_EQ(asker.answer()->coded().outcome(), picturing::OUTCOME_UNKNOWN_GROUP);

    // Threads that hang: answered in time, and their room is kept until they hand the excerpts back.
    asker.session.expire(10'000);
    for (uint32_t i = 0; i < kOpen - 1; ++i)
        EXPECT_EQ(asker.answer()->coded().outcome(), picturing::OUTCOME_NO_PACKETS);
    EXPECT_FALSE(asker.answer());
    asker.want(kOpen + 7, 4);
    asker.want(kOpen + 8, 5);
    EXPECT_EQ(asker.begun.size(), kOpen + 2);
    EXPECT_EQ(asker.answer()->coded().outcome(), picturing::OUTCOME_BUSY);
    // Who wanted it is gone: the next one is told nothing of it.
    asker.session.disconnected();
    asker.session.connected();
    asker.session.taken({kOpen + 7, asker.begun[kOpen + 1].second, excerpt});
    asker.session.taken({1, asker.begun[0].second, excerpt});
    EXPECT_TRUE(asker.answer()->has_hello());
    EXPECT_FALSE(asker.answer());
    asker.hello();
    asker.want(kOpen + 9, 6);
    EXPECT_EQ(asker.begun.size(), kOpen + 3);
    for (uint64_t i = 0; i < 1000; ++i)
        asker.want(kOpen + 9, 7 + i);
    int answers = 0;
    while (asker.answer())
        ++answers;
    EXPECT_LE(answers, 64);
    EXPECT_THROW(asker.say([] {
        picturing::ToMeter message;
        message.mutable_hello()->set_version(std::string(5000, 'x'));
        return message;
    }()),
                 metering::Unreadable);
    // Nobody takes what was wanted: beyond a bound it is not kept.
    Asker slow;
    slow.session.connected();
    slow.hello();
    excerpt.video->data.assign(picturing::kVideoBytes, 'x');
    for (uint32_t group = 1; group <= 20; ++group)
        slow.want(group, group);
    for (uint32_t i = 0; i < 20; ++i)
        slow.session.taken({i + 1, slow.begun[i].second, excerpt});
    std::size_t held = 0;
    for (auto message = slow.answer(); message; message = slow.answer())
        held += message->coded().video().data().size();
    EXPECT_GT(held, picturing::kWantedBytes - picturing::kVideoBytes);
    EXPECT_LE(held, picturing::kWantedBytes + picturing::kVideoBytes);
    // One that was given up for others' is asked for again.
    Asker crowded;
    crowded.session.connected();
    crowded.hello();
    crowded.want(1, 1);
    crowded.answer();
    excerpt.outcome = ExcerptOutcome::kTooLarge;
    excerpt.video.reset();
    crowded.session.taken({1, crowded.begun[0].second, excerpt, true});
    EXPECT_EQ(crowded.answer()->coded().outcome(), picturing::OUTCOME_BUSY);
    Asker stranger;
    EXPECT_THROW(stranger.hello(picturing::kMajor + 1), metering::Unreadable);
}

}  // namespace
