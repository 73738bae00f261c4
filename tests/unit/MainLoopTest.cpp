// A whole run: what it brings, where it can be stopped, and what it returns.
#include <TranscodeComponent.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "Background.h"
#include "SessionTest.h"

namespace android::qmmediaeditor {

class MainLoopTest : public SessionTest {
protected:
    void SetUp() override {
        prepareEchoes();
        // As the real ones: a dequeue without output comes back.
        for (const auto* decoder : {&mAudioDecoder, &mVideoDecoder}) {
            (*decoder)->setIdle(ScriptedCodec::Idle::kTryAgain);
        }
    }
    void stopAt(const std::string& line) {
        mJournal.on(line, [this] { session().forceStop(); });
    }
    void expectNoHang() {
        EXPECT_EQ(0u, mJournal.count("writer tracks have not ended"));
        EXPECT_EQ(1u, mJournal.count("writer stop"));
        EXPECT_EQ(mJournal.count("Transcode: inputThreadEntry start"),
                  mJournal.count("Transcode: inputThreadEntry end"));
    }
};

TEST_F(MainLoopTest, everySampleOfBothTracksReachesTheWriter) {
    addSamples(25, 25);
    EXPECT_EQ(0, run());
    const auto video = mPlatform.writer().samples(0);
    const auto audio = mPlatform.writer().samples(1);
    ASSERT_EQ(25u, video.size());
    ASSERT_EQ(25u, audio.size());
    for (size_t i = 0; i < 25; ++i) {
        EXPECT_EQ(static_cast<int64_t>(i) * kVideoStepUs, video[i].timeUs);
        EXPECT_EQ(std::vector<uint8_t>(kFrameBytes, static_cast<uint8_t>(i)), video[i].bytes);
        EXPECT_EQ(static_cast<int64_t>(i) * kAudioStepUs, audio[i].timeUs);
        EXPECT_EQ(std::vector<uint8_t>(kPcmBytes, static_cast<uint8_t>(i)), audio[i].bytes);
    }
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "Audio/Video CodecSource stop"));
    EXPECT_TRUE(mJournal.linesOf("Transcode: force stop in output").empty());
    EXPECT_EQ(0, mProgress.front());
    expectNoHang();
}

TEST_F(MainLoopTest, theWriterIsWiredVideoFirstAndStoppedAfterTheDecoders) {
    addSamples(1, 1);
    mPlatform.writer().setEndDelay(1);
    EXPECT_EQ(0, run());
    const std::vector<std::string> expected = {"decoder audio/mp4a-latm start",
                                               "decoder video/avc start",
                                               "writer addSource video/avc",
                                               "writer addSource audio/mp4a-latm",
                                               "writer setListener",
                                               "writer start",
                                               "Transcode: inputThreadEntry end",
                                               "decoder audio/mp4a-latm release",
                                               "decoder video/avc release",
                                               "writer reachedEOS",
                                               "writer reachedEOS",
                                               "writer stop"};
    EXPECT_EQ(expected, mJournal.orderOf(expected));
    EXPECT_TRUE(mJournal.linesOf("decoder video/avc stop").empty());
    int32_t realTime = -1;
    EXPECT_TRUE(mPlatform.writer().fileMeta()->findInt32(kKeyRealTimeRecording, &realTime));
    EXPECT_EQ(0, realTime);
}

TEST_F(MainLoopTest, trimmedPeriodsAreJoinedAndTheRestIsDropped) {
    addSamples(0, 20);
    setPeriods({{kVideoStepUs, 3 * kVideoStepUs}, {10 * kVideoStepUs, 12 * kVideoStepUs}});
    EXPECT_EQ(0, run());
    std::vector<int64_t> times;
    for (const auto& sample : mPlatform.writer().samples(0)) times.push_back(sample.timeUs);
    EXPECT_EQ((std::vector<int64_t>{0, kVideoStepUs, 2 * kVideoStepUs, 3 * kVideoStepUs}), times);
    EXPECT_TRUE(mPlatform.writer().samples(1).empty());
}

