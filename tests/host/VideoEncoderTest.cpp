// The settings, timestamps and key frames of an encoder, and the end of the last frame in a
// session.
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include <random>
#include <vector>

#include "CodecSupport.h"
#include "host/codec/CodecTable.h"
#include "host/codec/SessionTimeline.h"
#include "host/codec/VideoEncoder.h"

namespace android::qmmediaeditor {
namespace {

typedef std::vector<int64_t> Times;

class VideoEncoderTest : public ::testing::Test, public HostObserver {
protected:
    VideoEncoderTest() {
        mOptions.observer = this;
        mSession = std::make_shared<SessionTimeline>(mOptions);
    }

    void onFrameEncoded(int64_t timeUs) override { mReportedUs.push_back(timeUs); }
    void onEncoderOpened(bool isVideo, const std::string& name,
                         const sp<AMessage>& format) override {
        EXPECT_TRUE(isVideo);
        mOpened = name;
        format->findInt32("bitrate", &mBitRate);
    }

    status_t configure(const char* mime = MEDIA_MIMETYPE_VIDEO_AVC, int width = 64) {
        const sp<AMessage> format = encoderFormat(mime, width, 48);
        format->setInt32("bitrate", 500000);
        format->setInt32("i-frame-interval", 2);
        HostOptions options = fastOptions();
        options.avcPreset = mPreset;
        options.holdsAvcBitrate = mHoldsBitrate;
        mEncoder = std::make_unique<VideoEncoder>(options, mSession);
        return mEncoder->configure(format, &mBuffers);
    }

    // The timestamps of all packets of frames with these timestamps.
    Times encode(const Times& timesUs) {
        Times encodedUs;
        const auto take = [&](const CodecOutput& output) {
            EXPECT_GT(output.buffer->size(), 0u);
            if ((output.flags & MediaCodec::BUFFER_FLAG_CODECCONFIG) != 0) return;
            encodedUs.push_back(output.timeUs);
            mBytes += output.buffer->size();
            if ((output.flags & MediaCodec::BUFFER_FLAG_SYNCFRAME) != 0) {
                mKeyFramesUs.push_back(output.timeUs);
            }
        };
        for (const int64_t timeUs : timesUs) {
            EXPECT_EQ(Step::kNeedsInput, drain(mEncoder.get(), take));
            if (mIsNoise && timeUs >= mSceneChangeUs) fillWithNoise();
            CodecInput input = inputOf(timeUs < mSceneChangeUs ? mFrame : mOtherScene, timeUs, {});
            input.lease =
                std::shared_ptr<const void>(mFrame.data(), [this](auto*) { ++mReleased; });
            EXPECT_EQ(OK, mEncoder->accept(std::move(input)));
        }
        EXPECT_EQ(OK, mEncoder->finish());
        EXPECT_EQ(Step::kEnd, drain(mEncoder.get(), take));
        return encodedUs;
    }

    // Another one each time.
    void fillWithNoise() {
        for (uint8_t& sample : mOtherScene) sample = static_cast<uint8_t>(mRandom());
    }

