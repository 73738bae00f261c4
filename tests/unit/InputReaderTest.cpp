// The input reader, run on the test's own thread.
#include "SessionTest.h"

namespace android::qmmediaeditor {

class InputReaderTest : public SessionTest {
protected:
    // A session that is ready to read.
    void prepareReader(size_t audioCount, size_t videoCount) {
        prepareEchoes();
        addSamples(audioCount, videoCount);
        prepareLoop();
        session().mSeekTime = 0;
        session().mNeedtoSeek = true;
    }
    static Times timesOf(const sp<ScriptedCodec>& codec) {
        Times times;
        for (const auto& input : codec->queued()) {
            if (input.flags == 0) times.push_back(input.timeUs);
        }
        return times;
    }
    static sp<AMessage> textFormat() {
        sp<AMessage> format = new AMessage;
        format->setString("mime", "text/3gpp");
        return format;
    }
    void report(const Times& times) {
        for (const int64_t timeUs : times) session().printProgress(timeUs);
    }
    typedef std::vector<int32_t> Percents;
};

TEST_F(InputReaderTest, everySampleGoesToItsDecoderAndThenTheEnd) {
    // A decoder that takes nothing is asked again with the same sample, and with the end.
    prepareReader(2, 2);
    for (const status_t err : {-EAGAIN, -EAGAIN, -5}) mVideoDecoder->inputResult(err);
    mJournal.on("Transcode: saw input eos", [this] {
        for (const status_t err : {-EAGAIN, -5}) mAudioDecoder->inputResult(err);
    });
    EXPECT_EQ(0, session().inputThreadEntry());
    EXPECT_EQ((Times{0, kAudioStepUs}), timesOf(mAudioDecoder));
    EXPECT_EQ((Times{0, kVideoStepUs}), timesOf(mVideoDecoder));
    for (const auto& decoder : {mAudioDecoder, mVideoDecoder}) {
        ASSERT_EQ(3u, decoder->queued().size());
        const auto last = decoder->queued().back();
        EXPECT_EQ(0u, last.bytes.size());
        EXPECT_EQ(0, last.timeUs);
        EXPECT_EQ(4u, last.flags);
        EXPECT_EQ(500, decoder->lastTimeoutUs());
    }
    EXPECT_EQ(kPcmBytes, mAudioDecoder->queued()[1].bytes.size());
    EXPECT_EQ(1, mAudioDecoder->queued()[1].bytes[0]);
    EXPECT_EQ(4u, mJournal.count("extractor advance"));
    EXPECT_EQ(1u, mJournal.count("Transcode: need check this error"));
    EXPECT_EQ(1u, mJournal.count("Transcode: need check this error in EOS State"));
    EXPECT_EQ(nullptr, session().mSampleBuffer);
}

TEST_F(InputReaderTest, aTrimmedRunSeeksToThePeriodAndStopsReadingBeyondIt) {
    setPeriods({{kVideoStepUs, 4 * kVideoStepUs}});
    prepareReader(0, 8);
    session().mSeekTime = 77;
    session().inputThreadEntry();
    EXPECT_EQ(1u, mJournal.count("extractor seekTo 40000 mode 0"));
    // The sample at the very end is still read, the one after it is not.
    EXPECT_EQ((Times{kVideoStepUs, 2 * kVideoStepUs, 3 * kVideoStepUs, 4 * kVideoStepUs}),
              timesOf(mVideoDecoder));
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "Trim time was overed and try force stop."));
    EXPECT_FALSE(session().mNeedtoSeek);
}

TEST_F(InputReaderTest, samplesOfOtherTracksCostOneStep) {
    for (const size_t track : {size_t{2}, size_t{7}}) {
        mPlatform.extractor().addSample({track, 0, {1}});
    }
    prepareReader(1, 1);
    mPlatform.extractor().addTrack(textFormat());
    session().inputThreadEntry();
    EXPECT_EQ(4u, mJournal.count("extractor advance"));
    EXPECT_EQ(2u, mAudioDecoder->queued().size());
    EXPECT_EQ(2u, mVideoDecoder->queued().size());
}

TEST_F(InputReaderTest, withoutASelectedTrackNothingIsMissedByAReadError) {
    mPlatform.extractor().addTrack(textFormat());
    mPlatform.extractor().fail("seekTo", -38);
    mPlatform.extractor().fail("getSampleTrackIndex", -38);
    prepareLoop();
    session().mNeedtoSeek = true;
    session().inputThreadEntry();
    EXPECT_EQ(1u, mJournal.count("Transcode: All codec was stopped"));
    EXPECT_FALSE(session().mForceStop);
}

