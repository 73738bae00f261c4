#include <fakes/ScriptedCodec.h>
#include <string.h>

#include <algorithm>

namespace android::qmmediaeditor {

namespace {

typedef std::unique_lock<std::mutex> Guard;

Vector<sp<MediaCodecBuffer>> makeBuffers(size_t count, size_t bytes) {
    Vector<sp<MediaCodecBuffer>> buffers;
    for (size_t i = 0; i < count; ++i) {
        sp<ABuffer> buffer = new ABuffer(bytes);
        memset(buffer->base(), 0, bytes);
        buffers.push_back(new MediaCodecBuffer(nullptr, buffer));
    }
    return buffers;
}

}  // namespace

ScriptedCodec::ScriptedCodec(const std::string& name, Journal* journal)
    : mName(name), mJournal(journal) {
    setInputBuffers(4, 4096);
    setOutputBuffers(16, 4096);
}

ScriptedCodec::~ScriptedCodec() { mJournal->add(mName + " destroyed"); }

void ScriptedCodec::setInputBuffers(size_t count, size_t bytes) {
    Guard guard(mLock);
    mInBuffers = makeBuffers(count, bytes);
    mFreeInputs.clear();
    for (size_t i = 0; i < count; ++i) mFreeInputs.push_back(i);
}

void ScriptedCodec::setOutputBuffers(size_t count, size_t bytes) {
    Guard guard(mLock);
    mOutBuffers = makeBuffers(count, bytes);
    mOutputHeld.assign(count, false);
}

void ScriptedCodec::fail(const std::string& operation, status_t status, size_t fromCall) {
    Guard guard(mLock);
    mFailures[operation] = {status, fromCall - 1};
}

bool ScriptedCodec::waitForQueued(size_t count) const {
    Guard guard(mLock);
    return mChanged.wait_for(guard, kFailureBound, [&] { return mQueued.size() >= count; });
}

bool ScriptedCodec::waitFor(const Calls& calls) const {
    Guard guard(mLock);
    return mChanged.wait_for(guard, kFailureBound, [&] { return calls.waiting > 0; });
}

size_t ScriptedCodec::heldOutputs() const {
    Guard guard(mLock);
    return static_cast<size_t>(std::count(mOutputHeld.begin(), mOutputHeld.end(), true));
}

// Notes the call, and says whether the script has it fail.
status_t ScriptedCodec::call(const char* operation, const std::string& arguments) const {
    mJournal->add(mName + " " + operation + arguments);
    Guard guard(mLock);
    const auto failure = mFailures.find(operation);
    if (failure == mFailures.end()) return OK;
    if (failure->second.callsBefore == 0) return failure->second.status;
    --failure->second.callsBefore;
    return OK;
}

status_t ScriptedCodec::end(const char* operation) {
    const status_t err = call(operation);
    change(mStopped, true);
    return err;
}

template <typename Ready>
status_t ScriptedCodec::await(Guard& guard, Calls& calls, const Ready& ready) {
    const auto mayReturn = [&] { return !calls.holdCalls && (mStopped || ready()); };
    if (!mayReturn() && !mBlocking && !calls.holdCalls) return -EAGAIN;
    ++calls.waiting;
    mChanged.notify_all();
    mChanged.wait(guard, mayReturn);
    --calls.waiting;
    return mStopped ? INVALID_OPERATION : static_cast<status_t>(OK);
}

status_t ScriptedCodec::configure(const sp<AMessage>& format, const sp<Surface>& nativeWindow,
                                  const sp<ICrypto>& crypto, uint32_t flags) {
    change(mConfiguredFormat, format->dup());
    return call("configure", std::string(nativeWindow == nullptr ? "" : " surface") +
                                 (crypto == nullptr ? "" : " crypto") + " " +
                                 std::to_string(flags));
}

status_t ScriptedCodec::dequeueInputBuffer(size_t* index, int64_t timeoutUs) {
    Guard guard(mLock);
    mLastTimeoutUs = timeoutUs;
    const status_t err = await(guard, mInputCalls, [&] {
        return !mInputScript.empty() || (!mInputCalls.holdBuffers && !mFreeInputs.empty());
    });
    if (err != OK) return err;
    if (!mInputScript.empty()) {
        const status_t result = mInputScript.front();
        mInputScript.pop_front();
        return result;
    }
    *index = mFreeInputs.front();
    mFreeInputs.pop_front();
    return OK;
}

status_t ScriptedCodec::queueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs,
                                         uint32_t flags, AString*) {
    const status_t err =
        call("queueInputBuffer", " " + std::to_string(size) + " " + std::to_string(timeUs) + " " +
                                     std::to_string(flags));
    if (err != OK) return err;
    Guard guard(mLock);
    if (mStopped) return INVALID_OPERATION;
    if (index >= mInBuffers.size() || offset + size > mInBuffers[index]->capacity()) {
        return BAD_VALUE;
    }
    const uint8_t* data = mInBuffers[index]->base() + offset;
    mQueued.push_back({Bytes(data, data + size), timeUs, flags});
    mFreeInputs.push_back(index);
    if (mEcho) mOutputScript.push_back({OK, flags, mQueued.back().bytes, timeUs, nullptr});
    mChanged.notify_all();
    return OK;
}

status_t ScriptedCodec::dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size,
                                            int64_t* timeUs, uint32_t* flags, int64_t timeoutUs) {
    Guard guard(mLock);
    mLastTimeoutUs = timeoutUs;
    auto free = mOutputHeld.end();
    const status_t err = await(guard, mOutputCalls, [&] {
        free = std::find(mOutputHeld.begin(), mOutputHeld.end(), false);
        return !mOutputCalls.holdBuffers && !mOutputScript.empty() &&
               (mOutputScript.front().status != OK || free != mOutputHeld.end());
    });
    if (err != OK) return err;

    const Output output = mOutputScript.front();
    mOutputScript.pop_front();
    if (output.format != nullptr) mOutputFormat = output.format;
    // A failed dequeue writes no more than a test wants it to.
    if (output.flags != 0) *flags = output.flags;
    if (output.status != OK) return output.status;
    *index = static_cast<size_t>(free - mOutputHeld.begin());
    *offset = mPayloadOffset;
    *size = output.bytes.size();
    *timeUs = output.timeUs;
    *flags = output.flags;
    *free = true;
    const sp<MediaCodecBuffer>& buffer = mOutBuffers[*index];
    const size_t held = std::min(output.bytes.size(), buffer->capacity() - mPayloadOffset);
    std::copy_n(output.bytes.begin(), held, buffer->base() + mPayloadOffset);
    buffer->setRange(mPayloadOffset, held);
    return OK;
}

status_t ScriptedCodec::releaseOutputBuffer(size_t index) {
    Guard guard(mLock);
    const bool held = index < mOutputHeld.size() && mOutputHeld[index];
    if (held) mOutputHeld[index] = false;
    mChanged.notify_all();
    guard.unlock();
    if (held) return call("releaseOutputBuffer", " " + std::to_string(index));
    mJournal->add(mName + " stray release");
    return BAD_VALUE;
}

}  // namespace android::qmmediaeditor
