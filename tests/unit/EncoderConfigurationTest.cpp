// The encoders' formats for each input and request.
#include "SessionTest.h"

namespace android::qmmediaeditor {

typedef std::vector<std::pair<const char*, int32_t>> Keys;

class EncoderConfigurationTest : public SessionTest {
protected:
    static sp<AMessage> withKeys(const sp<AMessage>& message, const Keys& keys) {
        for (const auto& [name, value] : keys) message->setInt32(name, value);
        return message;
    }
    static sp<AMessage> request(const Keys& keys) {
        return withKeys(new AMessage(kOutputFormatWhat), keys);
    }
    AudioAttribute audio(const Keys& trackKeys, const sp<AMessage>& outputRequest) {
        AudioAttribute attribute;
        session().setAudioEncoderInfo(&attribute, withKeys(audioFormat(), trackKeys), outputRequest,
                                      false);
        return attribute;
    }
    VideoAttribute video(const Keys& trackKeys, const sp<AMessage>& outputRequest) {
        session().mFileMeta = new MetaData;
        VideoAttribute attribute;
        session().setVideoEncoderInfo(&attribute, withKeys(videoFormat(), trackKeys), outputRequest,
                                      false);
        return attribute;
    }
    int32_t fileKey(uint32_t key) {
        int32_t value = -1;
        session().mFileMeta->findInt32(key, &value);
        return value;
    }
};

TEST_F(EncoderConfigurationTest, audioFollowsTheInputUnlessARequestSaysOtherwise) {
    const sp<AMessage> other = withKeys(new AMessage('none'), {{"audio-bitrate", 1}});
    const sp<AMessage> whole = request({{"audio-bitrate", 64000},
                                        {"audio-samplerate", 44100},
                                        {"audio-channels", 6},
                                        {"audio-bitspersample", 24}});
    auto encoder = [](int32_t value) { return request({{"audio-encoder", value}}); };
    // Expected: bit rate, sample rate, channels, bits, AAC profile.
    // clang-format off
    const struct {
        Keys track;
        sp<AMessage> request;
        const char* mime;
        std::vector<int32_t> expected;
    } table[] = {
        {{}, nullptr, kAac, {1048576, 48000, 2, 16, 1}},
        {{{"bitrate", 96000}}, nullptr, kAac, {96000, 48000, 2, 16, 1}},
        {{{"bitrate", 0}}, nullptr, kAac, {1048576, 48000, 2, 16, 1}},
        {{{"sbit", 24}, {"bits-per-sample", 8}}, nullptr, kAac, {1048576, 48000, 2, 24, 1}},
        {{{"bits-per-sample", 8}}, nullptr, kAac, {1048576, 48000, 2, 8, 1}},
        {{{"aac-profile", 5}}, nullptr, kAac, {1048576, 48000, 2, 16, 5}},
        {{}, other, kAac, {1048576, 48000, 2, 16, 1}},
        {{{"bitrate", 96000}}, request({}), kAac, {12800, 8000, 1, 16, 1}},
        {{}, whole, kAac, {64000, 44100, 6, 24, 1}},
        {{}, encoder(0), "audio/3gpp", {12800, 8000, 1, 16, 0}},
        {{}, encoder(1), "audio/3gpp", {12800, 8000, 1, 16, 0}},
        {{}, encoder(2), "audio/amr-wb", {12800, 8000, 1, 16, 0}},
        {{{"aac-profile", 5}}, encoder(3), kAac, {12800, 8000, 1, 16, 1}},
        {{}, encoder(4), kAac, {12800, 8000, 1, 16, 5}},
        {{}, encoder(5), kAac, {12800, 8000, 1, 16, 39}},
        {{{"aac-profile", 5}}, encoder(6), kAac, {12800, 8000, 1, 16, 5}},
    };
    // clang-format on
    for (const auto& row : table) {
        const AudioAttribute a = audio(row.track, row.request);
        const auto line = &row - table;
        EXPECT_STREQ(row.mime, a.mMime.c_str()) << line;
        EXPECT_EQ(row.expected, (std::vector<int32_t>{a.mBitrate, a.mSampleRate, a.mChannelCount,
                                                      a.mBitsPerSample, a.mAacProfile}))
            << line;
        EXPECT_EQ(48000, a.mInputSampleRate) << line;
        EXPECT_EQ(2, a.mInputChannelCount) << line;
        EXPECT_EQ(1048576, a.mMaxInputSize) << line;
    }
}

TEST_F(EncoderConfigurationTest, codecDataIsDroppedWithoutARequestAndKeptWithOne) {
    for (const sp<AMessage>& outputRequest : {sp<AMessage>(), request({})}) {
        AudioAttribute attribute;
        attribute.mCsd = bufferOf({1});
        session().setAudioEncoderInfo(&attribute, audioFormat(), outputRequest, false);
        EXPECT_EQ(outputRequest == nullptr, attribute.mCsd == nullptr);
    }
    EXPECT_EQ(1u, mJournal.count("Transcode: set input csd as NULL"));
}

TEST_F(EncoderConfigurationTest, theHostsParametersArePassedOn) {
    mRequest.mHasAudioEffect = true;
    mRequest.mAudioEffectInfo.mWords[1] = 12;
    mRequest.mAudioEffectParam = 13;
    mRequest.mUseInputSurface = true;
    mRequest.mVideoParam1.mWords[0] = 14;
    mRequest.mVideoParam2 = 15;
    const AudioAttribute a = audio({}, nullptr);
    EXPECT_TRUE(a.mHasEffect);
    EXPECT_EQ(12, a.mEffectInfo.mWords[1]);
    EXPECT_EQ(13, a.mEffectParam);
    const VideoAttribute v = video({}, nullptr);
    EXPECT_TRUE(v.mUseSurface);
    EXPECT_EQ(0x7F000789, v.mColorFormat);
    EXPECT_EQ(14, v.mSurfaceParam1.mWords[0]);
    EXPECT_EQ(15, v.mSurfaceParam2);
}

TEST_F(EncoderConfigurationTest, videoFollowsTheInputUnlessARequestSaysOtherwise) {
    const sp<AMessage> other = withKeys(new AMessage, {{"video-width", 8}});
    const sp<AMessage> whole = request({{"video-width", 8},
                                        {"video-height", 4},
                                        {"video-framerate", 24},
                                        {"video-bitrate", 9000},
                                        {"video-encoder", 0}});
    auto encoder = [](int32_t value) { return request({{"video-encoder", value}}); };
    // Expected: width, height, rate, bit rate.
    // clang-format off
    const struct {
        Keys track;
        sp<AMessage> request;
        const char* mime;
        std::vector<int32_t> expected;
    } table[] = {
        {{{"bitrate", 5}}, nullptr, kAvc, {16, 16, 30, 5}},
        {{{"bitrate", 5}, {"frame-rate", 29}}, nullptr, kAvc, {16, 16, 30, 5}},
        {{{"bitrate", 5}, {"frame-rate", 25}}, nullptr, kAvc, {16, 16, 25, 5}},
        {{{"bitrate", 5}}, other, kAvc, {16, 16, 30, 5}},
        {{{"bitrate", 5}}, request({}), kAvc, {16, 16, 15, 5}},
        {{}, whole, kAvc, {8, 4, 24, 9000}},
        {{{"bitrate", 5}}, request({{"video-framerate", 0}}), kAvc, {16, 16, 15, 5}},
        {{{"bitrate", 5}}, encoder(1), "video/3gpp", {16, 16, 15, 5}},
        {{{"bitrate", 5}}, encoder(2), kAvc, {16, 16, 15, 5}},
        {{{"bitrate", 5}}, encoder(3), "video/mp4v-es", {16, 16, 15, 5}},
        {{{"bitrate", 5}}, encoder(4), "video/x-vnd.on2.vp8", {16, 16, 15, 5}},
        {{{"bitrate", 5}}, encoder(5), kAvc, {16, 16, 15, 5}},
    };
    // clang-format on
    for (const auto& row : table) {
        const VideoAttribute v = video(row.track, row.request);
        const auto line = &row - table;
        EXPECT_STREQ(row.mime, v.mMime.c_str()) << line;
        EXPECT_EQ(row.expected, (std::vector<int32_t>{v.mOutputWidth, v.mOutputHeight,
                                                      v.mOutputFrameRate, v.mBitrate}))
            << line;
        EXPECT_EQ(1, v.mIFrameInterval) << line;
        EXPECT_EQ(19, v.mColorFormat) << line;
    }
}

TEST_F(EncoderConfigurationTest, theVideoBitrateIsEstimatedAndCapped) {
    const struct {
        int64_t durationUs, fileSize;
        int32_t width, height;
        Keys track;
        int32_t bitrate;
    } table[] = {
        {10000000, 4000000, 1920, 1080, {}, 3200000},
        {10999999, 4000000, 1920, 1080, {{"bitrate", 0}}, 3200000},
        {10000000, 4000000, 1920, 1080, {{"bitrate", 99000000}}, 99000000},
        {1000000, 9000000, 1920, 1080, {}, 17000000},
        {1000000, 9000000, 1281, 720, {{"bitrate", 0}}, 17000000},
        {1000000, 9000000, 1280, 720, {}, 12000000},
        {999999, 1000, 1280, 720, {}, 12000000},
        {0, 1000, 1920, 1080, {}, 17000000},
        {1000000, INT64_MAX, 65535, 65535, {}, 17000000},
    };
    for (const auto& row : table) {
        session().mFileAttribute.mDurationUs = row.durationUs;
        session().mFileAttribute.mFileSize = row.fileSize;
        Keys keys = row.track;
        keys.insert(keys.end(), {{"width", row.width}, {"height", row.height}});
        EXPECT_EQ(row.bitrate, video(keys, nullptr).mBitrate)
            << row.durationUs << " " << row.width << "x" << row.height;
    }
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "EstimateBitrate : 3200000"));
}

