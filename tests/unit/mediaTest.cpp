#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>

#include "sarn/mediaDeliveryIndex.h"
#include "sarn/qualityScores.h"
#include "saturate.h"

namespace {

timeval atMs(int64_t ms) {
    return {.tv_sec = ms / 1000, .tv_usec = ms % 1000 * 1000};
}

TEST(Saturate, EveryFloatHasAnInteger) {
    EXPECT_EQ(saturate<int32_t>(std::nan("")), 0);
    EXPECT_EQ(saturate<int32_t>(-1.9), -1);
    EXPECT_EQ(saturate<int32_t>(2147483648.0F), INT32_MAX);
    EXPECT_EQ(saturate<int32_t>(-HUGE_VAL), INT32_MIN);
    EXPECT_EQ(saturate<uint32_t>(4294967295.5), UINT32_MAX);
    EXPECT_EQ(saturate<int64_t>(9223372036854775808.0), INT64_MAX);
    EXPECT_EQ(saturate<uint64_t>(-1e30), 0U);
}

constexpr uint32_t kRate = 10000;

struct MediaDeliveryIndex : testing::Test {
    MdiMeasurement* m = mdi_start_new_measurement();
    ~MediaDeliveryIndex() override {
        EXPECT_EQ(mdi_cleanup(m), 0);
    }
    bool feed(int64_t ms, uint32_t rate = kRate, uint32_t lost = 0, int packets = 1) {
        bool closed = false;
        for (int i = 0; i < packets; ++i) {
            const timeval arrival = atMs(ms);
            closed = mdi_received_packet_cb(m, &arrival, rate, lost) != 0 || closed;
        }
        return closed;
    }
};

TEST_F(MediaDeliveryIndex, DelayFactorFollowsTheSwingFromTheSixthIntervalOn) {
    const int64_t start = 1'700'000'000'000;
    feed(start);
    for (int i = 1; i <= 5; ++i) {
        EXPECT_FALSE(feed(start + i * 1200 - 200)) << "an interval of exactly a second stays open";
        EXPECT_TRUE(feed(start + i * 1200));
        EXPECT_EQ(m->delayFactor, 0.0F);
    }
    const int64_t sixth = start + 6000;
    feed(sixth, kRate, 0, 20);        // up to 20 x 188 = 3760
    feed(sixth + 600, kRate, 0, 10);  // 3760 - 6000 = -2240, then up by 1880
    // The closing packet finds 5640 - 12000 = -6360; its own rate holds from the next interval on.
    EXPECT_TRUE(feed(sixth + 1200, 2 * kRate, 5));
    EXPECT_FLOAT_EQ(m->delayFactor, 1012.0F);  // (3760 + 6360) / 10000 s
    // Seventh: one packet, before it 0 - 22000; the swing goes up to 0.
    EXPECT_TRUE(feed(sixth + 2300, kRate, 3));
    EXPECT_FLOAT_EQ(m->delayFactor, 1100.0F);
    EXPECT_TRUE(feed(sixth + 3301, kRate, 4));
    float factor = 0, factorMaximum = 0;
    uint32_t lost = 0, lostMaximum = 0;
    EXPECT_EQ(mdi_get_result(m, &factor, &factorMaximum, &lost, &lostMaximum), 0);
    EXPECT_FLOAT_EQ(factor, 1001.0F);
    EXPECT_FLOAT_EQ(factorMaximum, 1100.0F);
    EXPECT_EQ(lost, 1U);
    EXPECT_EQ(lostMaximum, UINT32_MAX - 1) << "the count of lost packets fell from 5 to 3";
}

TEST_F(MediaDeliveryIndex, LevelsAndTimesBeyondTheirRangeSaturateAndWrap) {
    m->closedIntervals = 5;
    feed(0, UINT32_MAX);
    // 3000 s in microseconds wrap to -1294.967296 s: a level beyond the range, and one packet more wraps it.
    EXPECT_FALSE(feed(3'000'000));
    EXPECT_EQ(m->bufferMaximum, INT32_MAX);
    EXPECT_EQ(m->bufferMinimum, INT32_MIN + 187);
    EXPECT_TRUE(feed(5'000'000));  // wraps to 705.032704 s, the level falls to the lowest one
    EXPECT_FLOAT_EQ(m->delayFactor, -1.0F / 4294967296.0F * 1000.0F);
}

TEST_F(MediaDeliveryIndex, DatagramsAtOnceEqualTheirPacketsOneByOne) {
    const auto state = [](const MdiMeasurement& x) {
        return std::tuple(x.packetsInInterval, x.bufferMaximum, x.bufferMinimum, x.delayFactor,
                          x.closedIntervals, x.lostInLastInterval);
    };
    MdiMeasurement* atOnce = mdi_start_new_measurement();
    std::minstd_rand random;
    int64_t now = 0;
    for (int i = 0; i < 20000; ++i) {
        now += random() % 97 == 0 ? 1700 : random() % 3;
        const uint32_t rate =
            i < 10000 ? 500'000 + static_cast<uint32_t>(random() % 4096) : 1U << (random() % 32);
        const int packets = static_cast<int>(random() % 8);
        const timeval arrival = atMs(now);
        mdi_received_packets_cb(atOnce, &arrival, rate, static_cast<uint32_t>(i),
                                static_cast<uint32_t>(packets));
        feed(now, rate, static_cast<uint32_t>(i), packets);
        ASSERT_EQ(state(*m), state(*atOnce)) << "datagram " << i;
    }
    EXPECT_GT(m->closedIntervals, 100U);
    mdi_cleanup(atOnce);
}

TEST(TransportQualityIndex, FollowsBandLossAndSeed) {
    struct Case {
        int32_t kbps;
        double loss, seed, expectedIndex, expectedSeed;
    };
    const Case cases[] = {
        {0, 0.0, 0.0, 1.0, 1.0},      {-1, 0.0, 4.8, 1.0, 1.0},     {5000, 0.0, 1.0, 4.15, 1.0},
        {8000, 0.005, 0.0, 1.0, 4.5}, {2999, 0.005, 0.0, 3.1, 4.0}, {5000, -1.0, 0.0, 5.0, 4.8},
    };
    for (const Case& c : cases) {
        double index = 0.0;
        double seed = c.seed;
        getTransportQualityIndex(c.kbps, c.loss, 60.0, &index, &seed);
        EXPECT_NEAR(index, c.expectedIndex, 1e-12) << c.kbps << " kbit/s, loss " << c.loss;
        EXPECT_EQ(seed, c.expectedSeed);
    }
}

TEST(MeanOpinionScore, BandsAndUpdatesFollowTheStreamType) {
    const uint8_t tags[] = {0x52, 0x6A, 0x0A, 0x7C};
    struct Case {
        uint8_t type;
        int32_t kbps;
        uint8_t tagCount;
        double expected;  // 0: no update
    };
    const Case cases[] = {
        {0x02, 2999, 0, 4.0}, {0x1B, 7000, 0, 4.53}, {0x10, 7001, 0, 4.77}, {0x01, 3000, 0, 4.53},
        {0x03, 199, 0, 4.0},  {0x04, 200, 0, 4.53},  {0x0F, 401, 0, 4.77},  {0x06, 300, 1, 0.0},
        {0x81, 300, 3, 4.53}, {0x06, 300, 2, 4.53},  {0x06, 300, 4, 4.503}, {0x05, 300, 4, 0.0},
        {0x1C, 5000, 4, 0.0}, {0x24, 5000, 0, 0.0},
    };
    for (const Case& c : cases) {
        MosMeasurement mos{.seed = 0, .score = 0, .minimum = 5.0, .maximum = 1.0, .seeded = 0};
        getMosScore(c.type, c.kbps, 0.0, tags, c.tagCount, &mos);
        EXPECT_NEAR(mos.score, c.expected, 1e-12) << "type " << int{c.type} << ", tags " << int{c.tagCount};
        EXPECT_EQ(mos.minimum == 5.0, c.expected == 0.0);
        const double highest = mos.maximum;
        getMosScore(c.type, c.kbps, 0.5, tags, c.tagCount, &mos);
        EXPECT_EQ(mos.score, c.expected == 0.0 ? 0.0 : 1.0) << "with loss";
        EXPECT_EQ(mos.maximum, highest);
        startMOSMearument(&mos);
        getMosScore(c.type, c.kbps, 0.0, tags, c.tagCount, &mos);
        EXPECT_NEAR(mos.score, c.expected, 1e-12) << "does not remember the loss";
    }
}

}  // namespace
