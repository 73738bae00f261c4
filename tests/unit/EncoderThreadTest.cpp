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
    // Lets the encoder run, with its input coming out again, until it has ended.
    void runToTheEnd() {
        this->mEncoder->echo();
        this->mEncoder->holdInput(false);
        EXPECT_TRUE(this->waitForThread("inputThreadEntry end"));
        EXPECT_TRUE(this->waitForThread("Call threadLoop End"));
    }
    // The number of samples that the writer still gets.
    size_t readAll() {
        size_t count = 0;
        while (this->readOne() == OK) ++count;
        return count;
    }
};

TYPED_TEST_SUITE(EncoderThreadTest, BothKinds);

TYPED_TEST(EncoderThreadTest, anEncoderThatCannotBeSetUpIsReleasedAndGetsNoThreads) {
    const std::pair<const char*, const char*> table[] = {
        {"configure", "ERROR: unable to configure codec (err=-7)\n"},
        {"start", "ERROR: unable to start codec (err=-7)\n"}};
    for (const auto& [operation, message] : table) {
        this->renew(TypeParam::attribute());
        this->mPlatform.encoder(TypeParam::kMime)->fail(operation, -7);
        this->mJournal.clear();
        EXPECT_EQ(-1100, this->mSource->enable(TypeParam::attribute(), new AMessage));
        EXPECT_TRUE(this->threadLogged(ANDROID_LOG_ERROR, message)) << operation;
        EXPECT_EQ(1u, this->mJournal.count(this->encoderLine("release"))) << operation;
    }
    this->mPlatform.refuseCodec(TypeParam::kMime, true);
    EXPECT_EQ(-1100, this->mSource->enable(TypeParam::attribute(), new AMessage));
    EXPECT_TRUE(this->threadLogged(ANDROID_LOG_ERROR, std::string("ERROR: unable to create ") +
                                                          TypeParam::kMime + " codec instance\n"));
    EXPECT_TRUE(this->logged(ANDROID_LOG_ERROR, "MediaEncoderThread error"));
    EXPECT_FALSE(this->threadLogged(ANDROID_LOG_VERBOSE, "startInputPortThread start"));
    EXPECT_EQ(0, this->mSource->failure()) << "the run is told by the result";
}

TYPED_TEST(EncoderThreadTest, theEncoderIsStartedOnALooperOfItsOwn) {
    this->enable(TypeParam::attribute());
    const std::vector<std::string> order = {
        std::string("platform createCodec ") + TypeParam::kMime + " encoder",
        this->encoderLine("configure 1"),
        this->encoderLine("start"),
        this->encoderLine("getInputBuffers"),
        this->encoderLine("getOutputBuffers"),
        this->threadLine("Encoder got 4 input and 16 output buffers"),
        this->threadLine("startInputPortThread end")};
    EXPECT_EQ(order, this->mJournal.orderOf(order));
    std::promise<std::string> name;
    int priority = -1;
    this->thread().mLooper->post([&] {
        char text[16];
        pthread_getname_np(pthread_self(), text, sizeof(text));
        priority = SystemCalls::priorityOfThisThread();
        name.set_value(text);
    });
    EXPECT_EQ(TypeParam::kLooperName, name.get_future().get());
    EXPECT_EQ(0, priority);
}

TYPED_TEST(EncoderThreadTest, whatIsPushedTravelsThroughTheEncoderAndEndsWithAnEmptyBuffer) {
    this->restart();
    for (int i = 1; i < 4; ++i) this->pushDecoded(i, 1);
    this->pushEnd(false);
    this->runToTheEnd();
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
        EXPECT_TRUE(this->waitForThread("Call threadLoop End"));
        EXPECT_TRUE(this->mSource->mCodecStopped);
        const size_t expected = TypeParam::kIsAudio ? row.audio : 1;
        EXPECT_EQ(expected, this->readAll());
        EXPECT_EQ(expected - 1, this->mJournal.count(this->threadLine("frame with eos")));
        EXPECT_EQ(expected == 2, this->threadLogged(ANDROID_LOG_DEBUG, "frame with eos"));
        EXPECT_EQ(0u, this->mEncoder->heldOutputs());
    }
}

TYPED_TEST(EncoderThreadTest, theEndOfTheOutputWakesAWaitingReader) {
    this->restart();
    Background writer([&] { EXPECT_EQ(0u, this->readAll()); });
    EXPECT_TRUE(this->waitFor("waiting @ read()"));
    this->mEncoder->frame({}, 0, 4);
    EXPECT_TRUE(writer.finishes());
}