TEST_F(InputReaderTest, aStopEndsTheReaderWhereverItIs) {
    prepareReader(2, 2);
    session().mForceStop = true;
    session().inputThreadEntry();
    EXPECT_TRUE(mVideoDecoder->queued().empty());

    mVideoDecoder->inputResult(-EAGAIN);
    session().mSampleBuffer = new ABuffer(8);
    EXPECT_EQ(Transcode::ReaderState::kEnded, session().queueSample({1, 0, false}));

    mAudioDecoder->inputResult(-EAGAIN);
    EXPECT_EQ(Transcode::ReaderState::kEnded, session().signalInputEOS());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "force stop input in EAGAIN case"));
    EXPECT_TRUE(session().mpTrack[0].mCodecStatus->mSawInputEOS);
    EXPECT_FALSE(session().mpTrack[1].mCodecStatus->mSawInputEOS);
}

TEST_F(InputReaderTest, theReaderEndsWhenTheMainLoopHasEnded) {
    prepareReader(2, 2);
    session().mOutputStopped = true;
    session().inputThreadEntry();
    EXPECT_TRUE(mVideoDecoder->queued().empty() && mAudioDecoder->queued().empty());
    EXPECT_FALSE(session().mForceStop);
}

TEST_F(InputReaderTest, progressGrowsFromTheOffsetAndIsNeverRepeated) {
    mRequest.mProgressOffset = 50;
    session().mFileAttribute.mDurationUs = 0;
    report({5});
    EXPECT_EQ(Percents(), mProgress);
    session().mFileAttribute.mDurationUs = 10000000;
    report({0, 5000000, 5000001, 4000000, 10000000});
    EXPECT_EQ((Percents{50, 75, 100}), mProgress);
}

TEST_F(InputReaderTest, progressOfATrimmedRunFollowsTheFormula) {
    const struct {
        std::vector<TrimPeriod> periods;
        uint32_t offset;
        Times times;
        Percents percents;
    } table[] = {
        // offset + (t + 1000 - 1000000) * (100 - offset) / (4999000 + 2000 - 1000000)
        {{{1000000, 2000000}, {3000000, 4999000}},
         0,
         {1000000, 1040010, 3000000, 4999000, 4999001},
         {1, 50, 99}},
        {{{1000000, 2000000}, {3000000, 4999000}}, 50, {1000000, 3000000, 4999000}, {50, 75, 99}},
        // (t + 1000 - 10000000) * 100 / (3000000 + 2000 - 10000000)
        {{{10000000, 11000000}, {0, 3000000}}, 0, {10000000, 9999000, 1000000, 0}, {128, 142}},
        // An offset beyond 100 counts as none.
        {{{1000000, 2000000}, {3000000, 4999000}}, 101, {1040010}, {1}},
        // A denominator of 0 is passed over.
        {{{3002000, 3002000}, {0, 3000000}}, 0, {5}, {}},
        // Times stay at the ends of the range.
        {{{INT64_MIN, INT64_MAX}}, 0, {INT64_MAX, INT64_MIN}, {1}},
    };
    for (const auto& row : table) {
        setPeriods(row.periods);
        mRequest.mProgressOffset = row.offset;
        mProgress.clear();
        mSession.reset();
        report(row.times);
        EXPECT_EQ(row.percents, mProgress) << &row - table;
    }
}

TEST_F(InputReaderTest, periodsAreAcceptedOnlyWhenNoneEndsBeforeItStarts) {
    EXPECT_EQ(0, session().verifyTrimInfo());
    EXPECT_EQ(-1, session().mCurrentPeriodIndex);
    setPeriods({});
    EXPECT_EQ(-38, session().verifyTrimInfo());
    setPeriods({{0, 0}, {6, 5}});
    EXPECT_EQ(-38, session().verifyTrimInfo());
    EXPECT_TRUE(logged(ANDROID_LOG_ERROR, "invalid trim(1) duration start(6)-end(5)"));
    setPeriods({{6, 6}});
    session().mPeriodOffsetUs = 9;
    EXPECT_EQ(0, session().verifyTrimInfo());
    EXPECT_EQ(0, session().mCurrentPeriodIndex);
    EXPECT_EQ(0, session().mPeriodOffsetUs);
}

}  // namespace android::qmmediaeditor
