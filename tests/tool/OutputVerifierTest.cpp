#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/OutputVerifier.h>

namespace android::qmmediaeditor::cli {
namespace {

// One second has been encoded, and is in the file: 30 frames, of which the last one is shown twice
// as long, and mono audio of 8 kHz.
class ReadBackTest : public testing::Test {
protected:
    void SetUp() override {
        TrackSamples video{30, 1000, 0, 1033333, {}};
        for (int64_t i = 0; i < 30; ++i) {
            facts.onFrameEncoded(i * 1000000 / 30);
            video.timesUs.push_back(i * 1000000 / 30);
            say("Transcode", "Decoded frame size : 100, [Video]");
        }
        for (int i = 0; i < 2; ++i) {
            say("Transcode", "Decoded frame size : 100, [Video]");
            say("TVideoSource", "drop 33333 > 16666");
        }
        facts.onVideoEnd(1033333);
        facts.onAudioEncoded(8000, 8000);
        written.video = video;
        written.audio = TrackSamples{8, 1000, 0, 1024000, {}};
        written.media.audio = AudioTrack();
        written.media.audio->sampleRate = 8000;
    }

    void say(const char* tag, const char* text) {
        Saying saying;
        const bool understood = understand(tag, text, &saying);
        counts.note({0, tag, text, 0, 0}, understood ? &saying : nullptr);
    }

    std::string verdict() {
        const auto failure = checkWhole(input, counts, facts, written, "out.mp4");
        const std::string start = "the check of the output failed: ";
        if (!failure) return "";
        EXPECT_EQ(start, failure->reason.substr(0, start.size()));
        return failure->reason.substr(start.size());
    }

    InputFile input;
    RunCounts counts;
    RunFacts facts;
    WrittenFile written;
};

TEST_F(ReadBackTest, everythingEncodedIsInTheFile) {
    EXPECT_EQ("", verdict());
    // The file begins with its first frame, whatever its timestamp in the session.
    for (int64_t& timeUs : written.video->timesUs) timeUs += 20000;
    written.video->endUs += 20000;
    EXPECT_EQ("", verdict());
    EXPECT_EQ(1024000, commonEndUs(written));
}

TEST_F(ReadBackTest, framesAreMissing) {
    facts.onFrameEncoded(1000000);
    EXPECT_EQ("31 of 30 decoded frames reached the encoder", verdict());
    say("Transcode", "Decoded frame size : 100, [Video]");
    EXPECT_EQ("it has 30 of 31 frames", verdict());
    written.video.reset();
    EXPECT_EQ("it has 0 of 31 frames", verdict());
}

TEST_F(ReadBackTest, timestampsDiffer) {
    written.video->endUs = 1000000;
    EXPECT_EQ("its last frame ends at 1.00 s instead of 1.03 s", verdict());
    written.video->timesUs[15] += 2000;
    EXPECT_EQ("frame 16 is at 0.50 s instead of 0.50 s", verdict());
}

TEST_F(ReadBackTest, audioIsMissing) {
    written.audio->endUs = 600000;
    EXPECT_EQ("it has 0.60 s instead of 1.00 s of audio", verdict());
    written.audio.reset();
    EXPECT_EQ("it has 0.00 s instead of 1.00 s of audio", verdict());
}

TEST_F(ReadBackTest, uuidDataDiffer_isNotWhole) {
    written.media.uuidData = "other";
    EXPECT_THAT(verdict(), testing::HasSubstr("uuid"));
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
