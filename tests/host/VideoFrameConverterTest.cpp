// Conversion of decoded frames to the working frame. The expected values are computed here from the
// definitions: ITU-R BT.709 for the matrix, SMPTE ST 2084 for PQ.
#include <gtest/gtest.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <array>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "host/convert/FFmpegPointers.h"
#include "host/convert/ToneMapper.h"
#include "host/convert/VideoFrameConverter.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace android::qmmediaeditor {
namespace {

typedef std::array<double, 3> Triple;  // R, G, B or Y, U, V

// A value of one component at a position of its plane.
typedef std::function<int(int component, int x, int y)> Content;

FramePtr makeFrame(AVPixelFormat format, int width, int height, const Content& content) {
    FramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->width = width;
    frame->height = height;
    EXPECT_EQ(0, av_frame_get_buffer(frame.get(), 0));
    // Lines are written by setting bits.
    for (AVBufferRef* buffer : frame->buf) {
        if (buffer != nullptr) memset(buffer->data, 0, buffer->size);
    }
    const AVPixFmtDescriptor& description = *av_pix_fmt_desc_get(format);
    for (int i = 0; i < description.nb_components; ++i) {
        const bool isChroma = (description.flags & AV_PIX_FMT_FLAG_RGB) == 0 && (i == 1 || i == 2);
        const int columns = isChroma ? AV_CEIL_RSHIFT(width, description.log2_chroma_w) : width;
        const int rows = isChroma ? AV_CEIL_RSHIFT(height, description.log2_chroma_h) : height;
        std::vector<uint16_t> line(static_cast<size_t>(columns));
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < columns; ++x) {
                line[static_cast<size_t>(x)] = static_cast<uint16_t>(content(i, x, y));
            }
            av_write_image_line2(line.data(), frame->data, frame->linesize, &description, 0, y, i,
                                 columns, sizeof(uint16_t));
        }
    }
    return frame;
}

FramePtr uniformFrame(AVPixelFormat format, int width, int height, std::array<int, 3> value,
                      AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED) {
    FramePtr frame = makeFrame(format, width, height, [&](int i, int, int) {
        return i < 3 ? value[static_cast<size_t>(i)] : 255;
    });
    frame->colorspace = matrix;
    return frame;
}

class Converted {
public:
    Converted(const AVFrame& frame, int width, int height)
        : mWidth((width + 1) & ~1), mHeight((height + 1) & ~1) {
        FramePlanes to;
        for (int i = 0; i < 3; ++i) {
            mPlanes[i].resize(static_cast<size_t>(columns(i) * rows(i)), 77);
            to.plane[i] = {mPlanes[i].data(), columns(i)};
        }
        VideoFrameConverter converter;
        EXPECT_TRUE(converter.convert(frame, to, width, height));
        // Once more with the graphs of the first call.
        EXPECT_TRUE(converter.convert(frame, to, width, height));
    }

    int columns(int plane) const { return plane == 0 ? mWidth : mWidth / 2; }
    int rows(int plane) const { return plane == 0 ? mHeight : mHeight / 2; }
    int at(int plane, int x, int y) const {
        return mPlanes[plane][static_cast<size_t>(y * columns(plane) + x)];
    }
    double mean(int plane) const {
        const auto& samples = mPlanes[plane];
        return std::accumulate(samples.begin(), samples.end(), 0.0) /
               static_cast<double>(samples.size());
    }
    void expectUniform(const Triple& expected, double tolerance) const {
        for (int plane = 0; plane < 3; ++plane) {
            const double value = expected[static_cast<size_t>(plane)];
            for (const uint8_t sample : mPlanes[plane]) {
                ASSERT_NEAR(value, sample, tolerance) << "plane " << plane;
            }
        }
    }

private:
    const int mWidth;
    const int mHeight;
    std::vector<uint8_t> mPlanes[3];
};

