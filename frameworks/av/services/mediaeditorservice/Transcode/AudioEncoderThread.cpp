#include <Log.h>
#include <TAudioSource.h>
#include <media/stagefright/MediaErrors.h>
#include <string.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr FatalCheck kEncoderChecks("AudioEncoderThread", QM_COMPONENT_PATH "TAudioSource");
constexpr FatalCheck kBufferChecks("TAudioSource", QM_COMPONENT_PATH "TAudioSource");

constexpr status_t kNoConverter = -1100;
constexpr status_t kNoConversionBuffer = -1001;

constexpr uint32_t kFlagEOS = MediaCodec::BUFFER_FLAG_EOS;

}  // namespace

TAudioSource::MediaEncoderThread::MediaEncoderThread(sp<TAudioSource> source)
    : Thread(false), mSource(source) {
    mValid = setUpEncoder();
}

TAudioSource::MediaEncoderThread::~MediaEncoderThread() {
    QM_LOGV(kTag, "Decontructor MediaEncoderThread");
}

bool TAudioSource::MediaEncoderThread::setUpEncoder() {
    sp<AMessage> format;
    {
        Mutex::Autolock guard(mSource->mFormatLock);
        format = mSource->mFormat;
    }
    if (!EncoderThreadControl::configure(*this, "TrasnAudioEn_looper", "call Audio encoder create",
                                         format) ||
        !setUpConversion(*format) || !EncoderThreadControl::start(*this)) {
        return false;
    }
    kEncoderChecks.areEqual(
        647, "(status_t)OK,mAudioEncoder.mCodec->getInputBuffers(&mAudioEncoder.mInBuffers)", OK,
        mAudioEncoder.mCodec->getInputBuffers(&mAudioEncoder.mInBuffers));
    kEncoderChecks.areEqual(
        648, "(status_t)OK,mAudioEncoder.mCodec->getOutputBuffers(&mAudioEncoder.mOutBuffers)", OK,
        mAudioEncoder.mCodec->getOutputBuffers(&mAudioEncoder.mOutBuffers));
    QM_LOGV(kTag, "Encoder got %zu input and %zu output buffers", mAudioEncoder.mInBuffers.size(),
            mAudioEncoder.mOutBuffers.size());
    return true;
}

// Makes a converter when the encoder's PCM is not the decoder's.
bool TAudioSource::MediaEncoderThread::setUpConversion(const AMessage& format) {
    format.findInt32("input-channel-count", &mInChannelCount);
    format.findInt32("input-sample-rate", &mInSampleRate);
    format.findInt32("input-bit-depth", &mInBitDepth);
    format.findInt32("channel-count", &mOutChannelCount);
    format.findInt32("sample-rate", &mOutSampleRate);
    format.findInt32("bit-depth", &mOutBitDepth);
    mNeedConversion = mInChannelCount != mOutChannelCount || mInSampleRate != mOutSampleRate ||
                      mInBitDepth != mOutBitDepth;
    if (!mNeedConversion) return true;

    mConverter = new QmMediaAudioConverter;
    if (mConverter->init(mInChannelCount, mInSampleRate, mInBitDepth, mOutChannelCount,
                         mOutSampleRate, mOutBitDepth) == 0) {
        QM_LOGE(kTag, "ERROR: QmMediaAudioConverter == null or init failed");
        mAudioEncoder.mCodec->release();
        return false;
    }
    return true;
}

void TAudioSource::MediaEncoderThread::onFirstRef() {
    if (mValid) startInputPortThread();
}

void TAudioSource::MediaEncoderThread::startInputPortThread() {
    EncoderThreadControl::startInputPort(*this);
}

void* TAudioSource::MediaEncoderThread::inputThreadWrapper(void* self) {
    return EncoderThreadControl::runDetached(self, &MediaEncoderThread::inputThreadEntry);
}

void* TAudioSource::MediaEncoderThread::inputThreadEntry() {
    EncoderThreadControl::runInputPort(*this);
    return nullptr;
}

TAudioSource::MediaEncoderThread::Next TAudioSource::MediaEncoderThread::feedEncoder(
    const sp<MediaCodec>& codec, TDecodedSample* input) {
    if (mInputEOS) {
        QM_LOGV(kTag, "Audio encoder input EOS");
        return Next::kEnd;
    }
    size_t index = 0;
    status_t err = codec->dequeueInputBuffer(&index, mTimeoutUs);
    if (err != OK) {
        if (mSource->mCodecStopped) {
            QM_LOGD(kTag, "input thread forced stop by others");
            return Next::kEnd;
        }
        if (err == -EAGAIN) return Next::kGoOn;
        EncoderThreadControl::reportFailure(*this);
        return Next::kEnd;
    }

    QM_LOGV(kTag, "filling input buffer %zu", index);
    input->mBuffer = kBufferChecks.bufferAt(mAudioEncoder.mInBuffers, index);
    const status_t result = readDecodedData(*input);
    if (mSource->mCodecStopped) {
        QM_LOGV(kTag, "the codec was stopped");
        return Next::kEnd;
    }
    if (result == ERROR_END_OF_STREAM) return EncoderThreadControl::queueEOS(*this, codec, index);
    err = codec->queueInputBuffer(index, 0, input->mSize, input->mPresentationTimeUs, input->mFlags,
                                  nullptr);
    if (err != OK) {
        QM_LOGW(kTag, "thread stop by error[%d]", err);
        EncoderThreadControl::reportFailure(*this);
        return Next::kEnd;
    }
    return Next::kGoOn;
}

