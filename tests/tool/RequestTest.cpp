#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/Request.h>

namespace android::qmmediaeditor::cli {
namespace {

using testing::HasSubstr;

// A ten second clip, 720p at 4 Mbit/s with stereo audio.
MediaFile makeClip() {
    MediaFile file;
    file.sizeBytes = 5000000;
    VideoTrack video;
    video.durationUs = 10000000;
    video.width = 1280;
    video.height = 720;
    video.frameRate = 25;
    video.bitrate = 4000000;
    file.video = video;
    AudioTrack audio;
    audio.durationUs = 10000000;
    audio.sampleRate = 48000;
    audio.channels = 2;
    audio.bitrate = 128000;
    file.audio = audio;
    return file;
}

int32_t valueOf(const sp<AMessage>& format, const char* key) {
    int32_t value = -1;
    EXPECT_TRUE(format->findInt32(key, &value)) << key;
    return value;
}

sp<AMessage> formatFor(const Options& options, const MediaFile& input) {
    const Result<sp<AMessage>> format = makeOutputFormat(options, input);
    const auto* failure = std::get_if<Failure>(&format);
    EXPECT_EQ(nullptr, failure) << failure->reason;
    return failure == nullptr ? std::get<sp<AMessage>>(format) : nullptr;
}

// Empty without a failure.
std::string refusalOf(const Options& options, const MediaFile& input) {
    const Result<sp<AMessage>> format = makeOutputFormat(options, input);
    const auto* failure = std::get_if<Failure>(&format);
    if (failure == nullptr) return "";
    EXPECT_EQ(kExitUnusable, failure->status);
    return failure->reason;
}

TEST(Request, withoutOutputOptions_thereIsNoMessage) {
    Options options;
    options.fastStart = true;
    options.periods = {{0, 1000000}};
    EXPECT_EQ(nullptr, formatFor(options, makeClip()).get());
}

TEST(Request, oneOutputOption_setsEveryKeyFromTheInput) {
    Options options;
    options.videoBitrate = 1000000;
    const sp<AMessage> format = formatFor(options, makeClip());
    EXPECT_EQ(kOutputFormatWhat, format->what());
    EXPECT_EQ(2, valueOf(format, "file-format"));
    EXPECT_EQ(1280, valueOf(format, "video-width"));
    EXPECT_EQ(720, valueOf(format, "video-height"));
    EXPECT_EQ(25, valueOf(format, "video-framerate"));
    EXPECT_EQ(1000000, valueOf(format, "video-bitrate"));
    EXPECT_EQ(2, valueOf(format, "video-encoder"));
    EXPECT_EQ(128000, valueOf(format, "audio-bitrate"));
    EXPECT_EQ(48000, valueOf(format, "audio-samplerate"));
    EXPECT_EQ(2, valueOf(format, "audio-channels"));
    EXPECT_EQ(16, valueOf(format, "audio-bitspersample"));
    EXPECT_EQ(3, valueOf(format, "audio-encoder"));
}

TEST(Request, smallerFrames_getAProportionalBitrate) {
    Options options;
    options.size = Size{640, 360};
    EXPECT_EQ(1000000, valueOf(formatFor(options, makeClip()), "video-bitrate"));
    options.size = Size{1920, 1080};
    EXPECT_EQ(4000000, valueOf(formatFor(options, makeClip()), "video-bitrate"));
}

TEST(Request, rotatedInput_isEncodedToTheDisplayedSize) {
    Options options;
    options.size = Size{360, 640};
    MediaFile clip = makeClip();
    clip.video->rotation = 90;
    const sp<AMessage> format = formatFor(options, clip);
    EXPECT_EQ(640, valueOf(format, "video-width"));
    EXPECT_EQ(360, valueOf(format, "video-height"));
}

TEST(Request, unknownRates_areEstimatedWithinBounds) {
    Options options;
    options.frameRate = 10;
    MediaFile clip = makeClip();
    clip.video->bitrate = 0;
    clip.audio->bitrate = 0;
    EXPECT_EQ(4000000, valueOf(formatFor(options, clip), "video-bitrate"));
    EXPECT_EQ(128000, valueOf(formatFor(options, clip), "audio-bitrate"));
    clip.sizeBytes = 5000000000;
    EXPECT_EQ(12000000, valueOf(formatFor(options, clip), "video-bitrate"));
    // Shorter than a second.
    clip.video->durationUs = clip.audio->durationUs = 900000;
    EXPECT_EQ(12000000, valueOf(formatFor(options, clip), "video-bitrate"));
    clip.audio->bitrate = 1536000;
    EXPECT_EQ(320000, valueOf(formatFor(options, clip), "audio-bitrate"));
}

TEST(Request, oddSizeAndUnsupportedRates_becomeTheNearestSupportedOnes) {
    Options options;
    options.format = FileFormat::k3gp;
    MediaFile clip = makeClip();
    clip.video->width = 161;
    clip.video->height = 121;
    clip.video->frameRate = 600;
    clip.audio->sampleRate = 192000;
    const sp<AMessage> format = formatFor(options, clip);
    EXPECT_EQ(1, valueOf(format, "file-format"));
    EXPECT_EQ(160, valueOf(format, "video-width"));
    EXPECT_EQ(120, valueOf(format, "video-height"));
    EXPECT_EQ(240, valueOf(format, "video-framerate"));
    EXPECT_EQ(96000, valueOf(format, "audio-samplerate"));
}

TEST(Request, amr_setsItsSampleRateChannelsAndContainer) {
    Options options;
    options.audioCodec = AudioCodec::kAmrWb;
    const sp<AMessage> format = formatFor(options, makeClip());
    EXPECT_EQ(1, valueOf(format, "file-format"));
    EXPECT_EQ(2, valueOf(format, "audio-encoder"));
    EXPECT_EQ(16000, valueOf(format, "audio-samplerate"));
    EXPECT_EQ(1, valueOf(format, "audio-channels"));
    EXPECT_EQ(23850, valueOf(format, "audio-bitrate"));
}

TEST(Request, formatsThatNoEncoderSupports_areRefusedWithOneThatWorks) {
    Options options;
    MediaFile clip = makeClip();
    clip.audio->sampleRate = 192000;
    EXPECT_THAT(refusalOf(options, clip), HasSubstr("--audio-rate 96000"));
    clip.audio->sampleRate = 48000;
    clip.audio->channels = 16;
    EXPECT_THAT(refusalOf(options, clip), HasSubstr("--audio-channels 2"));
    clip.audio->channels = 2;
    options.videoCodec = VideoCodec::kH263;
    EXPECT_THAT(refusalOf(options, clip), HasSubstr("352x288"));
    options.videoCodec = VideoCodec::kMpeg4;
    EXPECT_EQ("", refusalOf(options, clip));
    clip.video->width = 8192;
    EXPECT_THAT(refusalOf(options, clip), HasSubstr("8190"));
}

TEST(Request, periods_endWithTheInputAndStartInsideIt) {
    Options options;
    options.periods = {{8000000, 20000000}};
    const Result<std::vector<TrimPeriod>> periods = makePeriods(options, makeClip());
    ASSERT_TRUE(std::holds_alternative<std::vector<TrimPeriod>>(periods));
    ASSERT_EQ(1u, std::get<std::vector<TrimPeriod>>(periods).size());
    EXPECT_EQ(10000000, std::get<std::vector<TrimPeriod>>(periods)[0].mEndUs);
    options.periods = {{10000000, 20000000}};
    const Result<std::vector<TrimPeriod>> refused = makePeriods(options, makeClip());
    ASSERT_TRUE(std::holds_alternative<Failure>(refused));
    EXPECT_EQ(kExitUnusable, std::get<Failure>(refused).status);
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
