// The extractor on real containers: what it opens, the formats of the tracks, the order of
// samples, seeks.
#include <gtest/gtest.h>
#include <media/stagefright/MediaErrors.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "IoSupport.h"

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kSeconds = 4;
// Of the video and audio inputs.
constexpr size_t kFrameCount = 120;
constexpr int64_t kNearUs = 70000;

struct Recipe {
    const char* name;
    const char* arguments;
};

void PrintTo(const Recipe& recipe, std::ostream* out) { *out << recipe.name; }

std::vector<int64_t> shownTimes(const std::vector<Sample>& samples) {
    std::vector<int64_t> times;
    for (const Sample& sample : samples) times.push_back(sample.presentationUs);
    std::sort(times.begin(), times.end());
    return times;
}

std::string clip(const Recipe& recipe) {
    return makeClip(recipe.name, videoInput(kSeconds) + audioInput(kSeconds) + recipe.arguments);
}

std::string avcClip() { return clip({"plain.mp4", kAvcAac}); }

}  // namespace

class ExtractorContainers : public ::testing::TestWithParam<Recipe> {};

TEST_P(ExtractorContainers, everySampleIsReadInTimestampOrderAtEvenDistances) {
    OpenedClip opened(clip(GetParam()));
    ASSERT_EQ(OK, opened.result());
    const auto video = static_cast<size_t>(opened.videoTrack());
    EXPECT_EQ(30, opened.int32Of(video, "frame-rate"));
    EXPECT_EQ(160, opened.int32Of(video, "width"));
    EXPECT_EQ(48000, opened.int32Of(static_cast<size_t>(opened.audioTrack()), "sample-rate"));
    for (const size_t track : {size_t{0}, size_t{1}}) {
        EXPECT_NEAR(kSeconds * 1e6, static_cast<double>(opened.durationUs(track)), 2.5e5);
    }

    opened.seek(0);
    const auto samples = opened.read();
    EXPECT_TRUE(
        std::is_sorted(samples.begin(), samples.end(),
                       [](const Sample& a, const Sample& b) { return a.timeUs < b.timeUs; }));
    for (const Sample& sample : samples) ASSERT_GE(sample.presentationUs, sample.timeUs);
    const auto times = shownTimes(ofTrack(samples, opened.videoTrack()));
    ASSERT_EQ(kFrameCount, times.size());
    EXPECT_NEAR(0, static_cast<double>(times[0]), kNearUs);
    for (size_t i = 1; i < times.size(); ++i)
        ASSERT_NEAR(33366.7, static_cast<double>(times[i] - times[i - 1]), 1);
    const auto heard = ofTrack(samples, opened.audioTrack());
    EXPECT_GE(heard.size(), 187u);
    EXPECT_NEAR(0, static_cast<double>(heard[0].timeUs), kNearUs);
}

TEST_P(ExtractorContainers, aSeekGoesToASyncSampleBeforeItsTarget) {
    OpenedClip opened(clip(GetParam()));
    opened.seek(0);
    const auto whole = opened.read();
    for (const int64_t targetUs : {INT64_C(2500000), INT64_C(1000), INT64_C(3900000)}) {
        opened.seek(targetUs);
        const auto samples = opened.read();
        const auto video = ofTrack(samples, opened.videoTrack());
        const auto audio = ofTrack(samples, opened.audioTrack());
        ASSERT_FALSE(video.empty());
        ASSERT_FALSE(audio.empty());
        EXPECT_TRUE(video[0].isSync);
        EXPECT_LE(video[0].presentationUs, std::max(targetUs, kNearUs));
        EXPECT_GE(video[0].presentationUs, targetUs - 1600000);
        EXPECT_LE(audio[0].timeUs, std::max<int64_t>(targetUs, 0));
        EXPECT_GE(audio[0].timeUs, targetUs - 200000);
    }
    opened.seek(INT64_MAX);
    const auto last = ofTrack(opened.read(), opened.videoTrack());
    EXPECT_TRUE(!last.empty() && last[0].isSync);
    opened.seek(INT64_MIN);
    EXPECT_TRUE(whole == opened.read());
}

