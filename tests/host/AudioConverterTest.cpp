// Conversion of interleaved PCM: sample values, channels and rates.
#include <gtest/gtest.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

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

// 1 kHz in buffers of 1024, as a session passes them on.
TEST_F(AudioConverterTest, aToneKeepsItsAmplitudeFrequencyAndLengthAtAnotherRate) {
    for (const int outRate : {24000, 96000}) {
        ASSERT_EQ(1, mConverter->init(1, 48000, 16, 1, outRate, 16));
        std::vector<int16_t> out;
        for (int block = 0; block < 48; ++block) {
            std::vector<int16_t> in;
            for (int i = block * 1024; i < (block + 1) * 1024; ++i) {
                in.push_back(static_cast<int16_t>(lround(10000 * sin(2 * M_PI * i / 48))));
            }
            const auto part = convert(in, 1024, 1, outRate / 48000.0);
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

TEST_F(AudioConverterTest, unsupportedConversionsFailAndConvertNothing) {
    unsigned char bytes[8] = {};
    EXPECT_EQ(nullptr, mConverter->allocateBuff(nullptr, 100, 1));
    EXPECT_EQ(0, mConverter->process(bytes, bytes, 1));
    EXPECT_EQ(0, mConverter->init(2, 48000, 8, 2, 48000, 16));
    EXPECT_EQ(0, mConverter->init(2, 48000, 16, 2, 48000, 24));
    EXPECT_EQ(0, mConverter->init(0, 48000, 16, 2, 48000, 16));
    // A failed init also ends the conversion that was set up before.
    ASSERT_EQ(1, mConverter->init(1, 48000, 16, 1, 48000, 16));
    EXPECT_EQ(0, mConverter->init(1, 48000, 16, 1, -1, 16));
    EXPECT_EQ(0, mConverter->process(bytes, bytes, 1));
}

}  // namespace
}  // namespace android::qmmediaeditor
