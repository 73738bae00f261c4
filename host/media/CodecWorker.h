// What every codec shares: states, buffers, waiting, and the work on the looper's thread.
//
// Buffers move in a circle: an input is free, with the client, queued, in the engine, and free
// again; an output is free, ready, with the client, and free again. The engine's work is posted to
// the looper whenever there may be something to do, and ends when input or free outputs run out; it
// never waits. Any thread may call any operation; stop and release wait for nothing but the
// engine's step that runs now.
#pragma once

#include <media/stagefright/MediaCodec.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "host/media/CodecEngine.h"
#include "host/media/DecodeOrder.h"
#include "host/media/TrackSource.h"

namespace android {
namespace qmmediaeditor {

class CodecWorker : public MediaCodec {
public:
    CodecWorker(const sp<ALooper>& looper, std::unique_ptr<CodecEngine> engine);

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
    // No codec here is fed through a surface.
    status_t signalEndOfInputStream() override;

    status_t getOutputFormat(sp<AMessage>* format) const override;
    status_t getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override;
    status_t getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override;

protected:
    ~CodecWorker() override;

private:
    class Buffer : public MediaCodecBuffer {
    public:
        explicit Buffer(const sp<ABuffer>& memory) : MediaCodecBuffer(nullptr, memory) {}

        using MediaCodecBuffer::setBuffer;
    };
    typedef std::chrono::steady_clock::time_point TimePoint;

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
        SampleNote note;
    };

    // On the looper's thread. The steps hold mLock, and say whether there may be more to do now.
    void work();
    bool workStep(std::unique_lock<std::mutex>& lock);
    bool takeStep(CodecEngine::Step step, CodecOutput output);
    bool feed(std::unique_lock<std::mutex>& lock);
    bool workWithoutInput(std::unique_lock<std::mutex>& lock);
    // The engine lets an input buffer go; mLock is not held.
    void inputDone(size_t index);

    // Runs `use` on the engine without the lock. Whoever shuts down waits until it has returned.
    template <typename Use>
    auto useEngine(std::unique_lock<std::mutex>& lock, const Use& use) {
        mBusy = true;
        publish();
        lock.unlock();
        const auto result = use(*mEngine);
        DecodeOrder::Standing standing;
        mEngine->standing(&standing);
        lock.lock();
        mEngineStanding = standing;
        mBusy = false;
        mWorkDone.notify_all();
        return result;
    }

    // All under mLock.
    status_t allocateBuffers();
    status_t notRunning() const;
    void schedule();
    void shutDown(std::unique_lock<std::mutex>& lock, State state);
    void fail();
    // True when silence is owed.
    bool publish();
    void dropOutdated();
    bool headNeedsTurn() const;
    status_t deliver(size_t* index, size_t* offset, size_t* size, int64_t* timeUs, uint32_t* flags);
    void freeOutput(size_t index);

    const sp<ALooper> mLooper;

    mutable std::mutex mLock;
    std::condition_variable mInputFree;
    std::condition_variable mOutputReady;
    std::condition_variable mWorkDone;

    // The rest is guarded by mLock, but the engine is used unlocked by the work alone while mBusy
    // is set.
    State mState = State::kCreated;
    std::unique_ptr<CodecEngine> mEngine;
    CodecPorts mPorts;
    sp<AMessage> mOutputFormat;
    bool mFormatPending = false;

    std::vector<InputSlot> mInputs;
    std::vector<OutputSlot> mOutputs;
    std::deque<size_t> mFreeInputs;
    std::deque<size_t> mFreeOutputs;
    std::deque<QueuedInput> mQueued;
    std::deque<size_t> mReady;
    bool mEndQueued = false;
    bool mEndProduced = false;

    bool mWorkPosted = false;
    bool mBusy = false;

    // Decoders of an extractor's track only.
    sp<TrackSource> mSource;
    bool mInOrder = false;
    size_t mOrderMember = 0;
    DecodeOrder::Standing mEngineStanding;
    int64_t mFeedingUs = DecodeOrder::kNever;
};

}  // namespace qmmediaeditor
}  // namespace android
