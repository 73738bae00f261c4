// What one output event of a decoder leads to.
#include "SessionTest.h"

namespace android::qmmediaeditor {

class DecoderDrainTest : public SessionTest {
protected:
    enum { kAudio = 0, kVideo = 1 };

    // Decoders whose script is the test's alone.
    void prepareDrain() {
        prepareEchoes();
        prepareLoop();
    }
    status_t drain(int track) { return session().runDecoder(&mList, track, 123); }
    Transcode::CodecState& state(int track) { return *session().mpTrack[track].mCodecStatus; }
    std::vector<int64_t> queuedVideoTimes() {
        std::vector<int64_t> times;
        for (const TDecodedSample& sample : session().mVideoSource->mDecodedSamples) {
            times.push_back(sample.mPresentationTimeUs);
        }
        return times;
    }
    // Enables both sources.
    void takeFormats() {
        EXPECT_EQ(0, drain(kAudio));
        EXPECT_EQ(0, drain(kVideo));
    }
    typedef std::vector<int64_t> Times;

    List<TDecodedSample> mList;
};

TEST_F(DecoderDrainTest, aFrameIsCountedHandedOnAndOnlyThenReleased) {
    prepareDrain();
    takeFormats();
    session().mPeriodChanged = true;
    mVideoDecoder->frame(ScriptedCodec::Bytes(kFrameBytes, 7), 40000);
    mJournal.on("decoder video/avc releaseOutputBuffer 0",
                [&] { EXPECT_EQ((Times{40000}), queuedVideoTimes()); });
    EXPECT_EQ(0, drain(kVideo));
    EXPECT_EQ(123, mVideoDecoder->lastTimeoutUs());
    EXPECT_EQ(1u, mJournal.count("decoder video/avc releaseOutputBuffer 0"));
    EXPECT_EQ(1u, state(kVideo).mDecodedFrameCount);
    EXPECT_EQ(kFrameBytes, state(kVideo).mDecodedByteCount);
    EXPECT_FALSE(session().mPeriodChanged);
    EXPECT_TRUE(mList.empty());
    const TDecodedSample& kept = *session().mVideoSource->mDecodedSamples.begin();
    EXPECT_EQ(19, kept.mColorFormat);
    EXPECT_EQ(7, kept.mBuffer->data()[0]);
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "Decoded frame size : 384, [Video]"));
}

TEST_F(DecoderDrainTest, aPayloadBeginsAtItsOffset) {
    prepareDrain();
    takeFormats();
    mVideoDecoder->setPayloadOffset(32);
    mVideoDecoder->frame(ScriptedCodec::Bytes(kFrameBytes, 7), 40000);
    EXPECT_EQ(0, drain(kVideo));
    const TDecodedSample& kept = *session().mVideoSource->mDecodedSamples.begin();
    EXPECT_EQ(7, kept.mBuffer->data()[0]);
    EXPECT_EQ(7, kept.mBuffer->data()[kFrameBytes - 1]);
}

TEST_F(DecoderDrainTest, withoutAListAFrameIsOnlyReleased) {
    prepareDrain();
    takeFormats();
    mVideoDecoder->frame(ScriptedCodec::Bytes(kFrameBytes), 0);
    EXPECT_EQ(0, session().runDecoder(nullptr, kVideo, 0));
    EXPECT_TRUE(queuedVideoTimes().empty());
    EXPECT_EQ(0u, mVideoDecoder->heldOutputs());
    EXPECT_EQ(1u, state(kVideo).mDecodedFrameCount);
}

TEST_F(DecoderDrainTest, aTimeOutStillReleasesIndexZeroAndSeesAStop) {
    prepareDrain();
    takeFormats();
    mVideoDecoder->outputResult(-EAGAIN);
    EXPECT_EQ(-EAGAIN, drain(kVideo));
    EXPECT_EQ(1u, mVideoDecoder->strayReleases());
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "decoder output -EAGAIN:-11:[R:-11]"));

    mVideoDecoder->outputResult(-EAGAIN);
    mJournal.on("Transcode: decoder output -EAGAIN:-11:[R:-11]",
                [&] { session().mForceStop = true; });
    EXPECT_EQ(-1011, drain(kVideo));
    EXPECT_EQ(-1011, drain(kVideo)) << "without asking the decoder";
    EXPECT_EQ(2u, mJournal.count("Transcode: force stop in runDecoder"));
}

