// The video track of the output: takes decoded pictures from the session, drops those that come
// faster than the output frame rate, crops, scales and encodes the others on threads of its own,
// and hands the encoded samples to the writer.
//
// Order of use: construct, enable() when the decoded format is known, start() by the writer, then
// pushDecodedBuffer() by the session and read() by the writer's thread at the same time, stop(),
// stopThread().
#pragma once

#include <BatchHandOff.h>
#include <EncoderThreadControl.h>
#include <Exports.h>
#include <FatalCheck.h>
#include <Shared.h>
#include <TSourceBase.h>
#include <editorutils/QmMediaEditorColorUtils.h>
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

class QM_EXPORT TVideoSource : public virtual TSourceBase {
public:
    explicit TVideoSource(const VideoAttribute& attribute);

    bool isValid() const { return mValid; }

    // Tells whether the session ends: a push that waits for room gives up soon after it does.
    // Called on the session's thread only. Before the first push.
    void setStopTest(std::function<bool()> test) { mStopTest = std::move(test); }

    // Bounds of both queues, in samples beyond which a batch is handed over. A negative number only
    // logs.
    void setSampleBufferNumber(int count);

    // Rebuilds the formats, the pool for the writer and the encoder with its threads; again when
    // the format changes. 0, or -1100 when the encoder cannot be had.
    status_t enable(const VideoAttribute& attribute, sp<AMessage> decoderOutputFormat);

    // For HDR input: tells the colour converter the layout to produce. 0.
    status_t setDecoderOutputFormat(sp<AMessage> format);

    status_t start(MetaData* params = nullptr) override;
    status_t stop() override;
    sp<MetaData> getFormat() override;
    status_t read(MediaBufferBase** buffer, const ReadOptions* options = nullptr) override;
    bool getRunning() override;
    void setCodecStopped() override;
    status_t pushDecodedBuffer(TDecodedSample& sample, bool stopOnEOS) override;
    void signalBufferReturned(MediaBufferBase* buffer) override;

    // Lets go of the encoder thread.
    void stopThread();

    // Encoder's output loop only. 0, -1011 (stopped) or -22 (no buffer). Blocks while a whole batch
    // waits for the writer.
    status_t pushEncodedBuffer(TEncodedSample* sample);

    // Encoder's input port only, with mDecodedLock held: crops, scales and converts `in` into the
    // encoder's input buffer `out.mBuffer`. `out.mSize` is 0 when the picture does not fit its
    // buffers.
    void cropFrame(TDecodedSample& in, TDecodedSample& out, bool convert);

    // The encoder failed in the middle of the run (kEncoderError), or one of its threads could not
    // be created (kNoThread): the source stops. Any thread.
    void reportFailure(int32_t result);
    // The result that was reported; 0 before.
    int32_t failure() const { return mFailure; }

    // Input reader only.
    void pushPresentationTime(int64_t timeUs);
    int getWaitingSampleCount();
    int getCurrentEffect(int64_t timeUs);

protected:
    ~TVideoSource() override;

private:
    friend struct BatchHandOff;
    friend struct EncoderThreadControl;
    class MediaEncoderThread;

    static constexpr const char* kTag = "TVideoSource";

    int initVideoSource() REQUIRES(mDecodedLock);
    void setBounds(int count) REQUIRES(mDecodedLock);
    void fillFormat(AMessage* format) const REQUIRES(mDecodedLock);
    int32_t outputFrameBytes() const REQUIRES(mDecodedLock);
    bool pictureFits(const TDecodedSample& in, const TDecodedSample& out, size_t outBytes) const
        REQUIRES(mDecodedLock);
    status_t setHdrOutputFormat(const sp<AMessage>& format) REQUIRES(mDecodedLock);
    status_t makePool(int32_t sizeBytes);
    status_t pushEndOfStream(const TDecodedSample& sample, bool stopOnEOS);
    void stampDecodingTime(TEncodedSample* sample) REQUIRES(mEncodedLock);

