// What the audio and the video encoder thread have in common: setting the encoder up and taking it
// down, the input port's thread, the pause flags.
#pragma once

#include <Log.h>
#include <PortLatch.h>
#include <Shared.h>
#include <TranscodeErrors.h>
#include <TranscodeTypes.h>
#include <media/stagefright/MediaCodec.h>
#include <pthread.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/Vector.h>

namespace android {
namespace qmmediaeditor {

// An encoder and its buffers. mCodec is replaced under the thread's pause lock; the input port
// reads mInBuffers and the output loop mOutBuffers without one, since each is then alone with its
// array.
struct EncoderCodec {
    sp<MediaCodec> mCodec;
    Vector<sp<MediaCodecBuffer>> mInBuffers;
    Vector<sp<MediaCodecBuffer>> mOutBuffers;
};

// The operations work on the members of the two MediaEncoderThread classes. EncoderThread::kTag is
// the log tag, pauseLock() the mutex of the pause flags, encoder() the EncoderCodec.
struct EncoderThreadControl {
    // How long teardown waits for a port; it ends with the dequeue that it is in.
    static constexpr nsecs_t kPortEndBound = seconds_to_nanoseconds(3);

    // Creates the encoder on a looper of its own and configures it. False, with the reason in the
    // log, when that is not possible; the codec is then released.
    template <class EncoderThread>
    static bool configure(EncoderThread& t, const char* looperName, const char* createMessage,
                          const sp<AMessage>& format) {
        t.mLooper = new ALooper;
        t.mLooper->setName(looperName);
        t.mLooper->start(false, false, 0);

        AString mime;
        format->findString("mime", &mime);
        QM_LOGV(EncoderThread::kTag, "Encoder : %s", format->debugString().c_str());
        QM_LOGV(EncoderThread::kTag, "%s", createMessage);
        sp<MediaCodec>& codec = t.encoder().mCodec;
        codec = MediaCodec::CreateByType(t.mLooper, mime, true, nullptr, MediaCodec::kNoPid,
                                         MediaCodec::kNoUid);
        if (codec == nullptr) {
            QM_LOGE(EncoderThread::kTag, "ERROR: unable to create %s codec instance\n",
                    mime.c_str());
            return false;
        }
        const status_t err =
            codec->configure(format, nullptr, nullptr, MediaCodec::CONFIGURE_FLAG_ENCODE);
        if (err != OK) {
            QM_LOGE(EncoderThread::kTag, "ERROR: unable to configure codec (err=%d)\n", err);
            codec->release();
            return false;
        }
        return true;
    }

    template <class EncoderThread>
    static bool start(EncoderThread& t) {
        QM_LOGV(EncoderThread::kTag, "Starting codec");
        const sp<MediaCodec>& codec = t.encoder().mCodec;
        const status_t err = codec->start();
        if (err != OK) {
            QM_LOGE(EncoderThread::kTag, "ERROR: unable to start codec (err=%d)\n", err);
            codec->release();
            return false;
        }
        return true;
    }

    // Each port works on a reference of its own, since stopping the encoder drops the thread's.
    // Null once it was stopped.
    template <class EncoderThread>
    static sp<MediaCodec> codec(EncoderThread& t) {
        Mutex::Autolock guard(t.pauseLock());
        return t.encoder().mCodec;
    }

    // A detached thread holds the object that it works for; the object holds the source.
    template <class EncoderThread>
    static void startInputPort(EncoderThread& t) {
        QM_LOGV(EncoderThread::kTag, "startInputPortThread start");
        if (!startDetached(t, &t.mInputThread, EncoderThread::inputThreadWrapper)) {
            t.mSource->reportFailure(kNoThread);
        }
        QM_LOGV(EncoderThread::kTag, "startInputPortThread end");
    }

    template <class EncoderThread>
    static bool startOutputLoop(EncoderThread& t, const char* name) {
        if (t.run(name, ANDROID_PRIORITY_AUDIO, 0) == OK) return true;
        t.mSource->reportFailure(kNoThread);
        return false;
    }

    template <class EncoderThread>
    static bool startDetached(EncoderThread& t, pthread_t* handle, void* (*entry)(void*)) {
        t.mPorts->enter();
        t.incStrong(&t);
        if (createDetachedThread(handle, entry, &t)) return true;
        QM_LOGE(EncoderThread::kTag, "ERROR: unable to create a port's thread");
        t.decStrong(&t);
        t.mPorts->leave();
        return false;
    }

    // The body of a detached thread: `port` is the operation that it runs.
    template <class EncoderThread>
    static void* runDetached(void* argument, void* (EncoderThread::*port)()) {
        auto* t = static_cast<EncoderThread*>(argument);
        const std::shared_ptr<PortLatch> ports = t->mPorts;
        (t->*port)();
        // The reference goes first: after a wait for the latch, no port holds one.
        t->decStrong(t);
        ports->leave();
        return nullptr;
    }

