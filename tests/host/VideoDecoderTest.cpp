// Decoded frames in the component's buffers: their layout, contents and timestamps. Raw video makes
// every value known.
#include <media/stagefright/foundation/MediaDefs.h>

#include <vector>

#include "CodecSupport.h"
#include "host/codec/VideoDecoder.h"

namespace android::qmmediaeditor {
namespace {

// High definition is BT.709, so that 4:2:0 needs no conversion.
constexpr int kWidth = 1282;
constexpr int kHeight = 50;

class VideoDecoderTest : public ::testing::Test {
protected:
    void configure(AVPixelFormat pixelFormat) {
        CodecParametersPtr parameters = makeParameters(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_RAWVIDEO);
        parameters->format = pixelFormat;
        parameters->width = kWidth;
        parameters->height = kHeight;
        mSequencer->beginSegment(0);
        const sp<AMessage> format =
            formatOf(new TrackSource(std::move(parameters), mSequencer), MEDIA_MIMETYPE_VIDEO_RAW);
        format->setInt32("width", kWidth);
        format->setInt32("height", kHeight);
        format->setInt32("frame-rate", 25);
        CodecBuffers buffers;
        ASSERT_EQ(OK, mDecoder.configure(format, &buffers));
    }

    void feed(const std::vector<uint8_t>& bytes, int64_t timeUs, bool hasTimestamp = true) {
        CodecInput input = inputOf(bytes, timeUs, mSequencer->segment());
        if (!hasTimestamp) input.info.properties->pts = AV_NOPTS_VALUE;
        ASSERT_EQ(OK, mDecoder.accept(std::move(input)));
    }
    Step drain() {
        return qmmediaeditor::drain(&mDecoder, [this](const CodecOutput& output) {
            mBuffer = output.buffer;
            mTimesUs.push_back(output.timeUs);
        });
    }
    int32_t valueOf(const char* key) {
        int32_t value = 0;
        EXPECT_TRUE(mDecoder.outputFormat()->findInt32(key, &value)) << key;
        return value;
    }

    // `use` gets the plane, column and row of each sample.
    template <typename Use>
    static void forEachSample(int chromaShift, const Use& use) {
        for (int plane = 0; plane < 3; ++plane) {
            const int shift = plane == 0 ? 0 : chromaShift;
            for (int y = 0; y < kHeight >> shift; ++y) {
                for (int x = 0; x < kWidth >> shift; ++x) use(plane, x, y);
            }
        }
    }
    static uint8_t sample(int plane, int x, int y) {
        return static_cast<uint8_t>(16 + (plane * 50 + x + 3 * y) % 200);
    }
    static std::vector<uint8_t> packet(int chromaShift = 1) {
        std::vector<uint8_t> bytes;
        forEachSample(chromaShift,
                      [&](int plane, int x, int y) { bytes.push_back(sample(plane, x, y)); });
        return bytes;
    }

    const sp<OutputSequencer> mSequencer = new OutputSequencer;
    VideoDecoder mDecoder{nullptr, 1};
    sp<ABuffer> mBuffer;  // of the last output
    std::vector<int64_t> mTimesUs;
};

TEST_F(VideoDecoderTest, framesAreDeliveredInTheAnnouncedLayout) {
    configure(AV_PIX_FMT_YUV420P);
    const int stride = valueOf("stride");
    const int rows = valueOf("slice-height");
    int32_t left = 1, top = 1, right = 0, bottom = 0;
    ASSERT_TRUE(mDecoder.outputFormat()->findRect("crop", &left, &top, &right, &bottom));
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
    forEachSample(1, [&](int plane, int x, int y) {
        const int at = starts[plane] + y * (plane == 0 ? stride : stride / 2) + x;
        ASSERT_EQ(sample(plane, x, y), mBuffer->data()[at]) << plane << " " << x;
    });
}

TEST_F(VideoDecoderTest, otherPixelFormatsAreConvertedIntoTheSameLayout) {
    configure(AV_PIX_FMT_YUV444P);
    feed(packet(0), 0);
    drain();
    const int stride = valueOf("stride");
    for (int x = 0; x < kWidth; ++x) {
        ASSERT_EQ(sample(0, x, 7), mBuffer->data()[stride * 7 + x]) << x;
    }
}

TEST_F(VideoDecoderTest, framesBeforeTimestamp0AreDroppedAndMissingTimestampsContinue) {
    configure(AV_PIX_FMT_YUV420P);
    for (const int64_t timeUs : {-40000, 0, 40000}) {
        feed(packet(), timeUs);
        EXPECT_EQ(timeUs, mDecoder.memberState().earliestUs);
        EXPECT_EQ(Step::kNeedsInput, drain());
        EXPECT_EQ(OutputSequencer::kNever, mDecoder.memberState().earliestUs);
    }
    feed(std::vector<uint8_t>(10, 1), 60000);  // damaged, and skipped
    EXPECT_EQ(Step::kNeedsInput, drain());
    feed(packet(), 80001, false);
    EXPECT_EQ(Step::kNeedsInput, drain());
    EXPECT_EQ((std::vector<int64_t>{0, 40000, 80000}), mTimesUs) << "25 frames per second";
    EXPECT_EQ(OK, mDecoder.finish());
    EXPECT_EQ(Step::kEnd, drain());
}

}  // namespace
}  // namespace android::qmmediaeditor
