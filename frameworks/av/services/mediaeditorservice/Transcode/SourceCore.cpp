#include <EncoderPump.h>
#include <Log.h>
#include <SourceCore.h>
#include <media/stagefright/MediaCodec.h>
#include <media/stagefright/MediaErrors.h>
#include <string.h>

namespace android {
namespace qmmediaeditor {

namespace {

// A new buffer with the first `size` bytes of `from`'s payload; null when it has fewer.
sp<MediaCodecBuffer> copyOf(const sp<MediaCodecBuffer>& from, size_t size) {
    if (size > from->capacity() - from->offset()) return nullptr;
    sp<ABuffer> bytes = ABuffer::CreateAsCopy(from->data(), size);
    return bytes == nullptr ? nullptr : new MediaCodecBuffer(nullptr, bytes);
}

}  // namespace

SourceCore::SourceCore(const char* tag, SourceMembers& members, bool oneEndMarker)
    : decoded(members.mDecodedLock, members.mDecodedSamples, members.mDecodedAvailableCond,
              members.mDecoderBufferReturnedCond, members.mCodecStopped),
      mTag(tag),
      m(members),
      mOneEndMarker(oneEndMarker),
      mEncoded(m.mEncodedLock, m.mEncodedSamples, m.mFrameAvailableCond, m.mBufferReturnedCond,
               m.mCodecStopped) {}

status_t SourceCore::start() {
    Mutex::Autolock encodedGuard(mEncoded.lock());
    Mutex::Autolock decodedGuard(decoded.lock());
    m.mStarted = true;
    // Both queues may have an early producer.
    m.mStartCond.broadcast();
    return OK;
}

// The wait ends when the source is stopped: mStarted is false again after the end of the track, and
// nobody would set it.
void SourceCore::waitForStart(const char* message) {
    if (m.mStarted || m.mCodecStopped) return;
    QM_LOGV(mTag, "%s", message);
    while (!m.mStarted && !m.mCodecStopped) m.mStartCond.wait(mEncoded.lock());
}

void SourceCore::stop(EncoderPump* encoder) {
    QM_LOGV(mTag, "Call stop function");
    m.mStarted = false;
    if (encoder != nullptr) encoder->stopEncoder();
    markStopped(nullptr);
    if (encoder != nullptr) encoder->pause();
}

// The flag is set under the lock that waitForStart() holds, and each queue is woken under its own.
void SourceCore::markStopped(const char* message) {
    {
        Mutex::Autolock encodedGuard(mEncoded.lock());
        if (message != nullptr) QM_LOGV(mTag, "%s", message);
        m.mCodecStopped = true;
        m.mStartCond.broadcast();
    }
    mEncoded.wakeBoth();
    decoded.wakeBoth();
}

// The failure is stored first: the thread that the stop wakes looks for it.
void SourceCore::reportFailure(int32_t result) {
    mFailure = result;
    setCodecStopped();
}

status_t SourceCore::pushDecoded(const TDecodedSample& sample, bool stopOnEOS, bool hasEncoder,
                                 size_t bound, const char* fullMessage,
                                 const std::function<bool(TDecodedSample*)>& keep) {
    {
        Mutex::Autolock encodedGuard(mEncoded.lock());
        waitForStart("pushBuffer called before start");
    }
    if ((sample.mFlags & MediaCodec::BUFFER_FLAG_EOS) != 0) {
        return pushEndOfStream(sample.mFlags, stopOnEOS, hasEncoder);
    }

    Mutex::Autolock decodedGuard(decoded.lock());
    if (sample.mBuffer == nullptr) {
        QM_LOGE(mTag, "pushDecodedBuffer get an NULL buffer");
        return BAD_VALUE;
    }
    if (m.mCodecStopped) return ERROR_END_OF_STREAM;
    TDecodedSample copy = sample;
    if (!keep(&copy)) return OK;
    copy.mBuffer = copyOf(sample.mBuffer, sample.mSize);
    if (copy.mBuffer == nullptr) return BAD_VALUE;
    const auto onFull = [&](size_t count) { QM_LOGV(mTag, fullMessage, count); };
    decoded.push(copy, hasEncoder ? bound : SIZE_MAX, onFull, mStopTest);
    return OK;
}

status_t SourceCore::pushEndOfStream(uint32_t flags, bool stopOnEOS, bool hasEncoder) {
    QM_LOGV(mTag, "The input source is reached EOS %d", stopOnEOS);
    // Without an encoder nobody would carry the marker to the writer.
    const bool endNow = stopOnEOS || !hasEncoder;
    if (!endNow) {
        Mutex::Autolock decodedGuard(decoded.lock());
        if (!m.mEOSSampleAdded && !m.mCodecStopped) {
            if (mOneEndMarker) QM_LOGV(mTag, "Add EOSInputSample");
            TDecodedSample marker;
            marker.mFlags = flags;
            decoded.pushLast(marker);
        }
    }
    if (mOneEndMarker) m.mEOSSampleAdded = true;
    // Takes the encoded queue's lock, which comes before the decoded queue's.
    if (endNow) setCodecStopped();
    return ERROR_END_OF_STREAM;
}

status_t SourceCore::pushEncoded(const TEncodedSample& sample, size_t bound,
                                 const char* earlyMessage, const char* fullMessage,
                                 const std::function<void(TEncodedSample*)>& stamp) {
    Mutex::Autolock encodedGuard(mEncoded.lock());
    if (!m.mStarted && m.mCodecStopped) return ERROR_END_OF_STREAM;
    waitForStart(earlyMessage);
    if (sample.mBuffer == nullptr) {
        QM_LOGE(mTag, "pushEncodedBuffer get an NULL buffer");
        return BAD_VALUE;
    }
    if (m.mCodecStopped) {
        QM_LOGV(mTag, "enter push encoded buffer in EOS State");
        return ERROR_END_OF_STREAM;
    }
    TEncodedSample copy = sample;
    copy.mBuffer = copyOf(sample.mBuffer, sample.mSize);
    if (copy.mBuffer == nullptr) return BAD_VALUE;
    if (stamp != nullptr) stamp(&copy);
    const auto onFull = [&](size_t count) { QM_LOGV(mTag, fullMessage, count); };
    mEncoded.push(copy, bound, onFull);
    return OK;
}

status_t SourceCore::awaitDecoded(const char* tag, const RelaxedAtomic<bool>& exitRequested) {
    if (m.mCodecStopped) {
        decoded.wakeProducer();
        QM_LOGV(tag, "Decoder is stopped. so Buffer returned Cond");
        m.mStarted = false;
        return ERROR_END_OF_STREAM;
    }
    // Queued samples belong to the encoder that replaces this port's.
    if (exitRequested) return ERROR_END_OF_STREAM;
    if (!decoded.empty()) return OK;

    decoded.wakeProducer();
    QM_LOGV(tag, "waiting @ Decoded data read()");
    decoded.awaitOnce();
    if (exitRequested) return ERROR_END_OF_STREAM;
    if (decoded.empty()) {
        QM_LOGV(tag, "decoded data read timeout");
        return kNoDecodedData;
    }
    if (m.mCodecStopped) {
        decoded.wakeProducer();
        return ERROR_END_OF_STREAM;
    }
    return OK;
}

status_t SourceCore::read(MediaBufferBase** out,
                          const std::function<void(const TEncodedSample&, MetaDataBase&)>& stamp) {
    Mutex::Autolock encodedGuard(mEncoded.lock());
    if (m.mCodecStopped) {
        mEncoded.wakeProducer();
        QM_LOGV(mTag, "Decoder is stopped. so Buffer returned Cond %d",
                static_cast<int>(mEncoded.size()));
        if (mEncoded.empty()) {
            QM_LOGD(mTag, "eos---");
            m.mStarted = false;
            return ERROR_END_OF_STREAM;
        }
    } else if (mEncoded.empty()) {
        QM_LOGV(mTag, "waiting @ read()");
        mEncoded.await();
        if (mEncoded.empty()) {
            mEncoded.wakeProducer();
            QM_LOGV(mTag, "Decoder is stopped. so Buffer returned Cond");
            return ERROR_END_OF_STREAM;
        }
    }

    const TEncodedSample sample = mEncoded.pop();
    if (m.mGroup == nullptr) {
        QM_LOGE(mTag, "MediaBufferGroup is null");
        return ERROR_END_OF_STREAM;
    }
    const status_t err = acquireBuffer(out, sample.mSize);
    if (err != OK) {
        mEncoded.wakeProducer();
        QM_LOGE(mTag, "Error was returned:[%d]", err);
        return err;
    }
    memcpy((*out)->data(), sample.mBuffer->data(), sample.mSize);
    (*out)->set_range(0, sample.mSize);
    (*out)->meta_data().clear();
    stamp(sample, (*out)->meta_data());
    return OK;
}

// The pool's buffer has the size that a sample usually stays below; a larger sample gets a larger
// one.
status_t SourceCore::acquireBuffer(MediaBufferBase** out, size_t bytes) {
    const status_t err = m.mGroup->acquire_buffer(out, false, 0);
    if (err != OK || (*out)->size() >= bytes) return err;
    (*out)->release();
    return m.mGroup->acquire_buffer(out, false, bytes);
}

void SourceCore::signalBufferReturned(MediaBufferBase* buffer) {
    Mutex::Autolock encodedGuard(mEncoded.lock());
    QM_LOGV(mTag, "buffer returned %p", static_cast<void*>(buffer));
}

status_t SourceCore::makePool(int64_t bytes) {
    Mutex::Autolock encodedGuard(mEncoded.lock());
    if (m.mGroup != nullptr) {
        // Taking the only buffer waits until the writer has released it.
        MediaBufferBase* buffer = nullptr;
        if (m.mGroup->acquire_buffer(&buffer) == OK) buffer->release();
        delete m.mGroup;
        m.mGroup = nullptr;
    }
    MediaBufferBase* buffer =
        bytes < 1 ? nullptr : MediaBufferBase::Create(static_cast<size_t>(bytes));
    if (buffer == nullptr) {
        QM_LOGE(mTag, "MediaBufferBase create is null");
        return kSourceNotEnabled;
    }
    m.mGroup = new MediaBufferGroup;
    m.mGroup->add_buffer(buffer);
    return OK;
}

}  // namespace qmmediaeditor
}  // namespace android
