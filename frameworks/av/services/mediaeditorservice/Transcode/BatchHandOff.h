// The hand-off between threads that both sources use, in both directions.
//
// A queue moves in batches: the producer fills it, wakes the consumer only when more than the bound
// wait, and sleeps until the consumer has emptied it. So either side runs for a whole batch without
// a switch.
//
// Whoever sleeps here is woken by the other side, or by stopping the source, which signals every
// condition under the mutex of its waiters. The session itself stops by a flag that wakes nobody:
// its own thread, asleep behind a codec that stalls, looks at the flag now and then. A wait that is
// woken with nothing to do waits again; only the reader of decoded samples reports an empty
// wake-up, since its caller has a rule for that.
//
// Lock order: mEncodedLock before mDecodedLock. mStarted is set under both and waited for under
// mEncodedLock.
#pragma once

#include <Log.h>
#include <Shared.h>
#include <TSourceBase.h>
#include <media/stagefright/MediaBufferGroup.h>
#include <media/stagefright/MediaErrors.h>
#include <string.h>
#include <utils/Condition.h>
#include <utils/List.h>
#include <utils/Mutex.h>

namespace android {
namespace qmmediaeditor {

// The operations work on the members of TAudioSource and TVideoSource, which have the same names in
// both. Source::kTag is the log tag.
struct BatchHandOff {
    static constexpr status_t kNoDecodedData = -1018;
    // How late a sleeping producer sees a stop that wakes nobody.
    static constexpr nsecs_t kStopPollNs = milliseconds_to_nanoseconds(50);

    template <class Source>
    static status_t start(Source& s) {
        Mutex::Autolock encoded(s.mEncodedLock);
        Mutex::Autolock decoded(s.mDecodedLock);
        s.mStarted = true;
        // Both queues may have an early producer.
        s.mStartCond.broadcast();
        return OK;
    }

    // Sleeps until the source is started. A stopped source is not waited for: an ended one has
    // mStarted cleared again, and nobody would start it.
    template <class Source>
    static void waitForStart(Source& s, const char* message) REQUIRES(s.mEncodedLock) {
        if (s.mStarted || s.mCodecStopped) return;
        QM_LOGV(Source::kTag, "%s", message);
        while (!s.mStarted && !s.mCodecStopped) s.mStartCond.wait(s.mEncodedLock);
    }

    template <class Source>
    static void setCodecStopped(Source& s) EXCLUDES(s.mEncodedLock, s.mDecodedLock) {
        {
            Mutex::Autolock encoded(s.mEncodedLock);
            QM_LOGV(Source::kTag, "setCodecStopped");
            s.mCodecStopped = true;
            wakeEncodedSide(s);
        }
        wakeDecodedSide(s);
    }

    // The part of stop() between its two messages.
    template <class Source>
    static void stop(Source& s) EXCLUDES(s.mEncodedLock, s.mDecodedLock) {
        s.mStarted = false;
        if (s.mMediaEncoderThread != nullptr) s.mMediaEncoderThread->stopEncoder();
        {
            Mutex::Autolock encoded(s.mEncodedLock);
            s.mCodecStopped = true;
            wakeEncodedSide(s);
        }
        wakeDecodedSide(s);
        if (s.mMediaEncoderThread != nullptr) s.mMediaEncoderThread->pause();
    }

    template <class Source>
    static void wakeDecodedSide(Source& s) EXCLUDES(s.mDecodedLock) {
        Mutex::Autolock decoded(s.mDecodedLock);
        s.mDecodedAvailableCond.broadcast();
        s.mDecoderBufferReturnedCond.broadcast();
    }

    // For an output loop that ends: whoever waits in read() looks at the source again.
    template <class Source>
    static void wakeReader(Source& s) EXCLUDES(s.mEncodedLock) {
        Mutex::Autolock encoded(s.mEncodedLock);
        s.mFrameAvailableCond.signal();
    }

    // After `queue` has grown: hands a full batch over and sleeps until it is gone or `stopped()`.
    // `full` logs the count.
    template <typename Sample, typename Stopped, typename Full>
    static void handOver(Mutex& lock, const List<Sample>& queue, size_t bound, Condition& available,
                         Condition& returned, const Stopped& stopped, const Full& full)
        REQUIRES(lock) {
        const size_t count = queue.size();
        if (count <= bound) return;
        available.signal();
        full(count);
        while (!queue.empty() && !stopped()) returned.waitRelative(lock, kStopPollNs);
    }

    // For handOver() on the session's thread, which must hear of a stop of the session and of a
    // failure of the other source as well.
    template <class Source>
    static bool stopWanted(const Source& s) {
        return s.mCodecStopped || (s.mStopTest && s.mStopTest());
    }

