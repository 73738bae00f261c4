// A whole run: what it brings, where it can be stopped, and what it returns.
#include <TranscodeComponent.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>

#include "Background.h"
#include "SessionTest.h"

namespace android::qmmediaeditor {

class MainLoopTest : public SessionTest {
protected:
    void SetUp() override { prepareEchoes(); }
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
    mPlatform.writer().setEndDelay(1);
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
    // The writer is wired video first, and stopped after the decoders.
    expectOrder({"decoder audio/mp4a-latm start", "decoder video/avc start",
                 "writer addSource video/avc", "writer addSource audio/mp4a-latm",
                 "writer setListener", "writer start", "Transcode: inputThreadEntry end",
                 "decoder audio/mp4a-latm release", "decoder video/avc release",
                 "writer reachedEOS", "writer reachedEOS", "writer stop"});
    EXPECT_TRUE(mJournal.linesOf("decoder video/avc stop").empty());
    int32_t realTime = -1;
    EXPECT_TRUE(mPlatform.writer().fileMeta()->findInt32(kKeyRealTimeRecording, &realTime));
    EXPECT_EQ(0, realTime);
    EXPECT_EQ(0, mProgress.front());
    expectNoHang();
}

TEST_F(MainLoopTest, trimmedPeriodsAreJoinedAndTheRestIsDropped) {
    addSamples(0, 20);
    setPeriods({{kVideoStepUs, 3 * kVideoStepUs}, {10 * kVideoStepUs, 12 * kVideoStepUs}});
    mRequest.mProgressOffset = 40;
    EXPECT_EQ(0, run());
    Times times;
    for (const auto& sample : mPlatform.writer().samples(0)) times.push_back(sample.timeUs);
    EXPECT_EQ((Times{0, kVideoStepUs, 2 * kVideoStepUs, 3 * kVideoStepUs}), times);
    EXPECT_TRUE(mPlatform.writer().samples(1).empty());
    EXPECT_EQ(40, mProgress.front());
    // The sample behind the last period counts as well: 40 + 481000 * 60 / 442000.
    EXPECT_EQ(105, mProgress.back());
    EXPECT_TRUE(std::is_sorted(mProgress.begin(), mProgress.end()));
}

TEST_F(MainLoopTest, aFormatChangeThatComesLateLosesNothing) {
    addSamples(0, 20);
    mVideoDecoder->clearOutput();
    mJournal.on("decoder video/avc queueInputBuffer 384 600000 0", [this] {
        mVideoDecoder->formatChange(videoFormat({{"color-format", 19}}));
    });
    EXPECT_EQ(0, run());
    EXPECT_EQ(20u, mPlatform.writer().samples(0).size());
    expectNoHang();
}

TEST_F(MainLoopTest, aStopBeforeTheWriterStartsLeavesItAlone) {
    const std::pair<const char*, const char*> table[] = {
        {"Transcode: doTranscode Start", "Force stop before decoder start"},
        {"decoder video/avc start", "Force stop before sniff frame"},
        {"Transcode: createSource start", "Force Stop in createSource"},
        {"Transcode: createSource end", "doTranscode End BY Force Stop"},
    };
    for (const auto& [at, message] : table) {
        renewSession();
        stopAt(at);
        EXPECT_EQ(-1003, run()) << at;
        EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, message)) << at;
        EXPECT_EQ(0u, mJournal.count("writer start")) << at;
    }
    expectOrder({"Transcode: force Stop before transcode loop", "TAudioSource: Call stop function",
                 "TVideoSource: Call stop function", "Transcode: doTranscode End BY Force Stop"});
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

// A way in which a run ends otherwise than whole, and its result.
struct RunEnd {
    const char* what;
    size_t samples;  // of each track
    int32_t result;
    void (*inject)(MainLoopTest& test);
};

void PrintTo(const RunEnd& end, std::ostream* out) { *out << end.what; }

class RunEndTest : public MainLoopTest, public ::testing::WithParamInterface<RunEnd> {};

TEST_P(RunEndTest, theFileIsClosedTheResultNamesTheReasonAndNothingIsLeft) {
    addSamples(GetParam().samples, GetParam().samples);
    // A stop that comes later changes nothing about it.
    stopAt("Transcode: force stop in output");
    stopAt("Transcode: force stop in output2");
    GetParam().inject(*this);
    EXPECT_EQ(GetParam().result, run());
    EXPECT_EQ(GetParam().result == -1010, logged(ANDROID_LOG_DEBUG, "MPEG4Writer stop result: -5"));
    if (GetParam().result == -1004) {
        EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "saw input eos"));
    }
    expectNoHang();
    // No port is waited for that does not run, and every thread lets go.
    wp<TAudioSource> audio = session().mAudioSource;
    wp<TVideoSource> video = session().mVideoSource;
    awaitEncoders();
    mPlatform.letGoOfWriter();
    mSession.reset();
    EXPECT_TRUE(audio.promote() == nullptr && video.promote() == nullptr);
}

