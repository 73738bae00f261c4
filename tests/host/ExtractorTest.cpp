// The extractor on real containers: what it opens, the formats of the tracks, the order of
// samples, seeks.
#include <gtest/gtest.h>
#include <media/stagefright/MediaErrors.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "IoSupport.h"
#include "host/extractor/InputProbe.h"

namespace android::qmmediaeditor {
namespace {

constexpr int kSeconds = 4;
// Of the video and audio inputs.
constexpr size_t kFrameCount = 120;
constexpr int64_t kNearUs = 70000;

struct Recipe {
    const char* name;
    const char* arguments = " -c:v libx264 -preset veryfast -bf 3 -g 30 -c:a aac ";
};

void PrintTo(const Recipe& recipe, std::ostream* out) { *out << recipe.name; }

std::string clip(const Recipe& recipe, int seconds = kSeconds) {
    return makeClip(recipe.name, videoInput(seconds) + audioInput(seconds) + recipe.arguments);
}

class ExtractorContainers : public ::testing::TestWithParam<Recipe> {
protected:
    std::vector<Sample> videoOf(const std::vector<Sample>& samples) {
        return ofTrack(samples, mClip.videoTrack());
    }
    std::vector<Sample> audioOf(const std::vector<Sample>& samples) {
        return ofTrack(samples, mClip.audioTrack());
    }

