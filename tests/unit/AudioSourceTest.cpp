// The audio source: formats, time stamps and conversion.
#include "SourceKinds.h"

namespace android::qmmediaeditor {

class AudioSourceTest : public SourceTest<AudioKind> {
protected:
    typedef std::vector<int64_t> Times;

    static AudioAttribute withRate(int32_t sampleRate) {
        AudioAttribute a = AudioKind::attribute();
        a.mSampleRate = sampleRate;
        return a;
    }
    // Pushes `bytes` of PCM and takes it into an encoder buffer.
    status_t convert(size_t bytes) {
        EXPECT_EQ(OK, pushDecoded('p', 0, bytes));
        return takeDecoded();
    }
    // Of `count` samples of `bytes` in that format.
    Times timesOf(const AudioAttribute& attribute, size_t bytes, int count, int64_t firstUs = 0) {
        renew(attribute);
        mSource->mNextTimeUs = firstUs;
        mSource->start();
        Times times;
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(OK, pushDecoded(77, 0, bytes));
            times.push_back((--mSource->mDecodedSamples.end())->mPresentationTimeUs);
        }
        return times;
    }
};

TEST_F(AudioSourceTest, codecDataAndAacProfileAreToldOnlyWhenThereAreAny) {
    AudioAttribute a = AudioKind::attribute();
    for (const bool told : {true, false}) {
        a.mAacProfile = told ? 1 : 0;
        a.mCsd = told ? new ABuffer(5) : nullptr;
        renew(a);
        EXPECT_EQ(told, mSource->mFormat->contains("aac-profile"));
        uint32_t type;
        const void* data;
        size_t size = 0;
        EXPECT_EQ(told, mSource->getFormat()->findData(fourCharCode("csd0"), &type, &data, &size));
        EXPECT_EQ(told ? 5u : 0u, size);
    }
}

TEST_F(AudioSourceTest, outputTimeIsTheRunningSumOfPcm) {
    AudioAttribute a = AudioKind::attribute();
    EXPECT_EQ((Times{0, 10666, 21332, 31998}), timesOf(a, 2048, 4)) << "each step truncated";
    EXPECT_EQ((Times{INT64_MAX - 1, INT64_MAX, INT64_MAX}), timesOf(a, 192, 3, INT64_MAX - 1));
    a.mInputChannelCount = 1;
    a.mInputSampleRate = 8000;
    a.mInputBitsPerSample = 24;
    EXPECT_EQ((Times{0, 4000}), timesOf(a, 96, 2));
    a.mInputSampleRate = 0;
    EXPECT_EQ((Times{0, 0}), timesOf(a, 192, 2)) << "it stands still without bytes a second";
    a.mInputChannelCount = a.mInputSampleRate = a.mInputBitsPerSample = INT32_MAX;
    EXPECT_EQ((Times{0, 0}), timesOf(a, 192, 2));
}

TEST_F(AudioSourceTest, theEndOfStreamIsQueuedOnceAndStays) {
    restart();
    EXPECT_EQ(-1011, pushEnd(false));
    EXPECT_EQ(-1011, pushEnd(false));
    EXPECT_FALSE(mSource->mCodecStopped);
    EXPECT_EQ(-1011, takeDecoded());
    EXPECT_EQ(1u, mSource->mDecodedSamples.size());
    restart();
    pushEnd(false, 5);
    mInput.mSize = 99;
    EXPECT_EQ(OK, takeDecoded()) << "with further flags it goes to the encoder as it is";
    EXPECT_EQ(5u, mInput.mFlags);
    EXPECT_EQ(0u, mInput.mSize);
}

TEST_F(AudioSourceTest, pcmBeginsAtTheBaseOfTheEncodersBufferWhateverItsRange) {
    for (const int32_t rate : {48000, 24000}) {
        restart(withRate(rate));
        EXPECT_EQ(rate == 48000, mSource->mMediaEncoderThread->mConverter == nullptr);
        mPlatform.converter().framesOut = 48;
        for (const int64_t timeUs : {0, 1000}) {
            pushDecoded('p');
            mInput.mBuffer = bufferOf(4096, 0);
            mInput.mBuffer->setRange(100, 1);
            EXPECT_EQ(OK, mSource->mMediaEncoderThread->readDecodedData(mInput));
            EXPECT_EQ(192u, mInput.mSize);
            EXPECT_EQ(rate == 48000 ? 'p' : 'c', mInput.mBuffer->base()[0]);
            EXPECT_EQ(rate == 48000 ? 'p' : 'c', mInput.mBuffer->base()[191]);
            EXPECT_EQ(0, mInput.mBuffer->base()[192]);
            EXPECT_EQ(timeUs, mInput.mPresentationTimeUs);
        }
    }
}

TEST_F(AudioSourceTest, otherPcmIsConverted) {
    // Each row takes 576 bytes.
    const struct {
        int in[3], out[3];  // channels, rate, bits
        const char* allocated;
        int framesOut;
        size_t size;
    } table[] = {
        {{2, 44100, 16}, {2, 48000, 16}, "converter allocateBuff 144 1.088", 50, 200},
        {{2, 48000, 24}, {2, 48000, 16}, "converter allocateBuff 96 1.000", 96, 384},
        {{1, 48000, 16}, {2, 24000, 16}, "converter allocateBuff 288 0.500", 144, 576},
        {{2, 48000, 16}, {1, 48000, 24}, "converter allocateBuff 144 1.000", 144, 288},
        {{0, 48000, 16}, {2, 48000, 16}, "converter allocateBuff 0 1.000", 0, 0},
    };
    for (const auto& row : table) {
        AudioAttribute a = AudioKind::attribute();
        a.mInputChannelCount = row.in[0];
        a.mInputSampleRate = row.in[1];
        a.mInputBitsPerSample = row.in[2];
        a.mChannelCount = row.out[0];
        a.mSampleRate = row.out[1];
        a.mBitsPerSample = row.out[2];
        restart(a);
        mPlatform.converter().framesOut = row.framesOut;
        char init[80];
        snprintf(init, sizeof(init), "converter init %d %d %d to %d %d %d", row.in[0], row.in[1],
                 row.in[2], row.out[0], row.out[1], row.out[2]);
        EXPECT_EQ(OK, convert(576)) << init;
        EXPECT_EQ(row.size, mInput.mSize) << init;
        EXPECT_EQ(1u, mJournal.count(init)) << init;
        EXPECT_EQ(1u, mJournal.count(row.allocated)) << init;
        EXPECT_EQ(0u, mPlatform.converter().allocations) << init;
        EXPECT_TRUE(mSource->mDecodedSamples.empty());
    }
}

TEST_F(AudioSourceTest, pcmThatCannotBeConvertedEndsTheRun) {
    mPlatform.converter().initResult = 0;
    EXPECT_EQ(-1100, mSource->enable(withRate(44100), new AMessage));
    mPlatform.converter().initResult = 1;
    struct {
        bool outOfMemory;
        int framesOut;
    } const failures[] = {{true, 1}, {false, 1025}, {false, -EINVAL}};  // 1025: beyond 4096 bytes
    for (const auto& failure : failures) {
        restart(withRate(44100));
        mPlatform.converter().outOfMemory = failure.outOfMemory;
        mPlatform.converter().framesOut = failure.framesOut;
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

}  // namespace android::qmmediaeditor
