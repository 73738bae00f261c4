#include <Log.h>
#include <TVideoSource.h>
#include <media/stagefright/MediaErrors.h>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr FatalCheck kEncoderChecks("VideoEncoderThread", QM_COMPONENT_PATH "TVideoSource");
constexpr FatalCheck kBufferChecks("TVideoSource", QM_COMPONENT_PATH "TVideoSource");

constexpr uint32_t kFlagEOS = MediaCodec::BUFFER_FLAG_EOS;

// In TEncodedSample::mSpare2: the duration follows from the frame rate.
constexpr int64_t kDurationFromFrameRate = -1;

}  // namespace

TVideoSource::MediaEncoderThread::MediaEncoderThread(sp<TVideoSource> source)
    : Thread(false), mSource(source) {
    mValid = setUpEncoder();
}

TVideoSource::MediaEncoderThread::~MediaEncoderThread() {
    QM_LOGV(kTag, "Decontructor MediaEncoderThread");
}

bool TVideoSource::MediaEncoderThread::setUpEncoder() {
    sp<AMessage> format;
    {
        Mutex::Autolock guard(mSource->mFormatLock);
        format = mSource->mEncoderFormat;
    }
    if (!EncoderThreadControl::configure(*this, "TrasnVideoEn_looper", "call Video encoder create",
                                         format) ||
        !EncoderThreadControl::start(*this)) {
        return false;
    }
    kEncoderChecks.areEqual(
        648, "(status_t)OK,mVideoEncoder.mCodec->getInputBuffers(&mVideoEncoder.mInBuffers)", OK,
        mVideoEncoder.mCodec->getInputBuffers(&mVideoEncoder.mInBuffers));
    kEncoderChecks.areEqual(
        650, "(status_t)OK,mVideoEncoder.mCodec->getOutputBuffers(&mVideoEncoder.mOutBuffers)", OK,
        mVideoEncoder.mCodec->getOutputBuffers(&mVideoEncoder.mOutBuffers));
    QM_LOGV(kTag, "Encoder got %zu input and %zu output buffers", mVideoEncoder.mInBuffers.size(),
            mVideoEncoder.mOutBuffers.size());
    return true;
}

void TVideoSource::MediaEncoderThread::onFirstRef() {
    if (mValid) startInputPortThread();
}

void TVideoSource::MediaEncoderThread::startInputPortThread() {
    EncoderThreadControl::startInputPort(*this);
}

void* TVideoSource::MediaEncoderThread::inputThreadWrapper(void* self) {
    return EncoderThreadControl::runDetached(self, &MediaEncoderThread::inputThreadEntry);
}

void* TVideoSource::MediaEncoderThread::inputThreadEntry() {
    EncoderThreadControl::runInputPort(*this);
    return nullptr;
}

TVideoSource::MediaEncoderThread::Next TVideoSource::MediaEncoderThread::feedEncoder(
    const sp<MediaCodec>& codec, TDecodedSample* record) {
    if (mInputEOS) {
        QM_LOGV(kTag, "Video encoder input EOS");
        return Next::kEnd;
    }
    size_t index = 0;
    const status_t err = codec->dequeueInputBuffer(&index, mDequeueTimeoutUs);
    if (err == OK) return fillInput(codec, index, record);

    QM_LOGV(kTag, "Not OK dequeueInputBuffer");
    if (err != -EAGAIN) {
        QM_LOGW(kTag, "Encoder input [%d]", err);
        EncoderThreadControl::reportFailure(*this);
        mExitRequested = true;
        return Next::kEnd;
    }
    if (mSource->mCodecStopped) {
        QM_LOGD(kTag, "input thread forced stop by others");
        return Next::kEnd;
    }
    return Next::kGoOn;
}