    // The input port: feeds the encoder until the track ends; once the source is stopped it tells
    // the encoder the end.
    template <class EncoderThread>
    static void runInputPort(EncoderThread& t) {
        using Next = typename EncoderThread::Next;
        QM_LOGV(EncoderThread::kTag, "inputThreadEntry start");
        const sp<MediaCodec> codec = EncoderThreadControl::codec(t);
        TDecodedSample input;
        Next next = codec == nullptr || t.mExitRequested ? Next::kEnd : Next::kGoOn;
        while (next == Next::kGoOn) {
            if (!t.mSource->mCodecStopped) {
                next = t.feedEncoder(codec, &input);
            } else if (!t.mInputEOS) {
                next = t.signalInputEOS(codec);
            }
            if (t.mExitRequested) next = Next::kEnd;
        }
        QM_LOGV(EncoderThread::kTag, "inputThreadEntry end");
    }

    // The input port's last act. An encoder that refuses the end fails: it would never say that its
    // output has ended.
    template <class EncoderThread>
    static typename EncoderThread::Next queueEOS(EncoderThread& t, const sp<MediaCodec>& codec,
                                                 size_t index) {
        const status_t err =
            codec->queueInputBuffer(index, 0, 0, 0, MediaCodec::BUFFER_FLAG_EOS, nullptr);
        if (err == OK) {
            t.mInputEOS = true;
        } else {
            QM_LOGW(EncoderThread::kTag, "thread stop by error[%d]", err);
            reportFailure(t);
        }
        return EncoderThread::Next::kEnd;
    }

    template <class EncoderThread>
    static void stopEncoder(EncoderThread& t) {
        QM_LOGV(EncoderThread::kTag, "call stopEncoder start");
        t.mExitRequested = true;
        sp<MediaCodec> codec;
        {
            Mutex::Autolock guard(t.pauseLock());
            codec = t.encoder().mCodec;
            t.encoder().mCodec.clear();
        }
        if (codec != nullptr) {
            codec->stop();
            codec->release();
            t.mLooper->stop();
        }
        QM_LOGV(EncoderThread::kTag, "call stopEncoder end");
    }

    // An encoder that fails while it is wanted ends the run. One that was told to stop may say
    // anything.
    template <class EncoderThread>
    static void reportFailure(EncoderThread& t) {
        if (!t.mExitRequested && !t.mSource->mCodecStopped) t.mSource->reportFailure(kEncoderError);
    }

    // The source's last words to its thread: both ports are gone, or the bound has passed, when it
    // returns. The platform's thread may hold the object a moment longer; the source is let go now.
    template <class EncoderThread>
    static void retire(sp<EncoderThread>& t) {
        if (t == nullptr) return;
        t->requestExit();
        if (t->mExitRequested && t->mPorts->waitIdle(kPortEndBound)) t->mSource.clear();
        t.clear();
    }

    template <class EncoderThread>
    static void pause(EncoderThread& t) {
        Mutex::Autolock guard(t.pauseLock());
        t.mPaused = true;
    }

    template <class EncoderThread>
    static void pauseInternal(EncoderThread& t, int64_t timeUs) {
        Mutex::Autolock guard(t.pauseLock());
        t.mPauseTimeUs = timeUs;
        t.mPausedInternal = true;
    }

    template <class EncoderThread>
    static void resume(EncoderThread& t) {
        Mutex::Autolock guard(t.pauseLock());
        t.mWakeRequested = true;
        if (t.mPaused || t.mPausedInternal) {
            t.mPaused = false;
            t.mPausedInternal = false;
            t.mPauseCond.signal();
        }
    }

    template <class EncoderThread>
    static void wake(EncoderThread& t) {
        Mutex::Autolock guard(t.pauseLock());
        if (t.mPaused) return;
        t.mWakeRequested = true;
        if (t.mPausedInternal && t.mPauseTimeUs >= 1) {
            t.mPausedInternal = false;
            t.mPauseCond.signal();
        }
    }

    template <class EncoderThread>
    static void requestExit(EncoderThread& t) {
        QM_LOGV(EncoderThread::kTag, "Call requestExit start");
        t.Thread::requestExit();
        resume(t);
        QM_LOGV(EncoderThread::kTag, "Call requestExit end");
    }

    // The output-port thread exists in the interface; the output loop is the thread object itself.
    template <class EncoderThread>
    static void outputThreadEntry() {
        QM_LOGV(EncoderThread::kTag, "outputThreadEntry start");
        QM_LOGV(EncoderThread::kTag, "outputThreadEntry end");
    }
};

}  // namespace qmmediaeditor
}  // namespace android