TEST_P(ExtractorContainers, readingUpToATimestampDeliversEveryFrameBeforeIt) {
    constexpr int64_t kLastUs = 2050000;
    OpenedClip opened(clip(GetParam()));
    opened.seek(0);
    const auto all = shownTimes(ofTrack(opened.read(), opened.videoTrack()));
    opened.seek(0);
    const auto some = shownTimes(ofTrack(opened.read(kLastUs), opened.videoTrack()));
    const auto wanted = std::upper_bound(all.begin(), all.end(), kLastUs);
    EXPECT_TRUE(std::includes(some.begin(), some.end(), all.begin(), wanted));
    EXPECT_LT(some.size(), static_cast<size_t>(wanted - all.begin()) + 6);
}

INSTANTIATE_TEST_SUITE_P(
    , ExtractorContainers,
    ::testing::Values(Recipe{"plain.mp4", kAvcAac},
                      Recipe{"fragmented.mp4",
                             " -c:v libx264 -bf 3 -g 30 -c:a aac -movflags "
                             "+frag_keyframe+empty_moov+default_base_moof "},
                      Recipe{"plain.mov", kAvcAac}, Recipe{"plain.mkv", kAvcAac},
                      Recipe{"plain.ts", kAvcAac}, Recipe{"plain.flv", kAvcAac},
                      Recipe{"without-times.avi", kAvcAac},
                      Recipe{"plain.webm", " -c:v libvpx -deadline realtime -g 30 -c:a libopus "}),
    [](const auto& parameter) {
        std::string name = parameter.param.name;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
        return name;
    });

TEST(ExtractorTest, filesWithoutVideoAndAudioAreRefused) {
    std::ofstream(scratchPath("words.txt")) << "1\n00:00:01,000 --> 00:00:02,000\nHello\n\n";
    std::ofstream(scratchPath("list.m3u8")) << "#EXTM3U\n#EXTINF:4,\nplain.ts\n#EXT-X-ENDLIST\n";
    std::ofstream(scratchPath("empty.mp4"));
    std::ofstream(scratchPath("headless.mp4"), std::ios::binary) << std::string(
        "\0\0\0\x10"
        "ftypisom\0\0\0\0"
        "\0\0\0\x0c"
        "mdatmdat",
        28);
    const std::string photo = makeClip("photo.jpg", videoInput(1) + " -frames:v 1 ");
    for (const std::string& path : {scratchPath("words.txt"), scratchPath("list.m3u8"), photo,
                                    scratchPath("empty.mp4"), scratchPath("headless.mp4")}) {
        EXPECT_NE(OK, OpenedClip(path).result()) << path;
    }
}

TEST(ExtractorTest, audioFilesHaveTheirDurationAndCoverArtIsNoVideo) {
    const std::string cover = makeClip("cover.png", videoInput(1) + " -frames:v 1 ");
    const std::string arguments = audioInput(kSeconds) + " -i " + cover +
                                  " -map 0 -map 1 -c:a libmp3lame -c:v copy "
                                  "-disposition:v attached_pic ";
    OpenedClip song(makeClip("song.mp3", arguments));
    EXPECT_EQ(0, song.audioTrack());
    EXPECT_EQ(-1, song.videoTrack());
    EXPECT_EQ("image/png", song.mime(1));
    for (const char* name : {"audio.wav", "audio.flac", "audio.ogg", "audio.aac", "audio.m4a"}) {
        OpenedClip opened(makeClip(name, audioInput(kSeconds)));
        ASSERT_EQ(OK, opened.result()) << name;
        EXPECT_NEAR(kSeconds * 1e6, static_cast<double>(opened.durationUs(0)), 2e5) << name;
        EXPECT_EQ(16, opened.int32Of(0, "bits-per-sample")) << name;
        opened.seek(2000000);
        const auto samples = opened.read();
        ASSERT_FALSE(samples.empty()) << name;
        EXPECT_LE(samples[0].timeUs, 2000000) << name;
        EXPECT_GE(samples[0].timeUs, 1700000) << name;
    }
}

