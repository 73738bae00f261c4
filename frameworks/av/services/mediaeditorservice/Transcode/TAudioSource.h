// The audio track of the output: takes decoded PCM from the session, converts and encodes it on
// threads of its own, and hands the encoded samples to the writer.
//
// Order of use: construct, enable() when the decoded format is known, start() by the writer, then
// pushDecodedBuffer() by the session and read() by the writer's thread at the same time, stop(),
// stopThread(). Output time is the running sum of PCM bytes, from 0: gaps must have been filled
// before.
#pragma once

#include <EncoderPump.h>
#include <SourceCore.h>
#include <editorutils/QmMediaAudioConverter.h>

#include <functional>
#include <utility>

namespace android {
namespace qmmediaeditor {

class QM_EXPORT TAudioSource : public virtual TSourceBase, private SourceMembers {
public:
    explicit TAudioSource(const AudioAttribute& attribute);

    bool isValid() const { return mValid; }

    // See SourceCore.
    void setStopTest(std::function<bool()> test) { mCore.setStopTest(std::move(test)); }

    // Makes the pool for the writer and the encoder with its threads; again when the format
    // changes. 0, or -1100 when the encoder cannot be created.
    status_t enable(const AudioAttribute& attribute, sp<AMessage> decoderOutputFormat);

    status_t start(MetaData* = nullptr) override { return mCore.start(); }
    status_t stop() override;
    sp<MetaData> getFormat() override;
    status_t read(MediaBufferBase** buffer, const ReadOptions* options = nullptr) override;
    bool getRunning() override { return mStarted; }
    void setCodecStopped() override { mCore.setCodecStopped(); }
    status_t pushDecodedBuffer(TDecodedSample& sample, bool inputEnded) override;
    void signalBufferReturned(MediaBufferBase* buffer) override {
        mCore.signalBufferReturned(buffer);
    }

    // Releases the encoder thread.
    void stopThread();

    // Encoder's output loop only. 0, -1011 (stopped) or -22 (no buffer). Blocks while a whole batch
    // waits for the writer.
    status_t pushEncodedBuffer(TEncodedSample* sample);

    // See SourceCore.
    int32_t failure() const { return mCore.failure(); }

    void pushPresentationTime(int64_t) {}
    int getCurrentEffect(int64_t timeUs);

protected:
    ~TAudioSource() override;

private:
    class MediaEncoderThread;

    static constexpr const char* kTag = "TAudioSource";
    static constexpr size_t kMaxQueuedSamples = 10;

    void initAudioSource();
    void checkAudioInfo();
    void takeAttribute(const AudioAttribute& attribute);
    void dropEncoderThread();
    bool stampTime(TDecodedSample* sample) REQUIRES(mDecodedLock);

    sp<MediaEncoderThread> mMediaEncoderThread;  // the session's thread only
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
    int64_t mNextTimeUs GUARDED_BY(mDecodedLock) = 0;
    [[maybe_unused]] int32_t mUnusedWord = 0;
    int32_t mCurrentAudioFrameLoopingNum GUARDED_BY(mDecodedLock) = 0;
    SourceCore mCore{kTag, *this, true};
};

// Owns the encoder. The constructor sets it up; the first reference starts the input port, a
// detached thread that takes PCM from the source; run() starts the output loop, which puts encoded
// samples into the source.
class TAudioSource::MediaEncoderThread : public virtual Thread, private EncoderThreadMembers {
public:
    explicit MediaEncoderThread(sp<TAudioSource> source);

    // The encoder runs.
    bool isValid() const { return mValid; }
    // Runs the output loop. 0, or kSourceNotEnabled when there is no encoder or no thread.
    status_t start() { return mPump.startOutputLoop(mValid); }
    // Ends the thread. Its source may be gone before its last reference is.
    void retire() {
        if (mPump.retire()) mSource.clear();
    }
    EncoderPump& pump() { return mPump; }

    void requestExit() override { mPump.requestExit(); }
    // Stops and releases the encoder; both ports end. Any thread but theirs.
    void stopEncoder() { mPump.stopEncoder(); }

    // Pausing has no effect on the data.
    void pause() { mPump.pause(); }
    void resume() { mPump.resume(); }
    void wake() { mPump.wake(); }
    void pauseInternal(int64_t timeUs) { mPump.pauseInternal(timeUs); }

    // Fills the encoder's input buffer `input.mBuffer` and sets size, flags and time. 0, -1011 (end
    // of stream), kNoDecodedData (woken with nothing queued), kSourceNotEnabled (no converter),
    // kNoResource (no memory) or -22 (converted PCM that does not fit).
    status_t readDecodedData(TDecodedSample& input);

    void startInputPortThread() { mPump.startInputPort(inputThreadWrapper, this); }
    static void* inputThreadWrapper(void* self) {
        return static_cast<MediaEncoderThread*>(self)->mPump.runDetached(
            &EncoderPump::runInputPort);
    }
    void* inputThreadEntry() { return mPump.runInputPort(); }
    void startOutputPortThread() { mPump.startDetached(&mOutputThread, outputThreadWrapper, this); }
    static void* outputThreadWrapper(void* self) {
        return static_cast<MediaEncoderThread*>(self)->mPump.runDetached(
            &EncoderPump::outputThreadEntry);
    }
    void* outputThreadEntry() { return mPump.outputThreadEntry(); }

protected:
    ~MediaEncoderThread() override;

private:
    static constexpr const char* kTag = "AudioEncoderThread";
    static const EncoderPump::Kind kKind;

    void onFirstRef() override {
        if (mValid) startInputPortThread();
    }
    bool threadLoop() override { return mPump.runOutputLoop(); }

    bool setUpConversion(const AMessage& format);
    Next onDequeuedInput(status_t err, size_t index);
    status_t convertPcm(const TDecodedSample& head, TDecodedSample* input);
    void copyPcm(const TDecodedSample& head, TDecodedSample* input);
    Next drainEncoder(const sp<MediaCodec>& codec);
    Next forwardOutput(const sp<MediaCodec>& codec);

    sp<TAudioSource> mSource;
    Mutex mLock;
    int64_t mOutputFrameCount = 0;
    int64_t mOutputBytes = 0;
    EncoderCodec mAudioEncoder;
    int64_t mTimeoutUs = 990000;
    int32_t mInSampleRate = 0;
    int32_t mOutSampleRate = 0;
    int32_t mInChannelCount = 0;
    int32_t mOutChannelCount = 0;
    int32_t mInBitDepth = 0;
    int32_t mOutBitDepth = 0;
    bool mNeedConversion = false;
    sp<QmMediaAudioConverter> mConverter;
    TEncodedSample mOutput;  // output loop only
    EncoderPump mPump;
};

}  // namespace qmmediaeditor
}  // namespace android
