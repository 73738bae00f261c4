// The audio source: formats, time stamps and conversion.
#include "SourceKinds.h"

namespace android::qmmediaeditor {

class AudioSourceTest : public SourceTest<AudioKind> {
protected:
    void enableWith(const AudioAttribute& attribute) {
        renew(attribute);
        mJournal.clear();
        enable(attribute);
        mSource->start();
    }
    // Pushes `bytes` of PCM and takes it into an encoder buffer of `encoderBytes`.
    status_t convert(size_t bytes, size_t encoderBytes, TDecodedSample* input) {
        EXPECT_EQ(OK, pushDecoded('p', 0, bytes));
        return takeDecoded(input, encoderBytes);
    }
    std::vector<int64_t> timesOf(size_t bytes, int count) {
        mSource->start();
        std::vector<int64_t> times;
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(OK, pushDecoded(77, 0, bytes));
            times.push_back((--mSource->mDecodedSamples.end())->mPresentationTimeUs);
        }
        return times;
    }
    typedef std::vector<int64_t> Times;
};

TEST_F(AudioSourceTest, codecDataAndAacProfileAreToldOnlyWhenThereAreAny) {
    AudioAttribute a = AudioKind::attribute();
    a.mCsd = new ABuffer(5);
    renew(a);
    EXPECT_TRUE(mSource->mFormat->contains("aac-profile"));
    uint32_t type;
    const void* data;
    size_t size = 0;
    EXPECT_TRUE(mSource->getFormat()->findData('csd0', &type, &data, &size));
    EXPECT_EQ(5u, size);
    a.mAacProfile = 0;
    a.mCsd.clear();
    renew(a);
    EXPECT_FALSE(mSource->mFormat->contains("aac-profile"));
    EXPECT_FALSE(mSource->mFormat->contains("csd-0"));
}

TEST_F(AudioSourceTest, anEffectIsOnlyLogged) {
    AudioAttribute a = AudioKind::attribute();
    a.mHasEffect = true;
    a.mEffectInfo.mWords[0] = 42;
    enableWith(a);
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "AudioInfo : hasEffect[1][42]"));
    EXPECT_TRUE(logged(ANDROID_LOG_INFO, "unsupport audio effect 1"));
    mSource->mCurrentAudioFrameLoopingNum = 3;
    for (int i = 0; i < 10; ++i) pushDecoded(i);
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "getCurrentEffect(360000)"));
    EXPECT_EQ(1u, mJournal.count("TAudioSource: Oops check this state and wrok around"));
    Background decoder([&] { pushDecoded(10); });
    EXPECT_TRUE(waitFor("waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer2 [11]"));
    mSource->stop();
}

TEST_F(AudioSourceTest, outputTimeIsTheRunningSumOfPcm) {
    EXPECT_EQ((Times{0, 10666, 21332, 31998}), timesOf(2048, 4)) << "each step truncated";
    AudioAttribute a = AudioKind::attribute();
    a.mInputChannelCount = 1;
    a.mInputSampleRate = 8000;
    a.mInputBitsPerSample = 24;
    renew(a);
    EXPECT_EQ((Times{0, 4000}), timesOf(96, 2));
    a.mInputSampleRate = 0;
    renew(a);
    EXPECT_EQ((Times{0, 0}), timesOf(192, 2)) << "it stands still without bytes a second";
    renew(a);
    mSource->mFormat = new AMessage;
    EXPECT_EQ((Times{0, 1000}), timesOf(192, 2)) << "two channels, 48000 Hz, 16 bits";
}

TEST_F(AudioSourceTest, aPoolThatCannotBeHadIsReported) {
    AudioAttribute a = AudioKind::attribute();
    a.mMaxInputSize = -1;
    EXPECT_EQ(-1100, mSource->enable(a, new AMessage));
    EXPECT_TRUE(logged(ANDROID_LOG_ERROR, "MediaBufferBase create is null"));
}