TEST_F(MainLoopTest, anInvalidTrimRequestIsRefusedBeforeAnyDecoderStarts) {
    mRequest.mTrimEnabled = true;
    session().forceStop();
    EXPECT_EQ(-38, run());
    EXPECT_TRUE(mJournal.linesOf("decoder audio/mp4a-latm start").empty());
    EXPECT_FALSE(logged(ANDROID_LOG_VERBOSE, "Force stop before decoder start"));
}

TEST_F(MainLoopTest, aStopBeforeTheWriterStartsLeavesItAlone) {
    const std::pair<const char*, const char*> table[] = {
        {"decoder video/avc start", "Force stop before sniff frame"},
        {"Transcode: createSource start", "Force Stop in createSource"},
        {"Transcode: createSource end", "doTranscode End BY Force Stop"},
    };
    for (const auto& [at, message] : table) {
        mSession.reset();
        renewOutput();
        session();
        stopAt(at);
        EXPECT_EQ(-1003, run()) << at;
        EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, message)) << at;
        EXPECT_EQ(0u, mJournal.count("writer start")) << at;
    }
    const std::vector<std::string> order = {
        "Transcode: force Stop before transcode loop", "TAudioSource: Call stop function",
        "TVideoSource: Call stop function", "Transcode: doTranscode End BY Force Stop"};
    EXPECT_EQ(order, mJournal.orderOf(order));
}

TEST_F(MainLoopTest, aStopInTheLoopEndsBothSourcesAndClosesTheFile) {
    addSamples(3, 3);
    stopAt("Transcode: Start loop");
    EXPECT_EQ(-1003, run());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "force stop in output"));
    EXPECT_TRUE(
        mLog.contains(ANDROID_LOG_VERBOSE, "TAudioSource", "The input source is reached EOS 1"));
    EXPECT_TRUE(
        mLog.contains(ANDROID_LOG_VERBOSE, "TVideoSource", "The input source is reached EOS 1"));
    EXPECT_TRUE(session().mOutputStopped);
    expectNoHang();
}

TEST_F(MainLoopTest, aStopBetweenTwoTracksIsSeenAtOnce) {
    addSamples(30, 30);
    stopAt("Transcode: Decoded frame size : 192, [Audio]");
    EXPECT_EQ(-1003, run());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "force stop in output2"));
    expectNoHang();
}

TEST_F(MainLoopTest, anErrorOfTheWriterEndsTheRunAsAStop) {
    addSamples(3, 3);
    mPlatform.writer().setStopResult(-5);
    mJournal.on("Transcode: Start loop", [this] { mPlatform.writer().fire(1, 0, 0); });
    EXPECT_EQ(-1003, run());
    EXPECT_FALSE(logged(ANDROID_LOG_DEBUG, "MPEG4Writer stop result: -5"));
    expectNoHang();
}

TEST_F(MainLoopTest, aFileThatCannotBeClosedIsAFailure) {
    addSamples(1, 1);
    mPlatform.writer().setStopResult(-5);
    EXPECT_EQ(-1010, run());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "MPEG4Writer stop result: -5"));
}

// No thread can be created from the message `first` to the message `last`: none gets a stack of
// that size.
void refuseThreads(Journal& journal, const std::string& first, const std::string& last) {
    static pthread_attr_t usual;
    journal.on(first, [] {
        ASSERT_EQ(0, pthread_getattr_default_np(&usual));
        pthread_attr_t huge = usual;
        ASSERT_EQ(0, pthread_attr_setstacksize(&huge, SIZE_MAX / 4 * 3));
        ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    });
    journal.on(last, [] { ASSERT_EQ(0, pthread_setattr_default_np(&usual)); });
}

// A failure that ends a run which nobody stopped, and its result.
struct RunFault {
    const char* what;
    int32_t result;
    std::function<void(MainLoopTest&)> inject;
};

void PrintTo(const RunFault& fault, std::ostream* out) { *out << fault.what; }

class RunFaultTest : public MainLoopTest, public ::testing::WithParamInterface<RunFault> {};

