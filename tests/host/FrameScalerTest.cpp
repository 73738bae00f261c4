// Cropping and scaling into the encoder's input, and what happens when that fails.
#include <dlfcn.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <zimg.h>

#include <atomic>
#include <vector>

#include "CodecSupport.h"
#include "host/codec/VideoEncoder.h"
#include "host/convert/FrameScaler.h"

namespace {

std::atomic<bool> gMemoryIsShort{false};

}  // namespace

// Takes the place of zimg's own for the host library.
extern "C" zimg_filter_graph* zimg_filter_graph_build(const zimg_image_format* from,
                                                      const zimg_image_format* to,
                                                      const zimg_graph_builder_params* params) {
    typedef decltype(&zimg_filter_graph_build) Build;
    static const auto build = reinterpret_cast<Build>(dlsym(RTLD_NEXT, "zimg_filter_graph_build"));
    return gMemoryIsShort ? nullptr : build(from, to, params);
}

namespace android::qmmediaeditor {
namespace {

constexpr int kPlanar = 19;
constexpr int kSemiPlanar = 21;

struct Image {
    Image(int imageStride, int imageRows, int imageFormat)
        : stride(imageStride),
          rows(imageRows),
          format(imageFormat),
          chromaStride((imageStride + 1) / 2),
          bytes(static_cast<size_t>(stride * rows + 2 * chromaStride * ((rows + 1) / 2)), 255) {}

    uint8_t& at(int plane, int x, int y) {
        const int luma = stride * rows;
        int offset = y * stride + x;
        if (plane > 0 && format == kSemiPlanar) {
            offset = luma + y * 2 * chromaStride + 2 * x + plane - 1;
        } else if (plane > 0) {
            offset = luma + ((plane - 1) * ((rows + 1) / 2) + y) * chromaStride + x;
        }
        return bytes[static_cast<size_t>(offset)];
    }
    // `use` gets the plane, column and row of each sample of the visible part.
    template <typename Use>
    static void forEach(int width, int height, const Use& use) {
        for (int plane = 0; plane < 3; ++plane) {
            const int shift = plane == 0 ? 0 : 1;
            for (int y = 0; y < (height + shift) >> shift; ++y) {
                for (int x = 0; x < (width + shift) >> shift; ++x) use(plane, x, y);
            }
        }
    }

    int stride;
    int rows;
    int format;
    int chromaStride;
    std::vector<uint8_t> bytes;
};

// Planes with a slope of their own; the rest of the memory would be seen.
Image slopes(int stride, int rows, int width, int height, int format) {
    Image image(stride, rows, format);
    Image::forEach(width, height, [&](int plane, int x, int y) {
        const int value = plane == 0 ? 20 + x + y : plane == 1 ? 20 + 4 * x : 200 - 2 * y;
        image.at(plane, x, y) = static_cast<uint8_t>(value);
    });
    return image;
}

ScaleRequest request(Image& from, int width, int height, Image& to) {
    return {from.stride, from.rows, width,     height,          from.format, from.bytes.data(),
            to.stride,   to.rows,   to.format, to.bytes.data(), nullptr};
}

TEST(FrameScalerTest, theSameSizeIsCroppedAndRepackedExactly) {
    for (const int from : {kPlanar, kSemiPlanar}) {
        for (const int to : {kPlanar, kSemiPlanar}) {
            Image source = slopes(128, 80, 100, 60, from);
            Image target(100, 60, to);
            scaleFrame(request(source, 100, 60, target));
            EXPECT_FALSE(takeScaled(target.bytes.data()).failed);
            Image::forEach(100, 60, [&](int plane, int x, int y) {
                ASSERT_EQ(source.at(plane, x, y), target.at(plane, x, y)) << plane;
            });
        }
    }
}

// A linear slope keeps its slope relative to the size: sample x of the target lies at
// (x + 0.5) * ratio - 0.5 of the source.
TEST(FrameScalerTest, aSlopeKeepsItsPositionAtAnotherSize) {
    for (const int format : {kPlanar, kSemiPlanar}) {
        for (const auto& [width, height] : {std::pair(50, 30), {180, 110}, {75, 45}}) {
            Image source = slopes(128, 64, 100, 60, format);
            Image target(width, height, format);
            scaleFrame(request(source, 100, 60, target));
            const double columns = 100.0 / width;
            const double rows = 60.0 / height;
            for (const int x : {width / 4, width / 2, width * 3 / 4}) {
                const int y = height / 2;
                const double luma = 20 + (x + 0.5) * columns - 0.5 + (y + 0.5) * rows - 0.5;
                EXPECT_NEAR(luma, target.at(0, x, y), 1) << width << " " << x;
                // Chroma lies on the first column of each pair: at 2 x of the luma columns, and
                // between the rows.
                const int cx = x / 2;
                const int cy = y / 2;
                const double left = ((2 * cx + 0.5) * columns - 0.5) / 2;
                EXPECT_NEAR(20 + 4 * left, target.at(1, cx, cy), 0.8) << width << " " << x;
                EXPECT_NEAR(200 - 2 * ((cy + 0.5) * rows - 0.5), target.at(2, cx, cy), 1.1) << x;
            }
        }
    }
}

TEST(FrameScalerTest, anInvalidRequestIsReportedOnceForItsTarget) {
    Image source = slopes(64, 64, 64, 64, kPlanar);
    Image target(32, 32, kPlanar);
    scaleFrame(request(source, 65, 64, target));
    EXPECT_FALSE(takeScaled(source.bytes.data()).failed);
    EXPECT_TRUE(takeScaled(target.bytes.data()).failed);
    EXPECT_FALSE(takeScaled(target.bytes.data()).failed);
    target.format = 20;
    scaleFrame(request(source, 64, 64, target));
    EXPECT_TRUE(takeScaled(target.bytes.data()).failed);
}

// A frame that could not be scaled must neither be encoded with the contents of its memory nor be
// left out: the encoder fails instead of reaching the end of stream.
TEST_F(CodecTest, anEncoderFailsAtAFrameThatCouldNotBeScaled) {
    mCodec = new HostMediaCodec(mLooper, std::make_unique<VideoEncoder>(fastOptions(), nullptr));
    start(encoderFormat(MEDIA_MIMETYPE_VIDEO_AVC, 64, 64));
    Vector<sp<MediaCodecBuffer>> buffers;
    ASSERT_EQ(OK, mCodec->getInputBuffers(&buffers));
    Image source = slopes(100, 100, 100, 100, kPlanar);
    const auto queueScaled = [&](int64_t timeUs, int width) {
        EXPECT_EQ(OK, takeInput());
        scaleFrame({100, 100, width, 100, kPlanar, source.bytes.data(), 64, 64, kPlanar,
                    buffers[mInput]->base(), nullptr});
        return mCodec->queueInputBuffer(mInput, 0, 64 * 64 * 3 / 2, timeUs, 0, nullptr);
    };
    EXPECT_EQ(OK, queueScaled(0, 100));
    gMemoryIsShort = true;
    // A size that no filter was built for yet.
    EXPECT_EQ(OK, queueScaled(33333, 90));
    gMemoryIsShort = false;
    status_t status = OK;
    for (int i = 0; i < 10 && status == OK; ++i) {
        status = dequeue();
        ASSERT_FALSE(atEnd()) << "the end of a run that lost a frame";
    }
    EXPECT_EQ(UNKNOWN_ERROR, status);
}

}  // namespace
}  // namespace android::qmmediaeditor
