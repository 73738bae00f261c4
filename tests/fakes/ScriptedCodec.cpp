#include <fakes/ScriptedCodec.h>
#include <string.h>

#include <algorithm>

namespace android::qmmediaeditor {

namespace {

typedef std::unique_lock<std::mutex> Guard;

sp<MediaCodecBuffer> makeBuffer(size_t bytes) {
    sp<ABuffer> buffer = new ABuffer(bytes);
    memset(buffer->base(), 0, bytes);
    return new MediaCodecBuffer(nullptr, buffer);
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
    mInBuffers.clear();
    mFreeInputs.clear();
    for (size_t i = 0; i < count; ++i) {
        mInBuffers.push_back(makeBuffer(bytes));
        mFreeInputs.push_back(i);
    }
}

void ScriptedCodec::setOutputBuffers(size_t count, size_t bytes) {
    Guard guard(mLock);
    mOutBuffers.clear();
    for (size_t i = 0; i < count; ++i) mOutBuffers.push_back(makeBuffer(bytes));
    mOutputHeld.assign(count, false);
}

void ScriptedCodec::fail(const std::string& operation, status_t status, size_t fromCall) {
    Guard guard(mLock);
    mFailures[operation] = {status, fromCall - 1};
}

void ScriptedCodec::push(Output output) {
    Guard guard(mLock);
    mOutputScript.push_back(std::move(output));
    mChanged.notify_all();
}

void ScriptedCodec::push(Input input) {
    Guard guard(mLock);
    mInputScript.push_back(input);
    mChanged.notify_all();
}

void ScriptedCodec::frame(const Bytes& bytes, int64_t timeUs, uint32_t flags) {
    Output output;
    output.bytes = bytes;
    output.timeUs = timeUs;
    output.flags = flags;
    push(output);
}

void ScriptedCodec::frameAtIndex(size_t index) {
    Output output;
    output.forcedIndex = true;
    output.index = index;
    push(output);
}

void ScriptedCodec::formatChange(const sp<AMessage>& format) {
    Output output;
    output.status = INFO_FORMAT_CHANGED;
    output.format = format;
    push(output);
}

void ScriptedCodec::outputResult(status_t status, uint32_t flags) {
    Output output;
    output.status = status;
    output.flags = flags;
    push(output);
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

status_t ScriptedCodec::configure(const sp<AMessage>& format, const sp<Surface>& nativeWindow,
                                  const sp<ICrypto>& crypto, uint32_t flags) {
    {
        Guard guard(mLock);
        mConfiguredFormat = format->dup();
    }
    return call("configure", std::string(nativeWindow == nullptr ? "" : " surface") +
                                 (crypto == nullptr ? "" : " crypto") + " " +
                                 std::to_string(flags));
}

status_t ScriptedCodec::start() { return call("start"); }

status_t ScriptedCodec::stop() {
    const status_t err = call("stop");
    Guard guard(mLock);
    mStopped = true;
    mChanged.notify_all();
    return err;
}

status_t ScriptedCodec::release() {
    const status_t err = call("release");
    Guard guard(mLock);
    mStopped = true;
    mChanged.notify_all();
    return err;
}

status_t ScriptedCodec::dequeueInputBuffer(size_t* index, int64_t timeoutUs) {
    Guard guard(mLock);
    mLastTimeoutUs = timeoutUs;
    auto ready = [&] {
        return mStopped || !mInputScript.empty() || (!mHoldInput && !mFreeInputs.empty());
    };
    if (!ready() && mIdle == Idle::kTryAgain && !mInputCalls.hold) return -EAGAIN;
    await(guard, mInputCalls, ready);
    if (mStopped) return INVALID_OPERATION;
    if (!mInputScript.empty()) {
        const Input input = mInputScript.front();
        mInputScript.pop_front();
        *index = input.index;
        return input.status;
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
    mQueued.push_back({index, Bytes(data, data + size), timeUs, flags});
    mFreeInputs.push_back(index);
    if (mEcho) {
        Output output;
        output.bytes = mQueued.back().bytes;
        output.timeUs = timeUs;
        output.flags = flags;
        mOutputScript.push_back(output);
    }
    mChanged.notify_all();
    return OK;
}

// True when the head of the script can go out now.
bool ScriptedCodec::takeOutputIndex(const Output& next, size_t* index) {
    if (next.status != OK || next.forcedIndex) {
        *index = next.index;
        return true;
    }
    const auto free = std::find(mOutputHeld.begin(), mOutputHeld.end(), false);
    if (free == mOutputHeld.end()) return false;
    *index = static_cast<size_t>(free - mOutputHeld.begin());
    return true;
}

status_t ScriptedCodec::dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size,
                                            int64_t* timeUs, uint32_t* flags, int64_t timeoutUs) {
    Guard guard(mLock);
    mLastTimeoutUs = timeoutUs;
    size_t taken = 0;
    auto ready = [&] {
        return mStopped || (!mHoldOutput && !mOutputScript.empty() &&
                            takeOutputIndex(mOutputScript.front(), &taken));
    };
    if (!ready() && mIdle == Idle::kTryAgain && !mOutputCalls.hold) return -EAGAIN;
    await(guard, mOutputCalls, ready);
    if (mStopped) return INVALID_OPERATION;

    const Output output = mOutputScript.front();
    mOutputScript.pop_front();
    if (output.format != nullptr) mOutputFormat = output.format;
    // A failed dequeue writes no more than a test wants it to.
    if (output.flags != 0) *flags = output.flags;
    if (output.status != OK) return output.status;
    *index = taken;
    *offset = mPayloadOffset;
    *size = output.bytes.size();
    *timeUs = output.timeUs;
    *flags = output.flags;
    if (output.forcedIndex) return OK;
    const sp<MediaCodecBuffer>& buffer = mOutBuffers[taken];
    const size_t held = std::min(output.bytes.size(), buffer->capacity() - mPayloadOffset);
    std::copy_n(output.bytes.begin(), held, buffer->base() + mPayloadOffset);
    buffer->setRange(mPayloadOffset, held);
    mOutputHeld[taken] = true;
    return OK;
}

status_t ScriptedCodec::releaseOutputBuffer(size_t index) {
    {
        Guard guard(mLock);
        if (index >= mOutputHeld.size() || !mOutputHeld[index]) {
            ++mStrayReleases;
            return BAD_VALUE;
        }
        mOutputHeld[index] = false;
        mChanged.notify_all();
    }
    return call("releaseOutputBuffer", " " + std::to_string(index));
}

status_t ScriptedCodec::signalEndOfInputStream() { return call("signalEndOfInputStream"); }

status_t ScriptedCodec::getOutputFormat(sp<AMessage>* format) const {
    const status_t err = call("getOutputFormat");
    Guard guard(mLock);
    *format = mOutputFormat;
    return err;
}

status_t ScriptedCodec::getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const {
    const status_t err = call("getInputBuffers");
    Guard guard(mLock);
    *buffers = mInBuffers;
    return err;
}

status_t ScriptedCodec::getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const {
    const status_t err = call("getOutputBuffers");
    Guard guard(mLock);
    *buffers = mOutBuffers;
    return err;
}

}  // namespace android::qmmediaeditor
