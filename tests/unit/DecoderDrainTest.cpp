// The effect of one output event of a decoder.
#include "SessionTest.h"

namespace android::qmmediaeditor {

class DecoderDrainTest : public SessionTest {
protected:
    enum { kAudio = 0, kVideo = 1 };

    // Decoders whose script is the test's alone, and sources with encoders.
    void prepareDrain() {
        prepareEchoes();
        prepareLoop();
        EXPECT_EQ(0, drain(kAudio));
        EXPECT_EQ(0, drain(kVideo));
    }
    // A session that only computes times, and an extractor to seek in.
    void prepareTimes(const std::vector<TrimPeriod>& periods) {
        setPeriods(periods);
        session().verifyTrimInfo();
        session().createExtractor(session().mFileAttribute);
    }
    status_t drain(int track) { return session().runDecoder(&mList, track, 123); }
    status_t drainFrame(int64_t timeUs) {
        mVideoDecoder->frame(ScriptedCodec::Bytes(kFrameBytes, 7), timeUs);
        return drain(kVideo);
    }
    Transcode::CodecState& state(int track) { return *session().mpTrack[track].mCodecStatus; }
    List<TDecodedSample>& queuedVideo() { return session().mVideoSource->mDecodedSamples; }
    Times queuedVideoTimes() {
        Times times;
        for (const TDecodedSample& sample : queuedVideo()) {
            times.push_back(sample.mPresentationTimeUs);
        }
        return times;
    }
    // False when the sample falls outside of the periods.
    bool adjust(int64_t timeUs) {
        mSample.mPresentationTimeUs = timeUs;
        return session().adjustPresentationTimeUs(&mSample);
    }

    List<TDecodedSample> mList;
    TDecodedSample mSample;
};

TEST_F(DecoderDrainTest, aFrameIsCountedHandedOnAndOnlyThenReleased) {
    prepareDrain();
    session().mPeriodChanged = true;
    mVideoDecoder->setPayloadOffset(32);
    mJournal.on("decoder video/avc releaseOutputBuffer 0",
                [&] { EXPECT_EQ((Times{40000}), queuedVideoTimes()); });
    EXPECT_EQ(0, drainFrame(40000));
    EXPECT_EQ(123, mVideoDecoder->lastTimeoutUs());
    EXPECT_EQ(1u, mJournal.count("decoder video/avc releaseOutputBuffer 0"));
    EXPECT_EQ(1u, state(kVideo).mDecodedFrameCount);
    EXPECT_EQ(kFrameBytes, state(kVideo).mDecodedByteCount);
    EXPECT_FALSE(session().mPeriodChanged);
    EXPECT_TRUE(mList.empty());
    const TDecodedSample& kept = *queuedVideo().begin();
    EXPECT_EQ(19, kept.mColorFormat);
    EXPECT_EQ(7, kept.mBuffer->data()[0]);
    EXPECT_EQ(7, kept.mBuffer->data()[kFrameBytes - 1]);
}

TEST_F(DecoderDrainTest, aTimeOutStillReleasesIndexZeroAndSeesAStop) {
    prepareDrain();
    mVideoDecoder->outputResult(-EAGAIN);
    EXPECT_EQ(-EAGAIN, drain(kVideo));
    EXPECT_EQ(1u, mJournal.count("decoder video/avc stray release"));

    mVideoDecoder->outputResult(-EAGAIN);
    mJournal.on("Transcode: decoder output -EAGAIN:-11:[R:-11]",
                [&] { session().mForceStop = true; });
    EXPECT_EQ(-1011, drain(kVideo));
    EXPECT_EQ(-1011, drain(kVideo)) << "without asking the decoder";
    EXPECT_EQ(2u, mJournal.count("Transcode: force stop in runDecoder"));
}

TEST_F(DecoderDrainTest, theEndIsHandedOnAndTheTrackIsThenFinished) {
    setPeriods({{100, 200}});
    prepareDrain();
    // Beyond the last period, which drops frames but never the end.
    mAudioDecoder->frame({}, 900, 4);
    EXPECT_EQ(0, drain(kAudio));
    EXPECT_TRUE(state(kAudio).mSawOutputEOS);
    EXPECT_EQ(0u, mAudioDecoder->heldOutputs());
    EXPECT_EQ(1u, session().mAudioSource->mDecodedSamples.size());
    EXPECT_EQ(0, session().mCurrentPeriodIndex) << "its time finished no period";
    EXPECT_FALSE(session().allTracksEnded());
    EXPECT_EQ(-1011, drain(kAudio));
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "[Audio] CodecSource stopped"));
}

