// The buffers, states and waits of a codec, with a backend that does what the test tells it.
#include <gtest/gtest.h>
#include <media/stagefright/MediaErrors.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

#include "CodecSupport.h"

namespace android::qmmediaeditor {
namespace {

constexpr size_t kInputs = 4;
constexpr size_t kOutputs = 8;

// Shared with the test, which may outlive the backend.
struct Script {
    std::mutex lock;
    std::condition_variable changed;
    size_t outputsPerInput = 1;
    bool keepsInputs = false;  // until the backend is destroyed, or the test clears `kept`
    bool announcesFormat = false;
    bool holdsProduce = false;
    size_t produceCalls = 0;
    status_t acceptStatus = OK;
    bool fails = false;
    std::vector<CodecInput> kept;
    std::vector<std::vector<uint8_t>> accepted;

    template <typename Change>
    void set(const Change& change) {
        std::lock_guard<std::mutex> guard(lock);
        change();
        changed.notify_all();
    }
    template <typename Condition>
    bool waitFor(const Condition& condition) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, std::chrono::microseconds(kBoundUs), condition);
    }
};

class ScriptedBackend : public CodecBackend {
public:
    explicit ScriptedBackend(std::shared_ptr<Script> script) : mScript(std::move(script)) {}
    ~ScriptedBackend() override { mScript->kept.clear(); }

    status_t configure(const sp<AMessage>&, CodecBuffers* buffers) override {
        buffers->inputCount = kInputs;
        buffers->inputBytes = 100;
        buffers->outputCount = kOutputs;
        buffers->announcesFormat = mScript->announcesFormat;
        return OK;
    }
    sp<AMessage> outputFormat() const override { return mFormat; }

    Step produce(CodecOutput* output) override {
        std::unique_lock<std::mutex> guard(mScript->lock);
        ++mScript->produceCalls;
        mScript->changed.notify_all();
        mScript->changed.wait(guard, [this] { return !mScript->holdsProduce; });
        if (mScript->fails) return Step::kFailed;
        if (mPending.empty()) return mFinished ? Step::kEnd : Step::kNeedsInput;
        if (mScript->announcesFormat && mFormat == nullptr) {
            mFormat = new AMessage;
            mFormat->setInt32("width", 5);
            return Step::kFormat;
        }
        output->buffer = new ABuffer(1);
        output->timeUs = mPending.front();
        output->segment = mSegment;
        mPending.pop_front();
        return Step::kOutput;
    }
    status_t accept(CodecInput input) override {
        std::lock_guard<std::mutex> guard(mScript->lock);
        mScript->accepted.emplace_back(input.data, input.data + input.size);
        if (mScript->acceptStatus != OK) return mScript->acceptStatus;
        mSegment = input.info.segment.number;
        for (size_t i = 0; i < mScript->outputsPerInput; ++i) mPending.push_back(input.timeUs);
        if (mScript->keepsInputs) mScript->kept.push_back(std::move(input));
        return OK;
    }
    status_t finish() override {
        mFinished = true;
        return OK;
    }

private:
    const std::shared_ptr<Script> mScript;
    sp<AMessage> mFormat;
    std::deque<int64_t> mPending;
    uint32_t mSegment = 0;
    bool mFinished = false;
};

class HostMediaCodecTest : public CodecTest {
protected:
    HostMediaCodecTest() { useCodec(nullptr); }
    void TearDown() override {
        mScript->set([this] { mScript->holdsProduce = false; });
        CodecTest::TearDown();
    }

    // A codec of its own script.
    void useCodec(const std::function<void()>& onLoss) {
        mScript = std::make_shared<Script>();
        mCodec = new HostMediaCodec(
            mLooper, std::make_unique<ScriptedBackend>(mScript), [this] { ++mEnds; }, onLoss);
    }

    std::shared_ptr<Script> mScript;
    std::atomic<int> mEnds{0};
};

TEST_F(HostMediaCodecTest, operationsOutOfOrderAreRefused) {
    mLooper->stop();
    EXPECT_NE(OK, mCodec->configure(new AMessage, nullptr, nullptr, 0)) << "no thread";
    mLooper->start();
    EXPECT_EQ(INVALID_OPERATION, mCodec->start());
    EXPECT_EQ(INVALID_OPERATION, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, takeInput());
    EXPECT_EQ(BAD_VALUE, mCodec->configure(nullptr, nullptr, nullptr, 0));
    start();
    EXPECT_EQ(INVALID_OPERATION, mCodec->start());
    EXPECT_EQ(INVALID_OPERATION, mCodec->configure(new AMessage, nullptr, nullptr, 0));
    EXPECT_EQ(OK, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, dequeue());
    EXPECT_EQ(OK, mCodec->release());
    EXPECT_EQ(OK, mCodec->release());
    EXPECT_EQ(INVALID_OPERATION, mCodec->configure(new AMessage, nullptr, nullptr, 0));
}

