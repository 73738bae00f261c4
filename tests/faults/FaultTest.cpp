// How real sessions end in which one codec fails or stalls.
//
// Each test goes through a table of faults of one kind, on each of the runs in kKinds.
#include <Platform.h>
#include <gtest/gtest.h>
#include <host/Host.h>
#include <support/SessionRun.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace android::qmmediaeditor {

namespace {

constexpr double kSoonSeconds = 2.0 * kSlowness;

enum class Part { kAudioEncoder, kVideoEncoder, kAudioDecoder, kVideoDecoder };
enum class What {
    kNotCreated,
    kInputFails,   // queueInputBuffer
    kOutputFails,  // dequeueOutputBuffer
    kStalls,       // no further output, until the codec is stopped
};

// What goes wrong in one run, and when it did. The test and the codec's threads share it.
struct Fault {
    Fault(Part faultyPart, What whatFails, uint64_t place)
        : part(faultyPart), what(whatFails), at(place) {}

    // Only the first call counts.
    void strike() {
        if (!struck.exchange(true)) time.set_value(Clock::now());
    }

    const Part part;
    const What what;
    const uint64_t at;  // counted from 0
    std::atomic<bool> struck{false};
    std::promise<Clock::time_point> time;
};

class FaultCodec final : public MediaCodec {
public:
    FaultCodec(const sp<MediaCodec>& real, std::shared_ptr<Fault> fault)
        : mReal(real), mFault(std::move(fault)) {}

    status_t configure(const sp<AMessage>& format, const sp<Surface>& nativeWindow,
                       const sp<ICrypto>& crypto, uint32_t flags) override {
        return mReal->configure(format, nativeWindow, crypto, flags);
    }
    status_t start() override { return mReal->start(); }
    status_t stop() override {
        mEnded = true;
        return mReal->stop();
    }
    status_t release() override {
        mEnded = true;
        return mReal->release();
    }
    status_t dequeueInputBuffer(size_t* index, int64_t timeoutUs) override {
        return mReal->dequeueInputBuffer(index, timeoutUs);
    }
    status_t queueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs,
                              uint32_t flags, AString* detail) override {
        if (mFault->what == What::kInputFails && mInputs++ >= mFault->at) return fail();
        return mReal->queueInputBuffer(index, offset, size, timeUs, flags, detail);
    }
    // One thread takes a codec's output.
    status_t dequeueOutputBuffer(size_t* index, size_t* offset, size_t* size, int64_t* timeUs,
                                 uint32_t* flags, int64_t timeoutUs) override {
        if (mOutputs >= mFault->at) {
            if (mFault->what == What::kOutputFails) return fail();
            if (mFault->what == What::kStalls) return stall(timeoutUs);
        }
        const status_t result =
            mReal->dequeueOutputBuffer(index, offset, size, timeUs, flags, timeoutUs);
        if (result == OK) ++mOutputs;
        return result;
    }
    status_t releaseOutputBuffer(size_t index) override {
        return mReal->releaseOutputBuffer(index);
    }
    status_t signalEndOfInputStream() override { return mReal->signalEndOfInputStream(); }
    status_t getOutputFormat(sp<AMessage>* format) const override {
        return mReal->getOutputFormat(format);
    }
    status_t getInputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override {
        return mReal->getInputBuffers(buffers);
    }
    status_t getOutputBuffers(Vector<sp<MediaCodecBuffer>>* buffers) const override {
        return mReal->getOutputBuffers(buffers);
    }

private:
    status_t fail() {
        mFault->strike();
        return UNKNOWN_ERROR;
    }
    // As a codec without output: until the time-out, or until it is stopped.
    status_t stall(int64_t timeoutUs) {
        mFault->strike();
        for (int64_t us = 0; us < timeoutUs && !mEnded; us += 1000) usleep(1000);
        return mEnded ? INVALID_OPERATION : -EAGAIN;
    }

    const sp<MediaCodec> mReal;
    const std::shared_ptr<Fault> mFault;
    std::atomic<uint64_t> mInputs{0};
    uint64_t mOutputs = 0;
    std::atomic<bool> mEnded{false};
};

Part codecPart(const AString& mime, bool encoder) {
    const bool audio = mime.startsWith("audio/");
    if (encoder) return audio ? Part::kAudioEncoder : Part::kVideoEncoder;
    return audio ? Part::kAudioDecoder : Part::kVideoDecoder;
}