TVideoSource::MediaEncoderThread::Next TVideoSource::MediaEncoderThread::fillInput(
    const sp<MediaCodec>& codec, size_t index, TDecodedSample* record) {
    if (mSource->mCodecStopped) {
        QM_LOGV(kTag, "the codec was stopped");
        return Next::kEnd;
    }
    record->mBuffer = kBufferChecks.bufferAt(mVideoEncoder.mInBuffers, index);
    const status_t result = readDecodedData(*record);
    if (mSource->mCodecStopped) {
        QM_LOGV(kTag, "the codec was stopped");
        return Next::kEnd;
    }
    if (result == ERROR_END_OF_STREAM) return EncoderThreadControl::queueEOS(*this, codec, index);

    // After an empty wake-up the record still holds the size and time of the picture before.
    const status_t err =
        codec->queueInputBuffer(index, 0, record->mSize, record->mPresentationTimeUs, 0, nullptr);
    if (err != OK) {
        QM_LOGW(kTag, "thread stop by error[%d]", err);
        EncoderThreadControl::reportFailure(*this);
        return Next::kEnd;
    }
    return Next::kGoOn;
}

TVideoSource::MediaEncoderThread::Next TVideoSource::MediaEncoderThread::signalInputEOS(
    const sp<MediaCodec>& codec) {
    size_t index = 0;
    if (codec->dequeueInputBuffer(&index, mDequeueTimeoutUs) == OK) {
        QM_LOGV(kTag, "signalling input EOS");
        return EncoderThreadControl::queueEOS(*this, codec, index);
    }
    QM_LOGD(kTag, "EOS input thread forced stop by others");
    return Next::kEnd;
}

status_t TVideoSource::MediaEncoderThread::readDecodedData(TDecodedSample& out) {
    Mutex::Autolock guard(mSource->mDecodedLock);
    List<TDecodedSample>& queue = mSource->mDecodedSamples;
    const status_t err = BatchHandOff::awaitDecoded(*mSource, kTag);
    if (err != OK) return err;

    TDecodedSample head = *queue.begin();
    queue.erase(queue.begin());
    // Only the end-of-stream marker has no buffer; one with further flags must end the track as
    // well.
    if (head.mFlags == kFlagEOS || head.mBuffer == nullptr) {
        QM_LOGV(kTag, "inputSample EOS");
        mSource->mDecoderBufferReturnedCond.signal();
        return ERROR_END_OF_STREAM;
    }
    mSource->cropFrame(head, out, true);
    out.mPresentationTimeUs = head.mPresentationTimeUs;
    out.mFlags = head.mFlags;
    mLastInputTimeUs = head.mPresentationTimeUs;
    if (queue.empty()) mSource->mDecoderBufferReturnedCond.signal();
    return OK;
}

bool TVideoSource::MediaEncoderThread::threadLoop() {
    QM_LOGV(kTag, "Call threadLoop start");
    const std::shared_ptr<PortLatch> ports = mPorts;
    ports->enter();
    sp<MediaCodec> codec = EncoderThreadControl::codec(*this);
    Next next = codec == nullptr || mExitRequested ? Next::kEnd : Next::kGoOn;
    while (next == Next::kGoOn && !mOutputEOS) {
        next = handleDrainResult(codec, drainEncoder(codec));
        if (mExitRequested) next = Next::kEnd;
    }
    mExitRequested = true;
    codec.clear();
    QM_LOGV(kTag, "Call threadLoop End");
    ports->leave();
    return false;
}

// Takes output until there is none, an end, or a stop; what ended it.
status_t TVideoSource::MediaEncoderThread::drainEncoder(const sp<MediaCodec>& codec) {
    while (true) {
        TEncodedSample output;
        const status_t err =
            codec->dequeueOutputBuffer(&output.mIndex, &output.mOffset, &output.mSize,
                                       &output.mTimeUs, &output.mFlags, mDequeueTimeoutUs);
        if (err != OK) {
            QM_LOGV(kTag, "Error[%d], flags[%x]", err, output.mFlags);
            if ((output.mFlags & kFlagEOS) != 0) {
                QM_LOGV(kTag, "reached EOS on output.(in dequeue Erro) : %lld",
                        wide(mEncodedFrameCount));
                mOutputEOS = true;
            }
            return err;
        }
        if (mSource->mCodecStopped) {
            QM_LOGV(kTag, "the codec was stopped");
            return OK;
        }
        if (forwardOutput(codec, &output)) return OK;
    }
}