TEST_F(DecoderDrainTest, periodsAreHalfOpenAndJoinedInTheOutput) {
    setPeriods({{1000000, 5000000}, {7000000, 9000000}});
    prepareDrain();
    const std::pair<int64_t, status_t> table[] = {{999999, -1011},  {1000000, 0},    {4999999, 0},
                                                  {5000000, -1011}, {7000000, 0},    {8999999, 0},
                                                  {9000000, -1011}, {8000000, -1011}};
    for (const auto& [timeUs, result] : table) EXPECT_EQ(result, drainFrame(timeUs)) << timeUs;
    // The first frame of the second period, at 4000000, comes too soon after the one before.
    EXPECT_EQ((Times{0, 3999999, 5999999}), queuedVideoTimes());
    EXPECT_EQ(4u, state(kVideo).mDecodedFrameCount);
    EXPECT_EQ(0u, mVideoDecoder->heldOutputs());
    EXPECT_FALSE(session().mNeedtoSeek);
}

TEST_F(DecoderDrainTest, aPeriodThatLiesBeforeTheFinishedOneAsksForASeek) {
    prepareTimes({{500, 700}, {699, 800}, {800, 900}, {0, 100}});
    EXPECT_TRUE(adjust(700)) << "it falls into the next period";
    EXPECT_EQ(201, mSample.mPresentationTimeUs);
    EXPECT_TRUE(session().mNeedtoSeek);
    EXPECT_EQ(699, session().mSeekTime);
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "mNeedtoSeek : true, mSeekTime: 699"));

    session().mNeedtoSeek = false;
    EXPECT_TRUE(adjust(800));
    EXPECT_FALSE(session().mNeedtoSeek) << "the next one begins where this one ended";

    // The reader may take the seek at once, and another one may be asked for meanwhile.
    mJournal.on("Transcode: mNeedtoSeek : true, mSeekTime: 0",
                [this] { session().seekIfNeeded(); });
    mJournal.on("extractor seekTo 0 mode 0", [this] { session().mNeedtoSeek.publish(true); });
    EXPECT_FALSE(adjust(900));
    EXPECT_EQ((Lines{"extractor seekTo 0 mode 0"}), mJournal.linesOf("extractor seekTo"));
    EXPECT_TRUE(session().mNeedtoSeek);

    prepareTimes({{INT64_MIN, INT64_MAX}, {0, INT64_MAX}});
    EXPECT_TRUE(adjust(0));
    EXPECT_EQ(INT64_MAX, mSample.mPresentationTimeUs) << "times stay at the end of the range";
    EXPECT_FALSE(adjust(INT64_MAX));
}

TEST_F(DecoderDrainTest, aFormatChangeTellsTheSourceWhatIsDecoded) {
    prepareDrain();
    EXPECT_EQ(
        0, session().setDecoderOutputFormat(true, withKeys(new AMessage, {{"channel-count", 6}})));
    EXPECT_EQ(6, session().mAudioSource->mInputChannelCount);
    EXPECT_EQ(48000, session().mAudioSource->mInputSampleRate) << "unknown stays as it was";
    EXPECT_TRUE(logged(ANDROID_LOG_WARN, "can not find sample-rate"));

    const std::pair<int32_t, int32_t> colors[] = {{21, 21}, {19, 19}, {7, 19}};
    for (const auto& [reported, kept] : colors) {
        const sp<AMessage> video = videoFormat({{"color-format", reported}});
        EXPECT_EQ(0, session().setDecoderOutputFormat(false, video));
        EXPECT_EQ(kept, session().mVideoSource->mAttribute.mDecoderColorFormat);
    }
    EXPECT_TRUE(logged(ANDROID_LOG_ERROR, "error : not support color format 7"));

    session().mAcceptAudioFormatChange = false;
    session().mAudioSource->mInputChannelCount = 2;
    mAudioDecoder->formatChange(audioFormat({{"channel-count", 6}}));
    EXPECT_EQ(-1012, drain(kAudio)) << "it may be ignored";
    EXPECT_EQ(2, session().mAudioSource->mInputChannelCount);
}

}  // namespace android::qmmediaeditor