TEST_F(AudioSourceTest, theSecondEndOfStreamQueuesNothing) {
    restart();
    EXPECT_EQ(-1011, pushEnd(false));
    EXPECT_EQ(-1011, pushEnd(false));
    EXPECT_EQ(1u, mSource->mDecodedSamples.size());
    EXPECT_FALSE(mSource->mCodecStopped);
    TDecodedSample input;
    EXPECT_EQ(-1011, takeDecoded(&input));
    EXPECT_EQ(1u, mSource->mDecodedSamples.size()) << "the record stays";
}

TEST_F(AudioSourceTest, anEndWithFurtherFlagsGoesToTheEncoderAsItIs) {
    restart();
    pushEnd(false, 5);
    TDecodedSample input;
    input.mSize = 99;
    EXPECT_EQ(OK, takeDecoded(&input));
    EXPECT_EQ(5u, input.mFlags);
    EXPECT_EQ(0u, input.mSize);
}

TEST_F(AudioSourceTest, pcmOfTheEncodersFormatIsCopied) {
    enableWith(AudioKind::attribute());
    EXPECT_EQ(nullptr, mSource->mMediaEncoderThread->mConverter);
    TDecodedSample input;
    EXPECT_EQ(OK, convert(192, 4096, &input));
    EXPECT_EQ(192u, input.mSize);
    EXPECT_EQ('p', input.mBuffer->base()[191]);
    EXPECT_EQ(0, input.mBuffer->base()[192]);
    EXPECT_EQ(OK, convert(192, 100, &input));
    EXPECT_EQ(192u, input.mSize) << "the encoder is told the full size, and refuses it";
    EXPECT_EQ(1000, input.mPresentationTimeUs);
}

TEST_F(AudioSourceTest, pcmBeginsAtTheBaseOfTheEncodersBufferWhateverItsRange) {
    AudioAttribute a = AudioKind::attribute();
    for (const int32_t rate : {48000, 24000}) {
        a.mSampleRate = rate;
        enableWith(a);
        mPlatform.converter().framesOut = 48;
        pushDecoded('p');
        TDecodedSample input;
        input.mBuffer = bufferOf(4096, 0);
        input.mBuffer->setRange(100, 1);
        EXPECT_EQ(OK, mSource->mMediaEncoderThread->readDecodedData(input));
        EXPECT_EQ(rate == 48000 ? 'p' : 'c', input.mBuffer->base()[0]);
        EXPECT_EQ(0, input.mBuffer->base()[192]);
    }
}

TEST_F(AudioSourceTest, otherPcmIsConverted) {
    // Each row takes 576 bytes.
    const struct {
        int in[3], out[3];  // channels, rate, bits
        const char* allocated;
        int framesOut;
        size_t encoderBytes, size;
    } table[] = {
        {{2, 44100, 16}, {2, 48000, 16}, "converter allocateBuff 144 1.088", 50, 4096, 200},
        {{2, 48000, 24}, {2, 48000, 16}, "converter allocateBuff 96 1.000", 96, 4096, 384},
        {{2, 48000, 32}, {2, 48000, 16}, "converter allocateBuff 144 1.000", 10, 4096, 40},
        {{1, 48000, 16}, {2, 24000, 16}, "converter allocateBuff 288 0.500", 144, 4096, 576},
        {{2, 48000, 16}, {1, 48000, 24}, "converter allocateBuff 144 1.000", 144, 4096, 288},
        {{0, 48000, 16}, {2, 48000, 16}, "converter allocateBuff 0 1.000", 0, 4096, 0},
        {{2, 48000, 16}, {2, 96000, 16}, "converter allocateBuff 144 2.000", 288, 1152, 1152},
    };
    for (const auto& row : table) {
        AudioAttribute a = AudioKind::attribute();
        a.mInputChannelCount = row.in[0];
        a.mInputSampleRate = row.in[1];
        a.mInputBitsPerSample = row.in[2];
        a.mChannelCount = row.out[0];
        a.mSampleRate = row.out[1];
        a.mBitsPerSample = row.out[2];
        enableWith(a);
        mPlatform.converter().framesOut = row.framesOut;
        char init[80];
        snprintf(init, sizeof(init), "converter init %d %d %d to %d %d %d", row.in[0], row.in[1],
                 row.in[2], row.out[0], row.out[1], row.out[2]);
        TDecodedSample input;
        EXPECT_EQ(OK, convert(576, row.encoderBytes, &input)) << init;
        EXPECT_EQ(row.size, input.mSize) << init;
        EXPECT_EQ(1u, mJournal.count(init)) << init;
        EXPECT_EQ(1u, mJournal.count(row.allocated)) << init;
        if (row.size > 0) {
            EXPECT_EQ('c', input.mBuffer->base()[row.size - 1]) << init;
        }
        EXPECT_EQ(0u, mPlatform.converter().allocations) << init;
        EXPECT_TRUE(mSource->mDecodedSamples.empty());
    }
}

