// Conversion of interleaved PCM: sample values, channels and rates.
#include <gtest/gtest.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "host/convert/AudioConverter.h"

namespace android {
namespace qmmediaeditor {
namespace {

std::vector<int16_t> convert(AudioConverter* converter, std::vector<uint8_t> in, int frames,
                             int outChannels, float ratio) {
    unsigned char* out = converter->allocateBuff(nullptr, frames, ratio);
    EXPECT_NE(nullptr, out);
    const int made = converter->process(in.data(), out, frames);
    std::vector<int16_t> result(static_cast<size_t>(made * outChannels));
    memcpy(result.data(), out, result.size() * sizeof(int16_t));
    converter->freeBuff(out);
    return result;
}

std::vector<uint8_t> bytesOf(const std::vector<int16_t>& samples) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(samples.data());
    return std::vector<uint8_t>(bytes, bytes + samples.size() * 2);
}

TEST(AudioConverterTest, packed24BitSamplesLoseTheirLowestByte) {
    const sp<AudioConverter> converter = new AudioConverter;
    ASSERT_EQ(1, converter->init(1, 48000, 24, 1, 48000, 16));
    // -2, 0x123456 and the ends of the range, lowest byte first.
    const std::vector<uint8_t> in = {0xFE, 0xFF, 0xFF, 0x56, 0x34, 0x12,
                                     0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x80};
    const auto out = convert(converter.get(), in, 4, 1, 1);
    ASSERT_EQ(4u, out.size());
    EXPECT_NEAR(0, out[0], 1);
    EXPECT_NEAR(0x1234, out[1], 1);
    EXPECT_EQ(INT16_MAX, out[2]);
    EXPECT_EQ(INT16_MIN, out[3]);
}

TEST(AudioConverterTest, stereoIsMixedToMonoAndMonoCopiedToStereo) {
    const sp<AudioConverter> down = new AudioConverter;
    ASSERT_EQ(1, down->init(2, 44100, 16, 1, 44100, 16));
    const auto mono = convert(down.get(), bytesOf({1000, 3000, -8000, -4000}), 2, 1, 1);
    ASSERT_EQ(2u, mono.size());
    EXPECT_NEAR(2000, mono[0], 2);
    EXPECT_NEAR(-6000, mono[1], 2);

    const sp<AudioConverter> up = new AudioConverter;
    ASSERT_EQ(1, up->init(1, 44100, 16, 2, 44100, 16));
    const auto stereo = convert(up.get(), bytesOf({10000, -20000}), 2, 2, 1);
    ASSERT_EQ(4u, stereo.size());
    for (size_t i = 0; i < 4; i += 2) EXPECT_EQ(stereo[i], stereo[i + 1]);
    EXPECT_NEAR(2.0, static_cast<double>(-stereo[2]) / stereo[0], 0.01);
}

// 1 kHz in buffers of 1024, as a session passes them on.
TEST(AudioConverterTest, aToneKeepsItsAmplitudeFrequencyAndLengthAtAnotherRate) {
    for (const int outRate : {24000, 96000}) {
        const sp<AudioConverter> converter = new AudioConverter;
        ASSERT_EQ(1, converter->init(1, 48000, 16, 1, outRate, 16));
        std::vector<int16_t> out;
        for (int block = 0; block < 48; ++block) {
            std::vector<int16_t> in(1024);
            for (size_t i = 0; i < in.size(); ++i) {
                const double t = static_cast<double>(block * 1024 + static_cast<int>(i)) / 48000;
                in[i] = static_cast<int16_t>(lround(10000 * sin(2 * M_PI * 1000 * t)));
            }
            const auto part =
                convert(converter.get(), bytesOf(in), 1024, 1, static_cast<float>(outRate) / 48000);
            out.insert(out.end(), part.begin(), part.end());
        }
        EXPECT_NEAR(48 * 1024.0 * outRate / 48000, static_cast<double>(out.size()), 64);
        int crossings = 0;
        double power = 0;
        for (size_t i = 2001; i < 22001; ++i) {
            crossings += out[i - 1] < 0 && out[i] >= 0 ? 1 : 0;
            power += static_cast<double>(out[i]) * out[i];
        }
        EXPECT_NEAR(20000.0 / outRate * 1000, crossings, 1);
        EXPECT_NEAR(10000, sqrt(2 * power / 20000), 50);
    }
}

TEST(AudioConverterTest, unsupportedConversionsFailAndConvertNothing) {
    const sp<AudioConverter> converter = new AudioConverter;
    EXPECT_EQ(0, converter->init(2, 48000, 8, 2, 48000, 16));
    EXPECT_EQ(0, converter->init(2, 48000, 16, 2, 48000, 24));
    EXPECT_EQ(0, converter->init(0, 48000, 16, 2, 48000, 16));
    EXPECT_EQ(0, converter->init(2, 48000, 16, 2, 0, 16));
    EXPECT_EQ(nullptr, converter->allocateBuff(nullptr, 100, 1));
    unsigned char bytes[8] = {};
    EXPECT_EQ(0, converter->process(bytes, bytes, 1));
    // A failed init also ends the conversion that was set up before.
    ASSERT_EQ(1, converter->init(1, 48000, 16, 1, 48000, 16));
    EXPECT_EQ(0, converter->init(1, 48000, 16, 1, -1, 16));
    EXPECT_EQ(0, converter->process(bytes, bytes, 1));
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