TEST_P(RunFaultTest, theRunEndsWithTheFileClosedAndTheResultNamesTheFault) {
    addSamples(30, 30);
    GetParam().inject(*this);
    // A stop that comes later changes nothing about it.
    stopAt("Transcode: force stop in output");
    stopAt("Transcode: force stop in output2");
    EXPECT_EQ(GetParam().result, run());
    EXPECT_LE(mJournal.count("Transcode: Call force Stop"), 1u);
    if (GetParam().result == -1004) {
        EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "saw input eos"));
    }
    expectNoHang();
    // Nothing is left behind: no port is waited for that does not run, and every thread lets go.
    wp<TAudioSource> audio = session().mAudioSource;
    wp<TVideoSource> video = session().mVideoSource;
    awaitEncoders();
    mPlatform.letGoOfWriter();
    mSession.reset();
    EXPECT_TRUE(audio.promote() == nullptr && video.promote() == nullptr);
}

const RunFault kRunFaults[] = {
    {"readErrorAtTheBegin", -1004,
     [](MainLoopTest& t) { t.mPlatform.extractor().fail("getSampleTrackIndex", -1004); }},
    {"readErrorInTheMiddle", -1004,
     [](MainLoopTest& t) {
         t.mJournal.on(
             "extractor advance", [&t] { t.mPlatform.extractor().fail("getSampleTrackIndex", -5); },
             20);
     }},
    {"seekThatCannotRead", -1004,
     [](MainLoopTest& t) { t.mPlatform.extractor().fail("seekTo", -5); }},
    {"noThreadForTheReader", -12,
     [](MainLoopTest& t) {
         refuseThreads(t.mJournal, "Transcode: startInputPortThread start",
                       "Transcode: startInputPortThread end");
     }},
    {"noThreadForAnEncodersInput", -12,
     [](MainLoopTest& t) {
         refuseThreads(t.mJournal, "AudioEncoderThread: startInputPortThread start",
                       "AudioEncoderThread: startInputPortThread end");
     }},
    {"noThreadForAnEncodersOutput", -12,
     [](MainLoopTest& t) {
         refuseThreads(t.mJournal, "VideoEncoderThread: startInputPortThread end",
                       "TVideoSource: MediaEncoderThread error");
     }},
    {"decoderThatRefusesAnInput", -1007,
     [](MainLoopTest& t) { t.mVideoDecoder->fail("queueInputBuffer", -38, 10); }},
    {"sampleThatDoesNotFitTheDecoder", -1130,
     [](MainLoopTest& t) { t.mAudioDecoder->setInputBuffers(4, kPcmBytes - 1); }},
    {"frameThatCannotBeCopied", -1130,
     [](MainLoopTest& t) { t.mVideoDecoder->setOutputBuffers(4, kFrameBytes - 1); }},
    {"encodedSampleThatCannotBeCopied", -1130,
     [](MainLoopTest& t) { t.mAudioEncoder->setOutputBuffers(4, kPcmBytes - 1); }},
    {"pcmThatDoesNotFitTheEncoder", -1130,
     [](MainLoopTest& t) { t.mAudioEncoder->setInputBuffers(4, kPcmBytes - 1); }},
    {"frameThatDoesNotFitTheEncoder", -1130,
     [](MainLoopTest& t) { t.mVideoEncoder->setInputBuffers(4, kFrameBytes - 1); }},
};

INSTANTIATE_TEST_SUITE_P(Faults, RunFaultTest, ::testing::ValuesIn(kRunFaults),
                         [](const auto& fault) { return fault.param.what; });

TEST_F(MainLoopTest, aFailureThatFollowsAStopIsReportedAsTheStop) {
    addSamples(3, 3);
    mVideoDecoder->fail("queueInputBuffer", -38);
    stopAt("decoder video/avc queueInputBuffer 384 0 0");
    EXPECT_EQ(-1003, run());
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "input abort by invalid state"));
}

TEST_F(MainLoopTest, anEndOfTheInputBehindASeekIsNoReadError) {
    addSamples(3, 3);
    mPlatform.extractor().fail("seekTo", -1011);
    EXPECT_EQ(0, run());
    EXPECT_EQ(3u, mPlatform.writer().samples(0).size());
}

TEST_F(MainLoopTest, anEncoderThatCannotBeHadEndsTheRun) {
    addSamples(30, 30);
    mPlatform.refuseCodec(kAvc, true);
    EXPECT_EQ(-1130, run());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "encoder error"));
    expectNoHang();
}

