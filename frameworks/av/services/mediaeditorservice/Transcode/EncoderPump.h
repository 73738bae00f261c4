// The code behind both encoder threads: sets an encoder up and takes it down, and runs its two
// ports.
//
// The input port is a detached thread that takes decoded samples from the source and queues them to
// the encoder. The output loop is the platform thread of the MediaEncoderThread that the pump
// belongs to; it hands the encoder's output to the source.
#pragma once

#include <FatalChecks.h>
#include <RelaxedAtomic.h>
#include <SourceCore.h>
#include <WaitGroup.h>
#include <media/stagefright/MediaCodec.h>
#include <media/stagefright/foundation/ALooper.h>
#include <pthread.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/Thread.h>
#include <utils/Vector.h>

#include <functional>
#include <memory>

namespace android {
namespace qmmediaeditor {

class Platform;

// An encoder and its buffers. mCodec is replaced under the thread's pause lock; the input port
// reads mInBuffers and the output loop mOutBuffers without one, since each is then alone with its
// array.
struct EncoderCodec {
    sp<MediaCodec> mCodec;
    Vector<sp<MediaCodecBuffer>> mInBuffers;
    Vector<sp<MediaCodecBuffer>> mOutBuffers;
};

// The members that both encoder threads have under the same names. The first five are under the
// thread's pause lock.
struct EncoderThreadMembers {
    Condition mPauseCond;
    bool mPaused = true;
    bool mPausedInternal = false;
    int64_t mPauseTimeUs = 0;
    bool mWakeRequested = false;
    RelaxedAtomic<bool> mExitRequested{false};  // written by any thread, polled by both ports
    bool mValid = false;
    RelaxedAtomic<bool> mInputEOS{false};   // written by the input port
    RelaxedAtomic<bool> mOutputEOS{false};  // written by the output loop
    sp<ALooper> mLooper;
    pthread_t mInputThread = 0;
    pthread_t mOutputThread = 0;
};

// The result of one pass of a port.
enum class Next { kGoOn, kEnd };

class EncoderPump {
public:
    // How long teardown waits for the ports: longer than the dequeue that each may be in.
    static constexpr nsecs_t kPortEndBoundNs = seconds_to_nanoseconds(3);

    // The differences between audio and video besides the conversion of a sample.
    struct Kind {
        const char* tag;        // of the encoder thread's log
        const char* sourceTag;  // of the source's log
        const char* looperName;
        const char* createMessage;
        const char* inputEndMessage;
        bool queuesFlags;  // an input buffer carries its sample's flags
        const FatalCheck& inputBuffers;
        const FatalCheck& outputBuffers;
        const FatalCheck& newOutputBuffers;
        const FatalCheck& newFormat;
    };

    // The encoder thread and its members that have names of their own.
    struct Owner {
        Thread& thread;
        EncoderThreadMembers& members;
        Mutex& pauseLock;
        EncoderCodec& encoder;
        int64_t& frameCount;  // of the output
        int64_t& byteCount;
        const int64_t& timeoutUs;  // of every dequeue
    };

    // The steps that differ between the encoder threads.
    struct Steps {
        // readDecodedData()
        std::function<status_t(TDecodedSample&)> readDecoded;
        // Sees each dequeue of an input buffer. kEnd ends the input port; without a buffer kGoOn
        // tries again.
        std::function<Next(status_t, size_t index)> dequeuedInput;
        // One pass of the output loop.
        std::function<Next(const sp<MediaCodec>&)> drain;
    };

    // `source` is used until retire() has returned true.
    EncoderPump(const Kind& kind, const Owner& owner, SourceCore& source, const Steps& steps);

    // Set-up, on the session's thread. `prepare` runs between the encoder's configuration and its
    // start. False, with the reason in the log and the encoder released, when it cannot be used.
    bool setUp(const sp<AMessage>& format, const std::function<bool()>& prepare);
    void startInputPort(void* (*entry)(void*), void* argument);
    // Runs the output loop of a thread that is `valid`. 0, or kSourceNotEnabled.
    status_t startOutputLoop(bool valid);

    // Creates a detached thread that holds a reference to the encoder thread.
    bool startDetached(pthread_t* thread, void* (*entry)(void*), void* argument);
    // The body of such a thread.
    void* runDetached(void* (EncoderPump::*port)());

    // The input port: feeds the encoder until the track ends; once the source is stopped it tells
    // the encoder the end. Null.
    void* runInputPort();
    Next feedEncoder(const sp<MediaCodec>& codec, TDecodedSample* record);
    // The output loop: drains until a pass says that it was the last, or the thread is asked to
    // exit. False, which ends the platform's thread.
    bool runOutputLoop();
    // Fetches the encoder's new buffers or format when that is what `result` announces; false when
    // it announces neither.
    bool handleChange(const sp<MediaCodec>& codec, status_t result);
    // Counts the output and finds its buffer.
    void takeOutput(TEncodedSample* output);
    // After the last output: stops the source and ends the loop.
    void endOutput();
    // After a dequeue that failed on a stopped source.
    Next endStoppedOutput();

    // An encoder that fails while it is wanted ends the run. One that was told to stop may return
    // anything. Always kEnd.
    Next fail();

    // Stops and releases the encoder; both ports end. Any thread but theirs.
    void stopEncoder();
    // Ends the thread. True when both ports have ended, unless the encoder was not stopped before.
    bool retire();

    // The encoder, null once it was stopped. A port works on its own reference, since stopping the
    // encoder drops the thread's.
    sp<MediaCodec> codec() const;

    // Pausing has no effect on the data.
    void requestExit();
    void pause();
    void pauseInternal(int64_t timeUs);
    void resume();
    void wake();
    // Null.
    void* outputThreadEntry();

private:
    Next fillInput(const sp<MediaCodec>& codec, size_t index, TDecodedSample* record);
    Next signalInputEOS(const sp<MediaCodec>& codec);
    Next queueEOS(const sp<MediaCodec>& codec, size_t index);

    const Kind& mKind;
    const Owner mOwner;
    EncoderThreadMembers& m;  // of mOwner
    SourceCore& mSource;
    const Steps mSteps;
    // The session's, for the ports.
    std::shared_ptr<Platform> mPlatform;
    // Outlives the encoder thread, whose last reference a port may drop.
    const std::shared_ptr<WaitGroup> mPorts = std::make_shared<WaitGroup>();
};

}  // namespace qmmediaeditor
}  // namespace android
