// The encoder threads: set-up, both ports, every end of stream, taking down.
#include <pthread.h>

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
    // What the writer still gets.
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
    this->thread().mLooper->post([&name] {
        char text[16];
        pthread_getname_np(pthread_self(), text, sizeof(text));
        name.set_value(text);
    });
    EXPECT_EQ(TypeParam::kLooperName, name.get_future().get());
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
    EXPECT_EQ(TypeParam::kIsAudio ? 1u : 0u, queued[1].flags) << "pictures go without";
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

TYPED_TEST(EncoderThreadTest, pausingHasNoEffectOnTheData) {
    this->restart();
    auto& t = this->thread();
    t.wake();
    EXPECT_FALSE(t.mWakeRequested) << "not while paused";
    t.resume();
    EXPECT_FALSE(t.mPaused);
    t.pauseInternal(0);
    t.wake();
    EXPECT_TRUE(t.mPausedInternal);
    t.pauseInternal(1);
    t.wake();
    EXPECT_FALSE(t.mPausedInternal);
    t.pause();
    this->pushDecoded(1);
    this->pushEnd(false);
    this->runToTheEnd();
    EXPECT_EQ(1u, this->readAll());
    t.requestExit();
    EXPECT_FALSE(t.mPaused);
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
    EXPECT_EQ(Next::kEnd, thread().drainEncoder(mEncoder));
    EXPECT_TRUE(threadLogged(ANDROID_LOG_DEBUG, "output buffer wa forced stop by others"));
    EXPECT_TRUE(thread().mExitRequested);
}

TEST_F(VideoEncoderThreadTest, anEmptyWakeUpQueuesTheLastPictureAgain) {
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

TEST_F(VideoEncoderThreadTest, anErrorThatCarriesTheEndFlagEndsTheOutput) {
    restart();
    mEncoder->outputResult(-1010, 4);
    EXPECT_TRUE(waitForThread("reached EOS on output.(in dequeue Erro) : 0"));
    EXPECT_TRUE(waitForThread("Call threadLoop End"));
    EXPECT_TRUE(threadLogged(ANDROID_LOG_VERBOSE, "Error[-1010], flags[4]"));
    EXPECT_TRUE(threadLogged(ANDROID_LOG_WARN, "Encoder output [-1010]"));
}

}  // namespace android::qmmediaeditor
