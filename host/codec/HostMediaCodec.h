// The part that all codecs share: states, buffers, waiting, and the loop on the looper's thread.
//
// Buffers cycle: an input is free, with the client, queued, in the backend, and free again; an
// output is free, ready, with the client, and free again. The loop is posted to the looper whenever
// there may be something to do, and ends when input or free outputs run out; it never waits. A side
// is woken when half of its buffers are ready, because a switch of threads can take longer than the
// work on a sample. Any thread may call any operation; stop and release wait only for the backend's
// current step.
#pragma once

#include <media/stagefright/MediaCodec.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <deque>
#include <memory>
#include <vector>

#include "host/codec/CodecBackend.h"
#include "host/codec/OutputSequencer.h"
#include "host/codec/TrackSource.h"

namespace android {
namespace qmmediaeditor {

class HostMediaCodec : public MediaCodec {
public:
    // `onEnd`, which may be empty, is called when the client dequeues the end of stream, on its
    // thread.
    //
    // `onLoss` is for decoders of untrusted input, because their client aborts when a dequeue
    // fails. A decoder that cannot go on then calls `onLoss` on the looper's thread, refuses
    // further input and ends its output.
    //
    // `onOutput`, which may be empty, is called when the client dequeues an output, on its thread:
    // with the output's format, its timestamp and its size in bytes. It must not call the codec.
    typedef std::function<void(const sp<AMessage>& format, int64_t timeUs, size_t bytes)> OnOutput;
    HostMediaCodec(const sp<ALooper>& looper, std::unique_ptr<CodecBackend> backend,
                   std::function<void()> onEnd = nullptr, std::function<void()> onLoss = nullptr,
                   OnOutput onOutput = nullptr);

    status_t configure(const sp<AMessage>& format, const sp<Surface>& nativeWindow,
                       const sp<ICrypto>& crypto, uint32_t flags) override;
    status_t start() override;
    status_t stop() override;
    status_t release() override;

    status_t dequeueInputBuffer(size_t* index, int64_t timeoutUs) override;
    status_t queueInputBuffer(size_t index, size_t offset, size_t size, int64_t presentationTimeUs,
                              uint32_t flags, AString* errorDetailMsg) override;
    status_t dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size,
                                 int64_t* presentationTimeUs, uint32_t* flags,
                                 int64_t timeoutUs) override;
    status_t releaseOutputBuffer(size_t index) override;
    // No codec here takes its input from a surface.
    status_t signalEndOfInputStream() override;

    status_t getOutputFormat(sp<AMessage>* format) const override;
    status_t getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override;
    status_t getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override;

protected:
    ~HostMediaCodec() override;

private:
    class Buffer : public MediaCodecBuffer {
    public:
        explicit Buffer(const sp<ABuffer>& memory) : MediaCodecBuffer(nullptr, memory) {}

        using MediaCodecBuffer::setBuffer;
    };

    enum class State { kCreated, kConfigured, kStarted, kFailed, kStopped, kReleased };

    struct InputSlot {
        sp<Buffer> buffer;
        bool withClient = false;
    };
    struct OutputSlot {
        sp<Buffer> buffer;
        bool withClient = false;
        CodecOutput output;
    };
    struct QueuedInput {
        size_t index = 0;
        size_t offset = 0;
        size_t size = 0;
        bool endOfStream = false;
        int64_t timeUs = 0;
        PacketInfo info;
    };

    // On the looper's thread. Each step returns whether there may be more to do now.
    void work();
    bool workStep() REQUIRES(mLock);
    bool takeStep(CodecBackend::Step step, CodecOutput output) REQUIRES(mLock);
    bool takeFailure() REQUIRES(mLock);
    bool feed() REQUIRES(mLock);
    bool workWithoutInput() REQUIRES(mLock);
    // The backend has released an input buffer.
    void inputDone(size_t index) EXCLUDES(mLock);

    // Runs `use` on the backend without the lock. shutDown() waits until it has returned.
    template <typename Use>
    auto useBackend(const Use& use) REQUIRES(mLock) {
        CodecBackend& backend = *mBackend;
        mBusy = true;
        publish();
        mLock.unlock();
        const auto result = use(backend);
        const OutputSequencer::MemberState state = backend.memberState();
        mLock.lock();
        mBackendState = state;
        mBusy = false;
        mWorkDone.broadcast();
        return result;
    }

    status_t allocateBuffers() REQUIRES(mLock);
    status_t notRunning() const REQUIRES(mLock);
    void schedule() REQUIRES(mLock);
    void shutDown(State state) REQUIRES(mLock);
    void refuseInput() REQUIRES(mLock);
    void fail() REQUIRES(mLock);
    // True when silence is due.
    bool publish() REQUIRES(mLock);
    void dropOutdated() REQUIRES(mLock);
    bool headNeedsTurn() const REQUIRES(mLock);
    status_t deliver(size_t* index, size_t* offset, size_t* size, int64_t* timeUs, uint32_t* flags)
        REQUIRES(mLock);
    void freeOutput(size_t index) REQUIRES(mLock);

    const sp<ALooper> mLooper;
    const std::function<void()> mOnEnd;
    const std::function<void()> mOnLoss;
    const OnOutput mOnOutput;

    mutable Mutex mLock;
    Condition mInputFree;
    Condition mOutputReady;
    Condition mWorkDone;

    State mState GUARDED_BY(mLock) = State::kCreated;
    // Only work() uses the backend, unlocked, while mBusy is set.
    std::unique_ptr<CodecBackend> mBackend GUARDED_BY(mLock);
    CodecBuffers mBuffers GUARDED_BY(mLock);
    sp<AMessage> mOutputFormat GUARDED_BY(mLock);
    bool mFormatPending GUARDED_BY(mLock) = false;

    std::vector<InputSlot> mInputs GUARDED_BY(mLock);
    std::vector<OutputSlot> mOutputs GUARDED_BY(mLock);
    std::deque<size_t> mFreeInputs GUARDED_BY(mLock);
    std::deque<size_t> mFreeOutputs GUARDED_BY(mLock);
    std::deque<QueuedInput> mQueued GUARDED_BY(mLock);
    std::deque<size_t> mReady GUARDED_BY(mLock);
    bool mEndQueued GUARDED_BY(mLock) = false;
    bool mEndProduced GUARDED_BY(mLock) = false;
    bool mRefusesInput GUARDED_BY(mLock) = false;

    bool mWorkPosted GUARDED_BY(mLock) = false;
    // work() has ended because the client holds the outputs or has not taken them yet.
    bool mLacksOutputs GUARDED_BY(mLock) = false;
    bool mBusy GUARDED_BY(mLock) = false;

    // Decoders of an extractor's track only.
    sp<TrackSource> mSource GUARDED_BY(mLock);
    bool mInSequence GUARDED_BY(mLock) = false;
    size_t mSequencerMember GUARDED_BY(mLock) = 0;
    OutputSequencer::MemberState mBackendState GUARDED_BY(mLock);
    int64_t mFeedingUs GUARDED_BY(mLock) = OutputSequencer::kNever;
};

}  // namespace qmmediaeditor
}  // namespace android