TEST_F(MainLoopTest, aTrackWithoutOutputEndsTheFileAllTheSame) {
    // The decoders say nothing but the end: no source ever gets an encoder.
    for (const auto* decoder : {&mAudioDecoder, &mVideoDecoder}) {
        (*decoder)->clearOutput();
    }
    EXPECT_EQ(0, run());
    expectNoHang();
}

struct EncoderFault {
    const char* what;
    bool video;
    void (*inject)(const sp<ScriptedCodec>& encoder);
};

class EncoderFaultTest : public MainLoopTest, public ::testing::WithParamInterface<EncoderFault> {};

TEST_P(EncoderFaultTest, anEncoderThatFailsInTheMiddleEndsTheRunWithAnErrorSoon) {
    addSamples(60, 60);
    const EncoderFault& fault = GetParam();
    fault.inject(fault.video ? mVideoEncoder : mAudioEncoder);
    // The other track never ends by itself.
    (fault.video ? mAudioDecoder : mVideoDecoder)->holdOutput(true);
    std::chrono::steady_clock::time_point failedAt;
    mJournal.on(fault.video ? "TVideoSource: setCodecStopped" : "TAudioSource: setCodecStopped",
                [&] { failedAt = std::chrono::steady_clock::now(); });
    EXPECT_EQ(-1130, run());
    EXPECT_LT(std::chrono::steady_clock::now() - failedAt, std::chrono::seconds(2));
    expectNoHang();
    const std::string tag = fault.video ? "VideoEncoderThread" : "AudioEncoderThread";
    EXPECT_TRUE(mLog.waitFor(tag, "inputThreadEntry end"));
    EXPECT_TRUE(mLog.waitFor(tag, "Call threadLoop End"));
}

void failDequeueingInput(const sp<ScriptedCodec>& encoder) { encoder->inputResult(-38); }
void failQueueing(const sp<ScriptedCodec>& encoder) { encoder->fail("queueInputBuffer", -5, 20); }
// The one after the 60 samples.
void failQueueingTheEnd(const sp<ScriptedCodec>& encoder) {
    encoder->fail("queueInputBuffer", -5, 61);
}
void failOutput(const sp<ScriptedCodec>& encoder) { encoder->outputResult(-1010); }

INSTANTIATE_TEST_SUITE_P(Encoders, EncoderFaultTest,
                         ::testing::Values(EncoderFault{"audioInput", false, failDequeueingInput},
                                           EncoderFault{"audioQueue", false, failQueueing},
                                           EncoderFault{"audioEnd", false, failQueueingTheEnd},
                                           EncoderFault{"audioOutput", false, failOutput},
                                           EncoderFault{"videoInput", true, failDequeueingInput},
                                           EncoderFault{"videoQueue", true, failQueueing},
                                           EncoderFault{"videoEnd", true, failQueueingTheEnd},
                                           EncoderFault{"videoOutput", true, failOutput}),
                         [](const auto& fault) { return fault.param.what; });

TEST_F(MainLoopTest, anEncoderThatFailsWhileTheOtherOneStallsEndsTheRun) {
    addSamples(60, 60);
    mVideoEncoder->holdInput(true);
    mJournal.on("TVideoSource: wait@mDecoderBufferReturnedCond [DecodedSample:11]",
                [this] { mAudioEncoder->outputResult(-1010); });
    EXPECT_EQ(-1130, run());
    expectNoHang();
}

TEST_F(MainLoopTest, anEncoderThatFailsAfterTheDecodersEndedIsStillAnError) {
    addSamples(2, 2);
    mVideoEncoder->holdInput(true);
    mVideoEncoder->fail("queueInputBuffer", -5);
    mJournal.on("Transcode: wait writer EOS", [this] { mVideoEncoder->holdInput(false); });
    EXPECT_EQ(-1130, run());
    expectNoHang();
}

TEST_F(MainLoopTest, anEncoderThatFailsWhileTheWriterStopsIsStillAnError) {
    addSamples(2, 2);
    mJournal.on("Transcode: call writer stop",
                [this] { session().mVideoSource->mCore.reportFailure(-1130); });
    EXPECT_EQ(-1130, run());
}