// True when this was the last output.
bool TVideoSource::MediaEncoderThread::forwardOutput(const sp<MediaCodec>& codec,
                                                     TEncodedSample* output) {
    ++mEncodedFrameCount;
    mEncodedByteCount += static_cast<int64_t>(output->mSize);
    output->mBuffer = kBufferChecks.bufferAt(mVideoEncoder.mOutBuffers, output->mIndex);
    const bool last = (output->mFlags & kFlagEOS) != 0;
    if (!last) {
        output->mSpare2 = kDurationFromFrameRate;
        if (mSource->pushEncodedBuffer(output) == BAD_VALUE) {
            EncoderThreadControl::reportFailure(*this);
        }
    }
    codec->releaseOutputBuffer(output->mIndex);
    if (!last) return false;

    QM_LOGV(kTag, "reached EOS on output. : %lld", wide(mEncodedFrameCount));
    mOutputEOS = true;
    mSource->setCodecStopped();
    mExitRequested = true;
    return true;
}

TVideoSource::MediaEncoderThread::Next TVideoSource::MediaEncoderThread::handleDrainResult(
    const sp<MediaCodec>& codec, status_t result) {
    switch (result) {
        case OK:
            QM_LOGV(kTag, "State is OK");
            return Next::kGoOn;
        case -EAGAIN:
            if (mSource->mEOSSampleAdded) mSource->setCodecStopped();
            if (!mSource->mCodecStopped) return Next::kGoOn;
            QM_LOGD(kTag, "output buffer wa forced stop by others");
            mExitRequested = true;
            BatchHandOff::wakeReader(*mSource);
            return Next::kEnd;
        case INFO_OUTPUT_BUFFERS_CHANGED:
            QM_LOGV(kTag, "INFO_OUTPUT_BUFFERS_CHANGED");
            kEncoderChecks.areEqual(
                997,
                "(status_t)OK,mVideoEncoder.mCodec->getOutputBuffers(&mVideoEncoder.mOutBuffers)",
                OK, codec->getOutputBuffers(&mVideoEncoder.mOutBuffers));
            QM_LOGV(kTag, "got %zu output buffers", mVideoEncoder.mOutBuffers.size());
            return Next::kGoOn;
        case INFO_FORMAT_CHANGED: {
            // Codec-specific data reaches the writer as a buffer; nothing else of the format is
            // needed.
            sp<AMessage> format;
            kEncoderChecks.areEqual(1002,
                                    "(status_t)OK,mVideoEncoder.mCodec->getOutputFormat(&format)",
                                    OK, codec->getOutputFormat(&format));
            return Next::kGoOn;
        }
        default:
            QM_LOGW(kTag, "Encoder output [%d]", result);
            EncoderThreadControl::reportFailure(*this);
            return Next::kEnd;
    }
}

void TVideoSource::MediaEncoderThread::signalEndOfInputStream() {
    const sp<MediaCodec> codec = EncoderThreadControl::codec(*this);
    if (codec == nullptr) return;
    QM_LOGD(kTag, "call signalEndOfInputStream");
    codec->signalEndOfInputStream();
}

void TVideoSource::MediaEncoderThread::stopEncoder() { EncoderThreadControl::stopEncoder(*this); }
void TVideoSource::MediaEncoderThread::requestExit() { EncoderThreadControl::requestExit(*this); }
void TVideoSource::MediaEncoderThread::pause() { EncoderThreadControl::pause(*this); }
void TVideoSource::MediaEncoderThread::resume() { EncoderThreadControl::resume(*this); }
void TVideoSource::MediaEncoderThread::wake() { EncoderThreadControl::wake(*this); }
void TVideoSource::MediaEncoderThread::pauseInternal(int64_t timeUs) {
    EncoderThreadControl::pauseInternal(*this, timeUs);
}

void TVideoSource::MediaEncoderThread::startOutputPortThread() {
    QM_LOGV(kTag, "startOutputPortThread start");
    EncoderThreadControl::startDetached(*this, &mOutputThread, outputThreadWrapper);
    QM_LOGV(kTag, "startOutputPortThread end");
}

void* TVideoSource::MediaEncoderThread::outputThreadWrapper(void* self) {
    return EncoderThreadControl::runDetached(self, &MediaEncoderThread::outputThreadEntry);
}

void* TVideoSource::MediaEncoderThread::outputThreadEntry() {
    EncoderThreadControl::outputThreadEntry<MediaEncoderThread>();
    return nullptr;
}

}  // namespace qmmediaeditor
}  // namespace android
