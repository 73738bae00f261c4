#include "host/codec/HostMediaCodec.h"

#include <android/log.h>
#include <errno.h>
#include <media/stagefright/MediaErrors.h>

#include <algorithm>
#include <utility>

#include "host/convert/FrameScaler.h"
#include "host/foundation/TimedWait.h"

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "Codec";

}  // namespace

HostMediaCodec::HostMediaCodec(const sp<ALooper>& looper, std::unique_ptr<CodecBackend> backend,
                               std::function<void()> onEnd, std::function<void()> onLoss,
                               OnOutput onOutput)
    : mLooper(looper),
      mOnEnd(std::move(onEnd)),
      mOnLoss(std::move(onLoss)),
      mOnOutput(std::move(onOutput)),
      mBackend(std::move(backend)) {}

HostMediaCodec::~HostMediaCodec() { release(); }

status_t HostMediaCodec::configure(const sp<AMessage>& format,
                                   const sp<Surface>& /* nativeWindow */, const sp<ICrypto>& crypto,
                                   uint32_t /* flags */) {
    Mutex::Autolock lock(mLock);
    if (mState != State::kCreated) return INVALID_OPERATION;
    if (format == nullptr) return BAD_VALUE;
    if (crypto != nullptr) return ERROR_UNSUPPORTED;
    // The looper does not run when its thread could not be created, and ALooper::start() may not
    // have been checked.
    if (!mLooper->isRunning()) return -EAGAIN;
    const status_t status = mBackend->configure(format, &mBuffers);
    if (status != OK) return status;
    mSource = TrackSource::find(format);
    if (mSource != nullptr) mSource->keepPacketInfo();
    mOutputFormat = mBackend->outputFormat();
    mState = State::kConfigured;
    return OK;
}

status_t HostMediaCodec::start() {
    Mutex::Autolock lock(mLock);
    if (mState != State::kConfigured) return INVALID_OPERATION;
    const status_t status = allocateBuffers();
    if (status != OK) return status;
    mState = State::kStarted;
    mFormatPending = mBuffers.announcesFormat && mOutputFormat != nullptr;
    if (mSource != nullptr) {
        const wp<HostMediaCodec> self(this);
        mSequencerMember = mSource->sequencer()->join([self, looper = mLooper] {
            looper->post([self] {
                const sp<HostMediaCodec> worker = self.promote();
                if (worker != nullptr) worker->work();
            });
        });
        mInSequence = true;
    }
    schedule();
    return OK;
}

status_t HostMediaCodec::stop() {
    Mutex::Autolock lock(mLock);
    if (mState != State::kStarted && mState != State::kFailed) return INVALID_OPERATION;
    shutDown(State::kStopped);
    return OK;
}

status_t HostMediaCodec::release() {
    std::unique_ptr<CodecBackend> backend;
    {
        Mutex::Autolock lock(mLock);
        if (mState == State::kReleased) return OK;
        shutDown(State::kReleased);
        backend = std::move(mBackend);
    }
    // Outside of the lock, because a backend releases its inputs when it is destroyed.
    backend.reset();
    Mutex::Autolock lock(mLock);
    mReady.clear();
    mQueued.clear();
    mOutputs.clear();
    mInputs.clear();
    return OK;
}

void HostMediaCodec::shutDown(State state) {
    mState = state;
    if (mInSequence) mSource->sequencer()->leave(mSequencerMember);
    mInSequence = false;
    mInputFree.broadcast();
    mOutputReady.broadcast();
    // The looper's own thread gets here only when work() drops the last reference, and is then not
    // in a step.
    while (mBusy) mWorkDone.wait(mLock);
}

status_t HostMediaCodec::allocateBuffers() {
    for (size_t i = 0; i < mBuffers.inputCount; ++i) {
        const sp<ABuffer> memory = mBuffers.inputsAreFrames
                                       ? makeEncoderInput(mBuffers.inputBytes)
                                       : sp<ABuffer>(new ABuffer(mBuffers.inputBytes));
        if (memory == nullptr || memory->capacity() < mBuffers.inputBytes) return NO_MEMORY;
        mInputs.push_back({new Buffer(memory), false});
        mFreeInputs.push_back(i);
    }
    for (size_t i = 0; i < mBuffers.outputCount; ++i) {
        OutputSlot slot;
        slot.buffer = new Buffer(new ABuffer(nullptr, 0));
        mOutputs.push_back(std::move(slot));
        mFreeOutputs.push_back(i);
    }
    return OK;
}

status_t HostMediaCodec::notRunning() const {
    return mState == State::kFailed ? UNKNOWN_ERROR : INVALID_OPERATION;
}

