#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/OutputVerifier.h>

namespace android::qmmediaeditor::cli {
namespace {

// One second was encoded and is in the file: 30 frames, of which the last one has twice the
// duration, and mono audio of 8 kHz.
class OutputVerifierTest : public testing::Test {
protected:
    void SetUp() override {
        TrackSamples video{30, 1000, 0, 1033333, {}};
        for (int64_t i = 0; i < 30; ++i) {
            observer.onFrameEncoded(i * 1000000 / 30);
            video.timesUs.push_back(i * 1000000 / 30);
            observer.onFrameDecoded(i * 1000000 / 30);
            // Left out, because it follows too closely.
            if (i % 10 == 5) observer.onFrameDecoded(i * 1000000 / 30 + 10000);
        }
        const sp<AMessage> format = new AMessage;
        format->setFloat("frame-rate", 30);
        observer.onEncoderOpened(true, "libx264", format);
        observer.onVideoEnd(1033333);
        observer.onAudioEncoded(8000, 8000);
        output.video = video;
        output.audio = TrackSamples{8, 1000, 0, 1024000, {}};
        output.media.audio = AudioTrack();
        output.media.audio->sampleRate = 8000;
    }

    std::string fault() const {
        const RunStatistics statistics = observer.statistics();
        return OutputVerifier(input, statistics, observer, policy).verify(output).value_or("");
    }

    MediaFile input;
    RunObserver observer;
    MetadataPolicy policy = MetadataPolicy::kWithoutLocation;
    OutputContents output;
};

TEST_F(OutputVerifierTest, everythingEncoded_isInTheFile) {
    EXPECT_EQ("", fault());
    // The file starts with its first frame, whatever its timestamp in the session.
    for (int64_t& timeUs : output.video->timesUs) timeUs += 20000;
    output.video->endUs += 20000;
    EXPECT_EQ("", fault());
    EXPECT_EQ(1024000, output.commonEndUs());
}

TEST_F(OutputVerifierTest, missingFrames_areCounted) {
    observer.onFrameEncoded(1000000);
    EXPECT_EQ("31 of 30 decoded frames reached the encoder", fault());
    observer.onFrameDecoded(1000000);
    EXPECT_EQ("30 of 31 frames are in the file", fault());
    output.video.reset();
    EXPECT_EQ("0 of 31 frames are in the file", fault());
    observer.onFrameDecoded(1033333);
    EXPECT_EQ("31 of 32 decoded frames reached the encoder", fault());
}

TEST_F(OutputVerifierTest, aShiftedTimestamp_isNamed) {
    output.video->endUs = 1000000;
    EXPECT_EQ("the last frame ends at 1.000 s instead of 1.033 s", fault());
    output.video->timesUs[15] += 2000;
    EXPECT_EQ("frame 16 has the timestamp 0.502 s instead of 0.500 s", fault());
}

TEST_F(OutputVerifierTest, missingAudio_isMeasured) {
    output.audio->endUs = 600000;
    EXPECT_EQ("the audio lasts 0.60 s instead of 1.00 s", fault());
    output.audio.reset();
    EXPECT_EQ("the audio lasts 0.00 s instead of 1.00 s", fault());
}

TEST_F(OutputVerifierTest, otherUuidData_isAFault) {
    output.media.uuidData = "other";
    EXPECT_THAT(fault(), testing::HasSubstr("uuid"));
}

TEST_F(OutputVerifierTest, metadataThatTheInputDoesNotHave_isAFault) {
    output.media.metadata.fields[MetadataField::kLocation] = "+48.8789+002.3376/";
    EXPECT_EQ("its metadata differs from the input's in: location", fault());
    output.media.metadata.fields.clear();
    output.media.metadata.fields[MetadataField::kTitle] = "title";
    EXPECT_EQ("its metadata differs from the input's in: title", fault());
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