TEST_F(EncoderConfigurationTest, onlyALongOutputIsHeldBack) {
    const struct {
        int64_t durationUs;
        int32_t rate;
        std::vector<TrimPeriod> periods;
        int32_t size;
    } table[] = {
        {10000000, 30, {}, 10},
        {2999999, 30, {}, 0},
        {3000000, 30, {}, 10},
        {9999999, 1, {}, 0},
        {10000000, 1, {}, 10},
        {10000000, 30, {{0, 400000}}, 0},
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
        EXPECT_EQ(row.size, video({{"frame-rate", row.rate}}, nullptr).mFrameBufferSize)
            << row.durationUs << " us, " << row.rate << "/s, " << row.periods.size() << " periods";
    }
}

TEST_F(EncoderConfigurationTest, theDecodedFrameIsItsCropInItsPlanes) {
    const sp<AMessage> format = videoFormat();
    format->setRect("crop", 8, 4, 1919, 1083);
    withKeys(format, {{"stride", 1920}, {"slice-height", 1088}});
    VideoAttribute v;
    v.mOutputWidth = 5;
    session().setVideoEncoderInfo(&v, format, request({{"video-width", 7}}), true);
    EXPECT_EQ(1912, v.mWidth);
    EXPECT_EQ(1080, v.mHeight);
    EXPECT_EQ(1920, v.mStride);
    EXPECT_EQ(1088, v.mSliceHeight);
    EXPECT_EQ(1, v.mNeedCopy);
    EXPECT_EQ(30, v.mFrameRate);
    EXPECT_EQ(5, v.mOutputWidth) << "only the input side is read again";
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "setVideoEncoderInfo[1]"));

    session().setVideoEncoderInfo(&v, new AMessage, nullptr, true);
    EXPECT_EQ(1912, v.mWidth) << "unknown stays as it was";
    EXPECT_EQ(1912, v.mStride);
    EXPECT_EQ(1080, v.mSliceHeight);
    EXPECT_EQ(0, v.mNeedCopy);
    EXPECT_EQ(0, v.mFrameRate);
}

