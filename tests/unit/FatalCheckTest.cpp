// Which operation fails which fatal check.
#include "SessionTest.h"
#include "SourceKinds.h"

namespace android::qmmediaeditor {

// The message of a check of two values.
static std::string failed(const FatalCheck& c, status_t first, status_t second) {
    return std::string(c.source) + ":" + std::to_string(c.line) + " CHECK_EQ( " + c.text +
           ") failed: " + std::to_string(first) + " vs. " + std::to_string(second);
}

static std::string failed(const FatalCheck& c) {
    return std::string(c.source) + ":" + std::to_string(c.line) + " CHECK(" + c.text + ") failed.";
}

class SessionCheckTest : public SessionTest {
protected:
    void prepare() {
        addSamples(1, 1);
        prepareEchoes();
        prepareLoop();
    }
    void drain(const std::string& expected) {
        EXPECT_FATAL(session().runDecoder(nullptr, 1, 0), expected);
    }
};

TEST_F(SessionCheckTest, aTrackOrDecoderThatIsNotAsPromisedAborts) {
    typedef ScriptedPlatform P;
    const struct {
        std::string message;
        void (*prepare)(P&, AMessage&);
    } table[] = {
        {failed(checks::kTrackMime), [](P&, AMessage& format) { format.setInt32("mime", 0); }},
        {failed(checks::kAudioDecoder), [](P& p, AMessage&) { p.refuseCodec(kAac, false); }},
        {failed(checks::kAudioDecoderConfigured, -5, 0),
         [](P& p, AMessage&) { p.decoder(kAac)->fail("configure", -5); }},
        {failed(checks::kVideoDecoder),
         [](P& p, AMessage& format) {
             format.setString("mime", kAvc);
             p.refuseCodec(kAvc, false);
         }},
        {failed(checks::kTrackDuration),
         [](P&, AMessage& format) { format.setInt32("durationUs", 0); }},
    };
    for (const auto& row : table) {
        ScriptedPlatform platform;
        const sp<AMessage> format = audioFormat();
        platform.extractor().addTrack(format);
        row.prepare(platform, *format);
        Transcode s(&mRequest, nullptr);
        s.createExtractor(s.mFileAttribute);
        EXPECT_FATAL(s.createTrack(), row.message);
    }
}

TEST_F(SessionCheckTest, decodersAndWritersThatDoNotStartAbort) {
    const std::pair<const char*, const FatalCheck&> table[] = {
        {"start", checks::kDecoderStarted},
        {"getInputBuffers", checks::kDecoderInputs},
        {"getOutputBuffers", checks::kDecoderOutputs}};
    for (const auto& [operation, c] : table) {
        mPlatform.extractor().addTrack(audioFormat());
        mPlatform.decoder(kAac)->fail(operation, -5);
        ASSERT_EQ(OK, renewSession().createModule());
        EXPECT_FATAL(session().startDecoders(), failed(c, -5, 0));
    }
    mPlatform.writer().setStartResult(-6);
    EXPECT_EQ(OK, session().createSource());
    EXPECT_FATAL(session().wireWriter(), failed(checks::kWriterStarted, 0, -6));
}

TEST_F(SessionCheckTest, samplesThatCannotBeReadAfterTheyWereAnnouncedAbort) {
    prepare();
    mVideoDecoder->fail("queueInputBuffer", -5);
    EXPECT_FATAL(session().signalInputEOS(), failed(checks::kDecoderEndQueued, -5, 0));
    const std::pair<const char*, const FatalCheck&> table[] = {
        {"getSampleMeta", checks::kSampleMeta},
        {"getSampleTime", checks::kSampleTime},
        {"readSampleData", checks::kSampleRead}};
    for (const auto& [operation, c] : table) {
        mPlatform.extractor().fail(operation, -4);
        Transcode::PendingSample sample;
        EXPECT_FATAL(session().readSample(&sample), failed(c, -4, 0));
    }
}

TEST_F(SessionCheckTest, decodersThatBreakTheirContractWhileTheyRunAbort) {
    setPeriods({{100, 200}});
    prepare();
    mVideoDecoder->fail("getOutputFormat", -5);
    drain(failed(checks::kNewDecoderFormat, 0, -5));
    mVideoDecoder->fail("getOutputBuffers", -6);
    mVideoDecoder->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    drain(failed(checks::kNewDecoderOutputs, 0, -6));
    for (const status_t err : {-38, 1}) {
        mVideoDecoder->outputResult(err);
        drain(failed(checks::kDecoderOutputResult, err, -11));
    }
    mVideoDecoder->fail("releaseOutputBuffer", -7);
    mVideoDecoder->frame({1}, 5);
    drain(failed(checks::kDroppedFrameReleased, -7, 0));
    mVideoDecoder->frame({1}, 150);
    drain(failed(checks::kFrameReleased, -7, 0));
    mVideoDecoder->fail("release", -5);
    EXPECT_FATAL(session().releaseDecoders(), failed(checks::kDecoderReleased, 0, -5));
}

template <class Kind>
class EncoderCheckTest : public SourceTest<Kind> {
protected:
    void SetUp() override {
        this->enable();
        mDetached->fail("getOutputBuffers", -5);
        mDetached->fail("getOutputFormat", -5);
    }
    static constexpr const FatalCheck& of(const FatalCheck& audio, const FatalCheck& video) {
        return Kind::kIsAudio ? audio : video;
    }
    // One pass of the output loop, on this thread, which fails with that text in its message.
    void drain(const std::string& expected) {
        const std::string message = FatalCheckTrap::messageOf(
            [&] { this->mSource->mMediaEncoderThread->drainEncoder(mDetached); });
        EXPECT_NE(std::string::npos, message.find(expected)) << message;
    }

