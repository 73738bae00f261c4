// Offsets behind discontinuities, found by the readers of two tracks.
#include <gtest/gtest.h>

#include "host/extractor/TimestampRepair.h"

namespace android {
namespace qmmediaeditor {
namespace {

constexpr int kVideo = 0;
constexpr int kAudio = 1;
constexpr int64_t kSecondUs = 1000000;
constexpr int64_t kSegmentBytes = 500000;

// Segments of 6 s that each begin at 0 again; audio lies a little behind video in time and place.
TEST(TimestampDiscontinuitiesTest, shortSegmentsFollowOneAnother_inBothTracks_alsoAfterASeek) {
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

TEST(TimestampDiscontinuitiesTest, anOffsetOfAnotherTrackIsNotUsed_farAwayInTimeOrPlace) {
    TimestampDiscontinuities discontinuities;
    discontinuities.offsetUs(kVideo, 1000, 0, 100 * kSecondUs);
    EXPECT_EQ(120 * kSecondUs, discontinuities.offsetUs(kAudio, 2000, 0, 120 * kSecondUs));
    EXPECT_EQ(101 * kSecondUs,
              discontinuities.offsetUs(kAudio, INT64_C(1) << 30, 0, 101 * kSecondUs));
}

// The search for another track's offset must not grow with their number.
TEST(TimestampDiscontinuitiesTest, everyTimestampMayJump) {
    TimestampDiscontinuities discontinuities;
    for (int64_t i = 0; i < 100000; ++i) {
        const int64_t timeUs = i * 7919 % 95443 * kSecondUs;
        ASSERT_EQ(i * 24000 - timeUs, discontinuities.offsetUs(kAudio, i * 188, timeUs, i * 24000));
    }
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
