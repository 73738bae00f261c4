// The settings, timestamps and key frames of an encoder, and the end of the last frame in a
// session.
#include <gtest/gtest.h>
#include <media/stagefright/MediaCodec.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include <vector>

#include "host/codec/CodecTable.h"
#include "host/codec/SessionTimeline.h"
#include "host/codec/VideoEncoder.h"

namespace android {
namespace qmmediaeditor {
namespace {

typedef CodecBackend::Step Step;

class Observer : public HostObserver {
public:
    void onFrameEncoded(int64_t timeUs) override { framesUs.push_back(timeUs); }
    void onEncoderOpened(bool isVideo, const std::string& name,
                         const sp<AMessage>& format) override {
        opened = (isVideo ? "video " : "audio ") + name;
        format->findInt32("bitrate", &bitRate);
    }

    std::vector<int64_t> framesUs;
    std::string opened;
    int32_t bitRate = 0;
};

struct Packet {
    int64_t timeUs;
    bool isSync;
};

class VideoEncoderTest : public ::testing::Test {
protected:
    VideoEncoderTest() {
        mFormat->setString("mime", MEDIA_MIMETYPE_VIDEO_AVC);
        mFormat->setInt32("width", 64);
        mFormat->setInt32("height", 48);
        mFormat->setInt32("frame-rate", 30);
        mFormat->setInt32("bitrate", 500000);
        mOptions.observer = &mObserver;
        mSession = std::make_shared<SessionTimeline>(mOptions);
    }

    status_t configure() {
        mEncoder = std::make_unique<VideoEncoder>("ultrafast", mSession, 1);
        return mEncoder->configure(mFormat, &mBuffers);
    }

    // All packets of frames with these timestamps; counts the inputs that the encoder released.
    std::vector<Packet> encode(const std::vector<int64_t>& timesUs) {
        std::vector<Packet> packets;
        const auto drain = [&] {
            for (;;) {
                CodecOutput output;
                const Step step = mEncoder->produce(&output);
                if (step != Step::kOutput) return step;
                EXPECT_GT(output.buffer->size(), 0u);
                if ((output.flags & MediaCodec::BUFFER_FLAG_CODECCONFIG) != 0) continue;
                packets.push_back(
                    {output.timeUs, (output.flags & MediaCodec::BUFFER_FLAG_SYNCFRAME) != 0});
            }
        };
        for (const int64_t timeUs : timesUs) {
            EXPECT_EQ(Step::kNeedsInput, drain());
            CodecInput input;
            input.data = mFrame.data();
            input.size = mFrame.size();
            input.timeUs = timeUs;
            input.lease =
                std::shared_ptr<const void>(mFrame.data(), [this](auto*) { ++mReleased; });
            EXPECT_EQ(OK, mEncoder->accept(std::move(input)));
        }
        EXPECT_EQ(OK, mEncoder->finish());
        EXPECT_EQ(Step::kEnd, drain());
        return packets;
    }

