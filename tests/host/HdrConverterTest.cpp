// PQ and HLG of 10-bit 4:2:0, which HdrConverter converts without zimg. The same frame in 12 bits
// is converted with zimg, for comparison.
#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "host/convert/FFmpegPointers.h"
#include "host/convert/HdrConverter.h"
#include "host/convert/VideoFrameConverter.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace android {
namespace qmmediaeditor {
namespace {

// Planes of 4:2:0 in one block.
template <typename Sample>
struct Frame {
    Frame(int w, int h) : width(w), height(h), samples(static_cast<size_t>(w * h * 3 / 2)) {}
    FramePlanes planes() {
        uint8_t* data = reinterpret_cast<uint8_t*>(samples.data());
        const ptrdiff_t stride = width * static_cast<ptrdiff_t>(sizeof(Sample));
        FramePlanes planes;
        planes.plane[0] = {data, stride};
        planes.plane[1] = {data + stride * height, stride / 2};
        planes.plane[2] = {data + stride * height * 5 / 4, stride / 2};
        return planes;
    }
    const int width;
    const int height;
    std::vector<Sample> samples;
};

// Limited range of BT.2020: lines of saturated colours, gradients between them, and noise.
Frame<uint16_t> colourful(int width, int height) {
    Frame<uint16_t> frame(width, height);
    std::minstd_rand random(1);
    const int pixels = width * height;
    for (int plane = 0; plane < 3; ++plane) {
        const int step = plane == 0 ? 1 : 2;
        uint16_t* to = frame.samples.data() + (plane == 0 ? 0 : pixels * (plane + 3) / 4);
        for (int y = 0; y < height; y += step) {
            for (int x = 0; x < width; x += step) {
                const double phase = 6.283 * x / width + y / 32;
                const double level = 0.1 + 0.8 * y / height;
                double rgb[3];
                for (int i = 0; i < 3; ++i) {
                    rgb[i] = level * std::min(std::max(0.5 + 0.8 * sin(phase + 2.1 * i), 0.0), 1.0);
                }
                const double luma = 0.2627 * rgb[0] + 0.678 * rgb[1] + 0.0593 * rgb[2];
                const double values[3] = {64 + 876 * luma, 512 + 896 * (rgb[2] - luma) / 1.8814,
                                          512 + 896 * (rgb[0] - luma) / 1.4746};
                *to++ = static_cast<uint16_t>(values[plane] + static_cast<int>(random() % 9) - 4);
            }
        }
    }
    return frame;
}

std::vector<uint8_t> converted(Frame<uint16_t>& from, int transfer, int location,
                               Instructions instructions) {
    zimg_image_format format;
    zimg_image_format_default(&format, ZIMG_API_VERSION);
    format.width = static_cast<unsigned>(from.width);
    format.height = static_cast<unsigned>(from.height);
    format.transfer_characteristics = static_cast<zimg_transfer_characteristics_e>(transfer);
    format.chroma_location = static_cast<zimg_chroma_location_e>(location);
    format.pixel_range = ZIMG_RANGE_LIMITED;
    Frame<uint8_t> to(from.width, from.height);
    HdrConverter(format).convert(from.planes(), to.planes(), instructions);
    return to.samples;
}

// By the class that decides on the way.
std::vector<uint8_t> convertedAs(AVPixelFormat format, int transfer, int location,
                                 Frame<uint16_t> from) {
    Frame<uint8_t> to(from.width, from.height);
    if (format == AV_PIX_FMT_YUV420P12) {
        for (uint16_t& sample : from.samples) sample = static_cast<uint16_t>(sample * 4);
    }
    const FramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->width = from.width;
    frame->height = from.height;
    frame->color_trc = static_cast<AVColorTransferCharacteristic>(transfer);
    frame->color_primaries = AVCOL_PRI_BT2020;
    frame->colorspace = AVCOL_SPC_BT2020_NCL;
    frame->chroma_location = static_cast<AVChromaLocation>(location + 1);
    for (int i = 0; i < 3; ++i) {
        frame->data[i] = from.planes().plane[i].data;
        frame->linesize[i] = static_cast<int>(from.planes().plane[i].stride);
    }
    VideoFrameConverter converter;
    EXPECT_TRUE(converter.convert(*frame, to.planes(), from.width, from.height));
    return to.samples;
}

double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
    return 10 * log10(255.0 * 255 * static_cast<double>(a.size()) / std::max(sum, 1e-9));
}

class HdrConverterTest : public testing::TestWithParam<int> {};

TEST_P(HdrConverterTest, agreesWithTheGeneralConversionForEveryChromaLocation) {
    const Frame<uint16_t> frame = colourful(256, 192);
    for (int location = ZIMG_CHROMA_LEFT; location <= ZIMG_CHROMA_BOTTOM; ++location) {
        EXPECT_GT(psnr(convertedAs(AV_PIX_FMT_YUV420P10, GetParam(), location, frame),
                       convertedAs(AV_PIX_FMT_YUV420P12, GetParam(), location, frame)),
                  48)
            << location;
    }
}

TEST_P(HdrConverterTest, givesTheSameFrameWithoutVectorInstructions) {
    Frame<uint16_t> frame = colourful(70, 38);
    // A third of the samples is arbitrary, damaged ones included.
    std::minstd_rand random(2);
    for (size_t i = 0; i < frame.samples.size(); i += 3) {
        frame.samples[i] = static_cast<uint16_t>(random() >> (i % 2 == 0 ? 0 : 21));
    }
    for (int location = ZIMG_CHROMA_LEFT; location <= ZIMG_CHROMA_BOTTOM; ++location) {
        const auto best = converted(frame, GetParam(), location, Instructions::kBest);
        EXPECT_EQ(converted(frame, GetParam(), location, Instructions::kUpToAvx2), best);
        EXPECT_EQ(converted(frame, GetParam(), location, Instructions::kPortable), best);
        EXPECT_GE(*std::min_element(best.begin(), best.end()), 16);
        EXPECT_LE(*std::max_element(best.begin(), best.end()), 240);
    }
}

TEST_P(HdrConverterTest, aRampOfGreyUsesEveryLevelAndStaysNeutral) {
    Frame<uint16_t> frame(1024, 16);
    for (size_t i = 0; i < frame.samples.size(); ++i) {
        frame.samples[i] = static_cast<uint16_t>(i < 1024 * 16 ? i % 1024 : 512);
    }
    const auto to = converted(frame, GetParam(), ZIMG_CHROMA_LEFT, Instructions::kBest);
    const std::set<int> levels(to.begin(), to.begin() + 1024 * 16);
    EXPECT_EQ(16, *levels.begin());
    EXPECT_EQ(235, *levels.rbegin());
    EXPECT_EQ(220u, levels.size());
    EXPECT_EQ(std::vector<uint8_t>(65, 16), std::vector<uint8_t>(to.begin(), to.begin() + 65));
    EXPECT_EQ(std::vector<uint8_t>(84, 235),
              std::vector<uint8_t>(to.begin() + 940, to.begin() + 1024));
    EXPECT_EQ(1024 * 8, std::count(to.begin() + 1024 * 16, to.end(), 128));
}

INSTANTIATE_TEST_SUITE_P(Transfers, HdrConverterTest,
                         testing::Values(AVCOL_TRC_SMPTE2084, AVCOL_TRC_ARIB_STD_B67),
                         [](const testing::TestParamInfo<int>& transfer) {
                             return transfer.param == AVCOL_TRC_SMPTE2084 ? "Pq" : "Hlg";
                         });

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
