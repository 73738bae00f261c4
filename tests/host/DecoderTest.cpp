// Decoded audio without gaps and overlaps, and decoded frames in the component's buffers. Raw audio
// and video make every value known.
#include <media/stagefright/MediaCodecConstants.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <string.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "CodecSupport.h"
#include "host/codec/AudioDecoder.h"
#include "host/codec/VideoDecoder.h"
#include "host/convert/FrameScaler.h"

namespace android::qmmediaeditor {
namespace {

constexpr int kRate = 48000;
constexpr int64_t kSecondUs = 1000000;

class AudioDecoderTest : public ::testing::Test, public HostObserver {
protected:
    void onDecoderOpened(bool isVideo, const std::string& name) override {
        EXPECT_FALSE(isVideo);
        mOpened = name;
    }

    void configure(const std::optional<std::vector<int64_t>>& cutsUs = std::vector<int64_t>(),
                   int64_t durationUs = 100 * kSecondUs, int codedRate = kRate) {
        CodecParametersPtr parameters = makeParameters(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE);
        parameters->sample_rate = codedRate;
        av_channel_layout_default(&parameters->ch_layout, 1);
        mSequencer->beginSegment(0);
        const sp<AMessage> format =
            formatOf(new TrackSource(std::move(parameters), mSequencer), MEDIA_MIMETYPE_AUDIO_RAW);
        format->setInt32("sample-rate", kRate);
        format->setInt32("channel-count", 1);
        format->setInt64("durationUs", durationUs);
        mDecoder = std::make_unique<AudioDecoder>(cutsUs, this);
        CodecBuffers buffers;
        ASSERT_EQ(OK, mDecoder->configure(format, &buffers));
        EXPECT_TRUE(buffers.announcesFormat);
    }

    // One packet of `count` samples of this value.
    void feed(int64_t timeUs, int count, int16_t value) {
        const std::vector<int16_t> samples(static_cast<size_t>(count), value);
        EXPECT_EQ(OK, mDecoder->accept(inputOf(samples, timeUs, mSequencer->segment())));
        drain();
    }
    Step drain() {
        return qmmediaeditor::drain(mDecoder.get(),
                                    [this](const CodecOutput& output) { take(output); });
    }

    // Each buffer has to follow the one before it.
    void take(const CodecOutput& output) {
        const int64_t startUs = mSequencer->segment().startUs;
        EXPECT_NEAR(
            static_cast<double>(startUs) + static_cast<double>(mSamples.size()) * 1e6 / kRate,
            static_cast<double>(output.timeUs), 1);
        const size_t before = mSamples.size();
        mBufferSizes.push_back(output.buffer->size() / 2);
        mSamples.resize(before + mBufferSizes.back());
        memcpy(&mSamples[before], output.buffer->data(), output.buffer->size());
    }
    void beginSegment(int64_t startUs) {
        mSamples.clear();
        mSequencer->beginSegment(startUs);
    }

    // "960x0 480x7": runs of equal samples.
    std::string runs() const {
        std::string text;
        for (size_t i = 0; i < mSamples.size();) {
            size_t end = i;
            while (end < mSamples.size() && mSamples[end] == mSamples[i]) ++end;
            text += (text.empty() ? "" : " ") + std::to_string(end - i) + "x" +
                    std::to_string(mSamples[i]);
            i = end;
        }
        return text;
    }

