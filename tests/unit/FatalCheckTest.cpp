// Every check whose failure ends the process, to the letter.
#include "SessionTest.h"
#include "SourceKinds.h"

namespace android::qmmediaeditor {

#define SOURCE_PATH "frameworks/av/services/mediaeditorservice/Transcode/"

class SessionCheckTest : public SessionTest {
protected:
    // The message, which must have been logged under that tag as well.
    template <typename Statement>
    std::string fatal(const Statement& statement) {
        const std::string message = FatalCheckTrap::messageOf(statement);
        EXPECT_TRUE(logged(ANDROID_LOG_FATAL, message)) << message;
        return message;
    }
    static std::string check(const char* rest) {
        return std::string(SOURCE_PATH "Transcode:") + rest;
    }
    void prepareTracks() {
        prepareEchoes();
        ASSERT_EQ(OK, session().createModule());
    }
};

TEST_F(SessionCheckTest, trackSelection) {
    const struct {
        const char* message;
        std::function<void(ScriptedPlatform&, AMessage&)> prepare;
    } table[] = {
        {"667 CHECK(mpTrack[i].mFormat->findString(\"mime\", &mime)) failed.",
         [](ScriptedPlatform&, AMessage& format) { format.setInt32("mime", 0); }},
        {"688 CHECK(mpTrack[i].mCodecStatus->mCodec != NULL) failed.",
         [](ScriptedPlatform& p, AMessage&) { p.refuseCodec(kAac, false); }},
        {"697 CHECK_EQ( err,(status_t)OK) failed: -5 vs. 0",
         [](ScriptedPlatform& p, AMessage&) { p.decoder(kAac)->fail("configure", -5); }},
        {"728 CHECK(mpTrack[i].mCodecStatus->mCodec != NULL) failed.",
         [](ScriptedPlatform& p, AMessage& format) {
             format.setString("mime", kAvc);
             p.refuseCodec(kAvc, false);
         }},
        {"774 CHECK(mpTrack[i].mFormat->findInt64(\"durationUs\", &duration)) failed.",
         [](ScriptedPlatform&, AMessage& format) { format.setInt32("durationUs", 0); }},
    };
    for (const auto& row : table) {
        ScriptedPlatform platform;
        const sp<AMessage> format = audioFormat();
        platform.extractor().addTrack(format);
        row.prepare(platform, *format);
        Transcode s(&mRequest, nullptr);
        s.createExtractor(s.mFileAttribute);
        EXPECT_EQ(check(row.message), fatal([&] { s.createTrack(); }));
    }
}

TEST_F(SessionCheckTest, startOfTheDecodersAndOfTheWriter) {
    const std::pair<const char*, const char*> table[] = {
        {"start", "1064 CHECK_EQ( (status_t)OK,mpTrack[i].mCodecStatus->mCodec->start()) failed: "},
        {"getInputBuffers",
         "1065 CHECK_EQ( (status_t)OK,mpTrack[i].mCodecStatus->mCodec->getInputBuffers("
         "&mpTrack[i].mCodecStatus->mInBuffers)) failed: "},
        {"getOutputBuffers",
         "1066 CHECK_EQ( (status_t)OK,mpTrack[i].mCodecStatus->mCodec->getOutputBuffers("
         "&mpTrack[i].mCodecStatus->mOutBuffers)) failed: "}};
    for (const auto& [operation, message] : table) {
        mSession.reset();
        renewOutput();
        mPlatform.extractor().addTrack(audioFormat());
        mPlatform.decoder(kAac)->fail(operation, -5);
        ASSERT_EQ(OK, session().createModule());
        EXPECT_EQ(check(message) + "-5 vs. 0", fatal([&] { session().startDecoders(); }));
    }
    mPlatform.writer().setStartResult(-6);
    EXPECT_EQ(check("1120 CHECK_EQ( (status_t)OK,mMP4Writer->start(mFileMeta.get())) failed: "
                    "0 vs. -6"),
              fatal([&] {
                  session().createSource();
                  session().wireWriter();
              }));
}

TEST_F(SessionCheckTest, endOfTheDecoders) {
    prepareTracks();
    mVideoDecoder->fail("release", -5);
    EXPECT_EQ(check("1226 CHECK_EQ( (status_t)OK,state->mCodec->release()) failed: 0 vs. -5"),
              fatal([&] { session().releaseDecoders(); }));
}

TEST_F(SessionCheckTest, inputReader) {
    addSamples(1, 1);
    prepareEchoes();
    prepareLoop();
    mVideoDecoder->fail("queueInputBuffer", -5);
    mAudioDecoder->holdInput(false);
    EXPECT_EQ(check("997 CHECK_EQ( err,(status_t)OK) failed: -5 vs. 0"),
              fatal([&] { session().signalInputEOS(); }));
    const std::pair<const char*, const char*> table[] = {
        {"getSampleMeta", "899 CHECK_EQ( err,(status_t)OK) failed: -4 vs. 0"},
        {"getSampleTime", "895 CHECK_EQ( err,(status_t)OK) failed: -4 vs. 0"},
        {"readSampleData", "892 CHECK_EQ( err,(status_t)OK) failed: -4 vs. 0"}};
    for (const auto& [operation, message] : table) {
        mPlatform.extractor().fail(operation, -4);
        Transcode::PendingSample sample;
        EXPECT_EQ(check(message), fatal([&] { session().readSample(&sample); }));
    }
}

TEST_F(SessionCheckTest, decoderDrain) {
    setPeriods({{100, 200}});
    prepareEchoes();
    prepareLoop();
    auto drain = [&] { return fatal([&] { session().runDecoder(nullptr, 1, 0); }); };
    mVideoDecoder->fail("getOutputFormat", -5);
    EXPECT_EQ(check("1340 CHECK_EQ( (status_t)OK,state->mCodec->getOutputFormat(&format)) failed: "
                    "0 vs. -5"),
              drain());
    mVideoDecoder->fail("getOutputBuffers", -6);
    mVideoDecoder->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    EXPECT_EQ(check("1334 CHECK_EQ( (status_t)OK,state->mCodec->getOutputBuffers("
                    "&state->mOutBuffers)) failed: 0 vs. -6"),
              drain());
    for (const status_t err : {-38, -10, -12, -1013, 1}) {
        mVideoDecoder->outputResult(err);
        EXPECT_EQ(check("1349 CHECK_EQ( err,-11) failed: ") + std::to_string(err) + " vs. -11",
                  drain());
    }
    mVideoDecoder->fail("releaseOutputBuffer", -7);
    mVideoDecoder->frame({1}, 5);
    EXPECT_EQ(check("1303 CHECK_EQ( err,(status_t)OK) failed: -7 vs. 0"), drain());
    mVideoDecoder->frame({1}, 150);
    EXPECT_EQ(check("1329 CHECK_EQ( err,(status_t)OK) failed: -7 vs. 0"), drain());
}

TEST_F(SessionCheckTest, indexesOfDecoderBuffers) {
    prepareEchoes();
    prepareLoop();
    auto endsWith = [](const std::string& text, const std::string& end) {
        return text.size() >= end.size() &&
               text.compare(text.size() - end.size(), end.size(), end) == 0;
    };
    mVideoDecoder->clearOutput();
    mVideoDecoder->frameAtIndex(16);
    EXPECT_TRUE(endsWith(fatal([&] { session().runDecoder(nullptr, 1, 0); }),
                         ": index=16 out of range (16)"));
    mVideoDecoder->inputIndex(4);
    EXPECT_TRUE(endsWith(fatal([&] {
                             session().queueSample({1, 0, false});
                         }),
                         ": index=4 out of range (4)"));
    mVideoDecoder->setInputBuffers(0, 0);
    EXPECT_TRUE(endsWith(fatal([&] { session().startDecoders(); }), ": index=0 out of range (0)"));
}

template <class Kind>
class EncoderCheckTest : public SourceTest<Kind> {
protected:
    // "<path of the source>:<line> CHECK_EQ( (status_t)OK,<member>.mCodec-><call>) failed: 0 vs.
    // -5"
    static std::string check(int line, const std::string& member, const std::string& call) {
        return std::string(SOURCE_PATH) + Kind::kTag + ":" + std::to_string(line) +
               " CHECK_EQ( (status_t)OK," + member + ".mCodec->" + call + ") failed: 0 vs. -5";
    }
    static constexpr bool kIsAudio = Kind::kIsAudio;
    const std::string mMember = kIsAudio ? "mAudioEncoder" : "mVideoEncoder";

