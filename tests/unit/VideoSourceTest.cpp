// The video source: formats, pacing, decoding times, crop.
#include "SourceKinds.h"

namespace android::qmmediaeditor {

class VideoSourceTest : public SourceTest<VideoKind> {
protected:
    typedef std::vector<int64_t> Times;

    void pushFrame(int64_t timeUs) {
        TDecodedSample sample;
        sample.mBuffer = bufferOf(VideoKind::kSampleBytes, 0);
        sample.mSize = VideoKind::kSampleBytes;
        sample.mPresentationTimeUs = timeUs;
        EXPECT_EQ(OK, mSource->pushDecodedBuffer(sample, false));
    }
    Times keptTimes() {
        Times times;
        for (const auto& kept : mSource->mDecodedSamples) times.push_back(kept.mPresentationTimeUs);
        return times;
    }
    // Scales a frame of `inBytes` into a buffer of `outBytes`.
    void crop(const VideoAttribute& attribute, size_t inBytes, size_t outBytes) {
        renew(attribute);
        mIn.mBuffer = bufferOf(inBytes, 9);
        mIn.mSize = inBytes;
        mOut.mBuffer = bufferOf(outBytes, 0);
        mOut.mBuffer->setRange(7, 1);
        mOut.mSize = 77;
        mSource->cropFrame(mIn, mOut, true);
    }

    TDecodedSample mIn;
    TDecodedSample mOut;
};

TEST_F(VideoSourceTest, profileAndLevelAreForTheEncoderAndOnlyTogether) {
    VideoAttribute a = VideoKind::attribute();
    a.mRotation = 90;
    const std::tuple<int, int, bool> table[] = {{8, 512, true}, {8, 0, false}, {0, 512, false}};
    for (const auto& [profile, level, told] : table) {
        a.mProfile = profile;
        a.mLevel = level;
        renew(a);
        EXPECT_EQ(told, mSource->mEncoderFormat->contains("profile"));
        EXPECT_EQ(told, mSource->mEncoderFormat->contains("level"));
        EXPECT_FALSE(mSource->mOutputFormat->contains("profile"));
    }
    int32_t rotation = 0;
    EXPECT_TRUE(mSource->getFormat()->findInt32(kKeyRotation, &rotation));
    EXPECT_EQ(90, rotation);
}

TEST_F(VideoSourceTest, framesCloserThanAFrameIntervalAreDropped) {
    mSource->start();
    for (const int64_t t : {0, 10000, 33332, 40000, 73332, 73333}) pushFrame(t);
    EXPECT_EQ((Times{0, 40000, 73333}), keptTimes());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "drop 33333 > 10000"));
    pushFrame(INT64_MAX);
    EXPECT_EQ(INT64_MAX, mSource->mNextFrameTimeUs);
    VideoAttribute a = VideoKind::attribute();
    a.mOutputFrameRate = 0;
    renew(a);
    mSource->start();
    for (int64_t t = 0; t < 5; ++t) pushFrame(t);
    EXPECT_EQ(5u, keptTimes().size()) << "without a rate none is dropped";
}

TEST_F(VideoSourceTest, boundsFollowTheAttributeAndNegativeOnesAreRefused) {
    VideoAttribute a = VideoKind::attribute();
    const std::pair<int32_t, int32_t> table[] = {{10, 10}, {-1, 10}, {0, 0}, {3, 3}};
    for (const auto& [size, bound] : table) {
        a.mFrameBufferSize = size;
        renew(a);
        EXPECT_EQ(bound, mSource->mMaxDecodedSamples);
        EXPECT_EQ(bound, mSource->mMaxEncodedSamples);
    }
}

TEST_F(VideoSourceTest, decodingTimesGoUpAndNeverPassThePresentationTime) {
    const struct {
        int64_t timeUs, durationUs, ownUs, decodingUs;
    } table[] = {{0, -1, 0, 0},
                 {50000, -1, 0, 50000},
                 {100000, -1, 0, 83333},
                 {200000, 1000, 0, 84333},
                 {200000, 0, 0, 84333},
                 {60000, -1, 0, 60000},
                 {200000, -1, 0, 93333},
                 {200000, -2, 150000, 150000},
                 {INT64_MAX, INT64_MAX - 150001, 0, INT64_MAX - 1},
                 {INT64_MAX, -1, 0, INT64_MAX},
                 {INT64_MAX, INT64_MAX, 0, INT64_MAX}};
    mSource->start();
    for (const auto& row : table) {
        TEncodedSample sample;
        sample.mBuffer = bufferOf(1, 0);
        sample.mTimeUs = row.timeUs;
        sample.mSpare2 = row.durationUs;
        sample.mDecodingTimeUs = row.ownUs;
        mSource->mMaxEncodedSamples = 100;
        EXPECT_EQ(OK, mSource->pushEncodedBuffer(&sample));
        const TEncodedSample& queued = *--mSource->mEncodedSamples.end();
        EXPECT_EQ(row.decodingUs, queued.mDecodingTimeUs) << row.timeUs;
        EXPECT_EQ(row.timeUs, queued.mTimeUs);
    }
}

TEST_F(VideoSourceTest, enablingAgainStartsAfresh) {
    restart();
    pushFrame(900000);
    pushEncoded(7);
    mSource->mColorUtils = new QmMediaEditorColorUtils;
    enable();
    EXPECT_EQ(0, mSource->mNextFrameTimeUs);
    EXPECT_EQ(-1, mSource->mLastTimeUs);
    EXPECT_EQ(nullptr, mSource->mColorUtils);
}