typedef MainLoopTest T;

const RunEnd kRunEnds[] = {
    {"stopInTheLoop", 3, -1003, [](T& t) { t.stopAt("Transcode: Start loop"); }},
    {"stopBetweenTwoTracks", 30, -1003,
     [](T& t) { t.stopAt("Transcode: Decoded frame size : 192, [Audio]"); }},
    {"stopWhileADecoderStalls", 30, -1003,
     [](T& t) {
         t.mVideoDecoder->holdOutput(true);
         t.stopAt("Transcode: decoder output -EAGAIN:-11:[R:-11]");
     }},
    {"stopDuringTheWaitForTheWriter", 3, -1003,
     [](T& t) {
         t.mVideoEncoder->holdInput(true);
         t.mPlatform.writer().setEndDelay(2);
         t.mJournal.on("Transcode: wait writer EOS", [&t] {
             EXPECT_TRUE(t.mLog.waitFor("TAudioSource", "setCodecStopped"));
             t.session().forceStop();
         });
         t.mJournal.on("Transcode: doTranscode End", [&t] {
             EXPECT_EQ(3u, t.mPlatform.writer().samples(1).size()) << "the other track is whole";
         });
     }},
    {"failureThatFollowsAStop", 3, -1003,
     [](T& t) {
         t.mVideoDecoder->fail("queueInputBuffer", -38);
         t.stopAt("decoder video/avc queueInputBuffer 384 0 0");
     }},
    {"errorOfTheWriter", 3, -1003,
     [](T& t) {
         t.mPlatform.writer().setStopResult(-5);
         t.mJournal.on("Transcode: Start loop", [&t] { t.mPlatform.writer().fire(1, 0, 0); });
     }},
    {"fileThatCannotBeClosed", 1, -1010, [](T& t) { t.mPlatform.writer().setStopResult(-5); }},
    {"readErrorAtTheBegin", 30, -1004,
     [](T& t) { t.mPlatform.extractor().fail("getSampleTrackIndex", -1004); }},
    {"readErrorInTheMiddle", 30, -1004,
     [](T& t) {
         t.mJournal.on(
             "extractor advance", [&t] { t.mPlatform.extractor().fail("getSampleTrackIndex", -5); },
             20);
     }},
    {"seekThatCannotRead", 30, -1004, [](T& t) { t.mPlatform.extractor().fail("seekTo", -5); }},
    {"noThreadForTheReader", 30, -12,
     [](T& t) {
         refuseThreads(t.mJournal, "Transcode: startInputPortThread start",
                       "Transcode: startInputPortThread end");
     }},
    {"noThreadForAnEncodersInput", 30, -12,
     [](T& t) {
         refuseThreads(t.mJournal, "AudioEncoderThread: startInputPortThread start",
                       "AudioEncoderThread: startInputPortThread end");
     }},
    {"noThreadForAnEncodersOutput", 30, -12,
     [](T& t) {
         refuseThreads(t.mJournal, "VideoEncoderThread: startInputPortThread end",
                       "TVideoSource: MediaEncoderThread error");
     }},
    {"decoderThatRefusesAnInput", 30, -1007,
     [](T& t) { t.mVideoDecoder->fail("queueInputBuffer", -38, 10); }},
    {"sampleThatDoesNotFitTheDecoder", 30, -1130,
     [](T& t) { t.mAudioDecoder->setInputBuffers(4, kPcmBytes - 1); }},
    {"frameThatCannotBeCopied", 30, -1130,
     [](T& t) { t.mVideoDecoder->setOutputBuffers(4, kFrameBytes - 1); }},
    {"encodedAudioThatCannotBeCopied", 30, -1130,
     [](T& t) { t.mAudioEncoder->setOutputBuffers(4, kPcmBytes - 1); }},
    {"encodedVideoThatCannotBeCopied", 30, -1130,
     [](T& t) { t.mVideoEncoder->setOutputBuffers(4, kFrameBytes - 1); }},
    {"pcmThatDoesNotFitTheEncoder", 30, -1130,
     [](T& t) {
         t.mAudioEncoder->setInputBuffers(4, kPcmBytes - 1);
         t.mJournal.on("encoder audio/mp4a-latm queueInputBuffer 192 0 0",
                       [] { ADD_FAILURE() << "it was queued all the same"; });
     }},
    {"frameThatDoesNotFitTheEncoder", 30, -1130,
     [](T& t) { t.mVideoEncoder->setInputBuffers(4, kFrameBytes - 1); }},
    {"encoderThatCannotBeHad", 30, -1130, [](T& t) { t.mPlatform.refuseCodec(kAvc, true); }},
    {"encoderThatRefusesTheEndWhileTheOtherTrackNeverEnds", 60, -1130,
     [](T& t) {
         t.mAudioEncoder->fail("queueInputBuffer", -5, 61);
         t.mVideoDecoder->holdOutput(true);
     }},
    {"encoderThatFailsWhileTheOtherOneStalls", 60, -1130,
     [](T& t) {
         t.mVideoEncoder->holdInput(true);
         t.mJournal.on("TVideoSource: wait@mDecoderBufferReturnedCond [DecodedSample:11]",
                       [&t] { t.mAudioEncoder->outputResult(-1010); });
     }},
    {"encoderThatFailsAfterTheDecodersEnded", 2, -1130,
     [](T& t) {
         t.mVideoEncoder->holdInput(true);
         t.mVideoEncoder->fail("queueInputBuffer", -5);
         t.mJournal.on("Transcode: wait writer EOS", [&t] { t.mVideoEncoder->holdInput(false); });
     }},
    {"encoderThatFailsDuringTheWaitForTheWriter", 3, -1130,
     [](T& t) {
         t.mVideoEncoder->holdInput(true);
         t.mAudioEncoder->holdInput(true);
         t.mPlatform.writer().setEndDelay(2);
         t.mJournal.on("Transcode: wait writer EOS", [&t] {
             t.mAudioEncoder->outputResult(-1010);
             EXPECT_TRUE(t.mLog.waitFor("TAudioSource", "setCodecStopped"));
         });
     }},
    {"encoderThatFailsWhileTheWriterStops", 2, -1130,
     [](T& t) {
         t.mJournal.on("Transcode: call writer stop",
                       [&t] { t.session().mVideoSource->mCore.reportFailure(-1130); });
     }},
};