    Observer mObserver;
    HostOptions mOptions;
    const sp<AMessage> mFormat = new AMessage;
    std::shared_ptr<SessionTimeline> mSession;
    CodecBuffers mBuffers;
    size_t mReleased = 0;
    std::vector<uint8_t> mFrame = std::vector<uint8_t>(64 * 48 * 3 / 2, 90);
    std::unique_ptr<VideoEncoder> mEncoder;
};

TEST_F(VideoEncoderTest, timestampsAndBuffersComeBackForEveryFrame) {
    ASSERT_EQ(OK, configure());
    EXPECT_EQ("video libx264", mObserver.opened);
    EXPECT_EQ(500000, mObserver.bitRate);
    EXPECT_EQ(size_t{64 * 48 * 3 / 2}, mBuffers.inputBytes);
    const std::vector<int64_t> timesUs = {0, 33333, 66667, 100000, 250000, 250001};
    std::vector<int64_t> encodedUs;
    for (const Packet& packet : encode(timesUs)) encodedUs.push_back(packet.timeUs);
    EXPECT_EQ(timesUs, encodedUs);
    EXPECT_EQ(timesUs, mObserver.framesUs);
    mEncoder.reset();
    EXPECT_EQ(timesUs.size(), mReleased);
}

TEST_F(VideoEncoderTest, timestampsThatDoNotRiseGetTheNextPossibleOnes) {
    ASSERT_EQ(OK, configure());
    std::vector<int64_t> encodedUs;
    for (const Packet& packet : encode({1000, 1000, 500, 2000})) encodedUs.push_back(packet.timeUs);
    EXPECT_EQ((std::vector<int64_t>{1000, 1001, 1002, 2000}), encodedUs);
}

// MPEG-4 and H.263 count in frames: here three inputs share the number of one.
TEST_F(VideoEncoderTest, codecsThatCountInFramesKeepTimestampsInBetween) {
    mFormat->setString("mime", MEDIA_MIMETYPE_VIDEO_MPEG4);
    ASSERT_EQ(OK, configure());
    const std::vector<int64_t> timesUs = {0, 5000, 10000, 33333, 166667};
    std::vector<int64_t> encodedUs;
    for (const Packet& packet : encode(timesUs)) encodedUs.push_back(packet.timeUs);
    EXPECT_EQ(timesUs, encodedUs);
}

TEST_F(VideoEncoderTest, keyFramesFollowTimeWhereTheFrameRateVaries) {
    mSession->setAverageFrameRate(5);
    mFormat->setInt32("i-frame-interval", 2);
    ASSERT_EQ(OK, configure());
    std::vector<int64_t> syncUs;
    for (const Packet& packet : encode({0, 100000, 1999000, 1999999, 2100000, 3999990, 4000000})) {
        if (packet.isSync) syncUs.push_back(packet.timeUs);
    }
    // A microsecond early is rounding.
    EXPECT_EQ((std::vector<int64_t>{0, 1999999, 4000000}), syncUs);
}

TEST_F(VideoEncoderTest, sizesBeyondTheCodecsLimitsAreRefused) {
    mFormat->setInt32("width", 1);
    EXPECT_EQ(ERROR_UNSUPPORTED, configure());
    mFormat->setInt32("width", 8194);
    EXPECT_EQ(ERROR_UNSUPPORTED, configure());
    mFormat->setString("mime", MEDIA_MIMETYPE_VIDEO_MPEG4);
    mFormat->setInt32("width", 8192);
    EXPECT_EQ(ERROR_UNSUPPORTED, configure());
    mFormat->setInt32("width", 64);
    EXPECT_EQ(OK, configure());
    mFormat->setString("mime", MEDIA_MIMETYPE_VIDEO_H263);
    EXPECT_NE(OK, configure()) << "not one of its five sizes";
    mFormat->setString("mime", MEDIA_MIMETYPE_VIDEO_VP8);
    EXPECT_EQ(ERROR_UNSUPPORTED, configure());
}

// Limits of ITU-T H.264, table A-1, at their edges.
TEST(AvcLevelTest, aLevelHoldsWhatTheStandardSays) {
    constexpr int kLevel31 = 512;
    constexpr int kLevel40 = 2048;
    const AvcDemand hd = {1280, 720, 30, 14000000};
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

class SessionTimelineTest : public ::testing::Test {
protected:
    SessionTimeline makeTimeline(const std::optional<std::vector<int64_t>>& cutsUs) {
        HostOptions options;
        options.cutTimesUs = cutsUs;
        return SessionTimeline(options);
    }
};

TEST_F(SessionTimelineTest, theLastFrameEndsWithItselfItsTrackOrItsPeriod) {
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

TEST_F(SessionTimelineTest, aTrackIsCompleteWhenItsEncoderHasEnded) {
    SessionTimeline timeline = makeTimeline(std::nullopt);
    EXPECT_TRUE(timeline.isComplete(true)) << "no encoder at all";
    timeline.encoderStarted(true);
    timeline.encoderStarted(false);
    timeline.encoderEnded(false);
    EXPECT_FALSE(timeline.isComplete(true));
    EXPECT_TRUE(timeline.isComplete(false));
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