    sp<ScriptedCodec> mDetached = new ScriptedCodec("detached", &this->mJournal);
};

TYPED_TEST_SUITE(EncoderCheckTest, BothKinds);

TYPED_TEST(EncoderCheckTest, anEncoderWithoutBuffersAborts) {
    const std::pair<const char*, const FatalCheck&> table[] = {
        {"getInputBuffers", this->of(checks::kAudioEncoderInputs, checks::kVideoEncoderInputs)},
        {"getOutputBuffers", this->of(checks::kAudioEncoderOutputs, checks::kVideoEncoderOutputs)}};
    for (const auto& [operation, c] : table) {
        this->mPlatform.encoder(TypeParam::kMime)->fail(operation, -5);
        EXPECT_FATAL(this->mSource->enable(TypeParam::attribute(), new AMessage), failed(c, 0, -5));
        EXPECT_TRUE(this->threadLogged(ANDROID_LOG_FATAL, failed(c, 0, -5)));
    }
}

TYPED_TEST(EncoderCheckTest, anEncoderThatBreaksItsContractWhileItRunsAborts) {
    this->mDetached->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    this->drain(
        failed(this->of(checks::kNewAudioEncoderOutputs, checks::kNewVideoEncoderOutputs), 0, -5));
    this->mDetached->outputResult(INFO_FORMAT_CHANGED);
    this->drain(
        failed(this->of(checks::kNewAudioEncoderFormat, checks::kNewVideoEncoderFormat), 0, -5));
    TypeParam::encoderOf(*this->mSource).mOutBuffers.clear();
    this->mDetached->frame({1}, 0);
    this->drain(": index=0 out of range (0)");
}

// One text as it stands in the log, so that the others can be built from the table.
TEST(FatalCheckTrapTest, aFailedCheckEndsAnotherThreadAndItsMessageIsKept) {
    Journal journal;
    LogCapture log(&journal);
    FatalCheckTrap trap;
    bool survived = false;
    std::thread other([&] {
        checkEqual(checks::kDecoderOutputResult, 2, 3);
        survived = true;
    });
    other.join();
    EXPECT_FALSE(survived);
    EXPECT_EQ((std::vector<std::string>{"frameworks/av/services/mediaeditorservice/Transcode/"
                                        "Transcode:1349 CHECK_EQ( err,-11) failed: 2 vs. 3"}),
              trap.elsewhere());
}

}  // namespace android::qmmediaeditor