    std::string mOpened;
    const sp<OutputSequencer> mSequencer = new OutputSequencer;
    std::unique_ptr<AudioDecoder> mDecoder;
    std::vector<int16_t> mSamples;
    std::vector<size_t> mBufferSizes;
};

TEST_F(AudioDecoderTest, aLateStartAndAGapAreFilledWithSilence) {
    configure();
    EXPECT_EQ("pcm_s16le", mOpened);
    feed(10000, 480, 5);    // 10 ms late, to the sample
    feed(20000, 480, 6);    // adjacent
    feed(130000, 4800, 7);  // 100 ms are missing
    EXPECT_EQ("480x0 480x5 480x6 4800x0 4800x7", runs());
    EXPECT_EQ(OK, mDecoder->finish());
    EXPECT_EQ(Step::kEnd, drain());
}

TEST_F(AudioDecoderTest, overlapsAreDroppedAndRoundingIsNot) {
    configure();
    feed(0, 4800, 1);
    feed(100000 - 15000, 960, 2);  // within the 20 ms of rounding: all of it follows
    feed(60000, 9600, 3);          // begins 60 ms before the end of what is there
    feed(0, 480, 4);               // lies in the past as a whole
    EXPECT_EQ("4800x1 960x2 6720x3", runs());
}

TEST_F(AudioDecoderTest, aSegmentStartsAtTheSeeksTarget) {
    configure();
    feed(0, 480, 1);
    beginSegment(kSecondUs);
    feed(kSecondUs - 5000, 480, 2);  // half of it is before the target
    EXPECT_EQ("240x2", runs());
    beginSegment(2 * kSecondUs);
    feed(2 * kSecondUs + 1000, 480, 3);
    EXPECT_EQ("48x0 480x3", runs());
}

TEST_F(AudioDecoderTest, noBufferExtendsAcrossACut) {
    // 20.001 ms is between two samples: the cut is at the later one, 961.
    configure(std::vector<int64_t>{10000, 20001, 40000, 50000});
    feed(0, 4800, 1);
    EXPECT_EQ((std::vector<size_t>{480, 481, 959, 480, 1024, 1024, 352}), mBufferSizes);
    mSamples.clear();
    mBufferSizes.clear();
    configure(std::nullopt);
    feed(0, 1000, 1);
    EXPECT_EQ((std::vector<size_t>{256, 256, 256, 232}), mBufferSizes) << "cuts may still come";
}

TEST_F(AudioDecoderTest, aTimestampFarBehindTheTracksEndIsIgnored) {
    configure(std::vector<int64_t>(), kSecondUs);
    feed(0, 480, 1);
    feed(12 * kSecondUs, 480, 2);
    EXPECT_EQ("480x1 480x2", runs());
}

TEST_F(AudioDecoderTest, silenceFollowsTheReaderAndTheNextAudioIsPlacedExactly) {
    configure();
    feed(0, 480, 1);
    const InputSegment segment = mSequencer->segment();
    CodecOutput output;
    // 100 ms may still be inside a decoder.
    EXPECT_EQ(110000, mDecoder->memberState().silenceDueUs);
    EXPECT_EQ(Step::kNeedsInput, mDecoder->produceWithoutInput(segment, 110000, &output));
    EXPECT_EQ(Step::kOutput, mDecoder->produceWithoutInput(segment, 110100, &output));
    take(output);
    EXPECT_NE(Step::kFailed, drain());
    EXPECT_EQ("480x1 4805x0", runs());
    // Once in a gap, the silence is due at the next sample.
    output = CodecOutput();
    EXPECT_EQ(Step::kOutput, mDecoder->produceWithoutInput(segment, 120000, &output));
    take(output);
    feed(120500, 480, 2);
    EXPECT_EQ("480x1 5304x0 480x2", runs());
}

// Samples that wait inside of the resampler belong before the packet that brings them out.
TEST_F(AudioDecoderTest, resampledAudioIsPlacedWhereItsSamplesBelong) {
    configure(std::vector<int64_t>(), 100 * kSecondUs, kRate / 2);
    feed(0, 480, 1000);
    const size_t delay = 960 - mSamples.size();
    EXPECT_GT(delay, 0u);
    EXPECT_LT(delay, 100u);
    feed(220000, 480, 1000);
    EXPECT_EQ(size_t{240 * 48} - delay, mSamples.size());
}

// High definition is BT.709, so that 4:2:0 needs no conversion.
constexpr int kWidth = 1282;
constexpr int kHeight = 50;

class VideoDecoderTest : public ::testing::Test {
protected:
    void configure() {
        CodecParametersPtr parameters = makeParameters(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_RAWVIDEO);
        parameters->format = AV_PIX_FMT_YUV420P;
        parameters->width = kWidth;
        parameters->height = kHeight;
        mSequencer->beginSegment(0);
        const sp<AMessage> format =
            formatOf(new TrackSource(std::move(parameters), mSequencer), MEDIA_MIMETYPE_VIDEO_RAW);
        format->setInt32("width", kWidth);
        format->setInt32("height", kHeight);
        format->setInt32("frame-rate", 25);
        CodecBuffers buffers;
        ASSERT_EQ(OK, mDecoder->configure(format, &buffers));
    }

