// The curve of the tone mapper, by what it promises: not by its formula.
#include <gtest/gtest.h>
#include <math.h>

#include <array>

#include "host/convert/ToneMapper.h"

namespace android {
namespace qmmediaeditor {
namespace {

typedef std::array<double, 3> Triple;

// Linear R, G, B to the light that a screen shows, both relative to white.
Triple shown(const ToneMapper& mapper, const std::array<float, 3>& linear) {
    const float* const in[3] = {&linear[0], &linear[1], &linear[2]};
    uint16_t codes[3] = {};
    uint16_t* const out[3] = {&codes[0], &codes[1], &codes[2]};
    mapper.mapRow(in, 1, out);
    Triple light;
    for (size_t i = 0; i < 3; ++i) light[i] = pow(codes[i] / 65535.0, 2.4);
    return light;
}

double greyShown(const ToneMapper& mapper, float light) {
    return shown(mapper, {light, light, light})[0];
}

TEST(ToneMapperTest, lightBelowTheKneeStaysAsItIs) {
    const ToneMapper mapper;
    for (const float light : {0.001f, 0.01f, 0.1f, 0.2f, 0.39f}) {
        EXPECT_NEAR(static_cast<double>(light), greyShown(mapper, light),
                    static_cast<double>(light) * 0.006);
    }
    EXPECT_EQ(0, greyShown(mapper, 0));
    EXPECT_EQ(0, greyShown(mapper, -0.5f));
}

TEST(ToneMapperTest, lightAboveTheKneeRisesSmoothlyToWhiteAtThePeak) {
    const ToneMapper mapper;
    double last = greyShown(mapper, 0.4f);
    double lastStep = 0.05;
    for (float light = 0.45f; light < 4.9f; light += 0.05f) {
        const double now = greyShown(mapper, light);
        // The table's steps are as wide as these in the highlights.
        ASSERT_GE(now, last) << light;
        // The slope falls from 1; the table's steps of 0.4 percent allow a little more.
        ASSERT_LT(now - last, lastStep + 0.006) << light;
        ASSERT_LT(now, 1.001) << light;
        lastStep = now - last;
        last = now;
    }
    EXPECT_NEAR(1, greyShown(mapper, static_cast<float>(1000 / 203.0)), 0.003);
    EXPECT_EQ(1, greyShown(mapper, 1000));
}

TEST(ToneMapperTest, coloursKeepTheRatioOfTheirComponents) {
    const ToneMapper mapper;
    const Triple light = shown(mapper, {3.2f, 1.6f, 0.4f});
    EXPECT_LT(light[0], 1);
    EXPECT_NEAR(2, light[0] / light[1], 0.03);
    EXPECT_NEAR(8, light[0] / light[2], 0.1);
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
