// Frame rates from timestamps, timestamps restored to a constant rate, and offsets behind
// discontinuities, found by the readers of two tracks.
#include <gtest/gtest.h>
#include <math.h>

#include <cmath>

#include "host/extractor/TimestampRepair.h"

namespace android::qmmediaeditor {
namespace {

constexpr int64_t kMillisecondUs = 1000;
constexpr int64_t kSecondUs = 1000000;
constexpr int kVideo = 0;
constexpr int kAudio = 1;

std::vector<int64_t> timesInMilliseconds(double rate, int count) {
    std::vector<int64_t> timesUs;
    for (int i = 0; i < count; ++i) timesUs.push_back(llround(i * 1000 / rate) * kMillisecondUs);
    return timesUs;
}

// Frames are never closer than at this rate, and near their timestamps.
void expectSteady(ConstantFrameRate* constantRate, const std::vector<int64_t>& timesUs, int rate,
                  int64_t toleranceUs) {
    int64_t lastUs = constantRate->snap(timesUs[0]);
    for (size_t i = 1; i < timesUs.size(); ++i) {
        const int64_t timeUs = constantRate->snap(timesUs[i]);
        ASSERT_GE(timeUs - lastUs, kSecondUs / rate) << "frame " << i;
        ASSERT_LE(std::abs(timeUs - timesUs[i]), toleranceUs) << "frame " << i;
        lastUs = timeUs;
    }
}

TEST(ConstantFrameRateTest, timestampsInMillisecondsAreRestored) {
    for (const double rate : {24 / 1.001, 24.0, 25.0, 30 / 1.001, 30.0, 50.0, 60 / 1.001, 120.0}) {
        SCOPED_TRACE(rate);
        const int announced = static_cast<int>(ceil(rate));
        FrameRateEstimate timing =
            estimateFrameRate({timesInMilliseconds(rate, 120)}, kMillisecondUs, {});
        EXPECT_EQ(announced, timing.rate);
        ASSERT_TRUE(timing.constantRate.has_value());
        expectSteady(&*timing.constantRate, timesInMilliseconds(rate, 100000), announced,
                     kMillisecondUs);
    }
    // A slightly wrong rate drifts without an early frame.
    ConstantFrameRate constantRate({2997, 100}, kMillisecondUs, 0);
    expectSteady(&constantRate, timesInMilliseconds(29.98, 20000), 30, kSecondUs);
}

TEST(ConstantFrameRateTest, theContainersRateIsUsedAndRoundedUp) {
    const FrameRateEstimate timing =
        estimateFrameRate({timesInMilliseconds(10.3, 50)}, kMillisecondUs, {{103, 10}});
    EXPECT_EQ(11, timing.rate);
    EXPECT_TRUE(timing.constantRate.has_value());
    EXPECT_EQ(9, estimateFrameRate({{0}}, kMillisecondUs, {{8797, 1000}}).rate);
    EXPECT_EQ(30, estimateFrameRate(FrameTimestamps(), kMillisecondUs, {{0, 0}, {1, 0}}).rate);
}

TEST(ConstantFrameRateTest, aVariableRateIsAtLeastTheShortestFrameDistance) {
    std::vector<int64_t> timesUs = {0};
    for (int i = 0; i < 200; ++i) {
        timesUs.push_back(timesUs.back() + (i % 3 == 0 ? 67000 : i == 100 ? 5000 : 33400));
    }
    const FrameRateEstimate timing = estimateFrameRate({timesUs, true}, 11, {{90000, 1}});
    EXPECT_FALSE(timing.constantRate.has_value());
    EXPECT_EQ(200, timing.rate);
    // Later frames may be closer than those that were read.
    EXPECT_EQ(240, estimateFrameRate({timesUs, false}, 33000, {}).rate);
    EXPECT_EQ(1000, estimateFrameRate({timesUs, false}, kMillisecondUs, {}).rate);
}

TEST(ConstantFrameRateTest, exactTimestampsDoNotChangeWhateverTheTick) {
    std::vector<int64_t> timesUs;
    for (int i = 0; i < 900; ++i) timesUs.push_back(llround(i * 1e6 / 30));
    FrameRateEstimate timing = estimateFrameRate({timesUs}, 33334, {});
    ASSERT_TRUE(timing.constantRate.has_value());
    for (const int64_t timeUs : timesUs) ASSERT_EQ(timeUs, timing.constantRate->snap(timeUs));
}

TEST(ConstantFrameRateTest, aBreakSetsANewAnchor) {
    ConstantFrameRate constantRate({30, 1}, kMillisecondUs, 0);
    EXPECT_EQ(0, constantRate.snap(0));
    EXPECT_EQ(33333, constantRate.snap(33000));
    EXPECT_EQ(1015000, constantRate.snap(1015000));
    EXPECT_EQ(1048333, constantRate.snap(1048000));
    EXPECT_EQ(1015000 - 33333, constantRate.snap(982000));
}

TEST(ConstantFrameRateTest, aFrameHasTheSameTimestampWhereverReadingStarts) {
    ConstantFrameRate fromStart({30, 1}, kMillisecondUs, 0);
    for (int64_t i = 0; i < 100; ++i) {
        const int64_t timeUs = llround(static_cast<double>(i) * 1000 / 30) * kMillisecondUs;
        ConstantFrameRate fromHere({30, 1}, kMillisecondUs, 0);
        EXPECT_EQ(fromStart.snap(timeUs), fromHere.snap(timeUs)) << "frame " << i;
    }
    // The rate is so wrong that after an hour nothing of its frames' places is left.
    ConstantFrameRate afterAnHour({2997, 100}, kMillisecondUs, 0);
    EXPECT_EQ(3600010000, afterAnHour.snap(3600010000));
}

// Segments of 6 s that each begin at 0 again; audio lies a little behind video in time and place.
TEST(TimestampDiscontinuitiesTest, shortSegmentsFollowOneAnotherInBothTracks) {
    constexpr int64_t kSegmentBytes = 500000;
    TimestampDiscontinuities discontinuities;
    for (int64_t i = 1; i < 50; ++i) {
        const int64_t endUs = i * 6 * kSecondUs;
        ASSERT_EQ(endUs, discontinuities.offsetUs(kVideo, i * kSegmentBytes, 0, endUs)) << i;
        if (i % 2 == 0) continue;
        // The video's offset, so that both tracks stay together.
        ASSERT_EQ(endUs,
                  discontinuities.offsetUs(kAudio, i * kSegmentBytes + 900, 20000, endUs + 60000));
    }
    EXPECT_EQ(12 * kSecondUs, discontinuities.offsetUsAt(2 * kSegmentBytes + 5));
    EXPECT_EQ(0, discontinuities.offsetUsAt(kSegmentBytes - 1));
    // Read again from there, the same place has the same offset.
    EXPECT_EQ(18 * kSecondUs,
              discontinuities.offsetUs(kVideo, 3 * kSegmentBytes, 0, 17 * kSecondUs));
}

TEST(TimestampDiscontinuitiesTest, aDistantOffsetOfAnotherTrackIsNotUsed) {
    TimestampDiscontinuities discontinuities;
    discontinuities.offsetUs(kVideo, 1000, 0, 100 * kSecondUs);
    EXPECT_EQ(120 * kSecondUs, discontinuities.offsetUs(kAudio, 2000, 0, 120 * kSecondUs));
    EXPECT_EQ(101 * kSecondUs,
              discontinuities.offsetUs(kAudio, INT64_C(1) << 30, 0, 101 * kSecondUs));
}

TEST(TimestampDiscontinuitiesTest, stepsBackAndStepsWithTooFewBytesAreDiscontinuities) {
    const auto isDiscontinuity = TimestampDiscontinuities::isDiscontinuity;
    EXPECT_FALSE(isDiscontinuity(-500000, 100000)) << "careless multiplexing";
    EXPECT_TRUE(isDiscontinuity(-500001, 100000));
    EXPECT_TRUE(isDiscontinuity(-60 * kSecondUs, INT64_C(1) << 40));
    EXPECT_FALSE(isDiscontinuity(10 * kSecondUs, 0));
    // A pause of one track, in which the other has been written.
    EXPECT_FALSE(isDiscontinuity(100 * kSecondUs, 500000));
    EXPECT_TRUE(isDiscontinuity(100 * kSecondUs, 499999));
}

}  // namespace
}  // namespace android::qmmediaeditor