status_t HostMediaCodec::dequeueInputBuffer(size_t* index, int64_t timeoutUs) {
    const nsecs_t deadline = deadlineAfter(timeoutUs);
    Mutex::Autolock lock(mLock);
    while (mState == State::kStarted && mFreeInputs.empty() &&
           waitUntil(deadline, mInputFree, mLock)) {
    }
    if (mState != State::kStarted) return notRunning();
    if (mFreeInputs.empty()) return -EAGAIN;
    *index = mFreeInputs.front();
    mFreeInputs.pop_front();
    mInputs[*index].withClient = true;
    publish();
    return OK;
}

status_t HostMediaCodec::queueInputBuffer(size_t index, size_t offset, size_t size,
                                          int64_t presentationTimeUs, uint32_t flags,
                                          AString* errorDetailMsg) {
    Mutex::Autolock lock(mLock);
    const auto refuse = [&](status_t status, const char* why) {
        if (errorDetailMsg != nullptr) errorDetailMsg->setTo(why);
        return status;
    };
    if (mState != State::kStarted) return refuse(notRunning(), "the codec does not run");
    if (index >= mInputs.size() || !mInputs[index].withClient) {
        return refuse(BAD_INDEX, "the caller does not hold this buffer");
    }
    const size_t capacity = mInputs[index].buffer->capacity();
    if (offset > capacity || size > capacity - offset) {
        return refuse(BAD_VALUE, "the range does not fit the buffer");
    }
    if (mEndQueued) return refuse(INVALID_OPERATION, "the input has ended");
    if (mRefusesInput && size > 0) return refuse(ERROR_UNSUPPORTED, "the input exceeds a limit");

    mInputs[index].withClient = false;
    QueuedInput input;
    input.index = index;
    input.offset = offset;
    input.size = size;
    input.timeUs = presentationTimeUs;
    input.endOfStream = (flags & BUFFER_FLAG_EOS) != 0;
    if (size == 0 && !input.endOfStream) {
        mFreeInputs.push_back(index);
        mInputFree.broadcast();
        return OK;
    }
    if (mSource != nullptr && size > 0) input.info = mSource->take(presentationTimeUs);
    mEndQueued = input.endOfStream;
    mQueued.push_back(std::move(input));
    publish();
    schedule();
    return OK;
}

status_t HostMediaCodec::dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size,
                                             int64_t* presentationTimeUs, uint32_t* flags,
                                             int64_t timeoutUs) {
    const nsecs_t deadline = deadlineAfter(timeoutUs);
    Mutex::Autolock lock(mLock);
    for (;;) {
        if (mState != State::kStarted) return notRunning();
        if (mFormatPending) {
            mFormatPending = false;
            return INFO_FORMAT_CHANGED;
        }
        dropOutdated();
        if (mReady.empty()) {
            if (!waitUntil(deadline, mOutputReady, mLock) && mReady.empty() && !mFormatPending &&
                mState == State::kStarted) {
                return -EAGAIN;
            }
            continue;
        }
        if (!headNeedsTurn()) return deliver(index, offset, size, presentationTimeUs, flags);

        const size_t head = mReady.front();
        const sp<OutputSequencer> sequencer = mSource->sequencer();
        const size_t member = mSequencerMember;
        mLock.unlock();
        const OutputSequencer::Turn turn = sequencer->waitForTurn(member, deadline);
        mLock.lock();
        if (turn == OutputSequencer::Turn::kOtherFirst ||
            turn == OutputSequencer::Turn::kTimedOut) {
            return mState == State::kStarted ? -EAGAIN : notRunning();
        }
        const bool sameHead = !mReady.empty() && mReady.front() == head;
        if (turn == OutputSequencer::Turn::kYes && mState == State::kStarted && sameHead) {
            return deliver(index, offset, size, presentationTimeUs, flags);
        }
    }
}

bool HostMediaCodec::headNeedsTurn() const {
    return mInSequence && (mOutputs[mReady.front()].output.flags & BUFFER_FLAG_EOS) == 0;
}

status_t HostMediaCodec::deliver(size_t* index, size_t* offset, size_t* size, int64_t* timeUs,
                                 uint32_t* flags) {
    const size_t head = mReady.front();
    mReady.pop_front();
    OutputSlot& slot = mOutputs[head];
    slot.withClient = true;
    slot.buffer->setBuffer(slot.output.buffer);
    *index = head;
    *offset = slot.buffer->offset();
    *size = slot.buffer->size();
    *timeUs = slot.output.timeUs;
    *flags = slot.output.flags;
    const bool isEnd = (*flags & BUFFER_FLAG_EOS) != 0;
    if (isEnd && mOnEnd) mOnEnd();
    if (!isEnd && mOnOutput) mOnOutput(mOutputFormat, *timeUs, *size);
    publish();
    return OK;
}