// 8-bit limited range of BT.709 from R, G, B between 0 and 1.
Triple toYuv(const Triple& rgb) {
    const double luma = 0.2126 * rgb[0] + 0.7152 * rgb[1] + 0.0722 * rgb[2];
    return {16 + 219 * luma, 128 + 224 * (rgb[2] - luma) / (2 * (1 - 0.0722)),
            128 + 224 * (rgb[0] - luma) / (2 * (1 - 0.2126))};
}

// The code between 0 and 1 for a luminance (SMPTE ST 2084).
double pqOf(double nits) {
    const double y = pow(nits / 10000, 2610.0 / 16384);
    return pow((3424.0 / 4096 + 2413.0 / 128 * y) / (1 + 2392.0 / 128 * y), 2523.0 / 32);
}

TEST(VideoFrameConverterTest, fullRangeIsReducedToLimitedRange) {
    const FramePtr frame = makeFrame(AV_PIX_FMT_YUV420P, 256, 16, [](int i, int x, int) {
        return i == 0 ? x : i == 1 ? 2 * x : 255 - 2 * x;
    });
    frame->color_range = AVCOL_RANGE_JPEG;
    frame->colorspace = AVCOL_SPC_BT709;
    const Converted to(*frame, 256, 16);
    for (int x = 0; x < 256; ++x) ASSERT_NEAR(16 + x * 219 / 255.0, to.at(0, x, 5), 0.51) << x;
    for (int x = 0; x < 128; ++x) {
        ASSERT_NEAR(128 + (2 * x - 128) * 224 / 255.0, to.at(1, x, 3), 0.51) << x;
        ASSERT_NEAR(128 + (127 - 2 * x) * 224 / 255.0, to.at(2, x, 3), 0.51) << x;
    }
    // The pixel formats that were named after their range mean the same.
    frame->format = AV_PIX_FMT_YUVJ420P;
    frame->color_range = AVCOL_RANGE_UNSPECIFIED;
    EXPECT_NEAR(235, Converted(*frame, 256, 16).at(0, 255, 0), 0.51);
}

TEST(VideoFrameConverterTest, tenBitsKeepTheirMeanValue) {
    // 10-bit values between two 8-bit ones: dithering spreads them.
    const Converted to(
        *uniformFrame(AV_PIX_FMT_YUV420P10, 64, 64, {402, 513, 700}, AVCOL_SPC_BT709), 64, 64);
    EXPECT_NEAR(402 / 4.0, to.mean(0), 0.1);
    EXPECT_NEAR(513 / 4.0, to.mean(1), 0.1);
    EXPECT_NEAR(700 / 4.0, to.mean(2), 0.1);
    to.expectUniform({100.5, 128.25, 175}, 1);
}

TEST(VideoFrameConverterTest, chromaOfEverySubsamplingKeepsItsPlace) {
    // A vertical and a horizontal edge of chroma, in the middle of the frame.
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUV411P,
                                       AV_PIX_FMT_YUV440P, AV_PIX_FMT_NV12, AV_PIX_FMT_UYVY422}) {
        SCOPED_TRACE(av_get_pix_fmt_name(format));
        const AVPixFmtDescriptor& description = *av_pix_fmt_desc_get(format);
        const int columns = 128 >> description.log2_chroma_w;
        const int rows = 64 >> description.log2_chroma_h;
        const FramePtr frame = makeFrame(format, 128, 64, [&](int i, int x, int y) {
            if (i == 0) return 120;
            return i == 1 ? (x < columns / 2 ? 60 : 180) : (y < rows / 2 ? 70 : 190);
        });
        frame->colorspace = AVCOL_SPC_BT709;
        const Converted to(*frame, 128, 64);
        for (const int x : {0, 20, 28}) EXPECT_NEAR(60, to.at(1, x, 9), 1) << x;
        for (const int x : {35, 50, 63}) EXPECT_NEAR(180, to.at(1, x, 9), 1) << x;
        for (const int y : {0, 7, 13}) EXPECT_NEAR(70, to.at(2, 9, y), 1) << y;
        for (const int y : {18, 25, 31}) EXPECT_NEAR(190, to.at(2, 9, y), 1) << y;
        EXPECT_NEAR(120, to.mean(0), 0.1);
    }
}