TEST_F(DecoderDrainTest, theEndIsHandedOnAndTheTrackIsThenFinished) {
    prepareDrain();
    takeFormats();
    mAudioDecoder->frame({}, 900, 4);
    EXPECT_EQ(0, drain(kAudio));
    EXPECT_TRUE(state(kAudio).mSawOutputEOS);
    EXPECT_EQ(0u, mAudioDecoder->heldOutputs());
    EXPECT_EQ(1u, session().mAudioSource->mDecodedSamples.size());
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "[Audio] reached EOS on output"));
    EXPECT_FALSE(session().allTracksEnded());
    EXPECT_EQ(-1011, drain(kAudio));
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "[Audio] CodecSource stopped"));
}

TEST_F(DecoderDrainTest, periodsAreHalfOpenAndJoinedInTheOutput) {
    setPeriods({{1000000, 5000000}, {7000000, 9000000}});
    prepareDrain();
    takeFormats();
    const struct {
        int64_t timeUs;
        status_t result;
    } table[] = {{999999, -1011}, {1000000, 0}, {4999999, 0},     {5000000, -1011},
                 {7000000, 0},    {8999999, 0}, {9000000, -1011}, {8000000, -1011}};
    for (const auto& row : table) {
        mVideoDecoder->frame(ScriptedCodec::Bytes(kFrameBytes), row.timeUs);
        EXPECT_EQ(row.result, drain(kVideo)) << row.timeUs;
    }
    // The first frame of the second period, at 4000000, comes too soon after the one before.
    EXPECT_EQ((Times{0, 3999999, 5999999}), queuedVideoTimes());
    EXPECT_EQ(4u, state(kVideo).mDecodedFrameCount);
    EXPECT_EQ(0u, mVideoDecoder->heldOutputs());
    EXPECT_FALSE(session().mNeedtoSeek);
}

TEST_F(DecoderDrainTest, theEndIsNeverDroppedNorRebased) {
    setPeriods({{100, 200}});
    prepareDrain();
    takeFormats();
    for (const int track : {kAudio, kVideo}) {
        (track == kAudio ? mAudioDecoder : mVideoDecoder)->frame({}, 5000, 4);
        EXPECT_EQ(0, drain(track));
        EXPECT_TRUE(state(track).mSawOutputEOS);
        EXPECT_EQ(1u, state(track).mDecodedFrameCount);
    }
    EXPECT_EQ(0, session().mCurrentPeriodIndex) << "its time finished no period";
}

TEST_F(DecoderDrainTest, aPeriodThatLiesBeforeTheFinishedOneAsksForASeek) {
    setPeriods({{500, 700}, {699, 800}, {800, 900}, {0, 100}});
    session().verifyTrimInfo();
    TDecodedSample sample;
    sample.mPresentationTimeUs = 700;
    EXPECT_TRUE(session().adjustPresentationTimeUs(&sample)) << "it falls into the next period";
    EXPECT_EQ(201, sample.mPresentationTimeUs);
    EXPECT_TRUE(session().mNeedtoSeek);
    EXPECT_EQ(699, session().mSeekTime);
    EXPECT_TRUE(logged(ANDROID_LOG_DEBUG, "mNeedtoSeek : true, mSeekTime: 699"));

    session().mNeedtoSeek = false;
    sample.mPresentationTimeUs = 800;
    EXPECT_TRUE(session().adjustPresentationTimeUs(&sample));
    EXPECT_FALSE(session().mNeedtoSeek) << "the next one begins where this one ended";

    sample.mPresentationTimeUs = 900;
    EXPECT_FALSE(session().adjustPresentationTimeUs(&sample));
    EXPECT_TRUE(session().mNeedtoSeek);
    session().createExtractor(session().mFileAttribute);
    session().seekIfNeeded();
    EXPECT_EQ(1u, mJournal.count("extractor seekTo 0 mode 0"));
    EXPECT_FALSE(session().mNeedtoSeek);
}

