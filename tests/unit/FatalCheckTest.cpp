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

class SessionCheckTest;

struct BrokenPromise {
    const char* what;
    std::string message;
    void (*inject)(SessionCheckTest& test);
};

void PrintTo(const BrokenPromise& promise, std::ostream* out) { *out << promise.what; }

class SessionCheckTest : public SessionTest, public ::testing::WithParamInterface<BrokenPromise> {
protected:
    AMessage& audioTrack() { return *mPlatform.extractor().mTracks[0]; }
    // All of a run that can be on one thread.
    void runAlone() {
        prepareLoop();
        session().wireWriter();
        session().inputThreadEntry();
        for (int i = 0; i < 8; ++i) session().runDecoder(nullptr, i % 2, 0);
        session().releaseDecoders();
    }
};

TEST_P(SessionCheckTest, aPlatformThatBreaksAPromiseAborts) {
    addSamples(1, 1);
    prepareEchoes();
    GetParam().inject(*this);
    EXPECT_FATAL(runAlone(), GetParam().message);
}

typedef SessionCheckTest T;

const BrokenPromise kBrokenPromises[] = {
    {"noMimeType", failed(checks::kTrackMime), [](T& t) { t.audioTrack().setInt32("mime", 0); }},
    {"noDuration", failed(checks::kTrackDuration),
     [](T& t) { t.audioTrack().setInt32("durationUs", 0); }},
    {"noAudioDecoder", failed(checks::kAudioDecoder),
     [](T& t) { t.mPlatform.refuseCodec(kAac, false); }},
    {"noVideoDecoder", failed(checks::kVideoDecoder),
     [](T& t) { t.mPlatform.refuseCodec(kAvc, false); }},
    {"audioDecoderNotConfigured", failed(checks::kAudioDecoderConfigured, -5, 0),
     [](T& t) { t.mAudioDecoder->fail("configure", -5); }},
    {"decoderNotStarted", failed(checks::kDecoderStarted, -5, 0),
     [](T& t) { t.mAudioDecoder->fail("start", -5); }},
    {"noDecoderInputs", failed(checks::kDecoderInputs, -5, 0),
     [](T& t) { t.mAudioDecoder->fail("getInputBuffers", -5); }},
    {"noDecoderOutputs", failed(checks::kDecoderOutputs, -5, 0),
     [](T& t) { t.mAudioDecoder->fail("getOutputBuffers", -5); }},
    {"writerNotStarted", failed(checks::kWriterStarted, 0, -6),
     [](T& t) { t.mPlatform.writer().setStartResult(-6); }},
    {"noSampleMeta", failed(checks::kSampleMeta, -4, 0),
     [](T& t) { t.mPlatform.extractor().fail("getSampleMeta", -4); }},
    {"noSampleTime", failed(checks::kSampleTime, -4, 0),
     [](T& t) { t.mPlatform.extractor().fail("getSampleTime", -4); }},
    {"noSample", failed(checks::kSampleRead, -4, 0),
     [](T& t) { t.mPlatform.extractor().fail("readSampleData", -4); }},
    {"decoderEndNotQueued", failed(checks::kDecoderEndQueued, -5, 0),
     [](T& t) { t.mVideoDecoder->fail("queueInputBuffer", -5, 2); }},
    {"noDecoderFormat", failed(checks::kNewDecoderFormat, 0, -5),
     [](T& t) { t.mVideoDecoder->fail("getOutputFormat", -5); }},
    {"noNewDecoderOutputs", failed(checks::kNewDecoderOutputs, 0, -6),
     [](T& t) {
         t.mVideoDecoder->fail("getOutputBuffers", -6, 2);
         t.mVideoDecoder->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
     }},
    {"decoderThatFails", failed(checks::kDecoderOutputResult, -38, -11),
     [](T& t) { t.mVideoDecoder->outputResult(-38); }},
    {"droppedFrameNotReleased", failed(checks::kDroppedFrameReleased, -7, 0),
     [](T& t) {
         t.setPeriods({{100, 200}});
         t.mVideoDecoder->fail("releaseOutputBuffer", -7);
     }},
    {"frameNotReleased", failed(checks::kFrameReleased, -7, 0),
     [](T& t) { t.mVideoDecoder->fail("releaseOutputBuffer", -7); }},
    {"decoderNotReleased", failed(checks::kDecoderReleased, 0, -5),
     [](T& t) { t.mVideoDecoder->fail("release", -5); }},
    {"noAudioEncoderInputs", failed(checks::kAudioEncoderInputs, 0, -5),
     [](T& t) { t.mAudioEncoder->fail("getInputBuffers", -5); }},
    {"noAudioEncoderOutputs", failed(checks::kAudioEncoderOutputs, 0, -5),
     [](T& t) { t.mAudioEncoder->fail("getOutputBuffers", -5); }},
    {"noVideoEncoderInputs", failed(checks::kVideoEncoderInputs, 0, -5),
     [](T& t) { t.mVideoEncoder->fail("getInputBuffers", -5); }},
    {"noVideoEncoderOutputs", failed(checks::kVideoEncoderOutputs, 0, -5),
     [](T& t) { t.mVideoEncoder->fail("getOutputBuffers", -5); }},
};

INSTANTIATE_TEST_SUITE_P(Promises, SessionCheckTest, ::testing::ValuesIn(kBrokenPromises),
                         [](const auto& promise) { return promise.param.what; });

template <class Kind>
class EncoderCheckTest : public SourceTest<Kind> {
protected:
    // One pass of the output loop, on this thread, which fails with that text in its message.
    void drain(const std::string& expected) {
        const std::string message = FatalCheckTrap::messageOf(
            [&] { this->mSource->mMediaEncoderThread->drainEncoder(mDetached); });
        EXPECT_NE(std::string::npos, message.find(expected)) << message;
    }

    sp<ScriptedCodec> mDetached = new ScriptedCodec("detached", &this->mJournal);
};

TYPED_TEST_SUITE(EncoderCheckTest, BothKinds);

TYPED_TEST(EncoderCheckTest, anEncoderThatBreaksItsContractWhileItRunsAborts) {
    this->enable();
    const bool audio = TypeParam::kIsAudio;
    this->mDetached->fail("getOutputBuffers", -5);
    this->mDetached->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    this->drain(
        failed(audio ? checks::kNewAudioEncoderOutputs : checks::kNewVideoEncoderOutputs, 0, -5));
    this->mDetached->fail("getOutputFormat", -5);
    this->mDetached->outputResult(INFO_FORMAT_CHANGED);
    this->drain(
        failed(audio ? checks::kNewAudioEncoderFormat : checks::kNewVideoEncoderFormat, 0, -5));
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
