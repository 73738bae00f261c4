#include <EncoderPump.h>
#include <Log.h>
#include <Platform.h>
#include <media/stagefright/MediaErrors.h>

namespace android {
namespace qmmediaeditor {

EncoderPump::EncoderPump(const Kind& kind, const Owner& owner, SourceCore& source,
                         const Steps& steps)
    : mKind(kind), mOwner(owner), m(owner.members), mSource(source), mSteps(steps) {}

bool EncoderPump::setUp(const sp<AMessage>& format, const std::function<bool()>& prepare) {
    mPlatform = Platform::current();
    m.mLooper = new ALooper;
    m.mLooper->setName(mKind.looperName);
    m.mLooper->start(false, false, 0);

    AString mime;
    format->findString("mime", &mime);
    QM_LOGV(mKind.tag, "Encoder : %s", format->debugString().c_str());
    QM_LOGV(mKind.tag, "%s", mKind.createMessage);
    sp<MediaCodec>& codec = mOwner.encoder.mCodec;
    codec = MediaCodec::CreateByType(m.mLooper, mime, true, nullptr, MediaCodec::kNoPid,
                                     MediaCodec::kNoUid);
    if (codec == nullptr) {
        QM_LOGE(mKind.tag, "ERROR: unable to create %s codec instance\n", mime.c_str());
        return false;
    }
    status_t err = codec->configure(format, nullptr, nullptr, MediaCodec::CONFIGURE_FLAG_ENCODE);
    if (err != OK) {
        QM_LOGE(mKind.tag, "ERROR: unable to configure codec (err=%d)\n", err);
        codec->release();
        return false;
    }
    if (prepare != nullptr && !prepare()) {
        codec->release();
        return false;
    }
    QM_LOGV(mKind.tag, "Starting codec");
    err = codec->start();
    if (err != OK) {
        QM_LOGE(mKind.tag, "ERROR: unable to start codec (err=%d)\n", err);
        codec->release();
        return false;
    }
    checkEqual(mKind.inputBuffers, OK, codec->getInputBuffers(&mOwner.encoder.mInBuffers));
    checkEqual(mKind.outputBuffers, OK, codec->getOutputBuffers(&mOwner.encoder.mOutBuffers));
    QM_LOGV(mKind.tag, "Encoder got %zu input and %zu output buffers",
            mOwner.encoder.mInBuffers.size(), mOwner.encoder.mOutBuffers.size());
    return true;
}

void EncoderPump::startInputPort(void* (*entry)(void*), void* argument) {
    QM_LOGV(mKind.tag, "startInputPortThread start");
    if (!startDetached(&m.mInputThread, entry, argument)) mSource.reportFailure(kNoThread);
    QM_LOGV(mKind.tag, "startInputPortThread end");
}

status_t EncoderPump::startOutputLoop(bool valid) {
    if (valid) {
        if (mOwner.thread.run(mKind.sourceTag, ANDROID_PRIORITY_AUDIO, 0) == OK) return OK;
        mSource.reportFailure(kNoThread);
    }
    QM_LOGE(mKind.sourceTag, "MediaEncoderThread error");
    return kSourceNotEnabled;
}

bool EncoderPump::startDetached(pthread_t* thread, void* (*entry)(void*), void* argument) {
    mPorts->enter();
    mOwner.thread.incStrong(this);
    if (createDetachedThread(thread, entry, argument)) return true;
    QM_LOGE(mKind.tag, "ERROR: unable to create a port's thread");
    mOwner.thread.decStrong(this);
    mPorts->leave();
    return false;
}

void* EncoderPump::runDetached(void* (EncoderPump::*port)()) {
    const std::shared_ptr<WaitGroup> ports = mPorts;
    {
        const Platform::Scope scope(mPlatform);
        (this->*port)();
    }
    // The reference is dropped before leave(), so that no port holds one once waitIdle() returned.
    mOwner.thread.decStrong(this);
    ports->leave();
    return nullptr;
}

void* EncoderPump::runInputPort() {
    QM_LOGV(mKind.tag, "inputThreadEntry start");
    const sp<MediaCodec> encoder = codec();
    TDecodedSample record;
    Next next = encoder == nullptr || m.mExitRequested ? Next::kEnd : Next::kGoOn;
    while (next == Next::kGoOn) {
        if (!mSource.isStopped()) {
            next = feedEncoder(encoder, &record);
        } else if (!m.mInputEOS) {
            next = signalInputEOS(encoder);
        }
        if (m.mExitRequested) next = Next::kEnd;
    }
    QM_LOGV(mKind.tag, "inputThreadEntry end");
    return nullptr;
}

Next EncoderPump::feedEncoder(const sp<MediaCodec>& encoder, TDecodedSample* record) {
    if (m.mInputEOS) {
        QM_LOGV(mKind.tag, "%s", mKind.inputEndMessage);
        return Next::kEnd;
    }
    size_t index = 0;
    const status_t err = encoder->dequeueInputBuffer(&index, mOwner.timeoutUs);
    const Next next = mSteps.dequeuedInput(err, index);
    return err == OK && next == Next::kGoOn ? fillInput(encoder, index, record) : next;
}

Next EncoderPump::fillInput(const sp<MediaCodec>& encoder, size_t index, TDecodedSample* record) {
    record->mBuffer = bufferAt(mKind.sourceTag, mOwner.encoder.mInBuffers, index);
    const status_t result = mSteps.readDecoded(*record);
    if (mSource.isStopped()) {
        QM_LOGV(mKind.tag, "the codec was stopped");
        return Next::kEnd;
    }
    if (m.mExitRequested) return Next::kEnd;
    if (result == ERROR_END_OF_STREAM) return queueEOS(encoder, index);
    // Without a sample that cannot be converted or does not fit, an incomplete file would be
    // reported as complete. After kNoDecodedData the record still has the size and timestamp of the
    // previous sample; it is queued with these.
    const bool fits = record->mSize <= record->mBuffer->capacity();
    if ((result != OK && result != kNoDecodedData) || !fits) return fail();

    const status_t err =
        encoder->queueInputBuffer(index, 0, record->mSize, record->mPresentationTimeUs,
                                  mKind.queuesFlags ? record->mFlags : 0, nullptr);
    if (err == OK) return Next::kGoOn;
    QM_LOGW(mKind.tag, "thread stop by error[%d]", err);
    return fail();
}

Next EncoderPump::signalInputEOS(const sp<MediaCodec>& encoder) {
    size_t index = 0;
    if (encoder->dequeueInputBuffer(&index, mOwner.timeoutUs) == OK) {
        QM_LOGV(mKind.tag, "signalling input EOS");
        return queueEOS(encoder, index);
    }
    QM_LOGD(mKind.tag, "EOS input thread forced stop by others");
    return Next::kEnd;
}

// Queues the end of stream, which ends the input port. An encoder that refuses it has failed,
// because it would never deliver the end of its output.
Next EncoderPump::queueEOS(const sp<MediaCodec>& encoder, size_t index) {
    const status_t err =
        encoder->queueInputBuffer(index, 0, 0, 0, MediaCodec::BUFFER_FLAG_EOS, nullptr);
    if (err != OK) {
        QM_LOGW(mKind.tag, "thread stop by error[%d]", err);
        return fail();
    }
    m.mInputEOS = true;
    return Next::kEnd;
}

bool EncoderPump::runOutputLoop() {
    QM_LOGV(mKind.tag, "Call threadLoop start");
    const std::shared_ptr<WaitGroup> ports = mPorts;
    ports->enter();
    sp<MediaCodec> encoder = codec();
    Next next = encoder == nullptr || m.mExitRequested ? Next::kEnd : Next::kGoOn;
    while (next == Next::kGoOn) {
        next = mSteps.drain(encoder);
        if (m.mExitRequested) next = Next::kEnd;
    }
    encoder.clear();
    QM_LOGV(mKind.tag, "Call threadLoop End");
    ports->leave();
    return false;
}

// Codec-specific data reaches the writer as a buffer; nothing else of a new format is needed.
bool EncoderPump::handleChange(const sp<MediaCodec>& encoder, status_t result) {
    if (result == INFO_OUTPUT_BUFFERS_CHANGED) {
        QM_LOGV(mKind.tag, "INFO_OUTPUT_BUFFERS_CHANGED");
        checkEqual(mKind.newOutputBuffers, OK,
                   encoder->getOutputBuffers(&mOwner.encoder.mOutBuffers));
        QM_LOGV(mKind.tag, "got %zu output buffers", mOwner.encoder.mOutBuffers.size());
        return true;
    }
    if (result != INFO_FORMAT_CHANGED) return false;
    sp<AMessage> format;
    checkEqual(mKind.newFormat, OK, encoder->getOutputFormat(&format));
    return true;
}

void EncoderPump::takeOutput(TEncodedSample* output) {
    ++mOwner.frameCount;
    mOwner.byteCount += static_cast<int64_t>(output->mSize);
    output->mBuffer = bufferAt(mKind.sourceTag, mOwner.encoder.mOutBuffers, output->mIndex);
}

void EncoderPump::endOutput() {
    QM_LOGV(mKind.tag, "reached EOS on output. : %lld", wide(mOwner.frameCount));
    m.mOutputEOS = true;
    mSource.setCodecStopped();
    m.mExitRequested = true;
}

Next EncoderPump::endStoppedOutput() {
    QM_LOGD(mKind.tag, "output buffer wa forced stop by others");
    m.mExitRequested = true;
    mSource.wakeReader();
    return Next::kEnd;
}

Next EncoderPump::fail() {
    if (!m.mExitRequested && !mSource.isStopped()) mSource.reportFailure(kEncoderError);
    return Next::kEnd;
}

void EncoderPump::stopEncoder() {
    QM_LOGV(mKind.tag, "call stopEncoder start");
    m.mExitRequested = true;
    sp<MediaCodec> encoder;
    {
        Mutex::Autolock guard(mOwner.pauseLock);
        encoder = mOwner.encoder.mCodec;
        mOwner.encoder.mCodec.clear();
    }
    if (encoder != nullptr) {
        encoder->stop();
        encoder->release();
        m.mLooper->stop();
    }
    // The input port may be waiting for samples, and must see mExitRequested.
    mSource.decoded.wakeBoth();
    QM_LOGV(mKind.tag, "call stopEncoder end");
}

// Waits for the ports only: the platform's Thread may hold a reference to the encoder thread for a
// moment after both ports have ended.
bool EncoderPump::retire() {
    mOwner.thread.requestExit();
    return m.mExitRequested && mPorts->waitIdle(kPortEndBoundNs);
}

sp<MediaCodec> EncoderPump::codec() const {
    Mutex::Autolock guard(mOwner.pauseLock);
    return mOwner.encoder.mCodec;
}

void EncoderPump::requestExit() {
    QM_LOGV(mKind.tag, "Call requestExit start");
    mOwner.thread.Thread::requestExit();
    resume();
    QM_LOGV(mKind.tag, "Call requestExit end");
}

void EncoderPump::pause() {
    Mutex::Autolock guard(mOwner.pauseLock);
    m.mPaused = true;
}

void EncoderPump::pauseInternal(int64_t timeUs) {
    Mutex::Autolock guard(mOwner.pauseLock);
    m.mPauseTimeUs = timeUs;
    m.mPausedInternal = true;
}

void EncoderPump::resume() {
    Mutex::Autolock guard(mOwner.pauseLock);
    m.mWakeRequested = true;
    if (!m.mPaused && !m.mPausedInternal) return;
    m.mPaused = false;
    m.mPausedInternal = false;
    m.mPauseCond.signal();
}

void EncoderPump::wake() {
    Mutex::Autolock guard(mOwner.pauseLock);
    if (m.mPaused) return;
    m.mWakeRequested = true;
    if (!m.mPausedInternal || m.mPauseTimeUs < 1) return;
    m.mPausedInternal = false;
    m.mPauseCond.signal();
}

// A separate output-port thread is part of the interface only. It has nothing to do, because the
// encoder thread itself runs the output loop.
void* EncoderPump::outputThreadEntry() {
    QM_LOGV(mKind.tag, "outputThreadEntry start");
    QM_LOGV(mKind.tag, "outputThreadEntry end");
    return nullptr;
}

}  // namespace qmmediaeditor
}  // namespace android
