// The buffers, states and waits of a codec, with a backend that does what the test tells it.
#include <gtest/gtest.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/ALooper.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <set>

#include "WaitingThread.h"
#include "host/codec/HostMediaCodec.h"
#include "host/codec/TrackSource.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {
namespace {

typedef CodecBackend::Step Step;

// A bound that only a failure reaches.
constexpr int64_t kBoundUs = 20000000;
constexpr auto kBound = std::chrono::seconds(20);
constexpr size_t kInputs = 4;
constexpr size_t kOutputs = 8;

// Shared with the test, which may outlive the backend.
struct Script {
    std::mutex lock;
    std::condition_variable changed;
    size_t outputsPerInput = 1;
    bool keepsInputs = false;           // in `kept`
    bool keepsInputsInBackend = false;  // until it is destroyed
    bool announcesFormat = false;
    bool holdsProduce = false;
    size_t produceCalls = 0;
    status_t acceptStatus = OK;
    bool fails = false;
    std::vector<CodecInput> kept;
    std::vector<std::pair<int64_t, std::vector<uint8_t>>> accepted;

    template <typename Change>
    void set(const Change& change) {
        std::lock_guard<std::mutex> guard(lock);
        change();
        changed.notify_all();
    }
    template <typename Condition>
    bool waitFor(const Condition& condition) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, kBound, condition);
    }
};

class ScriptedBackend : public CodecBackend {
public:
    explicit ScriptedBackend(std::shared_ptr<Script> script) : mScript(std::move(script)) {}

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
        mScript->accepted.push_back(
            {input.timeUs, std::vector<uint8_t>(input.data, input.data + input.size)});
        if (mScript->acceptStatus != OK) return mScript->acceptStatus;
        mSegment = input.info.segment.number;
        for (size_t i = 0; i < mScript->outputsPerInput; ++i) mPending.push_back(input.timeUs);
        if (mScript->keepsInputsInBackend) {
            mKept.push_back(std::move(input));
        } else if (mScript->keepsInputs) {
            mScript->kept.push_back(std::move(input));
        }
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
    std::vector<CodecInput> mKept;
    bool mFinished = false;
};

class HostMediaCodecTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(OK, mLooper->start()); }
    void TearDown() override {
        mScript->set([this] {
            mScript->holdsProduce = false;
            mScript->kept.clear();
        });
        mCodec->release();
        mLooper->stop();
    }
    void start() {
        ASSERT_EQ(OK, mCodec->configure(new AMessage, nullptr, nullptr, 0));
        ASSERT_EQ(OK, mCodec->start());
    }
    status_t queue(int64_t timeUs, uint32_t flags = 0, size_t size = 1) {
        size_t index = 0;
        const status_t status = mCodec->dequeueInputBuffer(&index, kBoundUs);
        return status != OK ? status
                            : mCodec->queueInputBuffer(index, 0, size, timeUs, flags, nullptr);
    }
    // The status; sets the members below.
    status_t dequeue(int64_t timeoutUs = kBoundUs) {
        size_t offset = 0;
        return mCodec->dequeueOutputBuffer(&mIndex, &offset, &mSize, &mTimeUs, &mFlags, timeoutUs);
    }
    bool atEnd() const { return (mFlags & MediaCodec::BUFFER_FLAG_EOS) != 0; }

    const std::shared_ptr<Script> mScript = std::make_shared<Script>();
    const sp<ALooper> mLooper = new ALooper;
    std::atomic<int> mEnds{0};
    const sp<MediaCodec> mCodec = new HostMediaCodec(
        mLooper, std::make_unique<ScriptedBackend>(mScript), [this] { ++mEnds; });
    size_t mIndex = 0;
    size_t mSize = 0;
    int64_t mTimeUs = 0;
    uint32_t mFlags = 0;
};

TEST_F(HostMediaCodecTest, operationsOutOfOrderAreRefused) {
    size_t index = 0;
    EXPECT_EQ(INVALID_OPERATION, mCodec->start());
    EXPECT_EQ(INVALID_OPERATION, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, mCodec->dequeueInputBuffer(&index, 0));
    EXPECT_EQ(BAD_VALUE, mCodec->configure(nullptr, nullptr, nullptr, 0));
    start();
    EXPECT_EQ(INVALID_OPERATION, mCodec->start());
    EXPECT_EQ(INVALID_OPERATION, mCodec->configure(new AMessage, nullptr, nullptr, 0));
    EXPECT_EQ(OK, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, dequeue(0));
    EXPECT_EQ(OK, mCodec->release());
    EXPECT_EQ(OK, mCodec->release());
    EXPECT_EQ(INVALID_OPERATION, mCodec->configure(new AMessage, nullptr, nullptr, 0));
}