    std::mt19937 mRandom{1};
    // Each frame of the other scene differs from the one before.
    bool mIsNoise = false;
    Times mReportedUs;
    Times mKeyFramesUs;
    std::string mOpened;
    int32_t mBitRate = 0;
    HostOptions mOptions;
    std::shared_ptr<SessionTimeline> mSession;
    CodecBuffers mBuffers;
    size_t mBytes = 0;
    bool mHoldsBitrate = false;
    size_t mReleased = 0;
    std::string mPreset = fastOptions().avcPreset;
    const std::vector<uint8_t> mFrame = std::vector<uint8_t>(64 * 48 * 3 / 2, 90);
    std::vector<uint8_t> mOtherScene = mFrame;
    int64_t mSceneChangeUs = INT64_MAX;
    std::unique_ptr<VideoEncoder> mEncoder;
};

TEST_F(VideoEncoderTest, timestampsAndBuffersComeBackForEveryFrame) {
    ASSERT_EQ(OK, configure());
    EXPECT_EQ("libx264", mOpened);
    EXPECT_EQ(500000, mBitRate);
    EXPECT_EQ(mFrame.size(), mBuffers.inputBytes);
    const Times timesUs = {0, 33333, 66667, 100000, 250000, 250001};
    EXPECT_EQ(timesUs, encode(timesUs));
    EXPECT_EQ(timesUs, mReportedUs);
    mEncoder.reset();
    EXPECT_EQ(timesUs.size(), mReleased);

    ASSERT_EQ(OK, configure());
    EXPECT_EQ((Times{1000, 1001, 1002, 2000}), encode({1000, 1000, 500, 2000}))
        << "timestamps that do not rise get the next possible ones";

    // MPEG-4 and H.263 count in frames: here three inputs share the number of one.
    ASSERT_EQ(OK, configure(MEDIA_MIMETYPE_VIDEO_MPEG4));
    const Times inBetweenUs = {0, 5000, 10000, 33333, 166667};
    EXPECT_EQ(inBetweenUs, encode(inBetweenUs));
}

TEST_F(VideoEncoderTest, keyFramesFollowTimeWhereTheFrameRateVaries) {
    mSession->setAverageFrameRate(5);
    ASSERT_EQ(OK, configure());
    encode({0, 100000, 1999000, 1999999, 2100000, 3999990, 4000000});
    // A microsecond early is rounding.
    EXPECT_EQ((Times{0, 1999999, 4000000}), mKeyFramesUs);
}

TEST_F(VideoEncoderTest, keyFramesFollowTheLastOneAtAConstantRate) {
    mPreset = "veryfast";
    ASSERT_EQ(OK, configure());
    const auto timeOf = [](int frame) { return int64_t{1000000} * frame / 30; };
    Times timesUs;
    for (int i = 0; i < 150; ++i) timesUs.push_back(timeOf(i));
    fillWithNoise();
    mSceneChangeUs = timeOf(20);
    encode(timesUs);
    EXPECT_EQ((Times{0, timeOf(20), timeOf(80), timeOf(140)}), mKeyFramesUs);

    // Where frames are missing, a key frame comes at the first one after two seconds.
    mKeyFramesUs.clear();
    mSceneChangeUs = INT64_MAX;
    ASSERT_EQ(OK, configure());
    timesUs.erase(timesUs.begin() + 40, timesUs.begin() + 90);
    encode(timesUs);
    EXPECT_EQ((Times{0, timeOf(90)}), mKeyFramesUs);
}

TEST_F(VideoEncoderTest, aHeldBitRateIsHeldWhereTheVideoBecomesDifficult) {
    // A second of nothing, then a second of noise, which costs more than the rate allows.
    Times timesUs;
    for (int i = 0; i < 60; ++i) timesUs.push_back(int64_t{1000000} * i / 30);
    mIsNoise = true;
    mSceneChangeUs = timesUs[30];
    size_t bytes[2] = {};
    for (const bool isHeld : {false, true}) {
        mBytes = 0;
        mHoldsBitrate = isHeld;
        ASSERT_EQ(OK, configure());
        encode(timesUs);
        bytes[isHeld ? 1 : 0] = mBytes;
    }
    constexpr size_t kBytesOfTwoSeconds = 2 * 500000 / 8;
    EXPECT_GT(bytes[0], kBytesOfTwoSeconds);
    EXPECT_LT(bytes[1], kBytesOfTwoSeconds);
}

TEST_F(VideoEncoderTest, sizesBeyondTheCodecsLimitsAreRefused) {
    EXPECT_EQ(ERROR_UNSUPPORTED, configure(MEDIA_MIMETYPE_VIDEO_AVC, 1));
    EXPECT_EQ(ERROR_UNSUPPORTED, configure(MEDIA_MIMETYPE_VIDEO_AVC, 8194));
    EXPECT_EQ(ERROR_UNSUPPORTED, configure(MEDIA_MIMETYPE_VIDEO_MPEG4, 8192));
    EXPECT_EQ(OK, configure(MEDIA_MIMETYPE_VIDEO_MPEG4));
    EXPECT_NE(OK, configure(MEDIA_MIMETYPE_VIDEO_H263)) << "not one of its five sizes";
    EXPECT_EQ(ERROR_UNSUPPORTED, configure(MEDIA_MIMETYPE_VIDEO_VP8));
}

// Limits of ITU-T H.264, table A-1, at their edges.
TEST(AvcLevelTest, aLevelHoldsWhatTheStandardSays) {
    constexpr int kLevel31 = 512;
    constexpr int kLevel40 = 2048;
    const VideoDemand hd = {1280, 720, 30, 14000000};
    EXPECT_EQ(31, avcLevelFor(kLevel31, hd));
    EXPECT_EQ(40, avcLevelFor(kLevel40, hd));
    EXPECT_EQ(0, avcLevelFor(kLevel31, {1280, 720, 30.1, 14000000})) << "macroblocks per second";
    EXPECT_EQ(0, avcLevelFor(kLevel31, {1280, 720, 30, 14000001})) << "bit rate";
    EXPECT_EQ(0, avcLevelFor(kLevel31, {1296, 720, 25, 1000})) << "macroblocks";
    // The longest side of level 3.1 is sqrt(8 * 3600) = 169 macroblocks.
    EXPECT_EQ(31, avcLevelFor(kLevel31, {169 * 16, 16, 25, 1000}));
    EXPECT_EQ(0, avcLevelFor(kLevel31, {16, 169 * 16 + 1, 25, 1000}));
    EXPECT_EQ(0, avcLevelFor(3, hd)) << "no level";
}

SessionTimeline makeTimeline(const std::optional<std::vector<int64_t>>& cutsUs) {
    HostOptions options;
    options.cutTimesUs = cutsUs;
    return SessionTimeline(options);
}

TEST(SessionTimelineTest, theLastFrameEndsWithItselfItsTrackOrItsPeriod) {
    SessionTimeline whole = makeTimeline(std::vector<int64_t>());
    EXPECT_EQ(std::nullopt, whole.videoEndUs(0));
    whole.addFrame(40000, 0);
    EXPECT_EQ(std::nullopt, whole.videoEndUs(40000));
    whole.addFrame(80000, 40000);
    whole.addFrame(60000, 10000);  // out of order
    EXPECT_EQ(120000, whole.videoEndUs(80000));
    whole.endVideo(0, 500000);
    EXPECT_EQ(500000, whole.videoEndUs(80000));

    // Periods 1 s to 2 s and 5 s to 6 s: the second begins at 1 s of the output.
    SessionTimeline cut = makeTimeline(std::vector<int64_t>{1000000, 2000000, 5000000, 6000000});
    cut.addFrame(1900000, 200000);
    cut.addFrame(5500000, 100000);
    EXPECT_EQ(1000000, cut.videoEndUs(900000)) << "clipped to its period";
    EXPECT_EQ(1600000, cut.videoEndUs(1500000));
    cut.endVideo(7000000, std::nullopt);
    EXPECT_EQ(2000000, cut.videoEndUs(1500000)) << "the track goes on behind the period";
    EXPECT_EQ(std::nullopt, makeTimeline(std::nullopt).videoEndUs(0));
}

TEST(SessionTimelineTest, aTrackIsCompleteWhenItsEncoderHasEnded) {
    SessionTimeline timeline = makeTimeline(std::nullopt);
    EXPECT_TRUE(timeline.isComplete(true)) << "no encoder at all";
    timeline.encoderStarted(true);
    timeline.encoderStarted(false);
    timeline.encoderEnded(false);
    EXPECT_FALSE(timeline.isComplete(true));
    EXPECT_TRUE(timeline.isComplete(false));
}

}  // namespace
}  // namespace android::qmmediaeditor
