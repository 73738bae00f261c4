#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/Request.h>

#include <sstream>

namespace android::qmmediaeditor::cli {
namespace {

using testing::HasSubstr;

// Of a ten second clip, 720p at 4 Mbit/s with stereo audio.
class RequestTest : public testing::Test {
protected:
    RequestTest() {
        clip.sizeBytes = 5000000;
        clip.video = VideoTrack();
        clip.video->durationUs = 10000000;
        clip.video->width = 1280;
        clip.video->height = 720;
        clip.video->frameRate = 25;
        clip.video->bitrate = 4000000;
        clip.audio = AudioTrack();
        clip.audio->durationUs = 10000000;
        clip.audio->sampleRate = 48000;
        clip.audio->channels = 2;
        clip.audio->bitrate = 128000;
    }

    // Keys and values of the message, in turn.
    void expectValues(const std::string& expected) const {
        const Result<sp<AMessage>> format = makeOutputFormat(options, clip);
        const auto* failure = std::get_if<Failure>(&format);
        ASSERT_EQ(nullptr, failure) << failure->reason;
        std::istringstream stream(expected);
        std::string key;
        for (int32_t value = 0; stream >> key >> value;) {
            int32_t found = -1;
            EXPECT_TRUE(std::get<sp<AMessage>>(format)->findInt32(key.c_str(), &found)) << key;
            EXPECT_EQ(value, found) << key;
        }
        EXPECT_TRUE(stream.eof()) << "a value is missing";
    }

    // Empty without a failure.
    std::string refusal() const {
        const Result<sp<AMessage>> format = makeOutputFormat(options, clip);
        const auto* failure = std::get_if<Failure>(&format);
        if (failure == nullptr) return "";
        EXPECT_EQ(kExitUnusable, failure->status);
        return failure->reason;
    }

    Options options;
    MediaFile clip;
};

TEST_F(RequestTest, oneOutputOption_setsEveryKeyFromTheInput) {
    options.videoBitrate = 1000000;
    expectValues(
        "file-format 2 video-width 1280 video-height 720 "
        "video-framerate 25 video-bitrate 1000000 video-encoder 2 "
        "audio-bitrate 128000 audio-samplerate 48000 audio-channels 2 "
        "audio-bitspersample 16 audio-encoder 3");
}

TEST_F(RequestTest, size_isTheDisplayedOneAndSetsTheBitrate) {
    options.size = Size{640, 360};
    expectValues("video-bitrate 1000000");
    options.size = Size{1920, 1080};
    expectValues("video-bitrate 4000000");
    options.size = Size{360, 640};
    clip.video->rotation = 90;
    expectValues("video-width 640 video-height 360");
}

TEST_F(RequestTest, unknownRates_areEstimatedWithinBounds) {
    options.frameRate = 10;
    clip.video->bitrate = clip.audio->bitrate = 0;
    expectValues("video-bitrate 4000000 audio-bitrate 128000");
    clip.sizeBytes = 5000000000;
    expectValues("video-bitrate 12000000");
    // Shorter than a second.
    clip.video->durationUs = clip.audio->durationUs = 900000;
    clip.audio->bitrate = 1536000;
    expectValues("video-bitrate 12000000 audio-bitrate 320000");
}

TEST_F(RequestTest, oddSizeAndUnsupportedRates_becomeTheNearestSupportedOnes) {
    options.format = FileFormat::k3gp;
    clip.video->width = 161;
    clip.video->height = 121;
    clip.video->frameRate = 600;
    clip.audio->sampleRate = 192000;
    expectValues(
        "file-format 1 video-width 160 video-height 120 "
        "video-framerate 240 audio-samplerate 96000");
}

TEST_F(RequestTest, amr_setsItsSampleRateChannelsAndContainer) {
    options.audioCodec = AudioCodec::kAmrWb;
    expectValues(
        "file-format 1 audio-encoder 2 audio-samplerate 16000 "
        "audio-channels 1 audio-bitrate 23850");
}

TEST_F(RequestTest, formatsThatNoEncoderSupports_areRefusedWithOneThatWorks) {
    clip.audio->sampleRate = 192000;
    EXPECT_THAT(refusal(), HasSubstr("--audio-rate 96000"));
    clip.audio->sampleRate = 48000;
    clip.audio->channels = 16;
    EXPECT_THAT(refusal(), HasSubstr("--audio-channels 2"));
    clip.audio->channels = 2;
    options.videoCodec = VideoCodec::kH263;
    EXPECT_THAT(refusal(), HasSubstr("352x288"));
    options.videoCodec = VideoCodec::kMpeg4;
    EXPECT_EQ("", refusal());
    clip.video->width = 8192;
    EXPECT_THAT(refusal(), HasSubstr("8190"));
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
