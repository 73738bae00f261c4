// Rates from frame times, and times put back on their grid.
#include <gtest/gtest.h>
#include <math.h>

#include <cmath>

#include "host/extractor/TimestampRepair.h"
#include "host/writer/PacketInterleaver.h"

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int64_t kMillisecondUs = 1000;

std::vector<int64_t> timesInMilliseconds(double rate, int count) {
    std::vector<int64_t> timesUs;
    for (int i = 0; i < count; ++i) timesUs.push_back(llround(i * 1000 / rate) * kMillisecondUs);
    return timesUs;
}

}  // namespace

class FrameGridRates : public ::testing::TestWithParam<std::pair<double, int>> {};

TEST_P(FrameGridRates, millisecondsGoBackToTheGrid_andNoFrameComesTooEarlyForTheRate) {
    const auto [rate, announced] = GetParam();
    const auto timesUs = timesInMilliseconds(rate, 120);
    FrameRateEstimate timing = estimateFrameRate({timesUs}, kMillisecondUs, {});
    EXPECT_EQ(announced, timing.rate);
    ASSERT_TRUE(timing.constantRate.has_value());
    const auto longRunUs = timesInMilliseconds(rate, 100000);
    int64_t lastUs = timing.constantRate->snap(longRunUs[0]);
    for (size_t i = 1; i < longRunUs.size(); ++i) {
        const int64_t timeUs = timing.constantRate->snap(longRunUs[i]);
        ASSERT_GE(timeUs - lastUs, 1000000 / announced) << "frame " << i;
        ASSERT_LE(std::abs(timeUs - longRunUs[i]), kMillisecondUs) << "frame " << i;
        lastUs = timeUs;
    }
}

INSTANTIATE_TEST_SUITE_P(, FrameGridRates,
                         ::testing::Values(std::make_pair(24000 / 1001.0, 24),
                                           std::make_pair(24.0, 24), std::make_pair(25.0, 25),
                                           std::make_pair(30000 / 1001.0, 30),
                                           std::make_pair(30.0, 30), std::make_pair(50.0, 50),
                                           std::make_pair(60000 / 1001.0, 60),
                                           std::make_pair(60.0, 60), std::make_pair(120.0, 120)));

TEST(ConstantFrameRate, aRateThatTheContainerNamesIsTakenAndRoundedUp) {
    const FrameRateEstimate timing =
        estimateFrameRate({timesInMilliseconds(10.3, 50)}, kMillisecondUs, {{103, 10}});
    EXPECT_EQ(11, timing.rate);
    EXPECT_TRUE(timing.constantRate.has_value());
    EXPECT_EQ(9, estimateFrameRate({{0}}, kMillisecondUs, {{8797, 1000}}).rate);
    EXPECT_EQ(30, estimateFrameRate(FrameTimestamps(), kMillisecondUs, {{0, 0}, {1, 0}}).rate);
}

TEST(ConstantFrameRate, variableRate_isLeftAlone_andNoFrameIsTooCloseForTheRate) {
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

TEST(ConstantFrameRate, timesThatAreExactStayAsTheyAre_howeverLongTheTick) {
    std::vector<int64_t> timesUs;
    for (int i = 0; i < 900; ++i) timesUs.push_back(llround(i * 1e6 / 30));
    FrameRateEstimate timing = estimateFrameRate({timesUs}, 33334, {});
    ASSERT_TRUE(timing.constantRate.has_value());
    for (const int64_t timeUs : timesUs) ASSERT_EQ(timeUs, timing.constantRate->snap(timeUs));
}

TEST(ConstantFrameRate, afterABreakTheGridBeginsAnew) {
    ConstantFrameRate constantRate({30, 1}, kMillisecondUs);
    EXPECT_EQ(0, constantRate.snap(0));
    EXPECT_EQ(33333, constantRate.snap(33000));
    EXPECT_EQ(1015000, constantRate.snap(1015000));
    EXPECT_EQ(1048333, constantRate.snap(1048000));
    EXPECT_EQ(1015000 - 33333, constantRate.snap(982000));
}

TEST(ConstantFrameRate, aRateThatIsSlightlyOff_driftsWithoutAFrameThatComesTooEarly) {
    ConstantFrameRate constantRate({2997, 100}, kMillisecondUs);
    const auto timesUs = timesInMilliseconds(29.98, 20000);
    int64_t lastUs = constantRate.snap(timesUs[0]);
    for (size_t i = 1; i < timesUs.size(); ++i) {
        const int64_t timeUs = constantRate.snap(timesUs[i]);
        ASSERT_GE(timeUs - lastUs, 33333) << "frame " << i;
        lastUs = timeUs;
    }
}

TEST(TrackTimestamps, soundKeepsItsFrameLength_untilThereIsARealGap) {
    TrackTimestamps clock(48000, 1024, 0);
    EXPECT_EQ(-1024, clock.stamp(-21333).ticks);
    for (int64_t i = 0; i < 1000; ++i) {
        // As counted by someone who drops the fractions.
        EXPECT_EQ(i * 1024, clock.stamp(i * 1024 * 1000000 / 48000).ticks);
    }
    EXPECT_EQ(48000 * 30, clock.stamp(30000000).ticks);
    EXPECT_EQ(1024, clock.stamp(30021333).durationTicks);
}

TEST(TrackTimestamps, picturesRise_whateverTheirTimesDo) {
    TrackTimestamps clock(90000, 0, 3000);
    const auto first = clock.stamp(0);
    EXPECT_EQ(3000, first.durationTicks);
    EXPECT_EQ(3003, clock.stamp(33367).ticks);
    EXPECT_EQ(3004, clock.stamp(33367).ticks);
    EXPECT_EQ(3005, clock.stamp(10000).ticks);
    EXPECT_EQ(9000, clock.stamp(100000).ticks);
    const auto late = clock.stamp(INT64_C(360000000000));
    EXPECT_EQ(INT64_C(360000) * 90000, late.ticks);
}

}  // namespace qmmediaeditor
}  // namespace android