TYPED_TEST(EncoderThreadTest, theEncoderOfAStoppedSourceIsToldTheEnd) {
    this->restart();
    this->mSource->setCodecStopped();
    this->mEncoder->inputResult(-EAGAIN);
    EXPECT_TRUE(this->waitForThread("inputThreadEntry end"));
    EXPECT_TRUE(this->mEncoder->queued().empty());
    // On this thread, with and without a buffer to be had.
    this->mEncoder->inputResult(-EAGAIN);
    this->thread().inputThreadEntry();
    EXPECT_TRUE(this->threadLogged(ANDROID_LOG_DEBUG, "EOS input thread forced stop by others"));
    this->mEncoder->holdInput(false);
    this->thread().inputThreadEntry();
    ASSERT_EQ(1u, this->mEncoder->queued().size());
    EXPECT_EQ(4u, this->mEncoder->queued()[0].flags);
    EXPECT_TRUE(this->thread().mInputEOS);
    EXPECT_EQ(0, this->mSource->failure());
}

TYPED_TEST(EncoderThreadTest, theOutputLoopGoesOnAfterATimeOutUntilTheSourceIsStopped) {
    this->restart();
    this->mEncoder->outputResult(-EAGAIN);
    this->mEncoder->frame(ScriptedCodec::Bytes(8, 1), 7);
    EXPECT_TRUE(this->mJournal.waitFor(this->encoderLine("releaseOutputBuffer 0")));
    this->mSource->setCodecStopped();
    this->mEncoder->outputResult(-EAGAIN);
    EXPECT_TRUE(this->waitForThread("Call threadLoop End"));
    EXPECT_EQ(0, this->mSource->failure());
    EXPECT_EQ(1u, this->readAll());
}

TYPED_TEST(EncoderThreadTest, newBuffersAndFormatsAreFetched) {
    this->restart();
    this->mEncoder->setOutputBuffers(5, 64);
    this->mEncoder->formatChange(new AMessage);
    this->mEncoder->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    this->mEncoder->frame({}, 0, 4);
    EXPECT_TRUE(this->waitForThread("Call threadLoop End"));
    EXPECT_EQ(1u, this->mJournal.count(this->encoderLine("getOutputFormat")));
    EXPECT_EQ(5u, TypeParam::encoderOf(*this->mSource).mOutBuffers.size());
}

TYPED_TEST(EncoderThreadTest, anEncoderThatFailsStopsTheSource) {
    const std::function<void()> faults[] = {[this] { this->mEncoder->inputResult(-38); },
                                            [this] { this->mEncoder->outputResult(-5); },
                                            [this] {
                                                this->mEncoder->fail("queueInputBuffer", -5);
                                                this->mEncoder->holdInput(false);
                                            }};
    for (const auto& fault : faults) {
        this->restart();
        this->pushDecoded(0);
        fault();
        EXPECT_TRUE(this->waitFor("setCodecStopped"));
        EXPECT_EQ(-1130, this->mSource->failure());
        EXPECT_EQ(-1011, this->pushDecoded(1));
    }
    EXPECT_TRUE(this->threadLogged(ANDROID_LOG_WARN, "thread stop by error[-5]"));
}

TYPED_TEST(EncoderThreadTest, stoppingTheEncoderEndsBothPortsWithoutAFailure) {
    this->restart();
    const sp<ALooper> looper = this->thread().mLooper;
    this->mSource->stop();
    EXPECT_TRUE(this->waitForThread("inputThreadEntry end"));
    EXPECT_TRUE(this->waitForThread("Call threadLoop End"));
    const std::vector<std::string> order = {this->threadLine("call stopEncoder start"),
                                            this->encoderLine("stop"), this->encoderLine("release"),
                                            this->threadLine("call stopEncoder end")};
    EXPECT_EQ(order, this->mJournal.orderOf(order));
    EXPECT_EQ(INVALID_OPERATION, looper->stop()) << "it runs no more";
    EXPECT_EQ(0, this->mSource->failure());
    EXPECT_FALSE(this->mSource->getRunning());
    EXPECT_TRUE(this->thread().mPaused);
    endSource(*this->mSource);
    EXPECT_EQ(1u, this->mJournal.count(this->threadLine("Decontructor MediaEncoderThread")));
    EXPECT_EQ(1, this->mEncoder->getStrongCount());
    EXPECT_EQ(1, this->mSource->getStrongCount());
}