TEST_F(AudioSourceTest, conversionFailuresAreReported) {
    AudioAttribute a = AudioKind::attribute();
    a.mSampleRate = 44100;
    enableWith(a);
    mPlatform.converter().outOfMemory = true;
    TDecodedSample input;
    EXPECT_EQ(-1001, convert(192, 4096, &input));
    EXPECT_TRUE(threadLogged(ANDROID_LOG_ERROR, "allocateBuffAFC was failed"));
    mSource->mMediaEncoderThread->mConverter.clear();
    EXPECT_EQ(-1100, takeDecoded(&input));
    EXPECT_TRUE(threadLogged(ANDROID_LOG_ERROR, "converter is null"));
    renew(a);
    mPlatform.converter().initResult = 0;
    EXPECT_EQ(-1100, mSource->enable(a, new AMessage));
    EXPECT_TRUE(
        threadLogged(ANDROID_LOG_ERROR, "ERROR: QmMediaAudioConverter == null or init failed"));
}

TEST_F(AudioSourceTest, pcmThatCannotBeConvertedEndsTheRun) {
    AudioAttribute a = AudioKind::attribute();
    a.mSampleRate = 44100;
    for (const bool outOfMemory : {true, false}) {
        enableWith(a);
        mPlatform.converter().outOfMemory = outOfMemory;
        mPlatform.converter().framesOut = 1025;  // beyond the encoder's 4096 bytes
        pushDecoded(1);
        pushEnd(false);
        mEncoder->holdInput(false);
        EXPECT_TRUE(waitFor("setCodecStopped"));
        EXPECT_EQ(-1130, mSource->failure());
        EXPECT_TRUE(mEncoder->queued().empty());
        EXPECT_EQ(1u, mJournal.linesOf("converter allocateBuff").size()) << "it is not tried again";
        EXPECT_EQ(0u, mPlatform.converter().allocations);
    }
}

TEST_F(AudioSourceTest, timeStopsAtTheEndOfTheRange) {
    AudioAttribute a = AudioKind::attribute();
    a.mInputChannelCount = a.mInputSampleRate = a.mInputBitsPerSample = INT32_MAX;
    renew(a);
    EXPECT_EQ((Times{0, 0}), timesOf(192, 2));
    renew(AudioKind::attribute());
    mSource->mNextTimeUs = INT64_MAX - 1;
    EXPECT_EQ((Times{INT64_MAX - 1, INT64_MAX, INT64_MAX}), timesOf(192, 3));
}

TEST_F(AudioSourceTest, writerBuffersCarryTimesAndFlags) {
    AudioKind::makePool(*mSource);
    mSource->start();
    for (const uint32_t flags : {0u, 2u}) {
        pushEncoded(3, flags);
        EXPECT_EQ(OK, readOne());
        EXPECT_EQ(flags == 2 ? 1 : 0, mRead.config);
        EXPECT_EQ(1, mRead.sync) << "every audio sample is one";
        EXPECT_EQ(120000, mRead.timeUs);
        EXPECT_EQ(0, mRead.decodingTimeUs);
    }
}

}  // namespace android::qmmediaeditor
