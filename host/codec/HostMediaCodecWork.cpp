// The half of a HostMediaCodec that runs on the looper's thread.
#include <android/log.h>
#include <media/stagefright/MediaErrors.h>

#include <algorithm>
#include <utility>

#include "host/codec/HostMediaCodec.h"

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "Codec";

}  // namespace

void HostMediaCodec::work() {
    Mutex::Autolock lock(mLock);
    while (mState == State::kStarted && workStep()) {
    }
    mWorkPosted = false;
    // Those that half a set was not worth a switch of threads for.
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
            fail();
            return false;
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
    if (status != OK) {
        fail();
        return false;
    }
    publish();
    return true;
}

// The reader's position is taken before the queue is looked at: what was read before it is queued
// by then.
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
    // Some may have been queued while the engine was at work, and nobody posts for it again.
    return !mQueued.empty();
}

void HostMediaCodec::inputDone(size_t index) {
    Mutex::Autolock lock(mLock);
    if (mState != State::kStarted) return;
    mFreeInputs.push_back(index);
    if (!mWorkPosted || mFreeInputs.size() * 2 >= mInputs.size()) mInputFree.broadcast();
}

// The client finds out when it queues its next sample, because a failing output would end the
// process; without another sample it takes the end of stream.
void HostMediaCodec::refuseInput() {
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