TEST_F(HostMediaCodecTest, onlyBuffersOfTheClientAndTheirRangeAreAccepted) {
    start();
    const auto queueRange = [this](size_t index, size_t offset, size_t size) {
        return mCodec->queueInputBuffer(index, offset, size, 11, 0, nullptr);
    };
    EXPECT_EQ(BAD_INDEX, queueRange(0, 0, 1));
    EXPECT_EQ(BAD_INDEX, queueRange(kInputs, 0, 1));
    EXPECT_EQ(BAD_INDEX, mCodec->releaseOutputBuffer(0));
    ASSERT_EQ(OK, takeInput());
    EXPECT_EQ(BAD_VALUE, queueRange(mInput, 0, 101));
    EXPECT_EQ(BAD_VALUE, queueRange(mInput, 101, 0));
    EXPECT_EQ(BAD_VALUE, queueRange(mInput, 1, SIZE_MAX));
    Vector<sp<MediaCodecBuffer>> buffers;
    ASSERT_EQ(OK, mCodec->getInputBuffers(&buffers));
    for (uint8_t i = 0; i < 100; ++i) buffers[mInput]->base()[i] = i;
    EXPECT_EQ(OK, queueRange(mInput, 30, 3));
    EXPECT_EQ(BAD_INDEX, queueRange(mInput, 0, 1));
    ASSERT_EQ(OK, dequeue());
    EXPECT_EQ(11, mTimeUs);
    EXPECT_EQ(1u, mSize);
    ASSERT_EQ(1u, mScript->accepted.size());
    EXPECT_EQ((std::vector<uint8_t>{30, 31, 32}), mScript->accepted[0]);
    EXPECT_EQ(OK, mCodec->releaseOutputBuffer(mIndex));
    EXPECT_EQ(BAD_INDEX, mCodec->releaseOutputBuffer(mIndex));
}

// Many times as many samples as there are buffers: none is lost, repeated or reordered.
TEST_F(HostMediaCodecTest, buffersCycleUntilTheEndOfStream) {
    start();
    constexpr int64_t kSamples = 500;
    std::set<size_t> indexes;
    std::thread client([this] {
        for (int64_t i = 0; i < kSamples; ++i) EXPECT_EQ(OK, queue(i));
        EXPECT_EQ(OK, queue(kSamples, MediaCodec::BUFFER_FLAG_EOS, 0));
    });
    for (int64_t i = 0; i < kSamples; ++i) {
        ASSERT_EQ(OK, dequeue());
        EXPECT_EQ(i, mTimeUs);
        EXPECT_FALSE(atEnd());
        indexes.insert(mIndex);
        EXPECT_EQ(OK, mCodec->releaseOutputBuffer(mIndex));
    }
    EXPECT_EQ(0, mEnds);
    ASSERT_EQ(OK, dequeue());
    EXPECT_TRUE(atEnd());
    EXPECT_EQ(1, mEnds) << "told when the client has taken the end of stream";
    client.join();
    EXPECT_EQ(kOutputs, indexes.size());
    EXPECT_EQ(-EAGAIN, dequeue(1000)) << "nothing follows the end";
    EXPECT_EQ(INVALID_OPERATION, queue(0));
}

TEST_F(HostMediaCodecTest, anInputIsFreeWhenTheBackendReleasesItAndNotBefore) {
    mScript->keepsInputs = true;
    start();
    for (size_t i = 0; i < kInputs; ++i) ASSERT_EQ(OK, queue(0));
    ASSERT_TRUE(mScript->waitFor([this] { return mScript->kept.size() == kInputs; }));
    EXPECT_EQ(-EAGAIN, takeInput(1000));
    WaitingThread<status_t> waiting([this] { return takeInput(); });
    mScript->set([this] { mScript->kept.clear(); });
    EXPECT_EQ(OK, waiting.get());
}

TEST_F(HostMediaCodecTest, anEmptyInputIsFreeAtOnce) {
    start();
    for (size_t i = 0; i < 10 * kInputs; ++i) ASSERT_EQ(OK, queue(0, 0, 0));
    EXPECT_EQ(-EAGAIN, dequeue(1000));
    EXPECT_TRUE(mScript->accepted.empty());
}

// A client that is woken for each output would switch threads too often; one that is not woken when
// the input runs out would wait for ever.
TEST_F(HostMediaCodecTest, aWaitingClientGetsTheFormatAndOutputsBelowHalfOfTheBuffers) {
    mScript->announcesFormat = true;
    start();
    sp<AMessage> format;
    EXPECT_EQ(NAME_NOT_FOUND, mCodec->getOutputFormat(&format));
    WaitingThread<status_t> waiting([this] { return dequeue(); });
    ASSERT_EQ(OK, queue(5));
    EXPECT_EQ(INFO_FORMAT_CHANGED, waiting.get());
    ASSERT_EQ(OK, mCodec->getOutputFormat(&format));
    int32_t width = 0;
    EXPECT_TRUE(format->findInt32("width", &width));
    EXPECT_EQ(5, width);
    ASSERT_EQ(OK, dequeue());
    EXPECT_EQ(5, mTimeUs);
}