TYPED_TEST(EncoderThreadTest, enablingAgainReplacesTheEncoder) {
    this->restart();
    const sp<ScriptedCodec> first = this->mEncoder;
    this->enable(TypeParam::attribute());
    const std::vector<std::string> order = {
        this->encoderLine("start"), this->encoderLine("stop"), this->encoderLine("release"),
        this->threadLine("Call requestExit start"), this->encoderLine("start")};
    EXPECT_EQ(order, this->mJournal.orderOf(order));
    EXPECT_EQ(1u, this->mSource->mGroup->buffers());
    this->pushDecoded(1);
    this->pushEnd(false);
    this->runToTheEnd();
    EXPECT_EQ(1u, this->readAll());
    EXPECT_TRUE(first->queued().empty());
}

TYPED_TEST(EncoderThreadTest, teardownWaitsForAPortThatIsInsideACall) {
    for (const bool output : {false, true}) {
        this->restart();
        auto& t = this->thread();
        EXPECT_TRUE(this->mEncoder->waitForInputCall() && this->mEncoder->waitForOutputCall());
        this->mEncoder->holdInputCalls(!output);
        this->mEncoder->holdOutputCalls(output);
        const Condition& idle = t.mPump.mPorts->mIdle;
        std::atomic<bool> ended{false};
        Background teardown([&] {
            this->mSource->stop();
            this->mSource->stopThread();
            ended = true;
        });
        EXPECT_TRUE(this->mCalls.waitForTimedWait(idle)) << "it did not wait";
        EXPECT_FALSE(ended);
        const int64_t boundNs = this->mCalls.timedWaitsNs(idle)[0];
        EXPECT_GT(boundNs, t.mPump.mOwner.timeoutUs * 1000) << "a dequeue may take that long";
        EXPECT_LE(boundNs, 3000000000);
        this->mEncoder->holdInputCalls(false);
        this->mEncoder->holdOutputCalls(false);
        EXPECT_TRUE(teardown.finishes());
        EXPECT_EQ(1, this->mSource->getStrongCount()) << "the thread has let go of the source";
    }
}