TEST_F(VideoSourceTest, anImpossibleFrameSizeHasNoBuffer) {
    const std::pair<int32_t, int32_t> sizes[] = {{0, 16}, {16, -2}, {60000, 60000}};
    for (const auto& [width, height] : sizes) {
        VideoAttribute a = VideoKind::attribute();
        a.mOutputWidth = width;
        a.mOutputHeight = height;
        EXPECT_EQ(-1100, mSource->enable(a, new AMessage));
    }
    EXPECT_EQ(3u, mJournal.count("TVideoSource: MediaBufferBase create is null"));
    EXPECT_TRUE(mJournal.linesOf("platform createCodec").empty());
}

TEST_F(VideoSourceTest, hdrInputTellsTheConverterTheLayoutToProduce) {
    mPlatform.refuseCodec(VideoKind::kMime, true);
    sp<AMessage> format = new AMessage;
    format->setInt32("color-format", 54);
    for (const int32_t hdr : {0, 1}) {
        format->setInt32("hdr10-video-playback", hdr);
        mSource->enable(VideoKind::attribute(), format);
        EXPECT_EQ(hdr != 0, mSource->mColorUtils != nullptr);
    }
    const auto& layout = mSource->mColorUtils->layout();
    int32_t color = 0;
    layout.format->findInt32("color-format", &color);
    EXPECT_EQ(19, color);
    format->findInt32("color-format", &color);
    EXPECT_EQ(54, color) << "the decoder's own message is left alone";
    EXPECT_EQ(
        (std::vector<int>{16, 16, 0, 0, 15, 15, 16, 16}),
        (std::vector<int>{layout.width, layout.height, layout.cropLeft, layout.cropTop,
                          layout.cropRight, layout.cropBottom, layout.stride, layout.sliceHeight}));
}

TEST_F(VideoSourceTest, aFrameIsScaledStraightIntoTheEncodersBuffer) {
    VideoAttribute a = VideoKind::attribute();
    a.mWidth = 12;
    a.mHeight = 10;
    a.mStride = 20;
    a.mSliceHeight = 14;
    a.mDecoderColorFormat = 21;
    a.mOutputWidth = 5;
    a.mOutputHeight = 3;
    crop(a, 420, 64);
    ASSERT_EQ(1u, mPlatform.scaleRequests().size());
    const ScaleRequest r = mPlatform.scaleRequests().front();
    EXPECT_EQ((std::vector<int>{20, 14, 12, 10, 21, 5, 3, 19}),
              (std::vector<int>{r.srcStride, r.srcSliceHeight, r.srcWidth, r.srcHeight,
                                r.srcColorFormat, r.dstWidth, r.dstHeight, r.dstColorFormat}));
    EXPECT_EQ(mIn.mBuffer->data(), r.src);
    EXPECT_EQ(mOut.mBuffer->base(), r.dst);
    EXPECT_EQ(22u, mOut.mSize) << "5 * 3 * 1.5, truncated";
    EXPECT_EQ(22u, mOut.mBuffer->size());
}

TEST_F(VideoSourceTest, aFrameThatDoesNotFitItsBuffersIsNotTouched) {
    const struct {
        const char* what;
        int32_t width, height, stride, sliceHeight, outWidth;
        size_t inBytes, outBytes;
        bool fits;
    } table[] = {
        {"just fits", 16, 16, 16, 16, 16, 384, 384, true},
        {"short input", 16, 16, 16, 16, 16, 383, 384, false},
        {"short output", 16, 16, 16, 16, 16, 384, 383, false},
        {"wider than its rows", 17, 16, 16, 16, 16, 384, 384, false},
        {"higher than its planes", 16, 17, 16, 16, 16, 384, 384, false},
        {"no width", 0, 16, 16, 16, 16, 384, 384, false},
        {"negative height", 16, -1, 16, 16, 16, 384, 384, false},
        {"no output width", 16, 16, 16, 16, 0, 384, 384, false},
        {"lowest output width", 16, 16, 16, 16, INT32_MIN, 384, 384, false},
        {"odd size", 15, 15, 15, 15, 16, 353, 384, true},
        {"odd size, short chroma", 15, 15, 15, 15, 16, 352, 384, false},
        {"huge planes", 16, 16, INT32_MAX, INT32_MAX, 16, 384, 384, false},
    };
    for (const auto& row : table) {
        VideoAttribute a = VideoKind::attribute();
        a.mWidth = row.width;
        a.mHeight = row.height;
        a.mStride = row.stride;
        a.mSliceHeight = row.sliceHeight;
        a.mOutputWidth = row.outWidth;
        const size_t before = mPlatform.scaleRequests().size();
        crop(a, row.inBytes, row.outBytes);
        EXPECT_EQ(row.fits, mPlatform.scaleRequests().size() > before) << row.what;
        EXPECT_EQ(row.fits ? 384u : 0u, mOut.mSize) << row.what;
    }
}

TEST_F(VideoSourceTest, theEffectIsReadFromTheHostsAddress) {
    EXPECT_EQ(0, mSource->getCurrentEffect(8));
    VideoAttribute a = VideoKind::attribute();
    a.mUseSurface = true;
    const int32_t effect = 31;
    const int32_t* address = &effect;
    memcpy(a.mSurfaceParam1.mWords, &address, sizeof(address));
    renew(a);
    EXPECT_EQ(31, mSource->getCurrentEffect(8));
}

}  // namespace android::qmmediaeditor