TEST(VideoFrameConverterTest, rgbAndStandardDefinitionBecomeBt709) {
    const Triple expected = toYuv({77 / 255.0, 245 / 255.0, 38 / 255.0});
    for (const AVPixelFormat format :
         {AV_PIX_FMT_RGB24, AV_PIX_FMT_BGR24, AV_PIX_FMT_ARGB, AV_PIX_FMT_GBRP}) {
        SCOPED_TRACE(av_get_pix_fmt_name(format));
        Converted(*uniformFrame(format, 32, 32, {77, 245, 38}), 32, 32).expectUniform(expected, 1);
        Converted(*uniformFrame(format, 32, 32, {255, 255, 255}), 32, 32)
            .expectUniform({235, 128, 128}, 1);
    }
    const FramePtr palette = uniformFrame(AV_PIX_FMT_PAL8, 32, 32, {9, 0, 0});
    const uint32_t color = 0xFF4DF526;
    memcpy(palette->data[1] + 9 * 4, &color, sizeof(color));
    Converted(*palette, 32, 32).expectUniform(expected, 1);

    // The same colour by BT.601, which the first frame's size or the second one's mark tells.
    const std::array<int, 3> bt601 = {163, 62, 69};
    Converted(*uniformFrame(AV_PIX_FMT_YUV420P, 720, 576, bt601), 720, 576)
        .expectUniform(expected, 1);
    Converted(*uniformFrame(AV_PIX_FMT_YUV420P, 1280, 64, bt601, AVCOL_SPC_BT470BG), 1280, 64)
        .expectUniform(expected, 1);
}

TEST(VideoFrameConverterTest, onlyFramesOfTheOutputsFormatNeedNoConversion) {
    const auto isWorkingFrame = [](int width, const std::function<void(AVFrame*)>& change) {
        const FramePtr frame = uniformFrame(AV_PIX_FMT_YUV420P, width, 64, {50, 128, 128});
        change(frame.get());
        return VideoFrameConverter::isWorkingFrame(*frame, width, 64);
    };
    EXPECT_TRUE(isWorkingFrame(1280, [](AVFrame*) {}));
    EXPECT_FALSE(isWorkingFrame(720, [](AVFrame*) {})) << "standard definition";
    EXPECT_TRUE(isWorkingFrame(720, [](AVFrame* frame) { frame->colorspace = AVCOL_SPC_BT709; }));
    const std::function<void(AVFrame*)> kOtherFormats[] = {
        [](AVFrame* frame) { frame->height = 62; },
        [](AVFrame* frame) { frame->color_range = AVCOL_RANGE_JPEG; },
        [](AVFrame* frame) { frame->color_primaries = AVCOL_PRI_BT2020; },
        [](AVFrame* frame) { frame->color_trc = AVCOL_TRC_SMPTE2084; },
        [](AVFrame* frame) { frame->color_trc = AVCOL_TRC_ARIB_STD_B67; }};
    for (const auto& change : kOtherFormats) EXPECT_FALSE(isWorkingFrame(1280, change));
}

// Odd sizes have a last chroma sample for one column or row alone.
TEST(VideoFrameConverterTest, theLastColumnAndRowOfOddSizesAreKept) {
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV444P, AV_PIX_FMT_GRAY8}) {
        SCOPED_TRACE(av_get_pix_fmt_name(format));
        const FramePtr frame = makeFrame(
            format, 33, 17, [](int i, int x, int y) { return i == 0 ? 40 + 4 * x + 2 * y : 128; });
        frame->colorspace = AVCOL_SPC_BT709;
        frame->color_range = AVCOL_RANGE_MPEG;
        const Converted to(*frame, 33, 17);
        for (int y = 0; y < 17; ++y) {
            for (int x = 0; x < 33; ++x) ASSERT_NEAR(40 + 4 * x + 2 * y, to.at(0, x, y), 1);
        }
        // The additional ones repeat them.
        EXPECT_NEAR(40 + 4 * 32 + 2 * 3, to.at(0, 33, 3), 2);
        EXPECT_NEAR(40 + 4 * 5 + 2 * 16, to.at(0, 5, 17), 2);
        EXPECT_NEAR(128, to.mean(1), 0.01);
    }
}

