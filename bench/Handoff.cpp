// Measures the cost of the component itself per frame: drain, source, conversion and writer with
// codecs that cost nothing, against plain copies of as many bytes.
//
// A frame is copied twice on its way: from the decoder's buffer into the source's queue, and,
// converted, from there into the encoder's buffer. The codecs are the host's workers, so that
// waiting and waking are what they are in a real run.
#include <TranscodeComponent.h>
#include <benchmark/benchmark.h>
#include <fakes/ScriptedPlatform.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <vector>

#include "host/codec/HostMediaCodec.h"
#include "host/foundation/FrameAllocator.h"

namespace android::qmmediaeditor {
namespace {

constexpr int64_t kFrames = 300;
constexpr int64_t kFrameUs = 33334;
constexpr int kPlanar = 19;
constexpr size_t kDecoderOutputs = 4;
constexpr size_t kEncoderInputs = 8;
constexpr size_t kBatch = 11;

struct FrameSize {
    int width;
    int height;

    size_t bytes() const {
        return static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2;
    }
    sp<AMessage> format() const {
        sp<AMessage> format = new AMessage;
        format->setString("mime", MEDIA_MIMETYPE_VIDEO_AVC);
        format->setInt64("durationUs", kFrames * kFrameUs);
        format->setInt32("width", width);
        format->setInt32("height", height);
        format->setInt32("frame-rate", 30);
        format->setInt32("color-format", kPlanar);
        return format;
    }
};

// Gives out one ready payload for each input.
class FreeBackend : public CodecBackend {
public:
    FreeBackend(const FrameSize& size, bool encoder)
        : mSize(size),
          mEncoder(encoder),
          mPayload(FrameAllocator::makeBuffer(encoder ? 1000 : size.bytes())) {
        memset(mPayload->base(), 128, mPayload->capacity());
    }

    status_t configure(const sp<AMessage>&, CodecBuffers* buffers) override {
        buffers->inputCount = kEncoderInputs;
        buffers->inputBytes = mEncoder ? mSize.bytes() : 1000;
        buffers->inputsAreFrames = mEncoder;
        buffers->outputCount = kDecoderOutputs;
        buffers->announcesFormat = !mEncoder;
        return OK;
    }
    sp<AMessage> outputFormat() const override { return mSize.format(); }
    Step produce(CodecOutput* output) override {
        if (mTimesUs.empty()) return mFinished ? Step::kEnd : Step::kNeedsInput;
        output->buffer = mPayload;
        output->timeUs = mTimesUs.front();
        mTimesUs.pop_front();
        return Step::kOutput;
    }
    status_t accept(CodecInput input) override {
        mTimesUs.push_back(input.timeUs);
        return OK;
    }
    status_t finish() override {
        mFinished = true;
        return OK;
    }

private:
    const FrameSize mSize;
    const bool mEncoder;
    const sp<ABuffer> mPayload;
    std::deque<int64_t> mTimesUs;
    bool mFinished = false;
};

class FreePlatform : public ScriptedPlatform {
public:
    explicit FreePlatform(const FrameSize& size) : mSize(size) {
        extractor().addTrack(size.format());
        for (int64_t i = 0; i < kFrames; ++i) {
            extractor().addSample({0, i * kFrameUs, std::vector<uint8_t>(100)});
        }
    }

    sp<MediaCodec> createCodec(const sp<ALooper>& looper, const AString&, bool encoder,
                               status_t*) override {
        return new HostMediaCodec(looper, std::make_unique<FreeBackend>(mSize, encoder));
    }
    void scale(const ScaleRequest& request) override {
        memcpy(request.dst, request.src, mSize.bytes());
    }

private:
    const FrameSize mSize;
    const FrameAllocator::Keep mKeep;
};

FrameSize sizeOf(const benchmark::State& state) {
    return {static_cast<int>(state.range(0)), static_cast<int>(state.range(1))};
}

void countFrames(benchmark::State& state) {
    const double frames = static_cast<double>(state.iterations()) * kFrames;
    state.counters["frames/s"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
    state.counters["s/frame"] =
        benchmark::Counter(frames, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void session(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto platform = std::make_unique<FreePlatform>(sizeOf(state));
        TranscodeProperty property;
        property.mInputFd = memfd_create("input", 0);
        // Its size gives the bit rate.
        if (ftruncate(property.mInputFd, 4000000) != 0) state.SkipWithError("no input");
        property.mOutputFd = memfd_create("output", 0);
        property.mProgressCallback = [](int32_t) {};
        sp<TranscodeComponent> component = new TranscodeComponent();
        component->create(&property);
        state.ResumeTiming();
        const int32_t result = component->process();
        state.PauseTiming();
        if (result != OK || platform->writer().samples(0).size() != kFrames) {
            state.SkipWithError("the run did not bring every frame");
        }
        component->destory();
        component.clear();
        close(property.mInputFd);
        platform.reset();
        state.ResumeTiming();
    }
    countFrames(state);
}

// The two copies alone, through as many buffers as a run uses.
void copies(benchmark::State& state) {
    const size_t bytes = sizeOf(state).bytes();
    const FrameAllocator::Keep keep;
    const auto make = [&](size_t count) {
        std::vector<sp<ABuffer>> buffers;
        for (size_t i = 0; i < count; ++i) {
            buffers.push_back(FrameAllocator::makeBuffer(bytes));
            memset(buffers.back()->base(), 128, bytes);
        }
        return buffers;
    };
    const std::vector<sp<ABuffer>> decoded = make(1);
    const std::vector<sp<ABuffer>> queued = make(kBatch);
    const std::vector<sp<ABuffer>> encoded = make(kEncoderInputs);
    for (auto _ : state) {
        for (size_t first = 0; first < kFrames; first += kBatch) {
            const size_t end = std::min<size_t>(first + kBatch, kFrames);
            for (size_t i = first; i < end; ++i) {
                memcpy(queued[i - first]->base(), decoded[0]->base(), bytes);
            }
            for (size_t i = first; i < end; ++i) {
                memcpy(encoded[i % kEncoderInputs]->base(), queued[i - first]->base(), bytes);
            }
            benchmark::ClobberMemory();
        }
    }
    countFrames(state);
}

#define SIZES Args({1920, 1080})->Args({3840, 2160})->UseRealTime()->Unit(benchmark::kMillisecond)
BENCHMARK(session)->SIZES;
BENCHMARK(copies)->SIZES;

}  // namespace
}  // namespace android::qmmediaeditor

BENCHMARK_MAIN();