TEST_F(DecoderDrainTest, aReaderThatTakesTheSeekAtOnceSeesTheNewPeriod) {
    setPeriods({{500, 700}, {600, 800}});
    session().verifyTrimInfo();
    session().createExtractor(session().mFileAttribute);
    mJournal.on("Transcode: mNeedtoSeek : true, mSeekTime: 600",
                [this] { session().seekIfNeeded(); });
    TDecodedSample sample;
    sample.mPresentationTimeUs = 700;
    session().adjustPresentationTimeUs(&sample);
    EXPECT_EQ((std::vector<std::string>{"extractor seekTo 600 mode 0"}),
              mJournal.linesOf("extractor seekTo"));
}

TEST_F(DecoderDrainTest, aSeekThatIsAskedForDuringASeekIsNotLost) {
    session().createExtractor(session().mFileAttribute);
    mJournal.on("extractor seekTo 0 mode 0", [this] { session().mNeedtoSeek.publish(true); });
    session().mSeekTime = 0;
    session().mNeedtoSeek = true;
    EXPECT_EQ(OK, session().seekIfNeeded());
    EXPECT_TRUE(session().mNeedtoSeek);
}

TEST_F(DecoderDrainTest, periodsAtTheEndsOfTheRangeStayThere) {
    setPeriods({{INT64_MIN, INT64_MAX}, {0, INT64_MAX}});
    session().verifyTrimInfo();
    TDecodedSample sample;
    sample.mPresentationTimeUs = 0;
    EXPECT_TRUE(session().adjustPresentationTimeUs(&sample));
    EXPECT_EQ(INT64_MAX, sample.mPresentationTimeUs);
    sample.mPresentationTimeUs = INT64_MAX;
    EXPECT_FALSE(session().adjustPresentationTimeUs(&sample));
    EXPECT_EQ(INT64_MAX, session().mPeriodOffsetUs);
}

TEST_F(DecoderDrainTest, newOutputBuffersAreFetched) {
    prepareDrain();
    mVideoDecoder->setOutputBuffers(3, 8);
    mVideoDecoder->formatChange(videoFormat());
    takeFormats();
    drain(kVideo);
    mVideoDecoder->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    EXPECT_EQ(-1014, drain(kVideo));
    EXPECT_EQ(3u, state(kVideo).mOutBuffers.size());
    EXPECT_TRUE(logged(ANDROID_LOG_VERBOSE, "got 3 output buffers"));
}

TEST_F(DecoderDrainTest, aFormatChangeTellsTheSourceWhatIsDecoded) {
    prepareDrain();
    sp<AMessage> audio = new AMessage;
    audio->setInt32("channel-count", 6);
    EXPECT_EQ(0, session().setDecoderOutputFormat(true, audio));
    EXPECT_EQ(6, session().mAudioSource->mInputChannelCount);
    EXPECT_EQ(48000, session().mAudioSource->mInputSampleRate) << "unknown stays as it was";
    EXPECT_TRUE(logged(ANDROID_LOG_WARN, "can not find sample-rate"));
    EXPECT_FALSE(logged(ANDROID_LOG_WARN, "can not find channel-count"));

    const std::pair<int32_t, int32_t> colors[] = {{21, 21}, {19, 19}, {7, 19}};
    for (const auto& [reported, kept] : colors) {
        sp<AMessage> video = videoFormat();
        video->setInt32("color-format", reported);
        EXPECT_EQ(0, session().setDecoderOutputFormat(false, video));
        EXPECT_EQ(kept, session().mVideoSource->mAttribute.mDecoderColorFormat);
    }
    EXPECT_TRUE(logged(ANDROID_LOG_ERROR, "error : not support color format 7"));
}

TEST_F(DecoderDrainTest, anAudioFormatChangeMayBeIgnored) {
    prepareDrain();
    session().mAcceptAudioFormatChange = false;
    EXPECT_EQ(-1012, drain(kAudio));
    EXPECT_EQ(nullptr, session().mAudioSource->mMediaEncoderThread);
}

TEST_F(DecoderDrainTest, anEncoderThatCannotBeHadIsAnEncoderError) {
    prepareDrain();
    mPlatform.refuseCodec(kAac, true);
    mPlatform.refuseCodec(kAvc, true);
    EXPECT_EQ(-1130, drain(kAudio));
    EXPECT_EQ(-1130, drain(kVideo));
    EXPECT_EQ(2u, mJournal.count("Transcode: error : encoder enable failed -1100"));
}

}  // namespace android::qmmediaeditor