TEST_F(HostMediaCodecTest, aLooperWithoutAThreadIsRefused) {
    mLooper->stop();
    EXPECT_NE(OK, mCodec->configure(new AMessage, nullptr, nullptr, 0));
}

TEST_F(HostMediaCodecTest, onlyBuffersOfTheClientAndTheirRangeAreAccepted) {
    start();
    EXPECT_EQ(BAD_INDEX, mCodec->queueInputBuffer(0, 0, 1, 0, 0, nullptr));
    EXPECT_EQ(BAD_INDEX, mCodec->queueInputBuffer(kInputs, 0, 1, 0, 0, nullptr));
    EXPECT_EQ(BAD_INDEX, mCodec->releaseOutputBuffer(0));
    size_t index = 0;
    ASSERT_EQ(OK, mCodec->dequeueInputBuffer(&index, 0));
    EXPECT_EQ(BAD_VALUE, mCodec->queueInputBuffer(index, 0, 101, 0, 0, nullptr));
    EXPECT_EQ(BAD_VALUE, mCodec->queueInputBuffer(index, 101, 0, 0, 0, nullptr));
    EXPECT_EQ(BAD_VALUE, mCodec->queueInputBuffer(index, 1, SIZE_MAX, 0, 0, nullptr));
    AString detail;
    EXPECT_EQ(OK, mCodec->queueInputBuffer(index, 0, 100, 7, 0, &detail));
    EXPECT_EQ(BAD_INDEX, mCodec->queueInputBuffer(index, 0, 1, 0, 0, &detail));
    EXPECT_FALSE(detail.empty());
    ASSERT_EQ(OK, dequeue());
    EXPECT_EQ(OK, mCodec->releaseOutputBuffer(mIndex));
    EXPECT_EQ(BAD_INDEX, mCodec->releaseOutputBuffer(mIndex));
}

TEST_F(HostMediaCodecTest, theBackendGetsTheBytesOfTheQueuedRange) {
    start();
    Vector<sp<MediaCodecBuffer>> buffers;
    ASSERT_EQ(OK, mCodec->getInputBuffers(&buffers));
    size_t index = 0;
    ASSERT_EQ(OK, mCodec->dequeueInputBuffer(&index, 0));
    for (uint8_t i = 0; i < 100; ++i) buffers[index]->base()[i] = i;
    EXPECT_EQ(OK, mCodec->queueInputBuffer(index, 30, 3, 11, 0, nullptr));
    ASSERT_EQ(OK, dequeue());
    EXPECT_EQ(11, mTimeUs);
    EXPECT_EQ(1u, mSize);
    ASSERT_EQ(1u, mScript->accepted.size());
    EXPECT_EQ((std::vector<uint8_t>{30, 31, 32}), mScript->accepted[0].second);
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
    size_t index = 0;
    ASSERT_EQ(OK, mCodec->dequeueInputBuffer(&index, 0));
    EXPECT_EQ(INVALID_OPERATION, mCodec->queueInputBuffer(index, 0, 1, 0, 0, nullptr));
}

TEST_F(HostMediaCodecTest, anInputIsFreeWhenTheBackendReleasesItAndNotBefore) {
    mScript->keepsInputs = true;
    start();
    for (size_t i = 0; i < kInputs; ++i) ASSERT_EQ(OK, queue(0));
    size_t index = 0;
    ASSERT_TRUE(mScript->waitFor([this] { return mScript->kept.size() == kInputs; }));
    EXPECT_EQ(-EAGAIN, mCodec->dequeueInputBuffer(&index, 1000));
    WaitingThread<status_t> waiting([this] {
        size_t freed = 0;
        return mCodec->dequeueInputBuffer(&freed, kBoundUs);
    });
    mScript->set([this] { mScript->kept.clear(); });
    EXPECT_EQ(OK, waiting.get());
}

TEST_F(HostMediaCodecTest, aBackendThatStillHasInputsCanBeReleased) {
    mScript->keepsInputsInBackend = true;
    start();
    ASSERT_EQ(OK, queue(5));
    ASSERT_EQ(OK, dequeue());
    auto released = std::async(std::launch::async, [this] { return mCodec->release(); });
    EXPECT_EQ(OK, resultOf(&released));
}

TEST_F(HostMediaCodecTest, anEmptyInputIsFreeAtOnce) {
    start();
    for (size_t i = 0; i < 10 * kInputs; ++i) ASSERT_EQ(OK, queue(0, 0, 0));
    EXPECT_EQ(-EAGAIN, dequeue(1000));
    EXPECT_TRUE(mScript->accepted.empty());
}

