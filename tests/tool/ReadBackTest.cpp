#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/ReadBack.h>

namespace android::qmmediaeditor::cli {
namespace {

// One second of 30 pictures and mono sound of 8 kHz has been encoded, and is in the file.
class ReadBackTest : public testing::Test {
protected:
    void SetUp() override {
        say("TAudioSource",
            "TAudioSource decoderoutput: {\n  bits-per-sample = int32 16\n"
            "  channel-count = int32 1\n  sample-rate = int32 8000\n}");
        say("TAudioSource", "In Sample info : size[16000]:TimeUs[0]");
        for (int i = 0; i < 32; ++i) say("Transcode", "Decoded frame size : 100, [Video]");
        for (int i = 0; i < 2; ++i) say("TVideoSource", "drop 33333 > 16666");
        written.video = TrackSamples{30, 1000, 0, 1000000, {}};
        written.audio = TrackSamples{8, 1000, 0, 1024000, {}};
    }

    void say(const char* tag, const char* text) {
        Saying saying;
        const bool understood = understand(tag, text, &saying);
        counts.note({0, tag, text, 0, 0}, understood ? &saying : nullptr);
    }

    std::string verdict() {
        const auto failure = checkWhole(input, {}, counts, written, "out.mp4");
        return failure ? failure->reason : "";
    }

    InputFile input;  // tells of no track, so that its samples are not looked at
    RunCounts counts;
    WrittenFile written;
};

TEST_F(ReadBackTest, whatWasEncodedIsThere_isWhole) { EXPECT_EQ("", verdict()); }

TEST_F(ReadBackTest, aPictureIsMissing_isNotWhole) {
    written.video->count = 29;
    EXPECT_EQ("what was written has 29 pictures instead of 30", verdict());
}

TEST_F(ReadBackTest, soundIsMissing_isNotWhole) {
    written.audio->endUs = 600000;
    EXPECT_EQ("what was written has 0.60 s of sound instead of 1.00 s", verdict());
}

TEST_F(ReadBackTest, uuidDataDiffer_isNotWhole) {
    written.media.uuidData = "other";
    EXPECT_THAT(verdict(), testing::HasSubstr("uuid"));
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
