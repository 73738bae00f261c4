// The audio track of the output: takes decoded PCM from the session, converts and encodes it on
// threads of its own, and hands the encoded samples to the writer.
//
// Order of use: construct, enable() when the decoded format is known, start() by the writer, then
// pushDecodedBuffer() by the session and read() by the writer's thread at the same time, stop(),
// stopThread(). Output time is the running sum of PCM bytes, from 0: gaps must have been filled
// before.
#pragma once

#include <BatchHandOff.h>
#include <EncoderThreadControl.h>
#include <Exports.h>
#include <FatalCheck.h>
#include <Shared.h>
#include <TSourceBase.h>
#include <editorutils/QmMediaAudioConverter.h>
#include <media/stagefright/MediaBufferGroup.h>
#include <utils/Condition.h>
#include <utils/List.h>
#include <utils/Mutex.h>
#include <utils/Thread.h>

#include <functional>
#include <memory>
#include <utility>

namespace android {
namespace qmmediaeditor {

class QM_EXPORT TAudioSource : public virtual TSourceBase {
public:
    explicit TAudioSource(const AudioAttribute& attribute);

    bool isValid() const { return mValid; }

    // Tells whether the session ends: a push that waits for room gives up soon after it does.
    // Called on the session's thread only. Before the first push.
    void setStopTest(std::function<bool()> test) { mStopTest = std::move(test); }

    // Makes the pool for the writer and the encoder with its threads; again when the format
    // changes. 0, or -1100 when the encoder cannot be had.
    status_t enable(const AudioAttribute& attribute, sp<AMessage> decoderOutputFormat);

    status_t start(MetaData* params = nullptr) override;
    status_t stop() override;
    sp<MetaData> getFormat() override;
    status_t read(MediaBufferBase** buffer, const ReadOptions* options = nullptr) override;
    bool getRunning() override;
    void setCodecStopped() override;
    status_t pushDecodedBuffer(TDecodedSample& sample, bool inputEnded) override;
    void signalBufferReturned(MediaBufferBase* buffer) override;

    // Lets go of the encoder thread.
    void stopThread();

    // Encoder's output loop only. 0, -1011 (stopped) or -22 (no buffer). Blocks while a whole batch
    // waits for the writer.
    status_t pushEncodedBuffer(TEncodedSample* sample);

    // The encoder failed in the middle of the run (kEncoderError), or one of its threads could not
    // be created (kNoThread): the source stops. Any thread.
    void reportFailure(int32_t result);
    // The result that was reported; 0 before.
    int32_t failure() const { return mFailure; }

    void pushPresentationTime(int64_t timeUs);
    int getCurrentEffect(int64_t timeUs);

protected:
    ~TAudioSource() override;

private:
    friend struct BatchHandOff;
    friend struct EncoderThreadControl;
    class MediaEncoderThread;

    static constexpr const char* kTag = "TAudioSource";
    static constexpr size_t kMaxQueuedSamples = 10;

    void initAudioSource();
    void checkAudioInfo();
    void takeAttribute(const AudioAttribute& attribute);
    status_t makePool();
    status_t pushEndOfStream(const TDecodedSample& sample, bool inputEnded);
    int64_t nextTimeUs(size_t sizeBytes) REQUIRES(mDecodedLock);

    sp<MediaEncoderThread> mMediaEncoderThread;  // the session's thread only
    Mutex mFormatLock;
    MediaBufferGroup* mGroup GUARDED_BY(mEncodedLock) = nullptr;
    Shared<bool> mStarted{false};  // written by the writer's and the encoder's threads, read by all
    Shared<bool> mCodecStopped{false};  // written by any thread, never cleared, read by all
    bool mValid = false;
    std::function<bool()> mStopTest;  // the session's thread only
    Condition mStartCond;
    Mutex mEncodedLock;
    Condition mFrameAvailableCond;
    Condition mBufferReturnedCond;
    Mutex mDecodedLock ACQUIRED_AFTER(mEncodedLock);
    Condition mDecodedAvailableCond;
    Condition mDecoderBufferReturnedCond;
    List<int64_t> mPresentationTimes;  // stays empty for audio
    sp<AMessage> mFormat GUARDED_BY(mFormatLock);
    AString mMime;
    int32_t mBitrate = -1;
    int32_t mSampleRate = -1;
    int32_t mChannelCount = -1;
    int32_t mBitsPerSample = -1;
    int32_t mAacProfile = -1;
    bool mHasEffect = false;
    OpaqueParam mEffectInfo;
    int32_t mEffectParam = 0;
    int32_t mMaxInputSize = -1;
    int32_t mInputSampleRate = -1;
    int32_t mInputChannelCount = -1;
    int32_t mInputBitsPerSample = -1;
    sp<ABuffer> mCsd;
    List<TDecodedSample> mDecodedSamples GUARDED_BY(mDecodedLock);
    List<TEncodedSample> mEncodedSamples GUARDED_BY(mEncodedLock);
    int64_t mNextTimeUs GUARDED_BY(mDecodedLock) = 0;
    int32_t mUnusedWord = 0;
    int32_t mCurrentAudioFrameLoopingNum GUARDED_BY(mDecodedLock) = 0;
    bool mEOSSampleAdded GUARDED_BY(mDecodedLock) = false;
    sp<MetaData> mMeta GUARDED_BY(mFormatLock);
    // Written by the session's and the encoder's threads, read by the session's.
    Shared<int32_t> mFailure{OK};
};

// Owns the encoder. The constructor sets it up; the first reference starts the input port, a
// detached thread that takes PCM from the source; run() starts the output loop, which puts encoded
// samples into the source.
class TAudioSource::MediaEncoderThread : public virtual Thread {
public:
    explicit MediaEncoderThread(sp<TAudioSource> source);