    // One turn of each port, on this thread; the encoder's own threads have ended.
    void takeOutput() { this->mSource->mMediaEncoderThread->drainEncoder(mDetached); }
    void feed() {
        TDecodedSample input;
        this->mSource->mMediaEncoderThread->mPump.feedEncoder(mDetached, &input);
    }

    sp<ScriptedCodec> mDetached = new ScriptedCodec("detached", &this->mJournal);
};

TYPED_TEST_SUITE(EncoderCheckTest, BothKinds);

TYPED_TEST(EncoderCheckTest, buffersOfTheEncoder) {
    const std::tuple<const char*, int, const char*> table[] = {
        {"getInputBuffers", TypeParam::kIsAudio ? 647 : 648, ".mInBuffers)"},
        {"getOutputBuffers", TypeParam::kIsAudio ? 648 : 650, ".mOutBuffers)"}};
    for (const auto& [operation, line, buffers] : table) {
        this->mPlatform.encoder(TypeParam::kMime)->fail(operation, -5);
        const std::string call = std::string(operation) + "(&" + this->mMember + buffers;
        const std::string expected = this->check(line, this->mMember, call);
        EXPECT_FATAL(this->mSource->enable(TypeParam::attribute(), new AMessage), expected);
        EXPECT_TRUE(this->threadLogged(ANDROID_LOG_FATAL, expected));
    }
}

TYPED_TEST(EncoderCheckTest, outputOfTheEncoder) {
    this->enable(TypeParam::attribute());
    this->mDetached->fail("getOutputBuffers", -5);
    this->mDetached->fail("getOutputFormat", -5);
    this->mDetached->outputResult(INFO_OUTPUT_BUFFERS_CHANGED);
    EXPECT_FATAL(this->takeOutput(),
                 this->check(TypeParam::kIsAudio ? 1020 : 997, this->mMember,
                             "getOutputBuffers(&" + this->mMember + ".mOutBuffers)"));
    this->mDetached->outputResult(INFO_FORMAT_CHANGED);
    EXPECT_FATAL(this->takeOutput(), this->check(TypeParam::kIsAudio ? 1025 : 1002, this->mMember,
                                                 "getOutputFormat(&format)"));
}

TYPED_TEST(EncoderCheckTest, indexesOfEncoderBuffers) {
    this->enable(TypeParam::attribute());
    this->mDetached->frameAtIndex(16);
    std::string message = FatalCheckTrap::messageOf([&] { this->takeOutput(); });
    EXPECT_NE(std::string::npos, message.find(": index=16 out of range (16)")) << message;
    EXPECT_TRUE(this->logged(ANDROID_LOG_FATAL, message));
    this->mDetached->inputIndex(4);
    message = FatalCheckTrap::messageOf([&] { this->feed(); });
    EXPECT_NE(std::string::npos, message.find(": index=4 out of range (4)")) << message;
    EXPECT_TRUE(this->logged(ANDROID_LOG_FATAL, message));
}

TEST(FatalCheckTrapTest, aFailedCheckEndsAnotherThreadAndIsKept) {
    Journal journal;
    LogCapture log(&journal);
    FatalCheckTrap trap;
    bool survived = false;
    std::thread other([&] {
        checkEqual({"tag", checks::kSession, 1, "a,b"}, 2, 3);
        survived = true;
    });
    other.join();
    EXPECT_FALSE(survived);
    EXPECT_EQ((std::vector<std::string>{SOURCE_PATH "Transcode:1 CHECK_EQ( a,b) failed: 2 vs. 3"}),
              trap.elsewhere());
}

}  // namespace android::qmmediaeditor
