// Sessions of the component on the host, each with options of its own.
#include <gtest/gtest.h>
#include <host/Host.h>
#include <support/SessionRun.h>

#include <fstream>
#include <iterator>
#include <memory>

namespace android::qmmediaeditor {
namespace {

constexpr int kRounds = 3;

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A session with a preset, a size and periods that others do not have.
struct Work {
    std::string preset;
    int32_t width;
    int32_t height;
    std::vector<TrimPeriod> periods;

    std::unique_ptr<SessionRun> start(HostObserver* observer = nullptr) const {
        HostOptions options;
        options.avcPreset = preset;
        options.frameSize = FrameSize{width, height};
        options.observer = observer;
        options.cutTimesUs.emplace();
        for (const TrimPeriod& period : periods) {
            options.cutTimesUs->insert(options.cutTimesUs->end(), {period.mStartUs, period.mEndUs});
        }
        const sp<AMessage> format = new AMessage(kOutputFormatWhat);
        format->setInt32("video-width", width);
        format->setInt32("video-height", height);
        format->setInt32("video-framerate", 30);
        format->setInt32("video-bitrate", 500000);
        format->setInt32("audio-encoder", 3);
        format->setInt32("audio-samplerate", 44100);
        format->setInt32("audio-channels", 1);
        format->setInt32("audio-bitrate", 64000);
        // The session alone holds the platform.
        return std::make_unique<SessionRun>(QM_CLIPS_DIR "/steps.mp4", periods,
                                            createHostPlatform(options), format);
    }
    std::string output() const {
        const auto run = start();
        EXPECT_EQ(0, run->result());
        return contentsOf(run->output().path());
    }
};

const Work kSmall{"ultrafast", 128, 72, {{0, 1000000}, {2500000, 3100000}}};
const Work kLarge{"veryfast", 256, 144, {{1234567, 2700000}}};

class CountingObserver : public HostObserver {
public:
    void onFrameDecoded(int64_t) override { ++decoded; }
    void onFrameEncoded(int64_t) override { ++encoded; }

    std::atomic<int> decoded{0};
    std::atomic<int> encoded{0};
};

TEST(Sessions, atOnce_writeWhatTheyWriteOneAfterTheOther) {
    const std::string small = kSmall.output();
    const std::string large = kLarge.output();
    ASSERT_NE(small, large);
    for (int i = 0; i < kRounds; ++i) {
        const auto first = kSmall.start();
        const auto second = kLarge.start();
        ASSERT_EQ(0, first->result());
        ASSERT_EQ(0, second->result());
        EXPECT_TRUE(contentsOf(first->output().path()) == small);
        EXPECT_TRUE(contentsOf(second->output().path()) == large);
    }
}

TEST(Sessions, counts_goToTheObserverOfEach) {
    CountingObserver small;
    CountingObserver large;
    {
        const auto first = kSmall.start(&small);
        const auto second = kLarge.start(&large);
        ASSERT_EQ(0, first->result());
        ASSERT_EQ(0, second->result());
    }
    EXPECT_EQ(48, small.encoded);
    EXPECT_GE(small.decoded, small.encoded);
    EXPECT_EQ(43, large.encoded);
    EXPECT_GE(large.decoded, large.encoded);
}

TEST(SessionsDeathTest, withoutAPlatform_abortWithOneLine) {
    EXPECT_DEATH(SessionRun(QM_CLIPS_DIR "/steps.mp4").result(), "no platform is installed");
}

TEST(Sessions, keepTheInstalledPlatformThatIsReplaced) {
    Platform::install(createHostPlatform(HostOptions()));
    SessionRun run(QM_CLIPS_DIR "/steps.mp4", {{0, 500000}});
    Platform::install(nullptr);
    EXPECT_EQ(0, run.result());
}

}  // namespace
}  // namespace android::qmmediaeditor
