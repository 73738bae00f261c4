#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/monitor/RunMonitor.h>
#include <qmtranscode/monitor/StallDetector.h>
#include <qmtranscode/monitor/ThreadBoard.h>
#include <unistd.h>

#include <thread>

namespace android::qmmediaeditor::cli {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr pid_t kSession = 1;
constexpr pid_t kEncoder = 2;

// Writes down what is drawn: "thread what begin-end".
class Journal : public RunPicture {
public:
    void thread(pid_t, const char*) override {}
    void slice(pid_t thread, const char* what, bool waits, int64_t beginUs,
               int64_t endUs) override {
        lines.push_back(std::to_string(thread) + (waits ? " waits " : " ") + what + " " +
                        std::to_string(beginUs) + "-" + std::to_string(endUs));
    }
    void depth(Queue queue, int64_t count, int64_t) override {
        if (queue == Queue::kDecodedPictures) depths.push_back(count);
    }
    void event(pid_t, const char* what, int64_t timeUs) override {
        lines.push_back(std::string(what) + " " + std::to_string(timeUs));
    }

    std::vector<std::string> lines;
    std::vector<int64_t> depths;
};

class ThreadBoardTest : public testing::Test {
protected:
    ThreadBoardTest() { board.drawInto(&journal); }

    void say(pid_t thread, int64_t timeUs, const char* tag, const char* text) {
        Saying saying;
        ASSERT_TRUE(understand(tag, text, &saying)) << text;
        board.note(thread, timeUs, saying);
    }

    ThreadBoard board;
    Journal journal;
};

TEST_F(ThreadBoardTest, aFullBatch_endsTheConsumersWaitAndAnEmptyQueueTheProducers) {
    say(kEncoder, 10, "VideoEncoderThread", "waiting @ Decoded data read()");
    say(kSession, 20, "Transcode", "Decoded frame size : 115200, [Video]");
    say(kSession, 25, "TVideoSource", "drop 40 > 30");
    say(kSession, 30, "TVideoSource", "wait@mDecoderBufferReturnedCond [DecodedSample:11]");
    say(kEncoder, 70, "VideoEncoderThread", "waiting @ Decoded data read()");
    say(kSession, 80, "Transcode", "wait writer EOS");
    board.finish(90);

    EXPECT_THAT(
        journal.lines,
        ElementsAre(
            "picture dropped 25", "2 waits for decoded pictures 10-30",
            "1 hands a picture over 20-30", "1 waits for the picture encoder to take a batch 30-70",
            "2 converts pictures for the encoder 30-70", "1 takes decoded frames 70-80",
            "1 waits for the writer to take the rest 80-90", "2 waits for decoded pictures 70-90"));
    EXPECT_THAT(journal.depths, ElementsAre(0, 1, 0, 11, 0));
}

TEST_F(ThreadBoardTest, pollingIsOneWaitAndNoMovement) {
    say(kSession, 100, "Transcode", "Decoded frame size : 1024, [Audio]");
    for (int64_t us = 200; us < 3000000; us += 100000) {
        say(kSession, us, "Transcode", "decoder output -EAGAIN:-11:[R:-11]");
    }
    EXPECT_EQ(100, board.lastMoveUs());
    EXPECT_THAT(board.describe(3000200),
                Contains(HasSubstr("waits for decoded frames, for 3.0 s")));
}

TEST_F(ThreadBoardTest, aStage_tellsWhereInTheFileItIs) {
    say(kEncoder, 1000000, "AudioEncoderThread",
        "draining output buffer 3, time = 42500000 us, size = 334");
    EXPECT_THAT(board.describe(1500000), Contains("  sound encoded: last 0.5 s ago, at 42.500 s"));
}

// What has been said on standard error until `end` comes in it.
std::string readUntil(int fd, const std::string& end) {
    std::string text;
    char byte = 0;
    while (text.find(end) == std::string::npos && read(fd, &byte, 1) == 1) text += byte;
    return text;
}

TEST(StallWatch, aRunThatStandsStill_isExplainedOnce) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const int before = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    RunMonitor monitor;
    monitor.begin({}, nullptr);
    std::string said;
    {
        monitor.onMessage({0, "TVideoSource", "waiting @ read()", nowUs(), kEncoder});
        const StallWatch watch(&monitor, std::chrono::milliseconds(20));
        said = readUntil(ends[0], "pictures written: last ");
        // Long enough to say it again.
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    fputs("END", stderr);
    said += readUntil(ends[0], "END");
    dup2(before, STDERR_FILENO);
    for (int fd : {ends[0], ends[1], before}) close(fd);
    EXPECT_THAT(said, HasSubstr("picture writer          waits for encoded pictures"));
    EXPECT_EQ(said.find("nothing has moved for "), said.rfind("nothing has moved for "));
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
