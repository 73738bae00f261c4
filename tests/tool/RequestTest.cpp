#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/Request.h>

#include <cmath>
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

TEST_F(RequestTest, valuesThatNoEncoderSupports_becomeTheNearestUnlessAskedFor) {
    clip.audio->sampleRate = 192000;
    expectValues("audio-samplerate 96000 audio-channels 2 video-width 1280 video-framerate 25");
    clip.audio->sampleRate = 48000;
    clip.audio->channels = 16;
    expectValues("audio-samplerate 48000 audio-channels 8");
    options.videoCodec = VideoCodec::kH263;
    expectValues("video-width 704 video-height 576");
    EXPECT_THAT(aspectRatioWarning(options, clip).value_or(""),
                HasSubstr("704x576 changes the aspect ratio"));
    options.size = Size{640, 360};
    EXPECT_THAT(refusal(), HasSubstr("352x288"));
    options.size.reset();
    options.fit = Size{100, 100};
    EXPECT_THAT(refusal(), HasSubstr("no frame of the output fits into 100x100"));
    options.fit.reset();
    options.size.reset();
    options.videoCodec = VideoCodec::kMpeg4;
    clip.video->width = 8192;
    expectValues("video-width 8190 video-height 720");
}

TEST_F(RequestTest, sizesOfAnotherShape_areReportedWithTheFittingOne) {
    options.size = Size{640, 362};
    EXPECT_FALSE(aspectRatioWarning(options, clip));
    clip.video->rotation = 270;
    EXPECT_EQ(
        "--size 640x362 changes the aspect ratio of the 720x1280 input; --fit 640x362 would give "
        "360x640",
        aspectRatioWarning(options, clip));
}

TEST_F(RequestTest, quality_hasTheInputsRateAsItsMaxUnlessEitherIsAskedFor) {
    clip.video->mime = "video/hevc";
    const auto expectRate = [this](std::optional<int32_t> quality, std::optional<int64_t> max) {
        const VideoRate rate = videoRate(options, clip);
        EXPECT_EQ(quality, rate.quality);
        EXPECT_EQ(max, rate.maxBitrate);
    };
    expectRate(23, std::lround(4000000 * avcBitsFactor("video/hevc")));
    EXPECT_GT(avcBitsFactor("video/hevc"), 1);
    options.fit = Size{640, 360};
    clip.video->mime = "video/avc";
    expectRate(23, 1000000);
    // A still image leaves enough for key frames.
    clip.video->bitrate = 20000;
    expectRate(23, 640 * 360 / 2);
    options.quality = 30;
    expectRate(30, std::nullopt);
    options.videoBitrate = 700000;
    expectRate(30, 700000);
    options.quality.reset();
    expectRate(std::nullopt, std::nullopt);
    options.videoBitrate.reset();
    options.videoCodec = VideoCodec::kMpeg4;
    expectRate(std::nullopt, std::nullopt);
}

// Sides are even, and no larger one of the same shape would fit.
TEST(FitInto, keepsTheShapeInsideTheBox) {
    for (const Size& shape : {Size{1920, 1080}, Size{1080, 1920}, Size{161, 121}, Size{4096, 2160},
                              Size{500, 8000}, Size{998, 1000}, Size{768, 575}}) {
        for (const Size& box :
             {Size{1280, 720}, Size{640, 640}, Size{333, 201}, Size{9000, 9000}}) {
            const Size size = fitInto(box, shape);
            const std::string what = std::to_string(size.width) + "x" + std::to_string(size.height);
            EXPECT_TRUE(size.width % 2 == 0 && size.height % 2 == 0) << what;
            EXPECT_LE(size.width, std::min(box.width, shape.width)) << what;
            EXPECT_LE(size.height, std::min(box.height, shape.height)) << what;
            EXPECT_NEAR(1, 1.0 * size.width * shape.height / shape.width / size.height, 0.01)
                << what;
            EXPECT_TRUE(size.width + 16 >= std::min(box.width, shape.width) ||
                        size.height + 16 >= std::min(box.height, shape.height))
                << what;
        }
    }
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