    void feed(const std::vector<uint8_t>& bytes, int64_t timeUs, bool hasTimestamp = true) {
        CodecInput input = inputOf(bytes, timeUs, mSequencer->segment());
        if (!hasTimestamp) input.info.properties->pts = AV_NOPTS_VALUE;
        ASSERT_EQ(OK, mDecoder->accept(std::move(input)));
    }
    Step drain() {
        return qmmediaeditor::drain(&*mDecoder, [this](const CodecOutput& output) {
            mBuffer = output.buffer;
            mTimesUs.push_back(output.timeUs);
        });
    }
    int32_t valueOf(const char* key) {
        int32_t value = 0;
        EXPECT_TRUE(mDecoder->outputFormat()->findInt32(key, &value)) << key;
        return value;
    }

    // `use` gets the plane, column and row of each sample.
    template <typename Use>
    static void forEachSample(const Use& use) {
        for (int plane = 0; plane < 3; ++plane) {
            const int shift = plane == 0 ? 0 : 1;
            for (int y = 0; y < kHeight >> shift; ++y) {
                for (int x = 0; x < kWidth >> shift; ++x) use(plane, x, y);
            }
        }
    }
    static uint8_t sample(int plane, int x, int y) {
        return static_cast<uint8_t>(16 + (plane * 50 + x + 3 * y) % 200);
    }
    static std::vector<uint8_t> packet() {
        std::vector<uint8_t> bytes;
        forEachSample([&](int plane, int x, int y) { bytes.push_back(sample(plane, x, y)); });
        return bytes;
    }

