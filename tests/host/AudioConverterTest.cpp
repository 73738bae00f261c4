// Conversion of interleaved PCM: sample values, channels and rates.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <numeric>
#include <vector>

#include "host/convert/AudioConverter.h"

namespace android::qmmediaeditor {
namespace {

class AudioConverterTest : public ::testing::Test {
protected:
    // The 16-bit output for this many frames of input, at `ratio` times its rate.
    template <typename Value>
    std::vector<int16_t> convert(std::vector<Value> in, int frames, int outChannels,
                                 double ratio = 1) {
        unsigned char* out = mConverter->allocateBuff(nullptr, frames, static_cast<float>(ratio));
        EXPECT_NE(nullptr, out);
        const int made =
            mConverter->process(reinterpret_cast<unsigned char*>(in.data()), out, frames);
        std::vector<int16_t> result(static_cast<size_t>(made * outChannels));
        memcpy(result.data(), out, result.size() * sizeof(int16_t));
        mConverter->freeBuff(out);
        return result;
    }

    const sp<AudioConverter> mConverter = new AudioConverter;
};

TEST_F(AudioConverterTest, packed24BitSamplesLoseTheirLowestByte) {
    ASSERT_EQ(1, mConverter->init(1, 48000, 24, 1, 48000, 16));
    // -2, 0x123456 and the ends of the range, lowest byte first.
    const std::vector<uint8_t> in = {0xFE, 0xFF, 0xFF, 0x56, 0x34, 0x12,
                                     0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x80};
    const auto out = convert(in, 4, 1);
    ASSERT_EQ(4u, out.size());
    EXPECT_NEAR(0, out[0], 1);
    EXPECT_NEAR(0x1234, out[1], 1);
    EXPECT_EQ(INT16_MAX, out[2]);
    EXPECT_EQ(INT16_MIN, out[3]);
}

TEST_F(AudioConverterTest, stereoIsMixedToMonoAndMonoCopiedToStereo) {
    ASSERT_EQ(1, mConverter->init(2, 44100, 16, 1, 44100, 16));
    const auto mono = convert(std::vector<int16_t>{1000, 3000, -8000, -4000}, 2, 1);
    ASSERT_EQ(2u, mono.size());
    EXPECT_NEAR(2000, mono[0], 2);
    EXPECT_NEAR(-6000, mono[1], 2);

    ASSERT_EQ(1, mConverter->init(1, 44100, 16, 2, 44100, 16));
    const auto stereo = convert(std::vector<int16_t>{10000, -20000}, 2, 2);
    ASSERT_EQ(4u, stereo.size());
    for (size_t i = 0; i < 4; i += 2) EXPECT_EQ(stereo[i], stereo[i + 1]);
    EXPECT_NEAR(2.0, static_cast<double>(-stereo[2]) / stereo[0], 0.01);
}

// A slope in buffers of 1024, as a session passes them on.
TEST_F(AudioConverterTest, channelsWithoutPlacesAreMixedEvenly) {
    ASSERT_EQ(1, mConverter->init(16, 48000, 16, 8, 48000, 16));
    std::vector<int16_t> last(16);
    last[15] = 1000;
    EXPECT_NEAR(500, convert(last, 1, 8).at(7), 1);
    ASSERT_EQ(1, mConverter->init(9, 48000, 16, 2, 48000, 16));
    const auto out =
        convert(std::vector<int16_t>{100, 1000, 200, 2000, 300, 3000, 400, 4000, 500}, 1, 2);
    ASSERT_EQ(2u, out.size());
    EXPECT_NEAR(300, out[0], 1);
    EXPECT_NEAR(2500, out[1], 1);
}

TEST_F(AudioConverterTest, aSlopeKeepsItsValuesAndLengthAtAnotherRate) {
    for (const int outRate : {24000, 44100, 96000}) {
        const double ratio = outRate / 48000.0;
        ASSERT_EQ(1, mConverter->init(1, 48000, 16, 1, outRate, 16));
        std::vector<int16_t> out;
        for (int16_t start = 0; start < 24 * 1024; start = static_cast<int16_t>(start + 1024)) {
            std::vector<int16_t> in(1024);
            std::iota(in.begin(), in.end(), start);
            const auto part = convert(in, 1024, 1, ratio);
            out.insert(out.end(), part.begin(), part.end());
        }
        EXPECT_NEAR(24 * 1024 * ratio, static_cast<double>(out.size()), 64);
        for (size_t i = 100; i < out.size(); ++i) {
            const double expected = static_cast<double>(i) / ratio;
            ASSERT_NEAR(expected, out[i], 2 + expected / 2000) << outRate;
        }
    }
}

TEST_F(AudioConverterTest, unsupportedConversionsFailAndConvertNothing) {
    unsigned char bytes[8] = {};
    EXPECT_EQ(nullptr, mConverter->allocateBuff(nullptr, 100, 1));
    EXPECT_GT(0, mConverter->process(bytes, bytes, 1));
    EXPECT_EQ(0, mConverter->init(2, 48000, 8, 2, 48000, 16));
    EXPECT_EQ(0, mConverter->init(2, 48000, 32, 2, 48000, 16));
    EXPECT_EQ(0, mConverter->init(2, 48000, 16, 2, 48000, 24));
    EXPECT_EQ(0, mConverter->init(0, 48000, 16, 2, 48000, 16));
    // A failed init also ends the conversion that was set up before.
    ASSERT_EQ(1, mConverter->init(1, 48000, 16, 1, 48000, 16));
    EXPECT_EQ(0, mConverter->init(1, 48000, 16, 1, -1, 16));
    EXPECT_GT(0, mConverter->process(bytes, bytes, 1));
}

}  // namespace
}  // namespace android::qmmediaeditor
