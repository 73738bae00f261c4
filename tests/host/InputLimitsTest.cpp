// The limits for untrusted input, at their edges.
#include <gtest/gtest.h>

#include "host/codec/InputLimits.h"
#include "host/codec/OutputSequencer.h"

namespace android::qmmediaeditor {
namespace {

constexpr int64_t kMinuteUs = INT64_C(60000000);
constexpr int64_t kNoVideo = INT64_MIN;

TEST(InputLimitsTest, sizesStreamsAndAudioAreLimited) {
    EXPECT_FALSE(checkSize("video", 8192, 4320));
    EXPECT_FALSE(checkSize("video", 4320, 8192));
    EXPECT_TRUE(checkSize("video", 8192, 4321));
    EXPECT_TRUE(checkSize("video", 8193, 16));
    EXPECT_TRUE(checkSize("video", 16, 8193));
    EXPECT_TRUE(checkSize("video", INT32_MAX, INT32_MAX));
    EXPECT_FALSE(checkStreams(64));
    EXPECT_TRUE(checkStreams(65));
    EXPECT_FALSE(checkAudio(768000, 64));
    EXPECT_TRUE(checkAudio(768001, 2));
    EXPECT_TRUE(checkAudio(48000, 65));
}

TEST(SilenceBudgetTest, aGapInPiecesIsLimitedUntilTheNextAudio) {
    SilenceBudget budget;
    budget.addAudio(100 * kMinuteUs);
    EXPECT_FALSE(budget.addSilence(0, 10 * kMinuteUs, kNoVideo));
    EXPECT_TRUE(budget.addSilence(10 * kMinuteUs, 10 * kMinuteUs + 1, kNoVideo));
    budget.addAudio(1);
    EXPECT_FALSE(budget.addSilence(20 * kMinuteUs, 30 * kMinuteUs, kNoVideo));
    budget.beginSegment();
    EXPECT_FALSE(budget.addSilence(5 * kMinuteUs, 15 * kMinuteUs, kNoVideo));
    EXPECT_TRUE(budget.addSilence(INT64_MIN / 4, INT64_MAX / 4, kNoVideo));
}

TEST(SilenceBudgetTest, allGapsTogetherAreLimitedByTheDecodedAudio) {
    SilenceBudget budget;
    for (int64_t i = 0; i < 4; ++i) {
        budget.addAudio(kMinuteUs);
        EXPECT_FALSE(budget.addSilence(10 * i * kMinuteUs, (10 * i + 4) * kMinuteUs, kNoVideo));
    }
    // 16 of 18 minutes.
    budget.addAudio(0);
    const auto reason = budget.addSilence(50 * kMinuteUs, 53 * kMinuteUs, kNoVideo);
    ASSERT_TRUE(reason);
    EXPECT_NE(std::string::npos, reason->find("1140 s")) << *reason;
    EXPECT_NE(std::string::npos, reason->find("1080 s")) << *reason;
}

TEST(SilenceBudgetTest, silenceIsNotLimitedWhileVideoContinues) {
    SilenceBudget budget;
    int64_t timeUs = 0;
    for (; timeUs < 600 * kMinuteUs; timeUs += kMinuteUs) {
        ASSERT_FALSE(budget.addSilence(timeUs, timeUs + kMinuteUs, timeUs)) << timeUs;
    }
    EXPECT_FALSE(budget.addSilence(timeUs, timeUs + 10 * kMinuteUs, timeUs));
    EXPECT_TRUE(budget.addSilence(timeUs + 10 * kMinuteUs, timeUs + 11 * kMinuteUs, timeUs));
}

TEST(SilenceBudgetTest, videoContinuesBetweenFramesThatAreAtMostAMinuteApart) {
    const sp<OutputSequencer> sequencer = new OutputSequencer;
    sequencer->beginSegment(0);
    EXPECT_EQ(kNoVideo, sequencer->videoBefore(5));
    for (const int64_t minute : {1, 2, 3, 8, 9}) sequencer->addVideo(minute * kMinuteUs);
    EXPECT_EQ(kNoVideo, sequencer->videoBefore(kMinuteUs - 1));
    EXPECT_EQ(kMinuteUs + 7, sequencer->videoBefore(kMinuteUs + 7));
    EXPECT_EQ(3 * kMinuteUs, sequencer->videoBefore(7 * kMinuteUs));
    EXPECT_EQ(9 * kMinuteUs, sequencer->videoBefore(90 * kMinuteUs));
    sequencer->beginSegment(0);
    EXPECT_EQ(kNoVideo, sequencer->videoBefore(90 * kMinuteUs));
}

}  // namespace
}  // namespace android::qmmediaeditor
