// The encoder threads: set-up, both ports, every end of stream, taking down.
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <future>

#include "SourceKinds.h"

namespace android::qmmediaeditor {

template <class Kind>
class EncoderThreadTest : public SourceTest<Kind> {
protected:
    typedef std::vector<std::string> Lines;

    auto& thread() { return *this->mSource->mMediaEncoderThread; }
    static std::string encoderLine(const char* operation) {
        return std::string("encoder ") + Kind::kMime + " " + operation;
    }
    static std::string threadLine(const char* text) {
        return std::string(Kind::kThreadTag) + ": " + text;
    }
    void expectOrder(const Lines& order) { EXPECT_EQ(order, this->mJournal.orderOf(order)); }
    void awaitInputEnd() { EXPECT_TRUE(this->waitForThread("inputThreadEntry end")); }
    void awaitOutputEnd() { EXPECT_TRUE(this->waitForThread("Call threadLoop End")); }
    // One sample and the end go through the encoder, and come out again.
    void runToTheEnd() {
        this->pushDecoded(1);
        this->pushEnd(false);
        this->mEncoder->echo();
        this->mEncoder->holdInput(false);
        awaitInputEnd();
        awaitOutputEnd();
        EXPECT_EQ(1u, readAll());
        EXPECT_EQ(0, this->mSource->failure());
    }
    // The number of samples that the writer still gets.
    size_t readAll() {
        size_t count = 0;
        while (this->readOne() == OK) ++count;
        return count;
    }
    // Runs `teardown`, which has to wait for the ports, and lets them go with `release`.
    void expectWait(const std::function<void()>& teardown, const std::function<void()>& release) {
        const auto& idle = thread().mPump.mPorts->mIdle;
        std::atomic<bool> ended{false};
        Background background([&] {
            teardown();
            ended = true;
        });
        EXPECT_TRUE(this->mCalls.waitForTimedWait(idle)) << "it did not wait";
        EXPECT_FALSE(ended);
        const int64_t boundNs = this->mCalls.timedWaitsNs(idle)[0];
        EXPECT_GT(boundNs, 990000000) << "a dequeue may take that long";
        EXPECT_LE(boundNs, 3000000000);
        release();
        EXPECT_TRUE(background.finishes());
    }
};

TYPED_TEST_SUITE(EncoderThreadTest, BothKinds);

TYPED_TEST(EncoderThreadTest, anEncoderThatCannotBeSetUpIsReleasedAndGetsNoThreads) {
    const std::pair<const char*, std::string> table[] = {
        {"configure", "ERROR: unable to configure codec (err=-7)\n"},
        {"start", "ERROR: unable to start codec (err=-7)\n"},
        {"", std::string("ERROR: unable to create ") + TypeParam::kMime + " codec instance\n"}};
    for (const auto& [operation, message] : table) {
        this->renew();
        this->mPlatform.encoder(TypeParam::kMime)->fail(operation, -7);
        if (*operation == 0) this->mPlatform.refuseCodec(TypeParam::kMime, true);
        EXPECT_EQ(-1100, this->mSource->enable(TypeParam::attribute(), new AMessage));
        EXPECT_TRUE(this->threadLogged(ANDROID_LOG_ERROR, message)) << operation;
        EXPECT_EQ(*operation == 0 ? 0u : 1u, this->mJournal.count(this->encoderLine("release")));
    }
    EXPECT_TRUE(this->logged(ANDROID_LOG_ERROR, "MediaEncoderThread error"));
    EXPECT_FALSE(this->threadLogged(ANDROID_LOG_VERBOSE, "startInputPortThread start"));
    EXPECT_EQ(0, this->mSource->failure()) << "the run is told by the result";
}

TYPED_TEST(EncoderThreadTest, theEncoderIsStartedOnALooperOfItsOwn) {
    this->enable();
    this->expectOrder({std::string("platform createCodec ") + TypeParam::kMime + " encoder",
                       this->encoderLine("configure 1"), this->encoderLine("start"),
                       this->encoderLine("getInputBuffers"), this->encoderLine("getOutputBuffers"),
                       this->threadLine("startInputPortThread end")});
    std::promise<std::string> name;
    this->thread().mLooper->post([&] {
        char text[16];
        pthread_getname_np(pthread_self(), text, sizeof(text));
        name.set_value(text + std::to_string(SystemCalls::priorityOfThisThread()));
    });
    EXPECT_EQ(TypeParam::kLooperName + std::string("0"), name.get_future().get());
    EXPECT_EQ(-16, SystemCalls::lastThreadPriority()) << "of the output loop";
}

TYPED_TEST(EncoderThreadTest, whatIsPushedTravelsThroughTheEncoderAndEndsWithAnEmptyBuffer) {
    this->restart();
    this->mEncoder->echo();
    this->mEncoder->holdInput(false);
    for (int i = 1; i < 4; ++i) this->pushDecoded(i, 1);
    this->pushEnd(false);
    this->awaitInputEnd();
    this->awaitOutputEnd();
    const auto queued = this->mEncoder->queued();
    ASSERT_EQ(4u, queued.size());
    EXPECT_EQ(TypeParam::kSampleBytes, queued[1].bytes.size());
    EXPECT_EQ(2, queued[1].bytes[0]);
    EXPECT_EQ(TypeParam::kIsAudio ? 1000 : 80000, queued[1].timeUs);
    EXPECT_EQ(TypeParam::kIsAudio ? 1u : 0u, queued[1].flags) << "video frames carry none";
    EXPECT_TRUE(queued[3].bytes.empty());
    EXPECT_EQ(0, queued[3].timeUs);
    EXPECT_EQ(4u, queued[3].flags);
    EXPECT_TRUE(this->thread().mInputEOS);
    EXPECT_EQ(990000, this->mEncoder->lastTimeoutUs());
    EXPECT_EQ(3u, this->readAll());
    EXPECT_EQ(0u, this->mEncoder->heldOutputs());
    EXPECT_EQ(0, this->mSource->failure());
}

TYPED_TEST(EncoderThreadTest, theLastOutputIsForwardedOnlyAsAudioWithDataAfterTimeZero) {
    const struct {
        size_t bytes;
        int64_t timeUs;
        size_t audio;
    } table[] = {{0, 5, 1}, {8, 0, 1}, {8, 1, 2}};
    for (const auto& row : table) {
        this->restart();
        this->mEncoder->frame(ScriptedCodec::Bytes(8, 1), 0, 1);
        this->mEncoder->frame(ScriptedCodec::Bytes(row.bytes, 2), row.timeUs, 4);
        this->awaitOutputEnd();
        EXPECT_TRUE(this->mSource->mCodecStopped);
        const size_t expected = TypeParam::kIsAudio ? row.audio : 1;
        EXPECT_EQ(expected, this->readAll());
        EXPECT_EQ(expected - 1, this->mJournal.count(this->threadLine("frame with eos")));
        EXPECT_EQ(0u, this->mEncoder->heldOutputs());
    }
}

TYPED_TEST(EncoderThreadTest, theEncoderOfAStoppedSourceIsToldTheEnd) {
    this->restart();
    this->mSource->setCodecStopped();
    this->mEncoder->inputResult(-EAGAIN);
    this->awaitInputEnd();
    EXPECT_TRUE(this->mEncoder->queued().empty());
    // On this thread, with a buffer to be had.
    this->mEncoder->holdInput(false);
    this->thread().inputThreadEntry();
    ASSERT_EQ(1u, this->mEncoder->queued().size());
    EXPECT_EQ(4u, this->mEncoder->queued()[0].flags);
    EXPECT_TRUE(this->thread().mInputEOS);
    EXPECT_EQ(0, this->mSource->failure());
}

TYPED_TEST(EncoderThreadTest, theOutputLoopGoesOnAfterChangesAndTimeOutsUntilTheSourceIsStopped) {
    this->restart();
    this->mEncoder->setOutputBuffers(5, 64);
    this->mEncoder->formatChange(new AMessage);
    this->mEncoder->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    this->mEncoder->outputResult(-EAGAIN);
    this->mEncoder->frame(ScriptedCodec::Bytes(8, 1), 7);
    EXPECT_TRUE(this->mJournal.waitFor(this->encoderLine("releaseOutputBuffer 0")));
    EXPECT_EQ(1u, this->mJournal.count(this->encoderLine("getOutputFormat")));
    EXPECT_EQ(5u, TypeParam::encoderOf(*this->mSource).mOutBuffers.size());
    EXPECT_TRUE(this->mEncoder->waitForOutputCall());
    this->mSource->setCodecStopped();
    this->mEncoder->outputResult(-EAGAIN);
    this->awaitOutputEnd();
    EXPECT_TRUE(this->threadLogged(ANDROID_LOG_DEBUG, "output buffer wa forced stop by others"));
    EXPECT_EQ(0, this->mSource->failure());
    EXPECT_EQ(1u, this->readAll());
}

TYPED_TEST(EncoderThreadTest, anEncoderThatFailsStopsTheSource) {
    const auto refuseInput = [this](size_t fromCall, status_t err) {
        this->mEncoder->fail("queueInputBuffer", err, fromCall);
        this->mEncoder->holdInput(false);
    };
    const std::function<void()> faults[] = {
        [&] { this->mEncoder->inputResult(-38); }, [&] { this->mEncoder->outputResult(-5); },
        [&] { refuseInput(1, -5); }, [&] { refuseInput(2, -6); }};  // the end
    for (const auto& fault : faults) {
        this->restart();
        this->pushDecoded(0);
        this->pushEnd(false);
        fault();
        EXPECT_TRUE(this->waitFor("setCodecStopped"));
        EXPECT_EQ(-1130, this->mSource->failure());
        EXPECT_EQ(-1011, this->pushDecoded(1));
    }
    EXPECT_TRUE(this->threadLogged(ANDROID_LOG_WARN, "thread stop by error[-5]"));
    EXPECT_TRUE(this->threadLogged(ANDROID_LOG_WARN, "thread stop by error[-6]"));
}

TYPED_TEST(EncoderThreadTest, stoppingTheEncoderEndsBothPortsWithoutAFailure) {
    this->restart();
    // The port gets a buffer while the encoder stops, and is then refused.
    this->mEncoder->fail("queueInputBuffer", -38);
    this->pushDecoded(1);
    this->mJournal.on(this->encoderLine("stop"), [&] { this->mEncoder->holdInput(false); });
    const sp<ALooper> looper = this->thread().mLooper;
    this->mSource->stop();
    this->awaitInputEnd();
    this->awaitOutputEnd();
    this->expectOrder({this->threadLine("call stopEncoder start"), this->encoderLine("stop"),
                       this->encoderLine("release"), this->threadLine("call stopEncoder end")});
    EXPECT_EQ(INVALID_OPERATION, looper->stop()) << "it runs no more";
    EXPECT_EQ(0, this->mSource->failure());
    EXPECT_FALSE(this->mSource->getRunning());
    endSource(*this->mSource);
    EXPECT_EQ(1u, this->mJournal.count(this->threadLine("Decontructor MediaEncoderThread")));
    EXPECT_EQ(1, this->mEncoder->getStrongCount());
    EXPECT_EQ(1, this->mSource->getStrongCount());
}

TYPED_TEST(EncoderThreadTest, enablingAgainReplacesTheEncoderWhateverItsPortWaitsFor) {
    for (const bool forSamples : {false, true}) {
        this->restart();
        const sp<ScriptedCodec> first = this->mEncoder;
        first->holdInput(!forSamples);
        EXPECT_TRUE(forSamples ? this->waitForThread("waiting @ Decoded data read()")
                               : first->waitForInputCall());
        this->enable();
        this->expectOrder({this->encoderLine("start"), this->encoderLine("stop"),
                           this->encoderLine("release"), this->threadLine("Call requestExit start"),
                           this->encoderLine("start")});
        EXPECT_EQ(1u, this->mJournal.count(this->threadLine("inputThreadEntry end")));
        EXPECT_EQ(1u, this->mSource->mGroup->buffers());
        this->runToTheEnd();
        EXPECT_TRUE(first->queued().empty());
    }
}

TYPED_TEST(EncoderThreadTest, teardownWaitsForAPortThatIsInsideACall) {
    for (const bool output : {false, true}) {
        this->restart();
        EXPECT_TRUE(this->mEncoder->waitForInputCall() && this->mEncoder->waitForOutputCall());
        this->mEncoder->holdInputCalls(!output);
        this->mEncoder->holdOutputCalls(output);
        this->expectWait(
            [&] {
                this->mSource->stop();
                this->mSource->stopThread();
            },
            [&] {
                this->mEncoder->holdInputCalls(false);
                this->mEncoder->holdOutputCalls(false);
            });
        EXPECT_EQ(1, this->mSource->getStrongCount()) << "the thread has let go of the source";
    }
}

TYPED_TEST(EncoderThreadTest, teardownWaitsForAPortThatHasNotBegun) {
    this->mCalls.holdThreads(true);
    this->restart();
    const auto thread = this->mSource->mMediaEncoderThread;
    this->mSource->stop();
    // This test, the source and the held port.
    while (thread->getStrongCount() > 3) sched_yield();
    this->expectWait([&] { this->mSource->stopThread(); },
                     [&] { this->mCalls.holdThreads(false); });
}

TYPED_TEST(EncoderThreadTest, lettingGoOfAThreadWhoseEncoderRunsDoesNotWait) {
    this->restart();
    const auto thread = this->mSource->mMediaEncoderThread;
    this->mSource->stopThread();
    EXPECT_TRUE(this->mCalls.timedWaitsNs(thread->mPump.mPorts->mIdle).empty());
    thread->stopEncoder();
    while (thread->getStrongCount() > 1) sched_yield();
}

TYPED_TEST(EncoderThreadTest, aPortLetsGoOfTheThreadBeforeItCountsAsEnded) {
    this->restart();
    const auto thread = this->mSource->mMediaEncoderThread;
    const std::shared_ptr<WaitGroup> ports = thread->mPump.mPorts;
    this->mSource->stop();
    // One more port, alone; this test and the source hold the thread as well.
    while (thread->getStrongCount() > 2) sched_yield();
    int32_t holders = 0;
    this->mCalls.onWakeUp(ports->mIdle, [&] { holders = thread->getStrongCount(); });
    thread->startInputPortThread();
    ports->waitIdle();
    EXPECT_EQ(2, holders);
    this->mCalls.forgetHooks();
}

TYPED_TEST(EncoderThreadTest, aPortThatIsToExitTakesNothingAndDoesNotWait) {
    this->restart();
    this->thread().stopEncoder();
    this->awaitInputEnd();
    Background port([&] { EXPECT_EQ(-1011, this->takeDecoded()); });
    EXPECT_TRUE(port.finishes());
    this->pushDecoded(1);
    EXPECT_EQ(-1011, this->takeDecoded());
    EXPECT_EQ(1u, this->mSource->mDecodedSamples.size()) << "it belongs to the next encoder";
}

class VideoEncoderThreadTest : public EncoderThreadTest<VideoKind> {};

TEST_F(VideoEncoderThreadTest, anEmptyWakeUpQueuesTheLastFrameAgain) {
    restart();
    pushDecoded(1);
    mEncoder->holdInput(false);
    EXPECT_TRUE(waitForThread("waiting @ Decoded data read()"));
    mSource->mCore.decoded.wakeBoth();
    EXPECT_TRUE(mEncoder->waitForQueued(2));
    EXPECT_EQ(40000, mEncoder->queued()[1].timeUs);
    EXPECT_EQ(VideoKind::kSampleBytes, mEncoder->queued()[1].bytes.size());
}

TEST_F(VideoEncoderThreadTest, theEndFlagEndsTheTrackWhateverComesWithIt) {
    for (const status_t result : {-EAGAIN, -1010}) {
        restart();
        pushEnd(false, 5);
        mEncoder->holdInput(false);
        awaitInputEnd();
        EXPECT_EQ(4u, mEncoder->queued()[0].flags) << "of a marker with further flags";
        mEncoder->outputResult(result, 4);
        awaitOutputEnd();
        EXPECT_TRUE(mSource->mCodecStopped) << "or the writer would wait for ever";
        EXPECT_EQ(result == -EAGAIN ? 0 : -1130, mSource->failure());
    }
}

}  // namespace android::qmmediaeditor