// The real platform with one faulty codec.
class FaultPlatform final : public Platform {
public:
    // Set while no session lives.
    std::shared_ptr<Fault> fault;

    sp<MediaCodec> createCodec(const sp<ALooper>& looper, const AString& mime, bool encoder,
                               status_t* err) override {
        const bool faulty = fault != nullptr && fault->part == codecPart(mime, encoder);
        if (faulty && fault->what == What::kNotCreated) {
            fault->strike();
            return nullptr;
        }
        const sp<MediaCodec> real = mReal->createCodec(looper, mime, encoder, err);
        return faulty ? new FaultCodec(real, fault) : real;
    }
    sp<ExtractorBackend> createExtractor() override { return mReal->createExtractor(); }
    sp<MediaWriter> createWriter(int fd) override { return mReal->createWriter(fd); }
    sp<AudioConverterBackend> createAudioConverter() override {
        return mReal->createAudioConverter();
    }
    void scale(const ScaleRequest& request) override { mReal->scale(request); }
    void setUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size) override {
        mReal->setUuidData(writer, data, size);
    }
    bool getUseDitherType(int* type) override { return mReal->getUseDitherType(type); }

private:
    const std::unique_ptr<Platform> mReal = createHostPlatform({"ultrafast", false, {}});
};

FaultPlatform& platform() {
    static FaultPlatform instance;
    return instance;
}

struct Kind {
    const char* name;
    const char* clip;  // of 10 seconds
    bool hasAudio;
    bool hasVideo;
    std::vector<TrimPeriod> periods;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

const std::vector<TrimPeriod> kTwoPeriods = {{500000, 2000000}, {3000000, 6000000}};
const std::vector<TrimPeriod> kGoingBack = {{500000, 2000000}, {1000000, 4000000}};

const Kind kKinds[] = {
    {"audio", "audio.m4a", true, false, {}},
    {"video", "video.mp4", false, true, {}},
    {"both", "steps.mp4", true, true, {}},
    {"audioTrimmed", "audio.m4a", true, false, kTwoPeriods},
    {"videoTrimmed", "video.mp4", false, true, kTwoPeriods},
    {"bothTrimmed", "steps.mp4", true, true, kTwoPeriods},
    {"bothGoingBack", "steps.mp4", true, true, kGoingBack},
};

class FaultTest : public testing::TestWithParam<Kind> {
protected:
    typedef std::function<void(SessionRun&, Fault&)> Check;

    // Runs once for each fault of the parts that the run has, and then `check`. The first run pays
    // for what a process sets up once; after that nothing may be left behind.
    void forEach(const std::vector<Part>& parts, const std::vector<What>& whats,
                 const std::vector<uint64_t>& places, const Check& check) {
        Footprint before = Footprint::take(1 + kForeignThreads);
        bool first = true;
        for (const Part part : parts) {
            const bool audio = part == Part::kAudioEncoder || part == Part::kAudioDecoder;
            if (!(audio ? GetParam().hasAudio : GetParam().hasVideo)) continue;
            for (const What what : whats) {
                for (const uint64_t at : places) {
                    SCOPED_TRACE("part " + std::to_string(static_cast<int>(part)) + ", fault " +
                                 std::to_string(static_cast<int>(what)) + ", at " +
                                 std::to_string(at));
                    runOne(std::make_shared<Fault>(part, what, at), check);
                    const Footprint after = Footprint::take(before.threads + kForeignThreads);
                    if (std::exchange(first, false)) before.heapBytes = after.heapBytes;
                    EXPECT_LE(after.threads, before.threads + kForeignThreads);
                    EXPECT_EQ(after.descriptors, before.descriptors);
                    EXPECT_LT(after.heapBytes, before.heapBytes + (256 << 10));
                }
            }
        }
    }

    void runOne(const std::shared_ptr<Fault>& fault, const Check& check) {
        platform().fault = fault;
        SessionRun run(std::string(QM_CLIPS_DIR "/") + GetParam().clip, GetParam().periods);
        check(run, *fault);
        // Whatever ended the run, what is in the file decodes.
        run.result();
        if (run.output().sizeBytes() > 0) {
            EXPECT_EQ(complaintsAbout(run.output().path()), "");
        }
    }