TEST_F(EncoderConfigurationTest, profileAndLevelAreThoseOfAnAvcInput) {
    const struct {
        uint8_t profileIdc, levelIdc;
        int profile, level;
    } codes[] = {{66, 11, 1, 4}, {100, 41, 8, 4096}, {244, 42, 64, 8192}, {101, 50, 0, 0}};
    for (const auto& code : codes) {
        unsigned char bytes[8] = {0, 0, 0, 1, 103, code.profileIdc, 99, code.levelIdc};
        int profile, level;
        session().findAVCVideoProfile(bytes, &profile, &level);
        EXPECT_EQ(code.profile, profile);
        EXPECT_EQ(code.level, level);
    }
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "csd Profile: 100, csd Level: 41"));
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "*Profile: 0x8, *Level: 0x1000"));

    const sp<ABuffer> csd = bufferOf({0, 0, 0, 1, 103, 77, 0, 31});
    const struct {
        const char* mime;
        sp<ABuffer> csd;
        sp<AMessage> request;
        int profile;
    } table[] = {
        {"video/avc", csd, nullptr, 2},
        {"VIDEO/AVC", csd, nullptr, 2},
        {"video/avc", csd, request({}), 0},
        {"video/hevc", csd, nullptr, 0},
        {"video/avc", bufferOf(std::vector<uint8_t>(7, 77)), nullptr, 0},
        {"video/avc", nullptr, nullptr, 0},
    };
    for (const auto& row : table) {
        const sp<AMessage> format = videoFormat();
        format->setString("mime", row.mime);
        if (row.csd != nullptr) format->setBuffer("csd-0", row.csd);
        VideoAttribute v;
        v.mProfile = v.mLevel = 77;
        session().setVideoEncoderInfo(&v, format, row.request, false);
        EXPECT_EQ(row.profile, v.mProfile) << row.mime;
        EXPECT_EQ(row.profile == 0 ? 0 : 512, v.mLevel) << row.mime;
    }
}