TEST_F(MainLoopTest, aStopDuringTheWaitForTheWriterClosesTheFileWithWhatIsThere) {
    addSamples(3, 3);
    mVideoEncoder->holdInput(true);
    mPlatform.writer().setEndDelay(2);
    mJournal.on("Transcode: wait writer EOS", [this] {
        EXPECT_TRUE(mLog.waitFor("TAudioSource", "setCodecStopped"));
        session().forceStop();
    });
    EXPECT_EQ(-1003, run());
    EXPECT_EQ(3u, mPlatform.writer().samples(1).size()) << "the other track is whole";
    expectNoHang();
}

TEST_F(MainLoopTest, anEncoderThatFailsDuringTheWaitForTheWriterEndsTheOtherTrackAsWell) {
    addSamples(3, 3);
    mVideoEncoder->holdInput(true);
    mAudioEncoder->holdInput(true);
    mPlatform.writer().setEndDelay(2);
    mJournal.on("Transcode: wait writer EOS", [this] {
        mAudioEncoder->outputResult(-1010);
        EXPECT_TRUE(mLog.waitFor("TAudioSource", "setCodecStopped"));
    });
    EXPECT_EQ(-1130, run());
    expectNoHang();
}

TEST_F(MainLoopTest, decodersAreReleasedOnlyAfterTheReaderHasEnded) {
    addSamples(3, 3);
    mVideoDecoder->holdInputCalls(true);
    // Only the wait for the reader lets the call return in which the reader is.
    std::atomic<bool> held{true};
    mCalls.onWait(session().mInputPort.mIdle, [&] {
        if (held.exchange(false)) mVideoDecoder->holdInputCalls(false);
    });
    Background stop([this] {
        EXPECT_TRUE(mVideoDecoder->waitForInputCall());
        session().forceStop();
    });
    EXPECT_EQ(-1003, run());
    EXPECT_FALSE(held) << "the run did not wait for the reader";
    mVideoDecoder->holdInputCalls(false);
    EXPECT_TRUE(mLog.waitFor("Transcode", "inputThreadEntry end"));
    const std::vector<std::string> order = {"Transcode: inputThreadEntry end",
                                            "decoder audio/mp4a-latm release",
                                            "decoder video/avc release"};
    EXPECT_EQ(order, mJournal.orderOf(order));
    mCalls.forgetHooks();
}

// Both threads as fast as they can: a flag that is seen before the period fails soon.
TEST_F(MainLoopTest, aSeekIsRequestedAfterThePeriodHasAdvanced) {
    std::vector<TrimPeriod> periods;
    for (int64_t i = 5000; i > 0; --i) periods.push_back({i, 2 * i});
    setPeriods(periods);
    ASSERT_EQ(OK, session().verifyTrimInfo());
    std::atomic<int32_t> taken{0};
    int32_t late = 0;
    const int32_t last = session().mProperty->mPeriodCount - 1;
    Background reader([&] {
        while (taken < last) {
            if (!session().mNeedtoSeek.take(false)) continue;
            if (session().mCurrentPeriodIndex != taken + 1) ++late;
            ++taken;
        }
    });
    for (int32_t i = 0; i < last; ++i) {
        TDecodedSample sample;
        sample.mPresentationTimeUs = periods[static_cast<size_t>(i)].mEndUs;
        session().adjustPresentationTimeUs(&sample);
        while (taken <= i) {
        }
    }
    EXPECT_TRUE(reader.finishes());
    EXPECT_EQ(0, late);
}

TEST_F(MainLoopTest, theWriterIsPolledAndItsEventsWaitAWhile) {
    addSamples(1, 1);
    mPlatform.writer().setEndDelay(2);
    mJournal.on("Transcode: Start loop", [this] { mPlatform.writer().fire(2, 801, 0); });
    EXPECT_EQ(-1003, run());
    EXPECT_EQ((std::vector<useconds_t>{50000, 100000, 100000}), mCalls.sleeps());
}

