#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/Request.h>

namespace android::qmmediaeditor::cli {
namespace {

using testing::HasSubstr;

// A ten second clip, 720p at 4 Mbit/s with stereo sound.
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
    sp<AMessage> format;
    const std::optional<Failure> failure = makeOutputFormat(options, input, &format);
    EXPECT_FALSE(failure.has_value()) << failure->reason;
    return format;
}

Failure failureFor(const Options& options, const MediaFile& input) {
    sp<AMessage> format;
    return makeOutputFormat(options, input, &format).value_or(Failure{kExitComplete, "", ""});
}

TEST(Request, withoutOutputOptions_thereIsNoMessage) {
    Options options;
    options.fastStart = true;
    options.periods = {{0, 1000000}};
    EXPECT_EQ(nullptr, formatFor(options, makeClip()).get());
}

TEST(Request, oneOutputOption_bringsEveryKeyAsTheInputHasIt) {
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

TEST(Request, smallerPicture_takesItsShareOfTheBitrate) {
    Options options;
    options.size = Size{640, 360};
    EXPECT_EQ(1000000, valueOf(formatFor(options, makeClip()), "video-bitrate"));
    options.size = Size{1920, 1080};
    EXPECT_EQ(4000000, valueOf(formatFor(options, makeClip()), "video-bitrate"));
}

TEST(Request, rotatedInput_isEncodedSoThatItIsDisplayedAtTheSizeAskedFor) {
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
    // Less than a whole second to divide by.
    clip.video->durationUs = clip.audio->durationUs = 900000;
    EXPECT_EQ(12000000, valueOf(formatFor(options, clip), "video-bitrate"));
    clip.audio->bitrate = 1536000;
    EXPECT_EQ(320000, valueOf(formatFor(options, clip), "audio-bitrate"));
}

TEST(Request, oddPictureAndForeignRates_areBroughtToWhatTheCodecsHave) {
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

TEST(Request, amr_bringsItsOwnFormatAndFile) {
    Options options;
    options.audioCodec = AudioCodec::kAmrWb;
    const sp<AMessage> format = formatFor(options, makeClip());
    EXPECT_EQ(1, valueOf(format, "file-format"));
    EXPECT_EQ(2, valueOf(format, "audio-encoder"));
    EXPECT_EQ(16000, valueOf(format, "audio-samplerate"));
    EXPECT_EQ(1, valueOf(format, "audio-channels"));
    EXPECT_EQ(23850, valueOf(format, "audio-bitrate"));
}

TEST(Request, whatNoEncoderTakes_isRefusedWithWhatWould) {
    Options options;
    MediaFile clip = makeClip();
    clip.audio->sampleRate = 192000;
    EXPECT_THAT(failureFor(options, clip).reason, HasSubstr("--audio-rate 96000"));
    clip.audio->sampleRate = 48000;
    clip.audio->channels = 16;
    EXPECT_THAT(failureFor(options, clip).reason, HasSubstr("--audio-channels 2"));
    clip.audio->channels = 2;
    options.videoCodec = VideoCodec::kH263;
    EXPECT_THAT(failureFor(options, clip).reason, HasSubstr("352x288"));
    EXPECT_EQ(kExitUnusable, failureFor(options, clip).status);
    options.videoCodec = VideoCodec::kMpeg4;
    EXPECT_EQ(kExitComplete, failureFor(options, clip).status);
    clip.video->width = 8192;
    EXPECT_THAT(failureFor(options, clip).reason, HasSubstr("8190"));
}

TEST(Request, periods_endWithTheInputAndBeginInsideIt) {
    Options options;
    options.periods = {{8000000, 20000000}};
    std::vector<TrimPeriod> periods;
    ASSERT_FALSE(makePeriods(options, makeClip(), &periods).has_value());
    ASSERT_EQ(1u, periods.size());
    EXPECT_EQ(10000000, periods[0].mEndUs);
    options.periods = {{10000000, 20000000}};
    const std::optional<Failure> failure = makePeriods(options, makeClip(), &periods);
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(kExitUnusable, failure->status);
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
