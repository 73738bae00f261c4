#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/monitor/RunMonitor.h>

#include <future>

namespace android::qmmediaeditor::cli {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr pid_t kSession = 1;
constexpr pid_t kEncoder = 2;

// Records a line for each event: "thread what start-end".
class RecordingSink : public TraceSink {
public:
    void onThread(pid_t, const char*) override {}
    void onSlice(pid_t thread, const char* what, bool isWait, int64_t startUs,
                 int64_t endUs) override {
        lines.push_back(std::to_string(thread) + (isWait ? " waits " : " ") + what + " " +
                        std::to_string(startUs) + "-" + std::to_string(endUs));
    }
    void onQueueLength(Queue queue, int64_t length, int64_t) override {
        if (queue == Queue::kDecodedVideo) lengths.push_back(length);
    }
    void onEvent(pid_t, const char* what, int64_t timeUs) override {
        lines.push_back(std::string(what) + " " + std::to_string(timeUs));
    }

    std::vector<std::string> lines;
    std::vector<int64_t> lengths;
};

class RunMonitorTest : public testing::Test {
protected:
    RunMonitorTest() { monitor.begin({}, &sink); }

    void log(pid_t thread, int64_t timeUs, const char* tag, const char* text) {
        ASSERT_TRUE(parseLogMessage(tag, text)) << text;
        monitor.onMessage({0, tag, text, timeUs, thread});
    }

    RunMonitor monitor;
    RecordingSink sink;
};

TEST_F(RunMonitorTest, aFullBatch_endsTheConsumersWaitAndAnEmptyQueueTheProducers) {
    log(kEncoder, 10, "VideoEncoderThread", "waiting @ Decoded data read()");
    log(kSession, 20, "Transcode", "Decoded frame size : 115200, [Video]");
    log(kSession, 25, "TVideoSource", "drop 40 > 30");
    log(kSession, 30, "TVideoSource", "wait@mDecoderBufferReturnedCond [DecodedSample:11]");
    log(kEncoder, 70, "VideoEncoderThread", "waiting @ Decoded data read()");
    log(kSession, 80, "Transcode", "wait writer EOS");
    monitor.end(90);

    EXPECT_THAT(
        sink.lines,
        ElementsAre("frame dropped 25", "2 waits for decoded frames 10-30",
                    "1 queues a frame 20-30", "1 waits for the video encoder to take a batch 30-70",
                    "2 feeds the video encoder 30-70", "1 takes decoded frames 70-80",
                    "1 waits for the writer to take the last samples 80-90",
                    "2 waits for decoded frames 70-90"));
    EXPECT_THAT(sink.lengths, ElementsAre(0, 1, 0, 11, 0));
}

TEST_F(RunMonitorTest, polling_isOneWaitAndNoProgress) {
    log(kSession, 100, "Transcode", "Decoded frame size : 1024, [Audio]");
    for (int64_t us = 200; us < 3000000; us += 100000) {
        log(kSession, us, "Transcode", "decoder output -EAGAIN:-11:[R:-11]");
    }
    EXPECT_EQ(100, monitor.lastProgressUs());
    EXPECT_THAT(monitor.describe(3000200),
                Contains(HasSubstr("waits for decoded frames, for 3.0 s")));
    log(kEncoder, 4000000, "AudioEncoderThread",
        "draining output buffer 3, time = 42500000 us, size = 334");
    EXPECT_THAT(monitor.describe(4500000),
                Contains("  audio encoded: last 0.5 s ago, timestamp 42.500 s"));
}

TEST_F(RunMonitorTest, aSecondRun_startsWithoutTheFirstOnesState) {
    log(kEncoder, 10, "VideoEncoderThread", "waiting @ Decoded data read()");
    log(kSession, 20, "Transcode", "Decoded frame size : 115200, [Video]");
    monitor.onProgress(50);
    monitor.end(30);
    sink.lines.clear();
    monitor.begin({}, &sink);
    EXPECT_EQ(0, monitor.lastProgressUs());
    EXPECT_THAT(monitor.describe(40), testing::Each(HasSubstr("queue of")));
    monitor.end(50);
    EXPECT_THAT(sink.lines, ElementsAre());
}

TEST(Timer, calls_repeatUntilTheFunctionOrItsOwnerEndsThem) {
    std::promise<void> ended;
    int calls = 0;
    const Timer timer(Timer::Delay(1), [&]() -> std::optional<Timer::Delay> {
        if (++calls < 3) return Timer::Delay(1);
        ended.set_value();
        return std::nullopt;
    });
    std::make_unique<Timer>(std::chrono::hours(1), [&]() -> std::optional<Timer::Delay> {
        ADD_FAILURE() << "called before its time";
        return std::nullopt;
    }).reset();
    ended.get_future().wait();
    EXPECT_EQ(3, calls);
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