TEST_F(HostMediaCodecTest, outputsBeyondTheBuffersWaitForAReleasedOne) {
    mScript->outputsPerInput = 3 * kOutputs;
    start();
    ASSERT_EQ(OK, queue(5));
    std::deque<size_t> held;
    for (size_t i = 0; i < 3 * kOutputs; ++i) {
        if (i >= kOutputs) {
            EXPECT_EQ(-EAGAIN, dequeue(0)) << i;
            ASSERT_EQ(OK, mCodec->releaseOutputBuffer(held[i - kOutputs]));
        }
        ASSERT_EQ(OK, dequeue());
        held.push_back(mIndex);
    }
}

TEST_F(HostMediaCodecTest, stopWakesBothWaitingClients) {
    mScript->keepsInputs = true;
    start();
    for (size_t i = 0; i < kInputs; ++i) ASSERT_EQ(OK, queue(0));
    for (size_t i = 0; i < kInputs; ++i) ASSERT_EQ(OK, dequeue());
    WaitingThread<status_t> output([this] { return dequeue(); });
    WaitingThread<status_t> input([this] { return takeInput(); });
    EXPECT_EQ(OK, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, output.get());
    EXPECT_EQ(INVALID_OPERATION, input.get());
}

TEST_F(HostMediaCodecTest, stopWaitsForTheBackendsStepAndNothingFollowsIt) {
    for (const bool fails : {false, true}) {
        SCOPED_TRACE(fails);
        useCodec(nullptr);
        mScript->holdsProduce = true;
        mScript->fails = fails;
        start();
        ASSERT_EQ(OK, queue(5));
        ASSERT_TRUE(mScript->waitFor([this] { return mScript->produceCalls > 0; }));
        WaitingThread<status_t> stopped([this] { return mCodec->stop(); });
        mScript->set([this] { mScript->holdsProduce = false; });
        EXPECT_EQ(OK, stopped.get());
        // On the same looper, behind whatever the codec has posted.
        std::promise<void> idle;
        mLooper->post([&] { idle.set_value(); });
        idle.get_future().wait();
        EXPECT_TRUE(mScript->accepted.empty()) << "the backend gets nothing after stop";
        EXPECT_EQ(1u, mScript->produceCalls);
        EXPECT_EQ(INVALID_OPERATION, takeInput()) << "a failure does not change the state any more";
    }
}

TEST_F(HostMediaCodecTest, aFailureOfTheBackendIsReportedByBothSides) {
    mScript->acceptStatus = NO_MEMORY;
    start();
    WaitingThread<status_t> waiting([this] { return dequeue(); });
    ASSERT_EQ(OK, queue(5));
    EXPECT_EQ(UNKNOWN_ERROR, waiting.get());
    EXPECT_EQ(UNKNOWN_ERROR, queue(6));
    EXPECT_EQ(OK, mCodec->stop());
}

// A failing dequeue is a broken invariant for the client of a decoder.
TEST_F(HostMediaCodecTest, aDecoderThatFailsReportsTheLossRefusesInputAndEnds) {
    std::atomic<int> losses{0};
    useCodec([&losses] { ++losses; });
    mScript->fails = true;
    start();
    ASSERT_EQ(OK, dequeue());
    EXPECT_TRUE(atEnd());
    EXPECT_EQ(1, losses);
    EXPECT_EQ(ERROR_UNSUPPORTED, queue(5));
    EXPECT_EQ(OK, mCodec->stop());
}

// A failing output would end the process of the client, so that a refusal is told to the input.
TEST_F(HostMediaCodecTest, aRefusalEndsTheStreamAndFreesTheInputsThatAreStillQueued) {
    mScript->acceptStatus = ERROR_UNSUPPORTED;
    mScript->holdsProduce = true;
    start();
    for (size_t i = 0; i < kInputs; ++i) ASSERT_EQ(OK, queue(5));
    mScript->set([this] { mScript->holdsProduce = false; });
    ASSERT_EQ(OK, dequeue());
    EXPECT_TRUE(atEnd());
    EXPECT_EQ(ERROR_UNSUPPORTED, queue(6)) << "its buffer stays with the client";
    for (size_t i = 1; i < kInputs; ++i) EXPECT_EQ(OK, takeInput(0)) << i;
    EXPECT_EQ(1u, mScript->accepted.size());
}

TEST_F(HostMediaCodecTest, outputsOfAnEarlierSegmentAreDropped) {
    const sp<OutputSequencer> sequencer = new OutputSequencer;
    const sp<TrackSource> track = new TrackSource(makeParameters(), sequencer);
    sequencer->beginSegment(0);
    start(formatOf(track));
    ASSERT_EQ(OK, queue(2000));
    ASSERT_TRUE(mScript->waitFor([this] { return mScript->accepted.size() == 1; }));
    sequencer->beginSegment(5000);
    track->announce(7000, nullptr);
    EXPECT_EQ(-EAGAIN, dequeue(1000)) << "2000 was queued before the seek";
}

}  // namespace
}  // namespace android::qmmediaeditor