    // The encoder runs. To be tested before run().
    bool isValid() const { return mValid; }

    void requestExit() override;
    // Stops and releases the encoder; both ports end. Any thread but theirs.
    void stopEncoder();

    // Pausing has no effect on the data.
    void pause();
    void resume();
    void wake();
    void pauseInternal(int64_t timeUs);

    // Fills the encoder's input buffer `input.mBuffer` and sets size, flags and time. 0, -1011 (end
    // of stream), -1018 (woken with nothing queued), -1100 (no converter) or -1001 (no memory).
    status_t readDecodedData(TDecodedSample& input);

    void startInputPortThread();
    static void* inputThreadWrapper(void* self);
    void* inputThreadEntry();
    void startOutputPortThread();
    static void* outputThreadWrapper(void* self);
    void* outputThreadEntry();

protected:
    ~MediaEncoderThread() override;

private:
    friend class TAudioSource;
    friend struct BatchHandOff;
    friend struct EncoderThreadControl;

    // What one pass of a port leads to.
    enum class Next { kGoOn, kEnd };

    static constexpr const char* kTag = "AudioEncoderThread";

    void onFirstRef() override;
    bool threadLoop() override;

    bool setUpEncoder();
    bool setUpConversion(const AMessage& format);
    Next feedEncoder(const sp<MediaCodec>& codec, TDecodedSample* input);
    Next signalInputEOS(const sp<MediaCodec>& codec);
    void drainEncoder(const sp<MediaCodec>& codec);
    Next takeOutput(const sp<MediaCodec>& codec, TEncodedSample* output);
    Next forwardOutput(const sp<MediaCodec>& codec, TEncodedSample* output);
    status_t convertPcm(const TDecodedSample& head, TDecodedSample* input);
    void copyPcm(const TDecodedSample& head, TDecodedSample* input);

    Mutex& pauseLock() RETURN_CAPABILITY(mLock) { return mLock; }
    EncoderCodec& encoder() { return mAudioEncoder; }

    sp<TAudioSource> mSource;
    Mutex mLock;
    Condition mPauseCond;
    bool mPaused GUARDED_BY(mLock) = true;
    bool mPausedInternal GUARDED_BY(mLock) = false;
    int64_t mPauseTimeUs GUARDED_BY(mLock) = 0;
    bool mWakeRequested GUARDED_BY(mLock) = false;
    Shared<bool> mExitRequested{false};  // written by any thread, polled by both ports
    bool mValid = false;
    Shared<bool> mInputEOS{false};   // input port
    Shared<bool> mOutputEOS{false};  // output loop
    int64_t mOutputFrameCount = 0;
    int64_t mOutputBytes = 0;
    EncoderCodec mAudioEncoder;
    sp<ALooper> mLooper;
    int64_t mTimeoutUs = 990000;
    int32_t mInSampleRate = 0;
    int32_t mOutSampleRate = 0;
    int32_t mInChannelCount = 0;
    int32_t mOutChannelCount = 0;
    int32_t mInBitDepth = 0;
    int32_t mOutBitDepth = 0;
    bool mNeedConversion = false;
    sp<QmMediaAudioConverter> mConverter;
    pthread_t mInputThread = 0;
    pthread_t mOutputThread = 0;
    const std::shared_ptr<PortLatch> mPorts = std::make_shared<PortLatch>();
};

}  // namespace qmmediaeditor
}  // namespace android