TEST_F(EncoderConfigurationTest, theFileIsToldItsTypeAndRotation) {
    EXPECT_EQ(90, video({{"rotation-degrees", 90}}, nullptr).mRotation);
    EXPECT_EQ(90, fileKey(kKeyRotation));
    EXPECT_EQ(0, video({}, nullptr).mRotation);
    EXPECT_EQ(-1, fileKey(kKeyRotation));

    const std::pair<sp<AMessage>, int32_t> table[] = {
        {nullptr, 2},
        {request({}), 2},
        {request({{"file-format", 1}}), 1},
        {withKeys(new AMessage, {{"file-format", 1}}), 2}};
    prepareEchoes();
    for (const auto& [outputRequest, type] : table) {
        mRequest.mOutputFormat = outputRequest;
        mSession.reset();
        renewOutput();
        EXPECT_EQ(0, session().createModule());
        EXPECT_EQ(type, fileKey(kKeyFileType));
    }
}

TEST_F(EncoderConfigurationTest, theTrimPolicyIsOffAndNamesTheContainerOfAShortList) {
    mPlatform.extractor().addTrack(audioFormat());
    session().mPTrimEnabled = true;
    session().mVideoAttribute.mPTrim = 1;
    EXPECT_EQ(0, session().createModule());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "container: video/mp4"));
    EXPECT_FALSE(session().mPTrimEnabled);
    EXPECT_EQ(0, session().mVideoAttribute.mPTrim);

    setPeriods({{0, 1}, {2, 3}});
    mSession.reset();
    renewOutput();
    EXPECT_EQ(0, session().createModule());
    EXPECT_EQ(1u, mJournal.count("Transcode: container: video/mp4"));
}

}  // namespace android::qmmediaeditor
