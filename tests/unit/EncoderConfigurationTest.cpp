// The encoders' formats for each input and request.
#include "SessionTest.h"

namespace android::qmmediaeditor {

class EncoderConfigurationTest : public SessionTest {
protected:
    static sp<AMessage> request(const Keys& keys) {
        return withKeys(new AMessage(kOutputFormatWhat), keys);
    }
    AudioAttribute audio(const Keys& trackKeys, const sp<AMessage>& outputRequest) {
        AudioAttribute attribute;
        attribute.mCsd = bufferOf({1});
        session().setAudioEncoderInfo(&attribute, audioFormat(trackKeys), outputRequest, false);
        return attribute;
    }
    VideoAttribute video(const Keys& trackKeys, const sp<AMessage>& outputRequest = nullptr) {
        session().mFileMeta = new MetaData;
        VideoAttribute attribute;
        session().setVideoEncoderInfo(&attribute, videoFormat(trackKeys), outputRequest, false);
        return attribute;
    }
};

TEST_F(EncoderConfigurationTest, audioFollowsTheInputUnlessARequestSaysOtherwise) {
    const sp<AMessage> other = withKeys(new AMessage(1), {{"audio-bitrate", 1}});
    const sp<AMessage> whole = request({{"audio-bitrate", 64000},
                                        {"audio-samplerate", 44100},
                                        {"audio-channels", 6},
                                        {"audio-bitspersample", 24}});
    auto encoder = [](int32_t value) { return request({{"audio-encoder", value}}); };
    // Expected: bit rate, sample rate, channels, bits, AAC profile.
    const struct {
        Keys track;
        sp<AMessage> request;
        const char* mime;
        std::vector<int32_t> expected;
    } table[] = {
        {{}, nullptr, kAac, {1048576, 48000, 2, 16, 1}},
        {{{"bitrate", 0}}, other, kAac, {1048576, 48000, 2, 16, 1}},
        {{{"bitrate", 9}, {"sbit", 24}, {"bits-per-sample", 8}, {"aac-profile", 5}},
         nullptr,
         kAac,
         {9, 48000, 2, 24, 5}},
        {{{"bits-per-sample", 8}}, nullptr, kAac, {1048576, 48000, 2, 8, 1}},
        {{{"bitrate", 9}}, request({}), kAac, {12800, 8000, 1, 16, 1}},
        {{}, whole, kAac, {64000, 44100, 6, 24, 1}},
        {{}, encoder(0), "audio/3gpp", {12800, 8000, 1, 16, 0}},
        {{}, encoder(2), "audio/amr-wb", {12800, 8000, 1, 16, 0}},
        {{{"aac-profile", 5}}, encoder(3), kAac, {12800, 8000, 1, 16, 1}},
        {{}, encoder(5), kAac, {12800, 8000, 1, 16, 39}},
        {{{"aac-profile", 5}}, encoder(6), kAac, {12800, 8000, 1, 16, 5}},
    };
    mRequest.mHasAudioEffect = true;
    mRequest.mAudioEffectParam = 13;
    for (const auto& row : table) {
        const AudioAttribute a = audio(row.track, row.request);
        const auto line = &row - table;
        EXPECT_STREQ(row.mime, a.mMime.c_str()) << line;
        EXPECT_EQ(row.expected, (std::vector<int32_t>{a.mBitrate, a.mSampleRate, a.mChannelCount,
                                                      a.mBitsPerSample, a.mAacProfile}))
            << line;
        EXPECT_EQ(48000, a.mInputSampleRate) << line;
        EXPECT_TRUE(a.mHasEffect) << line;
        EXPECT_EQ(13, a.mEffectParam) << line;
        EXPECT_EQ(2, a.mInputChannelCount) << line;
        EXPECT_EQ(row.request == nullptr || row.request == other, a.mCsd == nullptr) << line;
    }
}

TEST_F(EncoderConfigurationTest, videoFollowsTheInputUnlessARequestSaysOtherwise) {
    const sp<AMessage> other = withKeys(new AMessage, {{"video-width", 8}});
    const sp<AMessage> whole = request({{"video-width", 8},
                                        {"video-height", 4},
                                        {"video-framerate", 24},
                                        {"video-bitrate", 9000},
                                        {"video-encoder", 3}});
    // Expected: width, height, rate, bit rate.
    const struct {
        Keys track;
        sp<AMessage> request;
        const char* mime;
        std::vector<int32_t> expected;
    } table[] = {
        {{{"bitrate", 5}, {"frame-rate", 29}}, nullptr, kAvc, {16, 16, 30, 5}},
        {{{"bitrate", 5}, {"frame-rate", 25}}, other, kAvc, {16, 16, 25, 5}},
        {{{"bitrate", 5}}, request({{"video-encoder", 1}}), "video/3gpp", {16, 16, 15, 5}},
        {{{"bitrate", 5}}, request({{"video-framerate", 0}}), kAvc, {16, 16, 15, 5}},
        {{{"bitrate", 5}}, request({{"video-encoder", 5}}), kAvc, {16, 16, 15, 5}},
        {{}, whole, "video/mp4v-es", {8, 4, 24, 9000}},
    };
    mRequest.mVideoParam1.mWords[0] = 14;
    mRequest.mVideoParam2 = 15;
    for (const auto& row : table) {
        const VideoAttribute v = video(row.track, row.request);
        const auto line = &row - table;
        EXPECT_STREQ(row.mime, v.mMime.c_str()) << line;
        EXPECT_EQ(row.expected, (std::vector<int32_t>{v.mOutputWidth, v.mOutputHeight,
                                                      v.mOutputFrameRate, v.mBitrate}))
            << line;
        EXPECT_EQ(1, v.mIFrameInterval) << line;
        EXPECT_EQ(14, v.mSurfaceParam1.mWords[0]) << line;
        EXPECT_EQ(15, v.mSurfaceParam2) << line;
        EXPECT_EQ(19, v.mColorFormat) << line;
    }
}

TEST_F(EncoderConfigurationTest, theVideoBitrateIsEstimatedAndCapped) {
    const struct {
        int64_t durationUs, fileSize;
        Keys track;
        int32_t bitrate;
    } table[] = {
        {10999999, 4000000, {{"bitrate", 0}}, 3200000},
        {10000000, 4000000, {{"bitrate", 99000000}}, 99000000},
        {1000000, 4000, {}, 32000},
        {1000000, 9000000, {{"width", 1281}, {"height", 720}}, 17000000},
        {1000000, 9000000, {{"width", 1280}, {"height", 720}}, 12000000},
        {999999, 1000, {}, 12000000},
        {1000000, INT64_MAX, {{"width", 65535}, {"height", 65535}}, 17000000},
    };
    for (const auto& row : table) {
        session().mFileAttribute.mDurationUs = row.durationUs;
        session().mFileAttribute.mFileSize = row.fileSize;
        EXPECT_EQ(row.bitrate, video(row.track).mBitrate) << &row - table;
    }
}

TEST_F(EncoderConfigurationTest, onlyALongOutputIsHeldBack) {
    const struct {
        int64_t durationUs;
        int32_t rate;
        std::vector<TrimPeriod> periods;
        int32_t size;
    } table[] = {
        {2999999, 30, {}, 0},
        {3000000, 30, {}, 10},
        {9999999, 1, {}, 0},
        {10000000, 1, {}, 10},
        {10000000, 30, {{1000000, 3999999}}, 0},
        {10000000, 30, {{1000000, 4000000}, {5, 6}}, 10},
        {10000000, 5, {{0, 3000000}}, 10},
        {10000000, 4, {{0, 3999999}}, 0},
        {10000000, 30, {{INT64_MIN, INT64_MAX}}, 10},
        {2999999, 30, {{0, 9000000}}, 0},
    };
    for (const auto& row : table) {
        setPeriods(row.periods);
        session().mFileAttribute.mDurationUs = row.durationUs;
        EXPECT_EQ(row.size, video({{"frame-rate", row.rate}}).mFrameBufferSize) << &row - table;
    }
}

TEST_F(EncoderConfigurationTest, theDecodedFrameIsItsCropInItsPlanes) {
    const sp<AMessage> format = videoFormat({{"stride", 1920}, {"slice-height", 1088}});
    format->setRect("crop", 8, 4, 1919, 1083);
    VideoAttribute v;
    v.mOutputWidth = 5;
    const auto read = [&](const sp<AMessage>& from) {
        session().setVideoEncoderInfo(&v, from, request({{"video-width", 7}}), true);
        return std::vector<int32_t>{v.mWidth,    v.mHeight,    v.mStride,     v.mSliceHeight,
                                    v.mNeedCopy, v.mFrameRate, v.mOutputWidth};
    };
    EXPECT_EQ((std::vector<int32_t>{1912, 1080, 1920, 1088, 1, 30, 5}), read(format))
        << "only the input side is read";
    EXPECT_EQ((std::vector<int32_t>{1912, 1080, 1912, 1080, 0, 0, 5}), read(new AMessage))
        << "unknown stays as it was";
}

TEST_F(EncoderConfigurationTest, profileAndLevelAreThoseOfAnAvcInput) {
    const struct {
        const char* mime;
        std::vector<uint8_t> csd;
        sp<AMessage> request;
        int profile, level;
    } table[] = {
        {"video/avc", {0, 0, 0, 1, 103, 77, 0, 31}, nullptr, 2, 512},
        {"VIDEO/AVC", {0, 0, 0, 1, 103, 244, 99, 42}, nullptr, 64, 8192},
        {"video/avc", {0, 0, 0, 1, 103, 101, 0, 50}, nullptr, 0, 0},
        {"video/avc", {0, 0, 0, 1, 103, 77, 0, 31}, request({}), 0, 0},
        {"video/hevc", {0, 0, 0, 1, 103, 77, 0, 31}, nullptr, 0, 0},
        {"video/avc", std::vector<uint8_t>(7, 77), nullptr, 0, 0},
    };
    for (const auto& row : table) {
        const sp<AMessage> format = videoFormat();
        format->setString("mime", row.mime);
        format->setBuffer("csd-0", bufferOf(row.csd));
        VideoAttribute v;
        v.mProfile = v.mLevel = 77;
        session().setVideoEncoderInfo(&v, format, row.request, false);
        EXPECT_EQ(row.profile, v.mProfile) << &row - table;
        EXPECT_EQ(row.level, v.mLevel) << &row - table;
    }
}

}  // namespace android::qmmediaeditor
