// The video track of the output: takes decoded frames from the session, drops those that come
// faster than the output frame rate, crops, scales and encodes the others on threads of its own,
// and hands the encoded samples to the writer.
//
// Order of use: construct, enable() when the decoded format is known, start() by the writer, then
// pushDecodedBuffer() by the session and read() by the writer's thread at the same time, stop(),
// stopThread().
#pragma once

#include <EncoderPump.h>
#include <SourceCore.h>
#include <editorutils/QmMediaEditorColorUtils.h>

#include <functional>
#include <utility>

namespace android {
namespace qmmediaeditor {

class QM_EXPORT TVideoSource : public virtual TSourceBase, private SourceMembers {
public:
    explicit TVideoSource(const VideoAttribute& attribute);

    bool isValid() const { return mValid; }

    // See SourceCore.
    void setStopTest(std::function<bool()> test) { mCore.setStopTest(std::move(test)); }

    // Bounds of both queues, in samples beyond which a batch is handed over. A negative number only
    // logs.
    void setSampleBufferNumber(int count);

    // Rebuilds the formats, the pool for the writer and the encoder with its threads; again when
    // the format changes. 0, or -1100 when the encoder cannot be created.
    status_t enable(const VideoAttribute& attribute, sp<AMessage> decoderOutputFormat);

    // For HDR input: tells the colour converter the layout to produce. 0.
    status_t setDecoderOutputFormat(sp<AMessage> format);

    status_t start(MetaData* = nullptr) override { return mCore.start(); }
    status_t stop() override;
    sp<MetaData> getFormat() override;
    status_t read(MediaBufferBase** buffer, const ReadOptions* options = nullptr) override;
    bool getRunning() override { return mStarted; }
    void setCodecStopped() override { mCore.setCodecStopped(); }
    status_t pushDecodedBuffer(TDecodedSample& sample, bool stopOnEOS) override;
    void signalBufferReturned(MediaBufferBase* buffer) override {
        mCore.signalBufferReturned(buffer);
    }

    // Releases the encoder thread.
    void stopThread();

    // Encoder's output loop only. 0, -1011 (stopped) or -22 (no buffer). Blocks while a whole batch
    // waits for the writer.
    status_t pushEncodedBuffer(TEncodedSample* sample);

    // Encoder's input port only, with mDecodedLock held: crops, scales and converts `in` into the
    // encoder's input buffer `out.mBuffer`. `out.mSize` is 0 when the frame does not fit its
    // buffers.
    void cropFrame(TDecodedSample& in, TDecodedSample& out, bool convert);

    // See SourceCore.
    int32_t failure() const { return mCore.failure(); }

    // Input reader only.
    void pushPresentationTime(int64_t timeUs);
    int getWaitingSampleCount();
    int getCurrentEffect(int64_t timeUs);

protected:
    ~TVideoSource() override;

private:
    class MediaEncoderThread;

    static constexpr const char* kTag = "TVideoSource";

    int initVideoSource() REQUIRES(mDecodedLock);
    void setBounds(int count) REQUIRES(mDecodedLock);
    void fillFormat(AMessage* format) const REQUIRES(mDecodedLock);
    int32_t outputFrameBytes() const REQUIRES(mDecodedLock);
    bool frameFits(const TDecodedSample& in, const TDecodedSample& out, size_t outBytes) const
        REQUIRES(mDecodedLock);
    status_t setHdrOutputFormat(const sp<AMessage>& format) REQUIRES(mDecodedLock);
    void dropEncoderThread();
    bool keepFrame(int64_t timeUs) REQUIRES(mDecodedLock);
    void stampDecodingTime(TEncodedSample* sample) REQUIRES(mEncodedLock);

    sp<MediaEncoderThread> mMediaEncoderThread;  // the session's thread only
    int64_t mLastTimeUs GUARDED_BY(mEncodedLock) = -1;
    VideoAttribute mAttribute GUARDED_BY(mDecodedLock);
    sp<AMessage> mOutputFormat GUARDED_BY(mFormatLock);
    sp<AMessage> mEncoderFormat GUARDED_BY(mFormatLock);
    // Both are written by the session's thread and read by the output loop.
    RelaxedAtomic<int32_t> mMaxEncodedSamples{10};
    RelaxedAtomic<int64_t> mFrameIntervalUs{0};
    RelaxedAtomic<int32_t> mMaxDecodedSamples{10};  // the session's thread only
    sp<QmMediaEditorColorUtils> mColorUtils GUARDED_BY(mDecodedLock);
    int64_t mNextFrameTimeUs GUARDED_BY(mDecodedLock) = 0;
    SourceCore mCore{kTag, *this, false};
};

// Owns the encoder. The constructor sets it up; the first reference starts the input port, a
// detached thread that takes frames from the source; run() starts the output loop, which puts
// encoded samples into it.
class TVideoSource::MediaEncoderThread : public virtual Thread, private EncoderThreadMembers {
public:
    explicit MediaEncoderThread(sp<TVideoSource> source);

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
    // For an encoder that is fed through a surface.
    void signalEndOfInputStream();

    // Fills the encoder's input buffer `out.mBuffer` and sets size, flags and time. 0, -1011 (end
    // of stream), kNoDecodedData (woken with nothing queued) or -22 (the frame does not fit).
    status_t readDecodedData(TDecodedSample& out);

    void startInputPortThread() { mPump.startInputPort(inputThreadWrapper, this); }
    static void* inputThreadWrapper(void* self) {
        return static_cast<MediaEncoderThread*>(self)->mPump.runDetached(
            &EncoderPump::runInputPort);
    }
    void* inputThreadEntry() { return mPump.runInputPort(); }
    void startOutputPortThread();
    static void* outputThreadWrapper(void* self) {
        return static_cast<MediaEncoderThread*>(self)->mPump.runDetached(
            &EncoderPump::outputThreadEntry);
    }
    void* outputThreadEntry() { return mPump.outputThreadEntry(); }

protected:
    ~MediaEncoderThread() override;

private:
    static constexpr const char* kTag = "VideoEncoderThread";
    static const EncoderPump::Kind kKind;

    void onFirstRef() override {
        if (mValid) startInputPortThread();
    }
    bool threadLoop() override { return mPump.runOutputLoop(); }

    Next onDequeuedInput(status_t err, size_t index);
    Next drainEncoder(const sp<MediaCodec>& codec);
    status_t drainOutput(const sp<MediaCodec>& codec);
    void forwardOutput(const sp<MediaCodec>& codec, TEncodedSample* output);

    sp<TVideoSource> mSource;
    Mutex mPauseLock;
    int64_t mEncodedFrameCount = 0;
    int64_t mEncodedByteCount = 0;
    EncoderCodec mVideoEncoder;
    int64_t mDequeueTimeoutUs = 990000;
    int64_t mLastInputTimeUs = 0;
    EncoderPump mPump;
};

}  // namespace qmmediaeditor
}  // namespace android
