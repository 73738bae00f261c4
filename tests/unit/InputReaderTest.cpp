// The input reader, run on the test's own thread.
#include "SessionTest.h"

namespace android::qmmediaeditor {

class InputReaderTest : public SessionTest {
protected:
    // A session that is ready to read.
    void prepareReader() {
        prepareEchoes();
        addSamplesOfTest();
        prepareLoop();
        session().mSeekTime = 0;
        session().mNeedtoSeek = true;
    }
    virtual void addSamplesOfTest() { addSamples(2, 2); }
    std::vector<int64_t> timesOf(const sp<ScriptedCodec>& codec) {
        std::vector<int64_t> times;
        for (const auto& input : codec->queued()) {
            if (input.flags == 0) times.push_back(input.timeUs);
        }
        return times;
    }
    typedef std::vector<int64_t> Times;
};

TEST_F(InputReaderTest, everySampleGoesToItsDecoderAndThenTheEnd) {
    prepareReader();
    EXPECT_EQ(0, session().inputThreadEntry());
    EXPECT_EQ((Times{0, kAudioStepUs}), timesOf(mAudioDecoder));
    EXPECT_EQ((Times{0, kVideoStepUs}), timesOf(mVideoDecoder));
    for (const auto& decoder : {mAudioDecoder, mVideoDecoder}) {
        const auto last = decoder->queued().back();
        EXPECT_EQ(0u, last.bytes.size());
        EXPECT_EQ(0, last.timeUs);
        EXPECT_EQ(4u, last.flags);
        EXPECT_EQ(500, decoder->lastTimeoutUs());
    }
    EXPECT_EQ(kPcmBytes, mAudioDecoder->queued()[1].bytes.size());
    EXPECT_EQ(1, mAudioDecoder->queued()[1].bytes[0]);
    EXPECT_EQ(nullptr, session().mSampleBuffer);
    const std::vector<std::string> expected = {"inputThreadEntry start",
                                               "Do transcode seekTo Prev : 0",
                                               "saw input eos",
                                               "signalling input EOS on track 0",
                                               "signalling input EOS on track 1",
                                               "All codec was stopped",
                                               "inputThreadEntry end"};
    const std::vector<std::string> lines = logged();
    EXPECT_EQ(expected, std::vector<std::string>(lines.end() - 7, lines.end()));
}

TEST_F(InputReaderTest, aTrimmedRunSeeksToThePeriodAndStopsReadingBeyondTheLast) {
    setPeriods({{kVideoStepUs, 2 * kVideoStepUs}, {3 * kVideoStepUs, 4 * kVideoStepUs}});
    prepareEchoes();
    addSamples(0, 8);
    prepareLoop();
    session().mSeekTime = 77;
    session().mNeedtoSeek = true;
    session().inputThreadEntry();
    EXPECT_EQ(1u, mJournal.count("extractor seekTo 40000 mode 0"));
    // The sample at the very end is still read, the one after it is not.
    EXPECT_EQ((Times{kVideoStepUs, 2 * kVideoStepUs, 3 * kVideoStepUs, 4 * kVideoStepUs}),
              timesOf(mVideoDecoder));
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "Trim time was overed and try force stop."));
    EXPECT_FALSE(session().mNeedtoSeek);
}

TEST_F(InputReaderTest, samplesOfOtherTracksCostOneStep) {
    sp<AMessage> text = new AMessage;
    text->setString("mime", "text/3gpp");
    prepareEchoes();
    mPlatform.extractor().addTrack(text);
    mPlatform.extractor().addSample({2, 0, {1}});
    mPlatform.extractor().addSample({7, 0, {1}});
    addSamples(1, 1);
    prepareLoop();
    session().inputThreadEntry();
    EXPECT_EQ(4u, mJournal.count("extractor advance"));
    EXPECT_EQ(2u, mAudioDecoder->queued().size());
    EXPECT_EQ(2u, mVideoDecoder->queued().size());
}

TEST_F(InputReaderTest, withoutASelectedTrackNothingIsMissedByAReadError) {
    sp<AMessage> text = new AMessage;
    text->setString("mime", "text/3gpp");
    mPlatform.extractor().addTrack(text);
    mPlatform.extractor().fail("seekTo", -38);
    mPlatform.extractor().fail("getSampleTrackIndex", -38);
    prepareLoop();
    session().mNeedtoSeek = true;
    session().inputThreadEntry();
    session().inputThreadEntry();
    EXPECT_EQ(2u, mJournal.count("Transcode: All codec was stopped"));
    EXPECT_FALSE(session().mForceStop);
}