    const sp<OutputSequencer> mSequencer = new OutputSequencer;
    std::optional<VideoDecoder> mDecoder{std::in_place, fastOptions()};
    sp<ABuffer> mBuffer;  // of the last output
    std::vector<int64_t> mTimesUs;
};

TEST_F(VideoDecoderTest, framesAreDeliveredInTheAnnouncedLayout) {
    configure();
    const int stride = valueOf("stride");
    const int rows = valueOf("slice-height");
    int32_t left = 1, top = 1, right = 0, bottom = 0;
    ASSERT_TRUE(mDecoder->outputFormat()->findRect("crop", &left, &top, &right, &bottom));
    EXPECT_EQ(0, left + top);
    EXPECT_EQ(kWidth - 1, right);
    EXPECT_EQ(kHeight - 1, bottom);
    ASSERT_GE(stride, kWidth);
    ASSERT_GE(rows, kHeight);

    feed(packet(), 40000);
    drain();
    ASSERT_EQ(std::vector<int64_t>{40000}, mTimesUs);
    ASSERT_EQ(static_cast<size_t>(stride * rows * 3 / 2), mBuffer->size());
    const int starts[] = {0, stride * rows, stride * rows * 5 / 4};
    forEachSample([&](int plane, int x, int y) {
        const int at = starts[plane] + y * (plane == 0 ? stride : stride / 2) + x;
        ASSERT_EQ(sample(plane, x, y), mBuffer->data()[at]) << plane << " " << x;
    });
}

// The copy and the encoder's input refer to the frame, which stays as it is while the decoder goes
// on without it.
TEST_F(VideoDecoderTest, aCopyOfAFrameSharesItsMemory) {
    configure();
    feed(packet(), 0);
    drain();
    const auto* const frame = mBuffer->data();
    const std::vector<uint8_t> before(frame, frame + mBuffer->size());
    sp<ABuffer> copy = ABuffer::CreateAsCopy(frame, mBuffer->size());
    ASSERT_EQ(frame, copy->data());
    const sp<ABuffer> input = makeEncoderInput(size_t{kWidth * kHeight * 3 / 2});
    scaleFrame({valueOf("stride"), valueOf("slice-height"), kWidth, kHeight,
                COLOR_FormatYUV420Planar, frame, kWidth, kHeight, COLOR_FormatYUV420Planar,
                input->data(), nullptr});
    Scaled scaled = takeScaled(input->data());
    ASSERT_EQ(frame, scaled.planes.plane[0].data);
    EXPECT_EQ(nullptr, takeScaled(input->data()).owner);

    copy.clear();
    for (int64_t timeUs = 40000; timeUs < 200000; timeUs += 40000) {
        std::vector<uint8_t> other = packet();
        for (uint8_t& value : other) value ^= 255;
        feed(other, timeUs);
        drain();
    }
    EXPECT_TRUE(std::equal(before.begin(), before.end(), frame));
    const wp<RefBase> owner = scaled.owner;
    scaled = {};
    EXPECT_EQ(nullptr, owner.promote());
}

TEST_F(VideoDecoderTest, aFrameLargerThanTheOutputIsScaledAsTheEncodersInputWouldBe) {
    constexpr FrameSize kSmall = {640, 26};
    configure();
    feed(packet(), 0);
    drain();
    std::vector<uint8_t> expected(pixelsOf(kSmall) + 2 * pixelsOf(chromaOf(kSmall)));
    scaleFrame({valueOf("stride"), valueOf("slice-height"), kWidth, kHeight,
                COLOR_FormatYUV420Planar, mBuffer->data(), kSmall.width, kSmall.height,
                COLOR_FormatYUV420Planar, expected.data(), nullptr});

    // Frames outside of the period may show anything, but the session counts them.
    HostOptions options;
    options.cutTimesUs = {40000, 80000};
    options.threads = 1;
    options.frameSize = kSmall;
    mDecoder.emplace(options, std::make_shared<SessionTimeline>(options));
    configure();
    mTimesUs.clear();
    const std::vector<uint8_t> black(packet().size(), 16);
    sp<ABuffer> kept;
    for (const int64_t timeUs : {0, 40000, 80000}) {
        feed(timeUs == 40000 ? packet() : black, timeUs);
        drain();
        if (timeUs == 40000) kept = mBuffer;
        EXPECT_EQ(kept == nullptr ? mBuffer->size() : kept->size(), mBuffer->size());
    }
    EXPECT_EQ((std::vector<int64_t>{0, 40000, 80000}), mTimesUs);
    const int stride = valueOf("stride");
    for (int y = 0; y < kSmall.height; ++y) {
        ASSERT_EQ(0, memcmp(expected.data() + y * kSmall.width, kept->data() + y * stride,
                            size_t{kSmall.width}))
            << y;
    }
}

TEST_F(VideoDecoderTest, framesBeforeTimestamp0AreDroppedAndMissingTimestampsContinue) {
    configure();
    for (const int64_t timeUs : {-40000, 0, 40000}) {
        feed(packet(), timeUs);
        EXPECT_EQ(timeUs, mDecoder->memberState().earliestUs);
        EXPECT_EQ(Step::kNeedsInput, drain());
        EXPECT_EQ(OutputSequencer::kNever, mDecoder->memberState().earliestUs);
    }
    feed(std::vector<uint8_t>(10, 1), 60000);  // damaged, and skipped
    EXPECT_EQ(Step::kNeedsInput, drain());
    feed(packet(), 80001, false);
    EXPECT_EQ(Step::kNeedsInput, drain());
    EXPECT_EQ((std::vector<int64_t>{0, 40000, 80000}), mTimesUs) << "25 frames per second";
    EXPECT_EQ(OK, mDecoder->finish());
    EXPECT_EQ(Step::kEnd, drain());
}

}  // namespace
}  // namespace android::qmmediaeditor