    static Check endsSoonWith(int32_t result) {
        return [=](SessionRun& run, Fault& fault) {
            EXPECT_EQ(run.result(), result);
            ASSERT_TRUE(fault.struck);
            expectEndsSoon(run, fault.time.get_future().get());
        };
    }

    static void expectEndsSoon(SessionRun& run, Clock::time_point since) {
        EXPECT_LT(secondsBetween(since, run.endedAt()), kSoonSeconds);
    }
};

TEST_P(FaultTest, encoderThatFails_endsTheRunWithItsError) {
    const std::vector<Part> encoders = {Part::kAudioEncoder, Part::kVideoEncoder};
    forEach(encoders, {What::kInputFails, What::kOutputFails}, {0, 1, 10, 11, 12, 100},
            endsSoonWith(kEncoderError));
    forEach(encoders, {What::kNotCreated}, {0}, endsSoonWith(kEncoderError));
}

TEST_P(FaultTest, decoderThatRefusesAnInput_endsTheRunWithItsError) {
    forEach({Part::kAudioDecoder, Part::kVideoDecoder}, {What::kInputFails}, {0, 1, 20, 50},
            endsSoonWith(kDecoderError));
}

TEST_P(FaultTest, codecThatStalls_canBeStopped) {
    forEach({Part::kAudioDecoder, Part::kVideoDecoder, Part::kAudioEncoder, Part::kVideoEncoder},
            {What::kStalls}, {0, 1, 11, 50}, [](SessionRun& run, Fault& fault) {
                ASSERT_EQ(fault.time.get_future().wait_for(kEndBound), std::future_status::ready);
                // By the end of this time everyone waits for somebody else.
                EXPECT_FALSE(run.endsWithin(std::chrono::milliseconds(300)));
                const Clock::time_point cancelled = Clock::now();
                run.cancel();
                EXPECT_EQ(run.result(), kStopped);
                expectEndsSoon(run, cancelled);
            });
}

TEST(PeriodTest, aPeriodAtTheEndOfTheRangeOfTimesEnds) {
    platform().fault = nullptr;
    for (const int64_t startUs : {INT64_MAX - 1000000000, INT64_MAX - 1, INT64_MAX}) {
        SCOPED_TRACE(startUs);
        SessionRun run(QM_CLIPS_DIR "/steps.mp4", {{startUs, INT64_MAX}});
        EXPECT_TRUE(run.endsWithin(kEndBound));
    }
}

// As when the pool cannot make a buffer that is large enough.
class UnreadableSource : public MediaSource {
public:
    status_t start(MetaData*) override { return OK; }
    status_t stop() override { return OK; }
    sp<MetaData> getFormat() override {
        const sp<MetaData> format = new MetaData;
        format->setCString(kKeyMIMEType, "audio/mp4a-latm");
        format->setInt32(kKeySampleRate, 48000);
        format->setInt32(kKeyChannelCount, 1);
        return format;
    }
    status_t read(MediaBufferBase**, const ReadOptions*) override { return NO_MEMORY; }
};

class EventCounter : public IMediaRecorderClient {
public:
    IBinder* onAsBinder() override { return nullptr; }
    void notify(int msg, int, int) override { ++(msg == 1 ? errors : others); }

    std::atomic<int> errors{0};
    std::atomic<int> others{0};
};

TEST(SourceTest, aSampleThatCannotBeReadIsAnErrorOfTheWriter) {
    const TemporaryFile file;
    const int fd = file.open();
    const sp<MediaWriter> writer = platform().createWriter(fd);
    close(fd);
    const sp<EventCounter> events = new EventCounter;
    writer->setListener(events);
    writer->addSource(new UnreadableSource);
    EXPECT_EQ(writer->start(new MetaData), OK);
    while (!writer->reachedEOS()) usleep(1000);
    writer->stop();
    EXPECT_EQ(events->errors, 1);
    EXPECT_EQ(events->others, 0);
}

std::string nameOf(const testing::TestParamInfo<Kind>& kind) { return kind.param.name; }

INSTANTIATE_TEST_SUITE_P(Runs, FaultTest, testing::ValuesIn(kKinds), nameOf);

}  // namespace

}  // namespace android::qmmediaeditor

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    android::qmmediaeditor::Platform::install(&android::qmmediaeditor::platform());
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return RUN_ALL_TESTS();
}