INSTANTIATE_TEST_SUITE_P(Ends, RunEndTest, ::testing::ValuesIn(kRunEnds),
                         [](const auto& end) { return end.param.what; });

TEST_F(MainLoopTest, anEndOfTheInputBehindASeekIsNoReadError) {
    addSamples(3, 3);
    mPlatform.extractor().fail("seekTo", -1011);
    EXPECT_EQ(0, run());
    EXPECT_EQ(3u, mPlatform.writer().samples(0).size());
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
    expectOrder({"Transcode: inputThreadEntry end", "decoder audio/mp4a-latm release",
                 "decoder video/avc release"});
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

TEST_F(MainLoopTest, decodersDrawOnTheHostsSurfaceAndAnEncoderMayBeFedThroughOne) {
    mRequest.mUseInputSurface = true;
    mSession = std::make_unique<Transcode>(&mRequest, new Surface);
    mAudioDecoder->setInputBuffers(3, 7000);
    mVideoDecoder->setInputBuffers(5, 6000);
    prepareLoop();
    EXPECT_EQ(7000u, session().mSampleBufferSize) << "what the largest input buffer holds";
    EXPECT_EQ(1u, mJournal.count("decoder video/avc configure surface 0"));
    EXPECT_EQ(1u, mJournal.count("decoder audio/mp4a-latm configure 0"));
    session().runDecoder(nullptr, 1, 0);
    EXPECT_EQ(1u, mJournal.count("encoder video/avc configure 1"));
    int32_t color = 0;
    mVideoEncoder->configuredFormat()->findInt32("color-format", &color);
    EXPECT_EQ(0x7F000789, color);
}

TEST_F(MainLoopTest, theUuidDataOfTheInputIsCopied) {
    session().createExtractor(session().mFileAttribute);
    session().mMP4Writer = new MPEG4Writer(-1);
    for (const sp<ABuffer>& data : {bufferOf({9, 8, 7}), bufferOf({}), sp<ABuffer>()}) {
        mPlatform.extractor().fileFormat()->setBuffer("uuid-data", data);
        session().copyUuidData();
    }
    EXPECT_EQ((Lines{"platform setUuidData 3"}), mJournal.linesOf("platform setUuidData"));
    EXPECT_EQ((std::vector<uint8_t>{9, 8, 7}), mPlatform.uuidData());
    EXPECT_EQ(2u, mJournal.count("Transcode: This file meta has not uuid data"));
}

TEST_F(MainLoopTest, aProgressCallbackThatIsEmptyOrThrowsAborts) {
    static_assert(noexcept(std::declval<TranscodeComponent&>().process()), "hosts rely on it");
    mRequest.mProgressCallback = nullptr;
    EXPECT_FATAL(run(), "the progress callback is empty");
    EXPECT_EQ(0u, mJournal.count("writer start"));
    renewSession();
    const std::string message = "the progress callback threw an exception";
    mRequest.mProgressCallback = [](int32_t) { throw 1; };
    EXPECT_FATAL(run(), message);
    EXPECT_FATAL(session().printProgress(5000000), message) << "on the input reader";
}

}  // namespace android::qmmediaeditor
