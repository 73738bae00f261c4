// The common part of both sources: start and stop, the two queues, and the buffer lent to the
// writer.
//
// Decoded samples go from the session's thread to the encoder's input port, encoded samples from
// the encoder's output loop to the writer's thread.
#pragma once

#include <BatchQueue.h>
#include <RelaxedAtomic.h>
#include <TSourceBase.h>
#include <TranscodeErrors.h>
#include <media/stagefright/MediaBufferGroup.h>

#include <functional>
#include <utility>

namespace android {
namespace qmmediaeditor {

class EncoderPump;

// The members that both sources have under the same names. Lock order: mEncodedLock before
// mDecodedLock before mFormatLock. mStarted is set under the first two and waited for under
// mEncodedLock.
struct SourceMembers {
    Mutex mFormatLock;
    MediaBufferGroup* mGroup = nullptr;  // under mEncodedLock
    // Written by the writer's and the encoder's threads, read by all.
    RelaxedAtomic<bool> mStarted{false};
    // Written by any thread, never cleared, read by all.
    RelaxedAtomic<bool> mCodecStopped{false};
    bool mValid = false;
    Condition mStartCond;
    Mutex mEncodedLock;
    Condition mFrameAvailableCond;
    Condition mBufferReturnedCond;
    Mutex mDecodedLock ACQUIRED_AFTER(mEncodedLock);
    Condition mDecodedAvailableCond;
    Condition mDecoderBufferReturnedCond;
    List<int64_t> mPresentationTimes;  // input reader only; stays empty for audio
    List<TDecodedSample> mDecodedSamples GUARDED_BY(mDecodedLock);
    List<TEncodedSample> mEncodedSamples GUARDED_BY(mEncodedLock);
    RelaxedAtomic<bool> mEOSSampleAdded{false};  // written by the session's thread; never for video
    sp<MetaData> mMeta GUARDED_BY(mFormatLock) = new MetaData;
};

class SourceCore {
public:
    // `tag` is the source's log tag. With `oneEndMarker` a second end of stream queues nothing.
    SourceCore(const char* tag, SourceMembers& members, bool oneEndMarker);
    ~SourceCore() { delete m.mGroup; }

    // `test` returns true when the session ends; a push of a decoded sample that waits for room
    // then returns within BatchQueue::kStopPollNs. It is called on the session's thread only. To be
    // set before the first push.
    void setStopTest(std::function<bool()> test) { mStopTest = std::move(test); }

    status_t start();
    // `encoder` is null before the source is enabled.
    void stop(EncoderPump* encoder);
    // Nothing more goes in; what is queued still comes out. Any thread.
    void setCodecStopped() { markStopped("setCodecStopped"); }
    bool isStopped() const { return m.mCodecStopped; }

    // Stops the source because of a failure that nobody asked for: kEncoderError or kNoThread. Any
    // thread.
    void reportFailure(int32_t result);
    // The result that was reported; 0 before.
    int32_t failure() const { return mFailure; }

    // Session's thread: pushDecodedBuffer() of the sources. `keep` sees the record that is to be
    // queued, under the queue's lock, and may change its time; false drops the sample. With more
    // than `bound` samples queued `fullMessage` is logged with the count. A source without an
    // encoder neither blocks a push nor keeps an end marker: it is this thread that enables it.
    status_t pushDecoded(const TDecodedSample& sample, bool stopOnEOS, bool hasEncoder,
                         size_t bound, const char* fullMessage,
                         const std::function<bool(TDecodedSample*)>& keep);
    // Output loop: pushEncodedBuffer() of the sources. `earlyMessage` is logged before start();
    // `stamp` may change the times of the record that is to be queued, under the queue's lock.
    status_t pushEncoded(const TEncodedSample& sample, size_t bound, const char* earlyMessage,
                         const char* fullMessage,
                         const std::function<void(TEncodedSample*)>& stamp = nullptr);

    // For the input port.
    BatchQueue<TDecodedSample> decoded;
    // Input port. OK when a decoded sample waits; -1011 when the source is stopped or this port is
    // asked to exit; kNoDecodedData after a wake-up with nothing queued. `tag` is the port's.
    status_t awaitDecoded(const char* tag, const RelaxedAtomic<bool>& exitRequested)
        REQUIRES(decoded.lock());

    // Writer's thread: read() of the sources. `stamp` writes the metadata of the writer's buffer.
    status_t read(MediaBufferBase** out,
                  const std::function<void(const TEncodedSample&, MetaDataBase&)>& stamp);
    // Wakes a reader, which checks the source again.
    void wakeReader() { mEncoded.wakeBoth(); }
    // The writer has released `buffer`. Any thread.
    void signalBufferReturned(MediaBufferBase* buffer);

    // Replaces the writer's buffer by one of `bytes`, once the writer has released the one before.
    // 0, or kSourceNotEnabled.
    status_t makePool(int64_t bytes);

private:
    void markStopped(const char* message);
    status_t pushEndOfStream(uint32_t flags, bool stopOnEOS, bool hasEncoder);
    void waitForStart(const char* message) REQUIRES(mEncoded.lock());
    status_t acquireBuffer(MediaBufferBase** out, size_t bytes) REQUIRES(mEncoded.lock());

    const char* const mTag;
    SourceMembers& m;
    const bool mOneEndMarker;
    BatchQueue<TEncodedSample> mEncoded;
    std::function<bool()> mStopTest;  // the session's thread only
    // Written by the session's and the encoder's threads, read by the session's.
    RelaxedAtomic<int32_t> mFailure{OK};
};

}  // namespace qmmediaeditor
}  // namespace android
