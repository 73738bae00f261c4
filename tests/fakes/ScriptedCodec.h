// A codec that does what a test told it. Any thread.
//
// An input buffer is free again as soon as it was queued. Output comes from the script, or with
// echo() from the input. A dequeue that finds nothing waits for the script; stop() and release()
// make it fail.
#pragma once

#include <fakes/Journal.h>
#include <media/stagefright/MediaCodec.h>
#include <utils/Vector.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace android::qmmediaeditor {

class ScriptedCodec : public MediaCodec {
public:
    typedef std::vector<uint8_t> Bytes;

    struct Queued {
        Bytes bytes;
        int64_t timeUs;
        uint32_t flags;
    };

    // `name` begins this codec's lines in the journal.
    ScriptedCodec(const std::string& name, Journal* journal);

    // The script: set-up.
    void setInputBuffers(size_t count, size_t bytes);
    void setOutputBuffers(size_t count, size_t bytes);
    // Whether a dequeue that finds nothing waits, instead of returning -EAGAIN.
    void setBlocking(bool blocking) { change(mBlocking, blocking); }
    void echo() { change(mEcho, true); }
    // Operation `operation` returns `status` from its call number `fromCall` on.
    void fail(const std::string& operation, status_t status, size_t fromCall = 1);

    // The script: the next outputs.
    void frame(const Bytes& bytes, int64_t timeUs, uint32_t flags = 0) {
        push(mOutputScript, {OK, flags, bytes, timeUs, nullptr});
    }
    void formatChange(const sp<AMessage>& format) {
        push(mOutputScript, {INFO_FORMAT_CHANGED, 0, {}, 0, format});
    }
    void outputResult(status_t status, uint32_t flags = 0) {
        push(mOutputScript, {status, flags, {}, 0, nullptr});
    }
    void clearOutput() { change(mOutputScript, {}); }
    // The payload of every output begins at this offset of its buffer.
    void setPayloadOffset(size_t offset) { change(mPayloadOffset, offset); }

    // The script: how the next dequeues of an input buffer fail.
    void inputResult(status_t status) { push(mInputScript, status); }
    // No input buffer, or no output, is to be had until it is released.
    void holdInput(bool hold) { change(mInputCalls.holdBuffers, hold); }
    void holdOutput(bool hold) { change(mOutputCalls.holdBuffers, hold); }
    // No dequeue of an input buffer, or of an output, returns until it is let go, not even when the
    // codec is stopped.
    void holdInputCalls(bool hold) { change(mInputCalls.holdCalls, hold); }
    void holdOutputCalls(bool hold) { change(mOutputCalls.holdCalls, hold); }
    // False when no thread comes to wait in such a call within kFailureBound.
    bool waitForInputCall() const { return waitFor(mInputCalls); }
    bool waitForOutputCall() const { return waitFor(mOutputCalls); }

    // The record.
    std::vector<Queued> queued() const { return locked(mQueued); }
    bool waitForQueued(size_t count) const;
    size_t heldOutputs() const;
    int64_t lastTimeoutUs() const { return locked(mLastTimeoutUs); }
    sp<AMessage> configuredFormat() const { return locked(mConfiguredFormat); }

    status_t configure(const sp<AMessage>& format, const sp<Surface>& nativeWindow,
                       const sp<ICrypto>& crypto, uint32_t flags) override;
    status_t start() override { return call("start"); }
    status_t stop() override { return end("stop"); }
    status_t release() override { return end("release"); }
    status_t dequeueInputBuffer(size_t* index, int64_t timeoutUs) override;
    status_t queueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs,
                              uint32_t flags, AString* errorDetailMsg) override;
    status_t dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size, int64_t* timeUs,
                                 uint32_t* flags, int64_t timeoutUs) override;
    // Of a buffer that nobody holds: "stray release" in the journal.
    status_t releaseOutputBuffer(size_t index) override;
    status_t signalEndOfInputStream() override { return call("signalEndOfInputStream"); }
    status_t getOutputFormat(sp<AMessage>* format) const override {
        return get("getOutputFormat", mOutputFormat, format);
    }
    status_t getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override {
        return get("getInputBuffers", mInBuffers, buffers);
    }
    status_t getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override {
        return get("getOutputBuffers", mOutBuffers, buffers);
    }

protected:
    ~ScriptedCodec() override;

private:
    struct Output {
        status_t status;
        uint32_t flags;
        Bytes bytes;
        int64_t timeUs;
        sp<AMessage> format;
    };
    struct Failure {
        status_t status;
        size_t callsBefore;
    };
    struct Calls {
        bool holdBuffers = false;
        bool holdCalls = false;
        size_t waiting = 0;
    };

    status_t call(const char* operation, const std::string& arguments = "") const;
    status_t end(const char* operation);
    template <typename T>
    T locked(const T& member) const {
        std::lock_guard<std::mutex> guard(mLock);
        return member;
    }
    template <typename T>
    void change(T& member, const T& value) {
        std::lock_guard<std::mutex> guard(mLock);
        member = value;
        mChanged.notify_all();
    }
    template <typename T>
    void push(std::deque<T>& script, const T& next) {
        std::lock_guard<std::mutex> guard(mLock);
        script.push_back(next);
        mChanged.notify_all();
    }
    template <typename T>
    status_t get(const char* operation, const T& member, T* value) const {
        const status_t err = call(operation);
        *value = locked(member);
        return err;
    }
    bool waitFor(const Calls& calls) const;
    // The result of the wait for `ready`: OK, or how a dequeue that finds nothing ends.
    template <typename Ready>
    status_t await(std::unique_lock<std::mutex>& guard, Calls& calls, const Ready& ready);

    const std::string mName;
    Journal* const mJournal;
    mutable std::mutex mLock;
    mutable std::condition_variable mChanged;
    mutable std::map<std::string, Failure> mFailures;
    Vector<sp<MediaCodecBuffer>> mInBuffers;
    Vector<sp<MediaCodecBuffer>> mOutBuffers;
    std::deque<size_t> mFreeInputs;
    std::vector<bool> mOutputHeld;
    std::deque<status_t> mInputScript;
    std::deque<Output> mOutputScript;
    std::vector<Queued> mQueued;
    sp<AMessage> mOutputFormat;
    sp<AMessage> mConfiguredFormat;
    bool mBlocking = true;
    bool mEcho = false;
    Calls mInputCalls;
    Calls mOutputCalls;
    size_t mPayloadOffset = 0;
    bool mStopped = false;
    int64_t mLastTimeoutUs = 0;
};

}  // namespace android::qmmediaeditor