status_t HostMediaCodec::releaseOutputBuffer(size_t index) {
    Mutex::Autolock lock(mLock);
    if (mState != State::kStarted) return notRunning();
    if (index >= mOutputs.size() || !mOutputs[index].withClient) return BAD_INDEX;
    freeOutput(index);
    if (mLacksOutputs) schedule();
    return OK;
}

void HostMediaCodec::freeOutput(size_t index) {
    OutputSlot& slot = mOutputs[index];
    slot.withClient = false;
    slot.buffer->setBuffer(new ABuffer(nullptr, 0));
    slot.output = CodecOutput();
    mFreeOutputs.push_back(index);
}

status_t HostMediaCodec::signalEndOfInputStream() { return INVALID_OPERATION; }

status_t HostMediaCodec::getOutputFormat(sp<AMessage>* format) const {
    Mutex::Autolock lock(mLock);
    if (mState != State::kConfigured && mState != State::kStarted) return notRunning();
    if (mOutputFormat == nullptr) return NAME_NOT_FOUND;
    *format = mOutputFormat->dup();
    return OK;
}

status_t HostMediaCodec::getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const {
    Mutex::Autolock lock(mLock);
    if (mState != State::kStarted) return notRunning();
    buffers->clear();
    for (const InputSlot& slot : mInputs) buffers->push_back(slot.buffer);
    return OK;
}

status_t HostMediaCodec::getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const {
    Mutex::Autolock lock(mLock);
    if (mState != State::kStarted) return notRunning();
    buffers->clear();
    for (const OutputSlot& slot : mOutputs) buffers->push_back(slot.buffer);
    return OK;
}

void HostMediaCodec::schedule() {
    if (mWorkPosted || mState != State::kStarted) return;
    // While outputs are ready, the client takes and releases them. The looper is posted when half
    // of all outputs are free, so that one switch of threads serves several.
    if (mLacksOutputs && !mReady.empty() && mFreeOutputs.size() * 2 < mOutputs.size()) return;
    mWorkPosted = true;
    mLacksOutputs = false;
    const wp<HostMediaCodec> self(this);
    mLooper->post([self] {
        const sp<HostMediaCodec> worker = self.promote();
        if (worker != nullptr) worker->work();
    });
}

void HostMediaCodec::work() {
    Mutex::Autolock lock(mLock);
    while (mState == State::kStarted && workStep()) {
    }
    mWorkPosted = false;
    // Wakes the client for buffers of which fewer than half were ready.
    mInputFree.broadcast();
    mOutputReady.broadcast();
    const bool owesSilence = publish();
    if (owesSilence && !mFreeOutputs.empty()) schedule();
}

bool HostMediaCodec::workStep() {
    dropOutdated();
    mLacksOutputs = mFreeOutputs.empty();
    if (mEndProduced || mLacksOutputs) return false;
    CodecOutput output;
    const CodecBackend::Step step =
        useBackend([&](CodecBackend& backend) { return backend.produce(&output); });
    if (mState != State::kStarted) return false;
    if (step != CodecBackend::Step::kNeedsInput) return takeStep(step, std::move(output));
    return mQueued.empty() ? workWithoutInput() : feed();
}

bool HostMediaCodec::takeStep(CodecBackend::Step step, CodecOutput output) {
    switch (step) {
        case CodecBackend::Step::kFormat:
            mOutputFormat = mBackend->outputFormat();
            mFormatPending = mBuffers.announcesFormat;
            break;
        case CodecBackend::Step::kRefused:
            refuseInput();
            [[fallthrough]];
        case CodecBackend::Step::kEnd:
            mEndProduced = true;
            output.flags |= BUFFER_FLAG_EOS;
            if (output.buffer == nullptr) output.buffer = new ABuffer(nullptr, 0);
            [[fallthrough]];
        case CodecBackend::Step::kOutput: {
            const size_t index = mFreeOutputs.front();
            mFreeOutputs.pop_front();
            mOutputs[index].output = std::move(output);
            mReady.push_back(index);
            break;
        }
        case CodecBackend::Step::kFailed:
            return takeFailure();
        case CodecBackend::Step::kNeedsInput:
            break;
    }
    if (mReady.size() * 2 >= mOutputs.size()) mOutputReady.broadcast();
    publish();
    return true;
}