TYPED_TEST(EncoderThreadTest, teardownWaitsForAPortThatHasNotBegun) {
    this->mCalls.holdThreads();
    this->restart();
    const auto thread = this->mSource->mMediaEncoderThread;
    this->mSource->stop();
    // This test, the source and the held port.
    while (thread->getStrongCount() > 3) sched_yield();
    std::atomic<bool> ended{false};
    Background teardown([&] {
        this->mSource->stopThread();
        ended = true;
    });
    EXPECT_TRUE(this->mCalls.waitForTimedWait(thread->mPump.mPorts->mIdle)) << "it did not wait";
    EXPECT_FALSE(ended);
    this->mCalls.releaseThreads();
    EXPECT_TRUE(teardown.finishes());
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
    this->mSource->setCodecStopped();
    this->mEncoder->inputResult(-EAGAIN);
    EXPECT_TRUE(this->waitForThread("inputThreadEntry end"));
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

TYPED_TEST(EncoderThreadTest, enablingAgainEndsAPortThatWaitsForSamples) {
    this->restart();
    const sp<ScriptedCodec> first = this->mEncoder;
    first->holdInput(false);
    EXPECT_TRUE(this->waitForThread("waiting @ Decoded data read()"));
    this->enable(TypeParam::attribute());
    EXPECT_EQ(1u, this->mJournal.count(this->threadLine("inputThreadEntry end")));
    this->pushDecoded(1);
    this->pushEnd(false);
    this->runToTheEnd();
    EXPECT_EQ(1u, this->readAll()) << "the new encoder has all";
    EXPECT_TRUE(first->queued().empty());
    EXPECT_EQ(0, this->mSource->failure());
}

TYPED_TEST(EncoderThreadTest, aPortThatIsToExitTakesNothingAndDoesNotWait) {
    this->restart();
    this->thread().stopEncoder();
    EXPECT_TRUE(this->waitForThread("inputThreadEntry end"));
    TDecodedSample input;
    Background port([&] { EXPECT_EQ(-1011, this->takeDecoded(&input)); });
    EXPECT_TRUE(port.finishes());
    this->pushDecoded(1);
    EXPECT_EQ(-1011, this->takeDecoded(&input));
    EXPECT_EQ(1u, this->mSource->mDecodedSamples.size()) << "it belongs to the next encoder";
}

TYPED_TEST(EncoderThreadTest, theOutputLoopRunsAtAudioPriority) {
    this->enable(TypeParam::attribute());
    EXPECT_EQ((std::vector<int32_t>{-16}), this->mCalls.threadPriorities());
}

TYPED_TEST(EncoderThreadTest, aSampleThatCannotBeCopiedOrDoesNotFitIsAFailure) {
    this->restart();
    this->mEncoder->setOutputBuffers(4, 16);
    this->mEncoder->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    this->mEncoder->frame(ScriptedCodec::Bytes(17), 1);
    EXPECT_TRUE(this->waitFor("setCodecStopped"));
    EXPECT_EQ(-1130, this->mSource->failure()) << "an output that could not be copied";

    this->renew(TypeParam::attribute());
    this->mJournal.clear();
    this->mEncoder = this->mPlatform.encoder(TypeParam::kMime);
    this->mEncoder->setInputBuffers(2, TypeParam::kSampleBytes - 1);
    EXPECT_EQ(OK, this->mSource->enable(TypeParam::attribute(), new AMessage));
    this->mSource->start();
    this->pushDecoded(1);
    this->pushEnd(false);
    EXPECT_TRUE(this->waitFor("setCodecStopped"));
    EXPECT_EQ(-1130, this->mSource->failure()) << "an input that does not fit the encoder's buffer";
    EXPECT_TRUE(this->mJournal.linesOf(this->encoderLine("queueInputBuffer")).empty());
}

TYPED_TEST(EncoderThreadTest, anEncoderThatWasToldToStopMayRefuseAnything) {
    this->restart();
    this->mEncoder->fail("queueInputBuffer", -38);
    this->pushDecoded(1);
    this->mJournal.on(this->encoderLine("stop"), [&] { this->mEncoder->holdInput(false); });
    this->mSource->stop();
    EXPECT_TRUE(this->waitForThread("inputThreadEntry end"));
    EXPECT_TRUE(this->waitForThread("Call threadLoop End"));
    EXPECT_EQ(0, this->mSource->failure());
}

class VideoEncoderThreadTest : public EncoderThreadTest<VideoKind> {};

TEST_F(VideoEncoderThreadTest, decodingTimesGoUpByOneFrameOfTheOutput) {
    restart();
    mEncoder->frame(ScriptedCodec::Bytes(8, 1), 1000);
    mEncoder->frame(ScriptedCodec::Bytes(8, 2), 500000);
    mEncoder->frame({}, 0, 4);
    EXPECT_TRUE(waitForThread("Call threadLoop End"));
    ASSERT_EQ(2u, mSource->mEncodedSamples.size());
    const auto second = ++mSource->mEncodedSamples.begin();
    EXPECT_EQ(1000 + mSource->mFrameIntervalUs, second->mDecodingTimeUs);
}

TEST_F(VideoEncoderThreadTest, aTimeOutOfAStoppedSourceEndsTheOutputLoop) {
    restart();
    mSource->setCodecStopped();
    mEncoder->outputResult(-EAGAIN);
    EXPECT_TRUE(waitForThread("output buffer wa forced stop by others"));
    EXPECT_TRUE(waitForThread("Call threadLoop End"));
}

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

TEST_F(VideoEncoderThreadTest, aMarkerWithFurtherFlagsEndsTheTrackAsWell) {
    restart();
    pushEnd(false, 5);
    runToTheEnd();
    EXPECT_EQ(4u, mEncoder->queued()[0].flags);
}

TEST_F(VideoEncoderThreadTest, aTimeOutThatCarriesTheEndFlagEndsTheTrack) {
    restart();
    mEncoder->outputResult(-EAGAIN, 4);
    EXPECT_TRUE(waitForThread("Call threadLoop End"));
    EXPECT_TRUE(mSource->mCodecStopped) << "or the writer would wait for ever";
    EXPECT_EQ(0, mSource->failure());
}

TEST_F(VideoEncoderThreadTest, anErrorThatCarriesTheEndFlagEndsTheOutput) {
    restart();
    mEncoder->outputResult(-1010, 4);
    EXPECT_TRUE(waitForThread("reached EOS on output.(in dequeue Erro) : 0"));
    EXPECT_TRUE(waitForThread("Call threadLoop End"));
    EXPECT_TRUE(threadLogged(ANDROID_LOG_VERBOSE, "Error[-1010], flags[4]"));
    EXPECT_TRUE(threadLogged(ANDROID_LOG_WARN, "Encoder output [-1010]"));
}

}  // namespace android::qmmediaeditor