    // For an input port: OK when a decoded sample waits, -1011 when the source is stopped, and
    // kNoDecodedData after a wake-up with nothing queued, which is reported and not waited out.
    template <class Source>
    static status_t awaitDecoded(Source& s, const char* tag) REQUIRES(s.mDecodedLock) {
        if (s.mCodecStopped) {
            s.mDecoderBufferReturnedCond.signal();
            QM_LOGV(tag, "Decoder is stopped. so Buffer returned Cond");
            s.mStarted = false;
            return ERROR_END_OF_STREAM;
        }
        if (!s.mDecodedSamples.empty()) return OK;

        s.mDecoderBufferReturnedCond.signal();
        QM_LOGV(tag, "waiting @ Decoded data read()");
        s.mDecodedAvailableCond.wait(s.mDecodedLock);
        if (s.mDecodedSamples.empty()) {
            QM_LOGV(tag, "decoded data read timeout");
            return kNoDecodedData;
        }
        if (s.mCodecStopped) {
            s.mDecoderBufferReturnedCond.signal();
            return ERROR_END_OF_STREAM;
        }
        return OK;
    }

    // Deletes the pool once the writer holds none of its buffers: taking the one that it has waits
    // for that.
    static void dropPool(MediaBufferGroup*& group) {
        if (group == nullptr) return;
        MediaBufferBase* buffer = nullptr;
        if (group->acquire_buffer(&buffer) == OK) buffer->release();
        delete group;
        group = nullptr;
    }

    // A buffer of its own with the first `size` bytes of `from`'s payload; null when they are not
    // there.
    static sp<MediaCodecBuffer> copyOf(const sp<MediaCodecBuffer>& from, size_t size) {
        if (size > from->capacity() - from->offset()) return nullptr;
        sp<ABuffer> bytes = ABuffer::CreateAsCopy(from->data(), size);
        return bytes == nullptr ? nullptr : new MediaCodecBuffer(nullptr, bytes);
    }

    // `stamp(sample, meta)` writes the metadata of the writer's buffer.
    template <class Source, typename Stamp>
    static status_t read(Source& s, MediaBufferBase** out, const Stamp& stamp) {
        Mutex::Autolock encoded(s.mEncodedLock);
        if (s.mCodecStopped) {
            s.mBufferReturnedCond.signal();
            QM_LOGV(Source::kTag, "Decoder is stopped. so Buffer returned Cond %d",
                    static_cast<int>(s.mEncodedSamples.size()));
            if (s.mEncodedSamples.empty()) {
                QM_LOGD(Source::kTag, "eos---");
                s.mStarted = false;
                return ERROR_END_OF_STREAM;
            }
        } else if (s.mEncodedSamples.empty()) {
            QM_LOGV(Source::kTag, "waiting @ read()");
            while (s.mEncodedSamples.empty() && !s.mCodecStopped) {
                s.mFrameAvailableCond.wait(s.mEncodedLock);
            }
            if (s.mEncodedSamples.empty()) {
                s.mBufferReturnedCond.signal();
                QM_LOGV(Source::kTag, "Decoder is stopped. so Buffer returned Cond");
                return ERROR_END_OF_STREAM;
            }
        }

        const TEncodedSample sample = *s.mEncodedSamples.begin();
        s.mEncodedSamples.erase(s.mEncodedSamples.begin());
        if (s.mGroup == nullptr) {
            QM_LOGE(Source::kTag, "MediaBufferGroup is null");
            return ERROR_END_OF_STREAM;
        }
        const status_t err = acquire(*s.mGroup, out, sample.mSize);
        if (err != OK) {
            s.mBufferReturnedCond.signal();
            QM_LOGE(Source::kTag, "Error was returned:[%d]", err);
            return err;
        }
        memcpy((*out)->data(), sample.mBuffer->data(), sample.mSize);
        (*out)->set_range(0, sample.mSize);
        (*out)->meta_data().clear();
        stamp(sample, (*out)->meta_data());
        if (s.mEncodedSamples.empty()) s.mBufferReturnedCond.signal();
        return OK;
    }

private:
    template <class Source>
    static void wakeEncodedSide(Source& s) REQUIRES(s.mEncodedLock) {
        s.mStartCond.broadcast();
        s.mFrameAvailableCond.broadcast();
        s.mBufferReturnedCond.broadcast();
    }

    // The pool's buffer has the size that a sample usually stays below; a larger sample gets a
    // larger one.
    static status_t acquire(MediaBufferGroup& group, MediaBufferBase** out, size_t size) {
        status_t err = group.acquire_buffer(out, false, 0);
        if (err != OK || (*out)->size() >= size) return err;
        (*out)->release();
        return group.acquire_buffer(out, false, size);
    }
};

}  // namespace qmmediaeditor
}  // namespace android
