// The two sources, for tests of what both do alike.
#pragma once

#include <TAudioSource.h>
#include <TVideoSource.h>
#include <fakes/FatalCheckTrap.h>
#include <fakes/LogCapture.h>
#include <fakes/ScriptedPlatform.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>

#include <string>
#include <vector>

#include "Background.h"
#include "SystemCalls.h"

namespace android::qmmediaeditor {

struct AudioKind {
    typedef TAudioSource Source;
    typedef AudioAttribute Attribute;
    static constexpr bool kIsAudio = true;
    static constexpr const char* kMime = "audio/mp4a-latm";
    static constexpr const char* kTag = "TAudioSource";
    static constexpr const char* kThreadTag = "AudioEncoderThread";
    static constexpr const char* kLooperName = "TrasnAudioEn_lo";
    static constexpr const char* kEncodedFull =
        "waiting @ mBufferReturnedCond in pushEncodedBuffer [11]";
    static constexpr const char* kDecodedFull =
        "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer3 [11]";
    static constexpr const char* kPushedEarly = "waiting @ pushEncodedBuffer called before start";
    static constexpr size_t kSampleBytes = 192;  // 1000 microseconds

    static AudioAttribute attribute();
    static EncoderCodec& encoderOf(Source& s) { return s.mMediaEncoderThread->mAudioEncoder; }
};

struct VideoKind {
    typedef TVideoSource Source;
    typedef VideoAttribute Attribute;
    static constexpr bool kIsAudio = false;
    static constexpr const char* kMime = "video/avc";
    static constexpr const char* kTag = "TVideoSource";
    static constexpr const char* kThreadTag = "VideoEncoderThread";
    static constexpr const char* kLooperName = "TrasnVideoEn_lo";
    static constexpr const char* kEncodedFull =
        "wait @ buffer returned condition in pushEncodedBuffer [EncodedSample:11]";
    static constexpr const char* kDecodedFull =
        "wait@mDecoderBufferReturnedCond [DecodedSample:11]";
    static constexpr const char* kPushedEarly =
        "wait @ Buffer Start conditionpushEncodedBuffer called before start";
    static constexpr size_t kSampleBytes = 384;  // 16x16 pixels

    static VideoAttribute attribute();
    static EncoderCodec& encoderOf(Source& s) { return s.mMediaEncoderThread->mVideoEncoder; }
};

// Of a stopped source. The output loop lets go of its own object as the last thing it does, after
// it has told everyone that it ended.
template <class Source>
void awaitEncoderThread(Source& source) {
    const auto thread = source.mMediaEncoderThread;
    while (thread != nullptr && thread->getStrongCount() > 2) sched_yield();
}

template <class Source>
void endSource(Source& source) {
    source.stop();
    awaitEncoderThread(source);
    source.stopThread();
}

template <class Kind>
class SourceTest : public ::testing::Test {
protected:
    typedef typename Kind::Source Source;
    typedef typename Kind::Attribute Attribute;

    ~SourceTest() override {
        endSource(*mSource);
        EXPECT_EQ(0u, mCalls.timeouts()) << "teardown waited for a port that did not end";
    }

    static sp<MediaCodecBuffer> bufferOf(size_t bytes, int fill) {
        sp<ABuffer> buffer = new ABuffer(bytes);
        memset(buffer->base(), fill, bytes);
        return new MediaCodecBuffer(nullptr, buffer);
    }
    // A source in the place of the one before, and a journal that begins with it.
    void renew(const Attribute& attribute = Kind::attribute()) {
        endSource(*mSource);
        mSource = new Source(attribute);
        mJournal.clear();
    }
    // With an encoder, which takes and gives nothing until the test lets it.
    void enable(const Attribute& attribute = Kind::attribute()) {
        mEncoder = mPlatform.encoder(Kind::kMime);
        mEncoder->holdInput(true);
        ASSERT_EQ(OK, mSource->enable(attribute, new AMessage));
    }
    // A started source with an encoder.
    void restart(const Attribute& attribute = Kind::attribute()) {
        renew(attribute);
        enable(attribute);
        mSource->start();
    }
    // A started source without an encoder, with a buffer for the writer.
    void startWithPool() {
        mSource->mCore.makePool(1024);
        mSource->start();
    }
    status_t pushDecoded(int number, uint32_t flags = 0, size_t bytes = Kind::kSampleBytes) {
        TDecodedSample sample;
        sample.mSize = bytes;
        sample.mFlags = flags;
        sample.mPresentationTimeUs = number * 40000;
        sample.mBuffer = bufferOf(bytes, number);
        return mSource->pushDecodedBuffer(sample, false);
    }
    status_t pushEnd(bool atOnce, uint32_t flags = 4) {
        TDecodedSample marker;
        marker.mFlags = flags;
        return mSource->pushDecodedBuffer(marker, atOnce);
    }
    status_t pushEncoded(int number, uint32_t flags = 0, size_t bytes = 8) {
        TEncodedSample sample;
        sample.mSize = bytes;
        sample.mFlags = flags;
        sample.mTimeUs = number * 40000;
        sample.mBuffer = bufferOf(bytes, number);
        return mSource->pushEncodedBuffer(&sample);
    }
    status_t readOne() { return ScriptedWriter::readOne(mSource, &mRead); }
    // One decoded sample into an encoder buffer of `bytes`.
    status_t takeDecoded(size_t bytes = 4096) {
        mInput.mBuffer = bufferOf(bytes, 0);
        return mSource->mMediaEncoderThread->readDecodedData(mInput);
    }
    bool waitFor(const std::string& text) { return mLog.waitFor(Kind::kTag, text); }
    bool waitForThread(const std::string& text) { return mLog.waitFor(Kind::kThreadTag, text); }
    bool logged(int priority, const std::string& text) {
        return mLog.contains(priority, Kind::kTag, text);
    }
    bool threadLogged(int priority, const std::string& text) {
        return mLog.contains(priority, Kind::kThreadTag, text);
    }

    SystemCalls mCalls;
    ScriptedPlatform mPlatform;
    Journal& mJournal = mPlatform.journal();
    LogCapture mLog{&mJournal};
    FatalCheckTrap mTrap;
    ScriptedWriter::Sample mRead;
    TDecodedSample mInput;
    sp<ScriptedCodec> mEncoder;
    sp<Source> mSource = new Source(Kind::attribute());
};

typedef ::testing::Types<AudioKind, VideoKind> BothKinds;

inline AudioAttribute AudioKind::attribute() {
    AudioAttribute a;
    a.mMime = kMime;
    a.mBitrate = 64000;
    a.mSampleRate = a.mInputSampleRate = 48000;
    a.mChannelCount = a.mInputChannelCount = 2;
    a.mBitsPerSample = a.mInputBitsPerSample = 16;
    a.mAacProfile = 1;
    a.mMaxInputSize = 1024;
    return a;
}

inline VideoAttribute VideoKind::attribute() {
    VideoAttribute a;
    a.mMime = kMime;
    a.mOutputWidth = a.mWidth = a.mStride = 16;
    a.mOutputHeight = a.mHeight = a.mSliceHeight = 16;
    a.mOutputFrameRate = 30;
    a.mBitrate = 64000;
    a.mColorFormat = 19;
    a.mIFrameInterval = 1;
    return a;
}

}  // namespace android::qmmediaeditor