    sp<MediaEncoderThread> mMediaEncoderThread;  // the session's thread only
    Mutex mFormatLock ACQUIRED_AFTER(mDecodedLock);
    MediaBufferGroup* mGroup GUARDED_BY(mEncodedLock) = nullptr;
    Shared<bool> mStarted{false};  // written by the writer's and the encoder's threads, read by all
    Shared<bool> mCodecStopped{false};  // written by any thread, never cleared, read by all
    bool mValid = false;
    std::function<bool()> mStopTest;  // the session's thread only
    List<TDecodedSample> mDecodedSamples GUARDED_BY(mDecodedLock);
    List<TEncodedSample> mEncodedSamples GUARDED_BY(mEncodedLock);
    List<int64_t> mPresentationTimes;  // input reader only
    int64_t mLastTimeUs GUARDED_BY(mEncodedLock) = -1;
    Condition mStartCond;
    Mutex mEncodedLock;
    Condition mFrameAvailableCond;
    Condition mBufferReturnedCond;
    Mutex mDecodedLock ACQUIRED_AFTER(mEncodedLock);
    Condition mDecodedAvailableCond;
    Condition mDecoderBufferReturnedCond;
    VideoAttribute mAttribute GUARDED_BY(mDecodedLock);
    sp<AMessage> mOutputFormat GUARDED_BY(mFormatLock);
    sp<AMessage> mEncoderFormat GUARDED_BY(mFormatLock);
    // Both are written by the session's thread and read by the output loop.
    Shared<int32_t> mMaxEncodedSamples{10};
    Shared<int64_t> mFrameIntervalUs{0};
    int32_t mMaxDecodedSamples GUARDED_BY(mDecodedLock) = 10;
    Shared<bool> mEOSSampleAdded{false};  // never set for video
    sp<MetaData> mMeta GUARDED_BY(mFormatLock);
    sp<QmMediaEditorColorUtils> mColorUtils GUARDED_BY(mDecodedLock);
    int64_t mNextFrameTimeUs GUARDED_BY(mDecodedLock) = 0;
    // Written by the session's and the encoder's threads, read by the session's.
    Shared<int32_t> mFailure{OK};
};

// Owns the encoder. The constructor sets it up; the first reference starts the input port, a
// detached thread that takes pictures from the source; run() starts the output loop, which puts
// encoded samples into it.
class TVideoSource::MediaEncoderThread : public virtual Thread {
public:
    explicit MediaEncoderThread(sp<TVideoSource> source);

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
    // For an encoder that is fed through a surface.
    void signalEndOfInputStream();

    // Fills the encoder's input buffer `out.mBuffer` and sets size, flags and time. 0, -1011 (end
    // of stream) or -1018 (woken with nothing queued).
    status_t readDecodedData(TDecodedSample& out);

    void startInputPortThread();
    static void* inputThreadWrapper(void* self);
    void* inputThreadEntry();
    void startOutputPortThread();
    static void* outputThreadWrapper(void* self);
    void* outputThreadEntry();

protected:
    ~MediaEncoderThread() override;

private:
    friend class TVideoSource;
    friend struct BatchHandOff;
    friend struct EncoderThreadControl;

    // What one pass of a port leads to.
    enum class Next { kGoOn, kEnd };

    static constexpr const char* kTag = "VideoEncoderThread";

    void onFirstRef() override;
    bool threadLoop() override;

    bool setUpEncoder();
    Next feedEncoder(const sp<MediaCodec>& codec, TDecodedSample* record);
    Next fillInput(const sp<MediaCodec>& codec, size_t index, TDecodedSample* record);
    Next signalInputEOS(const sp<MediaCodec>& codec);
    status_t drainEncoder(const sp<MediaCodec>& codec);
    bool forwardOutput(const sp<MediaCodec>& codec, TEncodedSample* output);
    Next handleDrainResult(const sp<MediaCodec>& codec, status_t result);

    Mutex& pauseLock() RETURN_CAPABILITY(mPauseLock) { return mPauseLock; }
    EncoderCodec& encoder() { return mVideoEncoder; }

    sp<TVideoSource> mSource;
    Mutex mPauseLock;
    Condition mPauseCond;
    bool mPaused GUARDED_BY(mPauseLock) = true;
    bool mPausedInternal GUARDED_BY(mPauseLock) = false;
    int64_t mPauseTimeUs GUARDED_BY(mPauseLock) = 0;
    bool mWakeRequested GUARDED_BY(mPauseLock) = false;
    Shared<bool> mExitRequested{false};  // written by any thread, polled by both ports
    bool mValid = false;
    Shared<bool> mInputEOS{false};   // input port
    Shared<bool> mOutputEOS{false};  // output loop
    int64_t mEncodedFrameCount = 0;
    int64_t mEncodedByteCount = 0;
    EncoderCodec mVideoEncoder;
    sp<ALooper> mLooper;
    int64_t mDequeueTimeoutUs = 990000;
    int64_t mLastInputTimeUs = 0;
    pthread_t mInputThread = 0;
    pthread_t mOutputThread = 0;
    const std::shared_ptr<PortLatch> mPorts = std::make_shared<PortLatch>();
};

}  // namespace qmmediaeditor
}  // namespace android