TEST_F(HostMediaCodecTest, theFormatIsAnnouncedOnceBeforeTheFirstOutput) {
    mScript->announcesFormat = true;
    start();
    sp<AMessage> format;
    EXPECT_EQ(NAME_NOT_FOUND, mCodec->getOutputFormat(&format));
    ASSERT_EQ(OK, queue(1));
    EXPECT_EQ(INFO_FORMAT_CHANGED, dequeue());
    ASSERT_EQ(OK, mCodec->getOutputFormat(&format));
    int32_t width = 0;
    EXPECT_TRUE(format->findInt32("width", &width));
    EXPECT_EQ(5, width);
    EXPECT_EQ(OK, dequeue());
}

// A client that is woken for each output would switch threads too often; one that is not woken when
// the input runs out would wait for ever.
TEST_F(HostMediaCodecTest, aWaitingClientGetsOutputsBelowHalfOfTheBuffersToo) {
    start();
    WaitingThread<status_t> waiting([this] { return dequeue(); });
    ASSERT_EQ(OK, queue(5));
    EXPECT_EQ(OK, waiting.get());
}

TEST_F(HostMediaCodecTest, outputsBeyondTheBuffersWaitForAReleasedOne) {
    mScript->outputsPerInput = 3 * kOutputs;
    start();
    ASSERT_EQ(OK, queue(5));
    std::vector<size_t> held;
    for (size_t i = 0; i < kOutputs; ++i) {
        ASSERT_EQ(OK, dequeue());
        held.push_back(mIndex);
    }
    EXPECT_EQ(-EAGAIN, dequeue(1000));
    for (size_t i = 0; i < 2 * kOutputs; ++i) {
        ASSERT_EQ(OK, mCodec->releaseOutputBuffer(held[i]));
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
    WaitingThread<status_t> input([this] {
        size_t index = 0;
        return mCodec->dequeueInputBuffer(&index, kBoundUs);
    });
    EXPECT_EQ(OK, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, output.get());
    EXPECT_EQ(INVALID_OPERATION, input.get());
}

// A failing dequeue is a broken invariant for the client of a decoder.
TEST_F(HostMediaCodecTest, aDecoderThatFailsReportsTheLossRefusesInputAndEnds) {
    mScript->fails = true;
    std::atomic<int> losses{0};
    const sp<MediaCodec> codec = new HostMediaCodec(
        mLooper, std::make_unique<ScriptedBackend>(mScript), nullptr, [&losses] { ++losses; });
    ASSERT_EQ(OK, codec->configure(new AMessage, nullptr, nullptr, 0));
    ASSERT_EQ(OK, codec->start());
    size_t index = 0;
    size_t offset = 0;
    size_t size = 0;
    int64_t timeUs = 0;
    uint32_t flags = 0;
    ASSERT_EQ(OK, codec->dequeueOutputBuffer(&index, &offset, &size, &timeUs, &flags, kBoundUs));
    EXPECT_NE(0u, flags & MediaCodec::BUFFER_FLAG_EOS);
    EXPECT_EQ(1, losses);
    ASSERT_EQ(OK, codec->dequeueInputBuffer(&index, kBoundUs));
    EXPECT_NE(OK, codec->queueInputBuffer(index, 0, 1, 5, 0, nullptr));
    EXPECT_EQ(OK, codec->stop());
}

TEST_F(HostMediaCodecTest, stopWaitsForTheBackendsStepAndNothingFollowsIt) {
    for (const bool fails : {false, true}) {
        SCOPED_TRACE(fails);
        const auto script = std::make_shared<Script>();
        script->holdsProduce = true;
        script->fails = fails;
        const sp<MediaCodec> codec =
            new HostMediaCodec(mLooper, std::make_unique<ScriptedBackend>(script));
        ASSERT_EQ(OK, codec->configure(new AMessage, nullptr, nullptr, 0));
        ASSERT_EQ(OK, codec->start());
        size_t index = 0;
        ASSERT_EQ(OK, codec->dequeueInputBuffer(&index, 0));
        ASSERT_EQ(OK, codec->queueInputBuffer(index, 0, 1, 5, 0, nullptr));
        ASSERT_TRUE(script->waitFor([&] { return script->produceCalls > 0; }));
        WaitingThread<status_t> stopped([&] { return codec->stop(); });
        script->set([&] { script->holdsProduce = false; });
        EXPECT_EQ(OK, stopped.get());
        // On the same looper, behind whatever the codec has posted.
        std::promise<void> idle;
        mLooper->post([&] { idle.set_value(); });
        idle.get_future().wait();
        EXPECT_TRUE(script->accepted.empty()) << "the backend gets nothing after stop";
        EXPECT_EQ(1u, script->produceCalls);
        EXPECT_EQ(INVALID_OPERATION, codec->dequeueInputBuffer(&index, 0))
            << "a failure does not change the state any more";
        codec->release();
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

TEST_F(HostMediaCodecTest, aFailureToProduceEndsTheCodecToo) {
    mScript->fails = true;
    start();
    EXPECT_EQ(UNKNOWN_ERROR, dequeue());
}

// A failing output would end the process of the client, so that a refusal is told to the input.
TEST_F(HostMediaCodecTest, aRefusedInputEndsTheStreamAndRefusesFurtherInputs) {
    mScript->acceptStatus = ERROR_UNSUPPORTED;
    start();
    ASSERT_EQ(OK, queue(5));
    ASSERT_EQ(OK, dequeue());
    EXPECT_TRUE(atEnd());
    EXPECT_EQ(ERROR_UNSUPPORTED, queue(6));
    EXPECT_EQ(1u, mScript->accepted.size());
}

TEST_F(HostMediaCodecTest, aRefusalFreesTheInputsThatAreStillQueued) {
    mScript->acceptStatus = ERROR_UNSUPPORTED;
    mScript->holdsProduce = true;
    start();
    for (size_t i = 0; i < kInputs; ++i) ASSERT_EQ(OK, queue(5));
    mScript->set([this] { mScript->holdsProduce = false; });
    ASSERT_EQ(OK, dequeue());
    EXPECT_TRUE(atEnd());
    for (size_t i = 0; i < kInputs; ++i) {
        size_t index = 0;
        EXPECT_EQ(OK, mCodec->dequeueInputBuffer(&index, 0)) << i;
    }
}

// Two decoders of one extractor, the first with an output that waits for the second.
class SequencedCodecsTest : public HostMediaCodecTest {
protected:
    void SetUp() override {
        HostMediaCodecTest::SetUp();
        mSequencer->beginSegment(0);
        ASSERT_EQ(OK, mCodec->configure(formatOf(mVideo), nullptr, nullptr, 0));
        ASSERT_EQ(OK, mAudioCodec->configure(formatOf(mAudio), nullptr, nullptr, 0));
        ASSERT_EQ(OK, mAudioCodec->start());
        ASSERT_EQ(OK, mCodec->start());
        // The reader is at 1000: earlier audio may follow.
        mVideo->announce(1000, nullptr);
        ASSERT_EQ(OK, queue(2000));
    }
    void TearDown() override {
        mAudioCodec->release();
        HostMediaCodecTest::TearDown();
    }
    sp<TrackSource> makeSource() {
        return new TrackSource(CodecParametersPtr(avcodec_parameters_alloc()), mSequencer);
    }
    static sp<AMessage> formatOf(const sp<TrackSource>& source) {
        const sp<AMessage> format = new AMessage;
        format->setObject(TrackSource::kKey, source);
        return format;
    }

    const sp<OutputSequencer> mSequencer = new OutputSequencer;
    const sp<TrackSource> mVideo = makeSource();
    const sp<TrackSource> mAudio = makeSource();
    const sp<ALooper> mAudioLooper = [] {
        const sp<ALooper> looper = new ALooper;
        looper->start();
        return looper;
    }();
    const sp<MediaCodec> mAudioCodec = new HostMediaCodec(
        mAudioLooper, std::make_unique<ScriptedBackend>(std::make_shared<Script>()));
};

TEST_F(SequencedCodecsTest, anOutputWaitsUntilTheReaderIsPastIt) {
    EXPECT_EQ(-EAGAIN, dequeue(1000));
    WaitingThread<status_t> waiting([this] { return dequeue(); });
    mSequencer->advancePosition(2000);
    EXPECT_EQ(OK, waiting.get());
    EXPECT_EQ(2000, mTimeUs);
}

TEST_F(SequencedCodecsTest, aWaitingOutputGoesOnWhenTheOtherDecoderStops) {
    WaitingThread<status_t> waiting([this] { return dequeue(); });
    EXPECT_EQ(OK, mAudioCodec->stop());
    EXPECT_EQ(OK, waiting.get());
}

TEST_F(SequencedCodecsTest, aDecoderWhoseOutputWaitsCanBeUsedAndStopped) {
    WaitingThread<status_t> waiting([this] { return dequeue(); });
    // It holds no lock while it waits.
    EXPECT_EQ(OK, queue(3000));
    EXPECT_EQ(OK, mCodec->stop());
    EXPECT_EQ(INVALID_OPERATION, waiting.get());
}

TEST_F(SequencedCodecsTest, outputsOfAnEarlierSegmentAreDropped) {
    mSequencer->beginSegment(5000);
    mVideo->announce(7000, nullptr);
    EXPECT_EQ(-EAGAIN, dequeue(1000)) << "2000 was queued before the seek";
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