TEST(ExtractorTest, rotationAndSquarePixelSizeAreReported) {
    OpenedClip upright(avcClip());
    EXPECT_EQ(-1, upright.int32Of(0, "rotation-degrees"));
    OpenedClip wide(makeClip("wide.mp4", videoInput(1) + " -vf setsar=4/3 -c:v libx264 "));
    EXPECT_EQ(214, wide.int32Of(0, "width"));
    EXPECT_EQ(120, wide.int32Of(0, "height"));
    OpenedClip odd(
        makeClip("odd.webm", " -f lavfi -i testsrc=s=161x121:d=1 -c:v libvpx -pix_fmt yuv420p "));
    EXPECT_EQ(161, odd.int32Of(0, "width"));
    EXPECT_EQ(121, odd.int32Of(0, "height"));
    OpenedClip bright(
        makeClip("bright.mp4", videoInput(1) + " -c:v libx264 -color_trc arib-std-b67 "));
    EXPECT_EQ(1, bright.int32Of(0, "android._is-hdr"));
}

TEST(ExtractorTest, avcParameterSetsFollowStartCodes) {
    for (const char* name : {"plain.mp4", "plain.ts"}) {
        OpenedClip opened(clip({name, kAvcAac}));
        const sp<AMessage> format = opened.format(static_cast<size_t>(opened.videoTrack()));
        sp<ABuffer> sequence;
        sp<ABuffer> pps;
        ASSERT_TRUE(format->findBuffer("csd-0", &sequence)) << name;
        ASSERT_TRUE(format->findBuffer("csd-1", &pps)) << name;
        const uint8_t* data = sequence->data();
        EXPECT_EQ(1, data[3]);
        EXPECT_EQ(7, data[4] & 0x1F);
        EXPECT_EQ(100, data[5]) << "High profile";
        EXPECT_EQ(8, pps->data()[4] & 0x1F);
    }
}

TEST(ExtractorTest, truncatedRecordingsEndEarlyAndHaveADuration) {
    const std::string live =
        makeClip("live.webm", videoInput(kSeconds) + " -c:v libvpx -deadline realtime -live 1 ");
    EXPECT_NEAR(kSeconds * 1e6, static_cast<double>(OpenedClip(live).durationUs(0)), 2e5);

    std::ifstream in(clip({"plain.mkv", kAvcAac}), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::ofstream(scratchPath("cut.mkv"), std::ios::binary) << bytes.substr(0, bytes.size() / 2);
    OpenedClip cut(scratchPath("cut.mkv"));
    ASSERT_EQ(OK, cut.result());
    cut.seek(0);
    const size_t count = ofTrack(cut.read(), cut.videoTrack()).size();
    EXPECT_GT(count, kFrameCount / 4);
    EXPECT_LT(count, kFrameCount);
}

TEST(ExtractorTest, smallSampleBuffersAndCallsWithoutAFileAreRefused) {
    OpenedClip opened(avcClip());
    opened.seek(0);
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
        const std::string whole = makeClip(name, videoInput(20) + audioInput(20) + kAvcAac);
        const std::string path = scratchPath(std::string("copy-of-") + name);
        std::filesystem::copy_file(whole, path, std::filesystem::copy_options::overwrite_existing);
        OpenedClip clip(path);
        ASSERT_EQ(OK, clip.result());
        clip.seek(0);
        std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
        status_t status = OK;
        size_t track = 0;
        while ((status = clip.extractor().getSampleTrackIndex(&track)) == OK) {
            clip.extractor().advance();
        }
        EXPECT_EQ(ERROR_IO, status);
        EXPECT_EQ(ERROR_IO, clip.extractor().getSampleTrackIndex(&track)) << "it lasts";
    }
}

}  // namespace qmmediaeditor
}  // namespace android