TEST(VideoFrameConverterTest, greyIsFullRangeUnlessMarked) {
    Converted(*uniformFrame(AV_PIX_FMT_GRAY8, 32, 32, {255, 0, 0}), 32, 32)
        .expectUniform({235, 128, 128}, 0.6);
}

// The light of a neutral 10-bit code between 0 and 1; checks that it stays neutral.
double lumaOf(double code, AVColorTransferCharacteristic transfer) {
    const FramePtr frame = uniformFrame(AV_PIX_FMT_YUV422P10, 64, 64,
                                        {static_cast<int>(lround((16 + 219 * code) * 4)), 512, 512},
                                        AVCOL_SPC_BT2020_NCL);
    frame->color_trc = transfer;
    frame->color_primaries = AVCOL_PRI_BT2020;
    const Converted to(*frame, 64, 64);
    EXPECT_NEAR(128, to.mean(1), 0.5) << code;
    EXPECT_NEAR(128, to.mean(2), 0.5) << code;
    return to.mean(0);
}

TEST(VideoFrameConverterTest, pqKeepsLowLightAndCompressesHighlightsToWhite) {
    const auto shownPq = [](double nits) { return lumaOf(pqOf(nits), AVCOL_TRC_SMPTE2084); };
    // Light up to 40 % of reference white (203 nits) is shown as it is, by a gamma of 2.4.
    for (const double nits : {1.0, 5.0, 20.0, 50.0, 80.0}) {
        EXPECT_NEAR(16 + 219 * pow(nits / 203, 1 / 2.4), shownPq(nits), 1) << nits;
    }
    EXPECT_EQ(16, shownPq(0));
    // More light rises to white at 1000 nits.
    double last = shownPq(80);
    for (const double nits : {110.0, 150.0, 203.0, 300.0, 400.0, 600.0, 1000.0}) {
        const double now = shownPq(nits);
        EXPECT_GT(now, last + 3) << nits;
        last = now;
    }
    EXPECT_NEAR(235, last, 1);
    EXPECT_NEAR(235, shownPq(9000), 0.5);
}

TEST(VideoFrameConverterTest, hlgAndWideGamutKeepNeutralColoursNeutral) {
    const double hlg = lumaOf(0.5, AVCOL_TRC_ARIB_STD_B67);
    EXPECT_GT(hlg, 60);
    EXPECT_LT(hlg, 200);
    EXPECT_NEAR(16 + 219 * 0.5, lumaOf(0.5, AVCOL_TRC_BT2020_10), 1) << "the same curve on both";
}

TEST(VideoFrameConverterTest, pixelFormatsThatCannotBeReadAreRefused) {
    for (const AVPixelFormat format : {AV_PIX_FMT_NONE, AV_PIX_FMT_VAAPI, AV_PIX_FMT_XYZ12LE,
                                       AV_PIX_FMT_BAYER_BGGR8, AV_PIX_FMT_GRAYF32}) {
        EXPECT_FALSE(VideoFrameConverter::canConvert(format));
    }
}

TEST(ToneMapperTest, coloursKeepTheRatioOfTheirComponents) {
    const float linear[3] = {3.2f, 1.6f, 0.4f};  // relative to white
    const float* const in[3] = {&linear[0], &linear[1], &linear[2]};
    uint16_t codes[3] = {};
    uint16_t* const out[3] = {&codes[0], &codes[1], &codes[2]};
    ToneMapper().mapRow(in, 1, out);
    double shown[3];
    for (size_t i = 0; i < 3; ++i) shown[i] = pow(codes[i] / 65535.0, 2.4);
    EXPECT_LT(shown[0], 1);
    EXPECT_NEAR(2, shown[0] / shown[1], 0.03);
    EXPECT_NEAR(8, shown[0] / shown[2], 0.1);
}

}  // namespace
}  // namespace android::qmmediaeditor