TAudioSource::MediaEncoderThread::Next TAudioSource::MediaEncoderThread::signalInputEOS(
    const sp<MediaCodec>& codec) {
    size_t index = 0;
    if (codec->dequeueInputBuffer(&index, mTimeoutUs) == OK) {
        QM_LOGV(kTag, "signalling input EOS");
        return EncoderThreadControl::queueEOS(*this, codec, index);
    }
    QM_LOGD(kTag, "EOS input thread forced stop by others");
    return Next::kEnd;
}

status_t TAudioSource::MediaEncoderThread::readDecodedData(TDecodedSample& input) {
    Mutex::Autolock guard(mSource->mDecodedLock);
    List<TDecodedSample>& queue = mSource->mDecodedSamples;
    const status_t err = BatchHandOff::awaitDecoded(*mSource, kTag);
    if (err != OK) return err;

    const TDecodedSample& head = *queue.begin();
    if (head.mFlags == kFlagEOS) {
        QM_LOGV(kTag, "inputSample EOS");
        mSource->mDecoderBufferReturnedCond.signal();
        return ERROR_END_OF_STREAM;
    }
    if (head.mBuffer == nullptr) {
        // An end-of-stream record with further flags: it goes to the encoder as it is, without
        // data.
        input.mSize = 0;
    } else if (mNeedConversion) {
        const status_t converted = convertPcm(head, &input);
        if (converted != OK) return converted;
    } else {
        copyPcm(head, &input);
    }
    input.mPresentationTimeUs = head.mPresentationTimeUs;
    input.mFlags = head.mFlags;
    queue.erase(queue.begin());
    QM_LOGV(kTag, "Check sample timeUs --> : %lld", wide(input.mPresentationTimeUs));
    if (queue.empty()) mSource->mDecoderBufferReturnedCond.signal();
    return OK;
}

status_t TAudioSource::MediaEncoderThread::convertPcm(const TDecodedSample& head,
                                                      TDecodedSample* input) {
    if (mConverter == nullptr) {
        QM_LOGE(kTag, "converter is null");
        return kNoConverter;
    }
    const size_t samples = head.mSize / (mInBitDepth == 24 ? 3 : 2);
    const int frames = mInChannelCount == 0 ? 0 : static_cast<int>(samples) / mInChannelCount;
    const float ratio = static_cast<float>(mOutSampleRate) / static_cast<float>(mInSampleRate);
    unsigned char* converted = mConverter->allocateBuff(nullptr, frames, ratio);
    if (converted == nullptr) {
        QM_LOGE(kTag, "allocateBuffAFC was failed");
        return kNoConversionBuffer;
    }
    const int outFrames = mConverter->process(head.mBuffer->data(), converted, frames);
    const size_t wanted = static_cast<size_t>(std::max(mOutChannelCount, 0)) *
                          static_cast<size_t>(std::max(outFrames, 0)) * 2;
    // The converter may hand out more at once than the encoder takes at once.
    input->mSize = std::min(wanted, input->mBuffer->capacity());
    if (input->mSize != wanted) {
        QM_LOGE(kTag, "converted PCM of %zu bytes cut to the encoder's %zu", wanted, input->mSize);
    }
    memcpy(input->mBuffer->base(), converted, input->mSize);
    mConverter->freeBuff(converted);
    QM_LOGV(kTag, "decoder output buffer size: %zu, encoder input buffer size: %zu",
            head.mBuffer->size(), input->mSize);
    return OK;
}

void TAudioSource::MediaEncoderThread::copyPcm(const TDecodedSample& head, TDecodedSample* input) {
    QM_LOGV(kTag, "decoder output buffer size: %zu, encoder input buffer size: %zu",
            head.mBuffer->size(), input->mBuffer->capacity());
    memcpy(input->mBuffer->base(), head.mBuffer->data(),
           std::min(head.mBuffer->size(), input->mBuffer->capacity()));
    // The full size even when less was copied: the encoder refuses it, and the run ends with an
    // error.
    input->mSize = head.mSize;
}

bool TAudioSource::MediaEncoderThread::threadLoop() {
    QM_LOGV(kTag, "Call threadLoop start");
    const std::shared_ptr<PortLatch> ports = mPorts;
    ports->enter();
    sp<MediaCodec> codec = EncoderThreadControl::codec(*this);
    if (codec != nullptr && !mExitRequested) drainEncoder(codec);
    codec.clear();
    QM_LOGV(kTag, "Call threadLoop End");
    ports->leave();
    return false;
}

