// The half of a CodecWorker that runs on the looper's thread.
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

void CodecWorker::work() {
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

bool CodecWorker::workStep() {
    dropOutdated();
    mLacksOutputs = mFreeOutputs.empty();
    if (mEndProduced || mLacksOutputs) return false;
    CodecOutput output;
    const CodecEngine::Step step =
        useEngine([&](CodecEngine& engine) { return engine.produce(&output); });
    if (mState != State::kStarted) return false;
    if (step != CodecEngine::Step::kNeedsInput) return takeStep(step, std::move(output));
    return mQueued.empty() ? workWithoutInput() : feed();
}

bool CodecWorker::takeStep(CodecEngine::Step step, CodecOutput output) {
    switch (step) {
        case CodecEngine::Step::kFormat:
            mOutputFormat = mEngine->outputFormat();
            mFormatPending = mPorts.announcesFormat;
            break;
        case CodecEngine::Step::kRefused:
            refuseInput();
            [[fallthrough]];
        case CodecEngine::Step::kEnd:
            mEndProduced = true;
            output.flags |= BUFFER_FLAG_EOS;
            if (output.buffer == nullptr) output.buffer = new ABuffer(nullptr, 0);
            [[fallthrough]];
        case CodecEngine::Step::kOutput: {
            const size_t index = mFreeOutputs.front();
            mFreeOutputs.pop_front();
            mOutputs[index].output = std::move(output);
            mReady.push_back(index);
            break;
        }
        case CodecEngine::Step::kFailed:
            fail();
            return false;
        case CodecEngine::Step::kNeedsInput:
            break;
    }
    if (mReady.size() * 2 >= mOutputs.size()) mOutputReady.broadcast();
    publish();
    return true;
}

bool CodecWorker::feed() {
    QueuedInput input = std::move(mQueued.front());
    mQueued.pop_front();
    const bool outdated = mSource != nullptr && input.size > 0 &&
                          input.note.timeLine.number != mSource->order()->timeLine().number;
    const sp<Buffer> buffer = mInputs[input.index].buffer;
    mFeedingUs = input.size > 0 ? input.timeUs : DecodeOrder::kNever;
    const status_t status = useEngine([&](CodecEngine& engine) {
        CodecInput sample;
        sample.lease = std::shared_ptr<const void>(
            buffer.get(), [this, index = input.index](const void*) { inputDone(index); });
        sample.data = buffer->base() + input.offset;
        sample.size = input.size;
        sample.timeUs = input.timeUs;
        sample.note = std::move(input.note);
        status_t result = OK;
        if (input.size > 0 && !outdated) result = engine.accept(std::move(sample));
        if (result == OK && input.endOfStream) result = engine.finish();
        return result;
    });
    mFeedingUs = DecodeOrder::kNever;
    if (mState != State::kStarted) return false;
    if (status == ERROR_UNSUPPORTED) return takeStep(CodecEngine::Step::kRefused, CodecOutput());
    if (status != OK) {
        fail();
        return false;
    }
    publish();
    return true;
}

// The reader's position is taken before the queue is looked at: what was read before it is queued
// by then.
bool CodecWorker::workWithoutInput() {
    if (!mInOrder || mEndQueued) return false;
    const TimeLine timeLine = mSource->order()->timeLine();
    const int64_t positionUs = mSource->order()->position();
    if (!mQueued.empty()) return true;
    CodecOutput output;
    const CodecEngine::Step step = useEngine([&](CodecEngine& engine) {
        return engine.produceWithoutInput(timeLine, positionUs, &output);
    });
    if (mState != State::kStarted) return false;
    if (step != CodecEngine::Step::kNeedsInput) return takeStep(step, std::move(output));
    // Some may have been queued while the engine was at work, and nobody posts for it again.
    return !mQueued.empty();
}

void CodecWorker::inputDone(size_t index) {
    Mutex::Autolock lock(mLock);
    if (mState != State::kStarted) return;
    mFreeInputs.push_back(index);
    if (!mWorkPosted || mFreeInputs.size() * 2 >= mInputs.size()) mInputFree.broadcast();
}

// The client finds out when it queues its next sample, because a failing output would end the
// process; without another sample it takes the end of stream.
void CodecWorker::refuseInput() {
    mRefusesInput = true;
    for (const QueuedInput& input : mQueued) mFreeInputs.push_back(input.index);
    mQueued.clear();
    mInputFree.broadcast();
}

void CodecWorker::fail() {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "the codec failed");
    mState = State::kFailed;
    if (mInOrder) mSource->order()->leave(mOrderMember);
    mInOrder = false;
    mInputFree.broadcast();
    mOutputReady.broadcast();
}

void CodecWorker::dropOutdated() {
    if (!mInOrder) return;
    const uint32_t current = mSource->order()->timeLine().number;
    bool dropped = false;
    while (!mReady.empty()) {
        const size_t head = mReady.front();
        const CodecOutput& output = mOutputs[head].output;
        if (output.timeLine == current || (output.flags & BUFFER_FLAG_EOS) != 0) break;
        mReady.pop_front();
        freeOutput(head);
        dropped = true;
    }
    if (!dropped) return;
    publish();
    schedule();
}

bool CodecWorker::publish() {
    if (!mInOrder) return false;
    const bool atEnd = mEndProduced && mReady.size() <= 1;
    if (atEnd && (mReady.empty() || !headNeedsTurn())) {
        mSource->order()->leave(mOrderMember);
        mInOrder = false;
        return false;
    }
    DecodeOrder::Standing standing = mEngineStanding;
    standing.hasHead = !mReady.empty();
    standing.working = mWorkPosted || !mQueued.empty();
    standing.inputEnded = mEndQueued || mRefusesInput;
    if (standing.inputEnded) standing.silenceDueUs = DecodeOrder::kNever;
    standing.inputFull = mFreeInputs.empty();
    if (standing.hasHead) {
        standing.earliestUs = mOutputs[mReady.front()].output.timeUs;
    } else {
        standing.earliestUs = std::min(standing.earliestUs, mFeedingUs);
        for (const QueuedInput& input : mQueued) {
            if (input.size > 0) standing.earliestUs = std::min(standing.earliestUs, input.timeUs);
        }
    }
    return mSource->order()->publish(mOrderMember, standing);
}

}  // namespace qmmediaeditor
}  // namespace android