TEST_F(InputReaderTest, aDecoderThatTakesNothingIsAskedAgainWithTheSameSample) {
    prepareReader();
    for (const status_t err : {-EAGAIN, -EAGAIN, -5}) mVideoDecoder->inputResult(err);
    session().inputThreadEntry();
    EXPECT_EQ((Times{0, kVideoStepUs}), timesOf(mVideoDecoder));
    EXPECT_EQ(4u, mJournal.count("extractor advance"));
    EXPECT_EQ(1u, mJournal.count("Transcode: need check this error"));
}

TEST_F(InputReaderTest, theEndIsSignalledAgainUntilEveryDecoderHasIt) {
    prepareEchoes();
    prepareLoop();
    mAudioDecoder->inputResult(-EAGAIN);
    mAudioDecoder->inputResult(-5);
    session().inputThreadEntry();
    EXPECT_EQ(1u, mAudioDecoder->queued().size());
    EXPECT_EQ(1u, mVideoDecoder->queued().size());
    EXPECT_EQ(1u, mJournal.count("Transcode: need check this error in EOS State"));
    EXPECT_TRUE(session().mpTrack[0].mCodecStatus->mSawInputEOS);
    EXPECT_TRUE(session().mpTrack[1].mCodecStatus->mSawInputEOS);
}

TEST_F(InputReaderTest, aStopEndsTheReaderWhereverItIs) {
    prepareReader();
    session().mForceStop = true;
    session().inputThreadEntry();
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "Force stop : so sawInputEOS is changed as ture."));
    EXPECT_TRUE(mVideoDecoder->queued().empty());

    mVideoDecoder->inputResult(-EAGAIN);
    session().mSampleBuffer = new ABuffer(8);
    EXPECT_EQ(Transcode::ReaderState::kEnded, session().queueSample({1, 0, false}));
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "Force stop : in EAGAIN case"));

    mAudioDecoder->inputResult(-EAGAIN);
    EXPECT_EQ(Transcode::ReaderState::kEnded, session().signalInputEOS());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "force stop input in EAGAIN case"));
    EXPECT_TRUE(session().mpTrack[0].mCodecStatus->mSawInputEOS);
    EXPECT_FALSE(session().mpTrack[1].mCodecStatus->mSawInputEOS);
}

TEST_F(InputReaderTest, theReaderEndsWhenTheMainLoopHasEnded) {
    prepareReader();
    session().mOutputStopped = true;
    session().inputThreadEntry();
    EXPECT_TRUE(mVideoDecoder->queued().empty() && mAudioDecoder->queued().empty());
    EXPECT_FALSE(session().mForceStop);
}

TEST_F(InputReaderTest, aDecoderThatRefusesASampleEndsTheReaderAndTheRun) {
    prepareReader();
    mVideoDecoder->fail("queueInputBuffer", -38);
    session().inputThreadEntry();
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "input abort by invalid state"));
    EXPECT_EQ(0u, mJournal.count("extractor advance"));
    EXPECT_TRUE(session().mForceStop) << "or the run would wait for an end that never comes";
}

TEST_F(InputReaderTest, aSampleThatADecoderCannotHoldEndsTheReaderAndTheRun) {
    mPlatform.extractor().addTrack(audioFormat());
    mPlatform.extractor().addTrack(videoFormat());
    mAudioDecoder = mPlatform.decoder(kAac);
    mAudioDecoder->setInputBuffers(2, 64);
    mPlatform.extractor().addSample({0, 5, std::vector<uint8_t>(64)});
    mPlatform.extractor().addSample({0, 6, std::vector<uint8_t>(65)});
    prepareLoop();
    session().inputThreadEntry();
    ASSERT_EQ(1u, mAudioDecoder->queued().size());
    EXPECT_TRUE(session().mForceStop);
    EXPECT_EQ(-1130, session().mFailure);
}