void TAudioSource::MediaEncoderThread::drainEncoder(const sp<MediaCodec>& codec) {
    TEncodedSample output;
    do {
        if (mOutputEOS) {
            QM_LOGV(kTag, "Audio encoder output EOS");
            mExitRequested = true;
            return;
        }
        if (mSource->mCodecStopped) {
            QM_LOGV(kTag, "the codec was stopped");
            return;
        }
        if (takeOutput(codec, &output) == Next::kEnd) return;
    } while (!mExitRequested);
}

TAudioSource::MediaEncoderThread::Next TAudioSource::MediaEncoderThread::takeOutput(
    const sp<MediaCodec>& codec, TEncodedSample* output) {
    const status_t err =
        codec->dequeueOutputBuffer(&output->mIndex, &output->mOffset, &output->mSize,
                                   &output->mTimeUs, &output->mFlags, mTimeoutUs);
    switch (err) {
        case OK:
            return forwardOutput(codec, output);
        case INFO_OUTPUT_BUFFERS_CHANGED:
            QM_LOGV(kTag, "INFO_OUTPUT_BUFFERS_CHANGED");
            kEncoderChecks.areEqual(
                1020,
                "(status_t)OK,mAudioEncoder.mCodec->getOutputBuffers(&mAudioEncoder.mOutBuffers)",
                OK, codec->getOutputBuffers(&mAudioEncoder.mOutBuffers));
            QM_LOGV(kTag, "got %zu output buffers", mAudioEncoder.mOutBuffers.size());
            return Next::kGoOn;
        case INFO_FORMAT_CHANGED: {
            // Codec-specific data reaches the writer as a buffer; nothing else of the format is
            // needed.
            sp<AMessage> format;
            kEncoderChecks.areEqual(1025,
                                    "(status_t)OK,mAudioEncoder.mCodec->getOutputFormat(&format)",
                                    OK, codec->getOutputFormat(&format));
            return Next::kGoOn;
        }
        default:
            break;
    }
    if (mSource->mCodecStopped) {
        QM_LOGD(kTag, "output buffer wa forced stop by others");
        mExitRequested = true;
        BatchHandOff::wakeReader(*mSource);
        return Next::kEnd;
    }
    if (err == -EAGAIN) return Next::kGoOn;
    EncoderThreadControl::reportFailure(*this);
    return Next::kEnd;
}

TAudioSource::MediaEncoderThread::Next TAudioSource::MediaEncoderThread::forwardOutput(
    const sp<MediaCodec>& codec, TEncodedSample* output) {
    QM_LOGV(kTag, "draining output buffer %zu, time = %lld us, size = %zu", output->mIndex,
            wide(output->mTimeUs), output->mSize);
    ++mOutputFrameCount;
    mOutputBytes += static_cast<int64_t>(output->mSize);
    output->mBuffer = kBufferChecks.bufferAt(mAudioEncoder.mOutBuffers, output->mIndex);

    const bool last = (output->mFlags & kFlagEOS) != 0;
    if (!last) {
        if (mSource->pushEncodedBuffer(output) == BAD_VALUE) {
            EncoderThreadControl::reportFailure(*this);
        }
    } else if (output->mSize != 0 && output->mTimeUs >= 1) {
        QM_LOGD(kTag, "frame with eos");
        if (mSource->pushEncodedBuffer(output) == BAD_VALUE) {
            EncoderThreadControl::reportFailure(*this);
        }
    }
    const status_t err = codec->releaseOutputBuffer(output->mIndex);
    if (err != OK) {
        QM_LOGV(kTag, "releaseOutputBuffer Frame index[%zu]:[Err:%d]", output->mIndex, err);
    }
    if (!last) return Next::kGoOn;

    QM_LOGV(kTag, "reached EOS on output. : %lld", wide(mOutputFrameCount));
    mOutputEOS = true;
    mSource->setCodecStopped();
    mExitRequested = true;
    return Next::kEnd;
}

void TAudioSource::MediaEncoderThread::stopEncoder() { EncoderThreadControl::stopEncoder(*this); }
void TAudioSource::MediaEncoderThread::requestExit() { EncoderThreadControl::requestExit(*this); }
void TAudioSource::MediaEncoderThread::pause() { EncoderThreadControl::pause(*this); }
void TAudioSource::MediaEncoderThread::resume() { EncoderThreadControl::resume(*this); }
void TAudioSource::MediaEncoderThread::wake() { EncoderThreadControl::wake(*this); }
void TAudioSource::MediaEncoderThread::pauseInternal(int64_t timeUs) {
    EncoderThreadControl::pauseInternal(*this, timeUs);
}

void TAudioSource::MediaEncoderThread::startOutputPortThread() {
    EncoderThreadControl::startDetached(*this, &mOutputThread, outputThreadWrapper);
}

void* TAudioSource::MediaEncoderThread::outputThreadWrapper(void* self) {
    return EncoderThreadControl::runDetached(self, &MediaEncoderThread::outputThreadEntry);
}

void* TAudioSource::MediaEncoderThread::outputThreadEntry() {
    EncoderThreadControl::outputThreadEntry<MediaEncoderThread>();
    return nullptr;
}

}  // namespace qmmediaeditor
}  // namespace android
