// Decoded frames in the component's buffers: their layout, contents and timestamps. Raw video makes
// every value known.
#include <gtest/gtest.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include <vector>

#include "host/codec/TrackSource.h"
#include "host/codec/VideoDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {
namespace {

typedef CodecBackend::Step Step;

// High definition is BT.709, so that 4:2:0 needs no conversion.
constexpr int kWidth = 1282;
constexpr int kHeight = 50;

class VideoDecoderTest : public ::testing::Test {
protected:
    status_t configure(AVPixelFormat pixelFormat) {
        CodecParametersPtr parameters(avcodec_parameters_alloc());
        parameters->codec_type = AVMEDIA_TYPE_VIDEO;
        parameters->codec_id = AV_CODEC_ID_RAWVIDEO;
        parameters->format = pixelFormat;
        parameters->width = kWidth;
        parameters->height = kHeight;
        mSequencer->beginSegment(0);
        const sp<AMessage> format = new AMessage;
        format->setString("mime", MEDIA_MIMETYPE_VIDEO_RAW);
        format->setInt32("width", kWidth);
        format->setInt32("height", kHeight);
        format->setInt32("frame-rate", 25);
        format->setObject(TrackSource::kKey, new TrackSource(std::move(parameters), mSequencer));
        CodecBuffers buffers;
        return mDecoder.configure(format, &buffers);
    }

    status_t feed(const std::vector<uint8_t>& bytes, int64_t timeUs, bool hasTimestamp = true) {
        CodecInput input;
        input.data = bytes.data();
        input.size = bytes.size();
        input.timeUs = timeUs;
        input.info.segment = mSequencer->segment();
        input.info.properties.reset(av_packet_alloc());
        input.info.properties->pts = hasTimestamp ? timeUs : AV_NOPTS_VALUE;
        return mDecoder.accept(std::move(input));
    }

    static uint8_t sample(int plane, int x, int y) {
        return static_cast<uint8_t>(16 + (plane * 50 + x + 3 * y) % 200);
    }
    // A packet of three planes, each with one of every `step` samples of its own pattern.
    static std::vector<uint8_t> packet(int chromaShift) {
        std::vector<uint8_t> bytes;
        for (int plane = 0; plane < 3; ++plane) {
            const int shift = plane == 0 ? 0 : chromaShift;
            for (int y = 0; y < kHeight >> shift; ++y) {
                for (int x = 0; x < kWidth >> shift; ++x) bytes.push_back(sample(plane, x, y));
            }
        }
        return bytes;
    }

    const sp<OutputSequencer> mSequencer = new OutputSequencer;
    VideoDecoder mDecoder{nullptr, 1};
};

TEST_F(VideoDecoderTest, framesAreDeliveredInTheAnnouncedLayout) {
    ASSERT_EQ(OK, configure(AV_PIX_FMT_YUV420P));
    const sp<AMessage> format = mDecoder.outputFormat();
    ASSERT_NE(nullptr, format);
    int32_t stride = 0;
    int32_t rows = 0;
    int32_t left = 1, top = 1, right = 0, bottom = 0;
    format->findInt32("stride", &stride);
    format->findInt32("slice-height", &rows);
    ASSERT_TRUE(format->findRect("crop", &left, &top, &right, &bottom));
    EXPECT_EQ(0, left + top);
    EXPECT_EQ(kWidth - 1, right);
    EXPECT_EQ(kHeight - 1, bottom);
    ASSERT_GE(stride, kWidth);
    ASSERT_GE(rows, kHeight);

    ASSERT_EQ(OK, feed(packet(1), 40000));
    CodecOutput output;
    ASSERT_EQ(Step::kOutput, mDecoder.produce(&output));
    EXPECT_EQ(40000, output.timeUs);
    ASSERT_EQ(static_cast<size_t>(stride * rows * 3 / 2), output.buffer->size());
    const uint8_t* plane = output.buffer->data();
    for (int i = 0; i < 3; ++i) {
        const int shift = i == 0 ? 0 : 1;
        for (int y = 0; y < kHeight >> shift; ++y) {
            for (int x = 0; x < kWidth >> shift; ++x) {
                ASSERT_EQ(sample(i, x, y), plane[y * (stride >> shift) + x]) << i << " " << x;
            }
        }
        plane += (stride >> shift) * (rows >> shift);
    }
}

TEST_F(VideoDecoderTest, otherPixelFormatsAreConvertedIntoTheSameLayout) {
    ASSERT_EQ(OK, configure(AV_PIX_FMT_YUV444P));
    std::vector<uint8_t> grey(kWidth * kHeight * 3, 90);
    ASSERT_EQ(OK, feed(grey, 0));
    CodecOutput output;
    ASSERT_EQ(Step::kOutput, mDecoder.produce(&output));
    int32_t stride = 0;
    mDecoder.outputFormat()->findInt32("stride", &stride);
    for (int x = 0; x < kWidth; ++x) ASSERT_EQ(90, output.buffer->data()[stride * 7 + x]);
}

TEST_F(VideoDecoderTest, framesBeforeTimestamp0AreDroppedAndMissingTimestampsContinue) {
    ASSERT_EQ(OK, configure(AV_PIX_FMT_YUV420P));
    std::vector<int64_t> timesUs;
    const auto drain = [&] {
        for (;;) {
            CodecOutput output;
            const Step step = mDecoder.produce(&output);
            if (step != Step::kOutput) return step;
            timesUs.push_back(output.timeUs);
        }
    };
    for (const int64_t timeUs : {-40000, 0, 40000}) {
        ASSERT_EQ(OK, feed(packet(1), timeUs));
        EXPECT_EQ(timeUs, mDecoder.memberState().earliestUs);
        EXPECT_EQ(Step::kNeedsInput, drain());
        EXPECT_EQ(OutputSequencer::kNever, mDecoder.memberState().earliestUs);
    }
    ASSERT_EQ(OK, feed(packet(1), 80001, false));
    EXPECT_EQ(Step::kNeedsInput, drain());
    EXPECT_EQ((std::vector<int64_t>{0, 40000, 80000}), timesUs) << "25 frames per second";
    EXPECT_EQ(OK, mDecoder.finish());
    EXPECT_EQ(Step::kEnd, drain());
}

TEST_F(VideoDecoderTest, aDamagedPacketIsSkipped) {
    ASSERT_EQ(OK, configure(AV_PIX_FMT_YUV420P));
    EXPECT_EQ(OK, feed(std::vector<uint8_t>(10, 1), 0));
    CodecOutput output;
    EXPECT_EQ(Step::kNeedsInput, mDecoder.produce(&output));
    EXPECT_EQ(OK, feed(packet(1), 40000));
    ASSERT_EQ(Step::kOutput, mDecoder.produce(&output));
    EXPECT_EQ(40000, output.timeUs);
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
