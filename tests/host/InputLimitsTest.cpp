// The limits for untrusted input, at their edges.
#include <gtest/gtest.h>

#include "host/codec/InputLimits.h"

namespace android {
namespace qmmediaeditor {
namespace {

TEST(InputLimitsTest, sizesAreLimitedByTheirSidesAndTheirArea) {
    EXPECT_FALSE(checkSize("video", 8192, 4320));
    EXPECT_FALSE(checkSize("video", 4320, 8192));
    EXPECT_TRUE(checkSize("video", 8192, 4321));
    EXPECT_TRUE(checkSize("video", 8193, 16));
    EXPECT_TRUE(checkSize("video", 16, 8193));
    EXPECT_TRUE(checkSize("video", INT32_MAX, INT32_MAX));
    const auto reason = checkSize("video", 9000, 100);
    EXPECT_NE(std::string::npos, reason->find("video of 9000x100")) << *reason;
}

TEST(InputLimitsTest, streamsAndAudioAreLimited) {
    EXPECT_FALSE(checkStreams(64));
    EXPECT_TRUE(checkStreams(65));
    EXPECT_FALSE(checkAudio(768000, 64));
    EXPECT_TRUE(checkAudio(768001, 2));
    EXPECT_TRUE(checkAudio(48000, 65));
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