bool HostMediaCodec::feed() {
    QueuedInput input = std::move(mQueued.front());
    mQueued.pop_front();
    const bool outdated = mSource != nullptr && input.size > 0 &&
                          input.info.segment.number != mSource->sequencer()->segment().number;
    const sp<Buffer> buffer = mInputs[input.index].buffer;
    mFeedingUs = input.size > 0 ? input.timeUs : OutputSequencer::kNever;
    const status_t status = useBackend([&](CodecBackend& backend) {
        CodecInput sample;
        sample.lease = std::shared_ptr<const void>(
            buffer.get(), [this, index = input.index](const void*) { inputDone(index); });
        sample.data = buffer->base() + input.offset;
        sample.size = input.size;
        sample.timeUs = input.timeUs;
        sample.info = std::move(input.info);
        status_t result = OK;
        if (input.size > 0 && !outdated) result = backend.accept(std::move(sample));
        if (result == OK && input.endOfStream) result = backend.finish();
        return result;
    });
    mFeedingUs = OutputSequencer::kNever;
    if (mState != State::kStarted) return false;
    if (status == ERROR_UNSUPPORTED) return takeStep(CodecBackend::Step::kRefused, CodecOutput());
    if (status != OK) return takeFailure();
    publish();
    return true;
}

// The position is taken before the queue is checked. The reader queues each sample before it
// advances the position, so an empty queue then means that no sample before the position is
// missing.
bool HostMediaCodec::workWithoutInput() {
    if (!mInSequence || mEndQueued) return false;
    const InputSegment segment = mSource->sequencer()->segment();
    const int64_t positionUs = mSource->sequencer()->position();
    if (!mQueued.empty()) return true;
    CodecOutput output;
    const CodecBackend::Step step = useBackend([&](CodecBackend& backend) {
        return backend.produceWithoutInput(segment, positionUs, &output);
    });
    if (mState != State::kStarted) return false;
    if (step != CodecBackend::Step::kNeedsInput) return takeStep(step, std::move(output));
    // Samples may have been queued while the backend was busy, and nothing posts work for them
    // again.
    return !mQueued.empty();
}

void HostMediaCodec::inputDone(size_t index) {
    Mutex::Autolock lock(mLock);
    if (mState != State::kStarted) return;
    mFreeInputs.push_back(index);
    if (!mWorkPosted || mFreeInputs.size() * 2 >= mInputs.size()) mInputFree.broadcast();
}

bool HostMediaCodec::takeFailure() {
    if (mOnLoss) return takeStep(CodecBackend::Step::kRefused, CodecOutput());
    fail();
    return false;
}

// The client learns of it from its next queueInputBuffer(), because it aborts the process when
// dequeueOutputBuffer() fails. A client that has no further sample gets the end of stream.
void HostMediaCodec::refuseInput() {
    if (mOnLoss) mOnLoss();
    mRefusesInput = true;
    for (const QueuedInput& input : mQueued) mFreeInputs.push_back(input.index);
    mQueued.clear();
    mInputFree.broadcast();
}

void HostMediaCodec::fail() {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "the codec failed");
    mState = State::kFailed;
    if (mInSequence) mSource->sequencer()->leave(mSequencerMember);
    mInSequence = false;
    mInputFree.broadcast();
    mOutputReady.broadcast();
}

void HostMediaCodec::dropOutdated() {
    if (!mInSequence) return;
    const uint32_t current = mSource->sequencer()->segment().number;
    bool dropped = false;
    while (!mReady.empty()) {
        const size_t head = mReady.front();
        const CodecOutput& output = mOutputs[head].output;
        if (output.segment == current || (output.flags & BUFFER_FLAG_EOS) != 0) break;
        mReady.pop_front();
        freeOutput(head);
        dropped = true;
    }
    if (!dropped) return;
    publish();
    schedule();
}

bool HostMediaCodec::publish() {
    if (!mInSequence) return false;
    const bool atEnd = mEndProduced && mReady.size() <= 1;
    if (atEnd && (mReady.empty() || !headNeedsTurn())) {
        mSource->sequencer()->leave(mSequencerMember);
        mInSequence = false;
        return false;
    }
    OutputSequencer::MemberState state = mBackendState;
    state.hasHead = !mReady.empty();
    state.working = mWorkPosted || !mQueued.empty();
    state.inputEnded = mEndQueued || mRefusesInput;
    if (state.inputEnded) state.silenceDueUs = OutputSequencer::kNever;
    state.inputFull = mFreeInputs.empty();
    if (state.hasHead) {
        state.earliestUs = mOutputs[mReady.front()].output.timeUs;
    } else {
        state.earliestUs = std::min(state.earliestUs, mFeedingUs);
        for (const QueuedInput& input : mQueued) {
            if (input.size > 0) state.earliestUs = std::min(state.earliestUs, input.timeUs);
        }
    }
    return mSource->sequencer()->publish(mSequencerMember, state);
}

}  // namespace qmmediaeditor
}  // namespace android