TEST_F(MainLoopTest, progressBeginsWithTheOffsetAndEndsWithTheLastPeriod) {
    addSamples(0, 20);
    setPeriods({{0, 2 * kVideoStepUs}, {10 * kVideoStepUs, 12 * kVideoStepUs}});
    mRequest.mProgressOffset = 40;
    EXPECT_EQ(0, run());
    EXPECT_EQ(40, mProgress.front());
    // The sample behind the last period counts as well: 40 + 521000 * 60 / 482000.
    EXPECT_EQ(104, mProgress.back());
    EXPECT_TRUE(std::is_sorted(mProgress.begin(), mProgress.end()));
}

TEST_F(MainLoopTest, decodersDrawOnTheHostsSurfaceAndAnEncoderMayBeFedThroughOne) {
    mRequest.mUseInputSurface = true;
    mSession = std::make_unique<Transcode>(&mRequest, new Surface);
    prepareLoop();
    EXPECT_EQ(1u, mJournal.count("decoder video/avc configure surface 0"));
    EXPECT_EQ(1u, mJournal.count("decoder audio/mp4a-latm configure 0"));
    session().runDecoder(nullptr, 1, 0);
    EXPECT_EQ(1u, mJournal.count("encoder video/avc configure 1"));
    int32_t color = 0;
    mVideoEncoder->configuredFormat()->findInt32("color-format", &color);
    EXPECT_EQ(0x7F000789, color);
    session().mVideoSource->mMediaEncoderThread->signalEndOfInputStream();
    EXPECT_EQ(1u, mJournal.count("encoder video/avc signalEndOfInputStream"));
}

TEST_F(MainLoopTest, theUuidDataOfTheInputIsCopied) {
    const struct {
        sp<ABuffer> data;
        bool readable;
        const char* message;
    } table[] = {{bufferOf({9, 8, 7}), true, "Get uuid-data:[3]"},
                 {bufferOf({}), true, "This file meta has not uuid data"},
                 {nullptr, true, "This file meta has not uuid data"},
                 {nullptr, false, ""}};
    for (const auto& row : table) {
        session().createExtractor(session().mFileAttribute);
        session().mMP4Writer = new MPEG4Writer(-1);
        mPlatform.extractor().fileFormat()->setBuffer("uuid-data", row.data);
        mPlatform.extractor().fail("getFileFormat", row.readable ? 0 : -1);
        if (row.data != nullptr) row.data->setRange(0, row.data->size());
        const size_t before = logged().size();
        session().copyUuidData();
        EXPECT_EQ(row.readable ? before + 1 : before, logged().size());
        if (row.readable) {
            EXPECT_EQ(row.message, logged().back());
        }
    }
    EXPECT_EQ((std::vector<std::string>{"platform setUuidData 3"}),
              mJournal.linesOf("platform setUuidData"));
    EXPECT_EQ((std::vector<uint8_t>{9, 8, 7}), mPlatform.uuidData());
}

TEST_F(MainLoopTest, oneBufferHoldsWhatTheLargestInputBufferHolds) {
    mAudioDecoder->setInputBuffers(3, 7000);
    mVideoDecoder->setInputBuffers(5, 6000);
    mVideoDecoder->setOutputBuffers(9, 1);
    prepareLoop();
    EXPECT_EQ(7000u, session().mSampleBufferSize);
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "got 3 input and 16 output buffers"));
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "got 5 input and 9 output buffers"));
}

TEST_F(MainLoopTest, anEmptyProgressCallbackAbortsBeforeTheWriterStarts) {
    mRequest.mProgressCallback = nullptr;
    EXPECT_FATAL(run(), "the progress callback is empty");
    EXPECT_TRUE(logged(ANDROID_LOG_FATAL, "the progress callback is empty"));
    EXPECT_EQ(0u, mJournal.count("writer start"));
}

TEST_F(MainLoopTest, aProgressCallbackThatThrowsAbortsOnEitherThread) {
    static_assert(noexcept(std::declval<TranscodeComponent&>().process()), "hosts rely on it");
    const std::string message = "the progress callback threw an exception";
    mRequest.mProgressCallback = [](int32_t) { throw 1; };
    EXPECT_FATAL(run(), message);
    EXPECT_TRUE(logged(ANDROID_LOG_FATAL, message));
    EXPECT_FATAL(session().printProgress(5000000), message) << "on the input reader";
}

}  // namespace android::qmmediaeditor