    OpenedClip mClip{clip(GetParam())};
};

TEST_P(ExtractorContainers, everySampleIsReadInTimestampOrderAtEvenDistances) {
    ASSERT_EQ(OK, mClip.result());
    const int video = mClip.videoTrack();
    EXPECT_EQ(30, mClip.int32Of(video, "frame-rate"));
    EXPECT_EQ(160, mClip.int32Of(video, "width"));
    EXPECT_EQ(48000, mClip.int32Of(mClip.audioTrack(), "sample-rate"));
    for (const int track : {0, 1}) {
        EXPECT_NEAR(kSeconds * 1e6, mClip.durationUs(track), 2.5e5);
    }

    const auto samples = mClip.readFrom(0);
    EXPECT_TRUE(
        std::is_sorted(samples.begin(), samples.end(),
                       [](const Sample& a, const Sample& b) { return a.timeUs < b.timeUs; }));
    // Reading up to a timestamp then delivers every frame before it.
    for (const Sample& sample : samples) ASSERT_GE(sample.presentationUs, sample.timeUs);
    std::vector<int64_t> shownUs;
    for (const Sample& sample : videoOf(samples)) shownUs.push_back(sample.presentationUs);
    std::sort(shownUs.begin(), shownUs.end());
    ASSERT_EQ(kFrameCount, shownUs.size());
    EXPECT_NEAR(0, static_cast<double>(shownUs[0]), kNearUs);
    for (size_t i = 1; i < shownUs.size(); ++i) {
        ASSERT_NEAR(33366.7, static_cast<double>(shownUs[i] - shownUs[i - 1]), 1);
    }
    EXPECT_GE(audioOf(samples).size(), 187u);
    EXPECT_NEAR(0, static_cast<double>(audioOf(samples)[0].timeUs), kNearUs);
}

TEST_P(ExtractorContainers, aSeekGoesToASyncSampleBeforeItsTarget) {
    const auto whole = mClip.readFrom(0);
    for (const int64_t targetUs : {INT64_C(2500000), INT64_C(1000), INT64_C(3900000)}) {
        const auto samples = mClip.readFrom(targetUs);
        const auto video = videoOf(samples);
        const auto audio = audioOf(samples);
        ASSERT_FALSE(video.empty());
        ASSERT_FALSE(audio.empty());
        EXPECT_TRUE(video[0].isSync);
        EXPECT_LE(video[0].presentationUs, std::max(targetUs, kNearUs));
        EXPECT_GE(video[0].presentationUs, targetUs - 1600000);
        EXPECT_LE(audio[0].timeUs, targetUs);
        EXPECT_GE(audio[0].timeUs, targetUs - 200000);
    }
    const auto last = videoOf(mClip.readFrom(INT64_MAX));
    EXPECT_TRUE(!last.empty() && last[0].isSync);
    EXPECT_TRUE(whole == mClip.readFrom(INT64_MIN));
}

INSTANTIATE_TEST_SUITE_P(
    , ExtractorContainers,
    ::testing::Values(Recipe{"plain.mp4"},
                      Recipe{"fragmented.mp4",
                             " -c:v libx264 -bf 3 -g 30 -c:a aac -movflags "
                             "+frag_keyframe+empty_moov+default_base_moof "},
                      Recipe{"plain.mov"}, Recipe{"plain.mkv"}, Recipe{"plain.ts"},
                      Recipe{"plain.flv"}, Recipe{"without-times.avi"},
                      Recipe{"plain.webm", " -c:v libvpx -deadline realtime -g 30 -c:a libopus "}),
    [](const auto& parameter) {
        std::string name = parameter.param.name;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
        return name;
    });

TEST(ExtractorTest, filesWithoutVideoAndAudioAreRefused) {
    std::ofstream(scratchPath("words.srt")) << "1\n00:00:01,000 --> 00:00:02,000\nHello\n\n";
    std::ofstream(scratchPath("list.m3u8")) << "#EXTM3U\n#EXTINF:4,\nplain.ts\n#EXT-X-ENDLIST\n";
    clip({"plain.ts"});
    for (const std::string& path : {scratchPath("words.srt"), scratchPath("list.m3u8"),
                                    makeClip("photo.jpg", videoInput(1) + " -frames:v 1 ")}) {
        EXPECT_NE(OK, OpenedClip(path).result()) << path;
    }
}

TEST(ExtractorTest, audioFilesHaveTheirDurationAndCoverArtIsNoVideo) {
    const std::string cover = makeClip("cover.png", videoInput(1) + " -frames:v 1 ");
    OpenedClip song(makeClip("song.mp3", audioInput(kSeconds) + " -i " + cover +
                                             " -map 0 -map 1 -c:a libmp3lame -c:v copy "
                                             "-disposition:v attached_pic "));
    EXPECT_EQ(0, song.audioTrack());
    EXPECT_EQ(-1, song.videoTrack());
    EXPECT_EQ("image/png", song.mime(1));
    for (const char* name : {"audio.wav", "audio.flac", "audio.ogg", "audio.aac", "audio.m4a"}) {
        SCOPED_TRACE(name);
        OpenedClip opened(makeClip(name, audioInput(kSeconds)));
        ASSERT_EQ(OK, opened.result());
        EXPECT_NEAR(kSeconds * 1e6, opened.durationUs(0), 2e5);
        EXPECT_EQ(16, opened.int32Of(0, "bits-per-sample"));
        const auto samples = opened.readFrom(2000000);
        ASSERT_FALSE(samples.empty());
        EXPECT_LE(samples[0].timeUs, 2000000);
        EXPECT_GE(samples[0].timeUs, 1700000);
    }
}

TEST(ExtractorTest, formatsDescribeTheFramesAndTheirLength) {
    const struct {
        Recipe recipe;
        const char* key;
        int32_t expected;
    } kCases[] = {
        {{"plain.mp4"}, "rotation-degrees", -1},
        {{"wide.mp4", " -vf setsar=4/3 "}, "width", 214},
        {{"wide.mp4"}, "height", 120},
        {{"odd.webm", " -vf scale=161:121 -c:v libvpx -deadline realtime "}, "width", 161},
        {{"odd.webm"}, "height", 121},
        {{"bright.mp4", " -color_trc arib-std-b67 "}, "android._is-hdr", 1}};
    for (const auto& c : kCases) {
        EXPECT_EQ(c.expected, OpenedClip(clip(c.recipe)).int32Of(0, c.key)) << c.recipe.name;
    }
    // Of the same encoder: in a configuration record and in a byte stream.
    OpenedClip stream(clip({"plain.ts"}));
    for (const char* key : {"csd-0", "csd-1"}) {
        const auto expected = bufferOf(OpenedClip(clip({"plain.mp4"})).format(0), key);
        ASSERT_LT(5u, expected.size());
        EXPECT_EQ(std::vector<uint8_t>({0, 0, 0, 1}),
                  std::vector<uint8_t>(expected.begin(), expected.begin() + 4));
        EXPECT_EQ(expected, bufferOf(stream.format(stream.videoTrack()), key));
    }
    const std::string live = clip({"live.webm", " -c:v libvpx -deadline realtime -live 1 "});
    EXPECT_NEAR(kSeconds * 1e6, OpenedClip(live).durationUs(0), 2e5);
}

TEST(ExtractorTest, smallSampleBuffersAndCallsWithoutAFileAreRefused) {
    OpenedClip opened(clip({"plain.mp4"}));
    opened.extractor().seekTo(0, ExtractorBackend::SeekMode::SEEK_PREVIOUS_SYNC);
    size_t track = 0;
    ASSERT_EQ(OK, opened.extractor().getSampleTrackIndex(&track));
    EXPECT_EQ(ERROR_BUFFER_TOO_SMALL, opened.extractor().readSampleData(new ABuffer(1)));
    sp<AMessage> format;
    EXPECT_NE(OK, opened.extractor().getTrackFormat(2, &format));
    EXPECT_NE(OK, opened.extractor().selectTrack(2));
    OpenedClip closed(scratchPath("missing"));
    EXPECT_NE(OK, closed.result());
    EXPECT_EQ(0u, closed.extractor().countTracks());
    EXPECT_NE(OK, closed.extractor().getFileFormat(&format));
    EXPECT_NE(OK, closed.extractor().getSampleTrackIndex(&track));
}

// An end of stream here would be taken for the whole file.
TEST(ExtractorTest, aFileThatBecomesShorterIsAReadErrorAndNotTheEnd) {
    for (const char* name : {"shrinks.mp4", "shrinks.mkv", "shrinks.ts"}) {
        SCOPED_TRACE(name);
        const std::string path = scratchPath(std::string("copy-of-") + name);
        std::filesystem::copy_file(clip({name}, 20), path,
                                   std::filesystem::copy_options::overwrite_existing);
        OpenedClip shrinking(path);
        ASSERT_EQ(OK, shrinking.result());
        shrinking.extractor().seekTo(0, ExtractorBackend::SeekMode::SEEK_PREVIOUS_SYNC);
        std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
        status_t status = OK;
        size_t track = 0;
        while ((status = shrinking.extractor().getSampleTrackIndex(&track)) == OK) {
            shrinking.extractor().advance();
        }
        EXPECT_EQ(ERROR_IO, status);
        EXPECT_EQ(ERROR_IO, shrinking.extractor().getSampleTrackIndex(&track)) << "it lasts";
    }
}

TEST(ExtractorTest, anUnreadFileIsProbedOnceForTwoExtractors) {
    const std::string path = scratchPath("handed-over.mp4");
    std::filesystem::copy_file(clip({"plain.mp4"}), path,
                               std::filesystem::copy_options::overwrite_existing);
    const auto handover = std::make_shared<InputHandover>();
    sp<ExtractorBackend> extractor;
    const auto openNext = [&] {
        extractor.clear();
        extractor = createFileExtractor({}, nullptr, handover);
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(OK, extractor->setDataSource(fd, 0, 1 << 30));
        close(fd);
    };
    const auto format = [&] {
        sp<AMessage> result;
        EXPECT_EQ(OK, extractor->getTrackFormat(0, &result));
        return result;
    };
    openNext();
    // A source that was handed over keeps its mark.
    const auto isProbedAgain = [&] {
        constexpr int64_t kMarkUs = 123456789;
        TrackSource::find(format())->setDelayUs(kMarkUs);
        openNext();
        return TrackSource::find(format())->delayUs() != kMarkUs;
    };
    EXPECT_FALSE(isProbedAgain());

    {
        const sp<AMessage> held = format();
        EXPECT_TRUE(isProbedAgain()) << "somebody may use the source";
    }
    std::ofstream(path, std::ios::app) << "more";
    EXPECT_TRUE(isProbedAgain()) << "the file has changed";

    EXPECT_EQ(OK, extractor->selectTrack(0));
    EXPECT_TRUE(isProbedAgain()) << "samples may have been read";
}

}  // namespace
}  // namespace android::qmmediaeditor