TEST_F(InputReaderTest, samplesReadAheadComeFirst) {
    prepareReader();
    EXPECT_EQ(4, session().makeSampleList(session().mExtractor, &session().mSampleList, 4096));
    session().mNeedtoSeek = false;
    session().inputThreadEntry();
    EXPECT_EQ((Times{0, kAudioStepUs}), timesOf(mAudioDecoder));
    EXPECT_EQ((Times{0, kVideoStepUs}), timesOf(mVideoDecoder));
    EXPECT_EQ(1, mAudioDecoder->queued()[1].bytes[0]);
    EXPECT_TRUE(session().mSampleList.empty());
}

TEST_F(InputReaderTest, progressGrowsFromTheOffsetAndIsNeverRepeated) {
    mRequest.mProgressOffset = 50;
    session().mFileAttribute.mDurationUs = 10000000;
    for (const int64_t t : {0, 5000000, 5000001, 4000000, 10000000}) session().printProgress(t);
    EXPECT_EQ((std::vector<int32_t>{50, 75, 100}), mProgress);
}

TEST_F(InputReaderTest, progressOfATrimmedRunCountsFromTheFirstStartToTheLastEnd) {
    setPeriods({{1000000, 2000000}, {3000000, 4999000}});
    for (const uint32_t offset : {0u, 50u}) {
        mRequest.mProgressOffset = offset;
        mSession.reset();
        mProgress.clear();
        session().mFileAttribute.mDurationUs = 77;
        for (const int64_t t : {1000000, 1040010, 3000000, 4999000, 4999001}) {
            session().printProgress(t);
        }
        // offset + (t + 1000 - 1000000) * (100 - offset) / (4999000 + 2000 - 1000000)
        const std::vector<int32_t> whole = {1, 50, 99};
        const std::vector<int32_t> half = {50, 75, 99};
        EXPECT_EQ(offset == 0 ? whole : half, mProgress);
    }
}

TEST_F(InputReaderTest, progressIsEvaluatedForANegativeDenominatorToo) {
    // The last period ends before the first one starts.
    setPeriods({{10000000, 11000000}, {0, 3000000}});
    for (const int64_t t : {10000000, 9999000, 1000000, 0}) session().printProgress(t);
    // (t + 1000 - 10000000) * 100 / (3000000 + 2000 - 10000000)
    EXPECT_EQ((std::vector<int32_t>{128, 142}), mProgress);
    setPeriods({{3002000, 3002000}, {0, 3000000}});
    session().printProgress(5);
    EXPECT_EQ(2u, mProgress.size()) << "a denominator of 0 is passed over";
}

TEST_F(InputReaderTest, progressSurvivesDurationsAndTimesAtTheEndsOfTheRange) {
    session().mFileAttribute.mDurationUs = 0;
    session().printProgress(5);
    EXPECT_TRUE(mProgress.empty());
    session().mFileAttribute.mDurationUs = INT64_MAX;
    session().printProgress(INT64_MAX);
    EXPECT_EQ((std::vector<int32_t>{1}), mProgress) << "stays at the end of the range";
    setPeriods({{INT64_MIN, INT64_MAX}});
    session().printProgress(INT64_MAX);
    session().printProgress(INT64_MIN);
    session().mProperty->mTrimEnabled = false;
    session().mFileAttribute.mDurationUs = -1;
    session().printProgress(INT64_MIN);
    EXPECT_EQ(1u, mProgress.size());
}

TEST_F(InputReaderTest, periodsAreAcceptedOnlyWhenNoneEndsBeforeItStarts) {
    EXPECT_EQ(0, session().verifyTrimInfo());
    EXPECT_EQ(-1, session().mCurrentPeriodIndex);
    setPeriods({});
    EXPECT_EQ(-38, session().verifyTrimInfo());
    setPeriods({{0, 0}, {6, 5}});
    EXPECT_EQ(-38, session().verifyTrimInfo());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "(0) period start(0) ~ end(0)"));
    EXPECT_TRUE(logged(ANDROID_LOG_ERROR, "invalid trim(1) duration start(6)-end(5)"));
    setPeriods({{6, 6}});
    session().mPeriodOffsetUs = 9;
    EXPECT_EQ(0, session().verifyTrimInfo());
    EXPECT_EQ(0, session().mCurrentPeriodIndex);
    EXPECT_EQ(0, session().mPeriodOffsetUs);
}

}  // namespace android::qmmediaeditor
