#include "host/convert/ToneMapper.h"

#include <string.h>

#include <algorithm>
#include <cmath>

namespace android {
namespace qmmediaeditor {

namespace {

// Light below this is black; above kMaxLight nothing changes any more.
constexpr float kMinLight = 1.0f / 16384;
constexpr float kMaxLight = 7.99f;
// Leaves nine bits of the mantissa: steps of 0.2 percent.
constexpr uint32_t kDroppedBits = 14;

uint32_t bitsOf(float value) {
    uint32_t bits = 0;
    memcpy(&bits, &value, sizeof(bits));
    return bits;
}

size_t indexOf(float light) {
    const float bounded = std::min(std::max(light, kMinLight), kMaxLight);
    return (bitsOf(bounded) - bitsOf(kMinLight)) >> kDroppedBits;
}

// The middle of the light that has this index.
double lightAt(size_t index) {
    const auto bits = static_cast<uint32_t>(index << kDroppedBits) + bitsOf(kMinLight) +
                      (1u << (kDroppedBits - 1));
    float light = 0;
    memcpy(&light, &bits, sizeof(light));
    return static_cast<double>(light);
}

// Most HDR material is mastered for 1000 nits.
constexpr double kPeak = 1000 / ToneMapper::kWhiteNits;
// Where compression begins.
constexpr double kKnee = 0.4;
constexpr double kScreenGamma = 2.4;
constexpr double kMaxCode = 65535;

double squared(double value) { return value * value; }

// Straight up to the knee, then a hyperbola that goes on with the same slope and reaches 1 at the
// peak.
double compressed(double light) {
    if (light <= kKnee) return light;
    const double a = -squared(kKnee) * (kPeak - 1) / (squared(kKnee) - 2 * kKnee + kPeak);
    const double b = (squared(kKnee) - 2 * kKnee * kPeak + kPeak) / (kPeak - 1);
    const double scale = (squared(b) + 2 * b * kKnee + squared(kKnee)) / (b - a);
    return std::min(scale * (light + a) / (light + b), 1.0);
}

}  // namespace

ToneMapper::ToneMapper() {
    const size_t entries = indexOf(kMaxLight) + 1;
    mGain.resize(entries);
    mCodes.resize(entries);
    for (size_t i = 0; i < entries; ++i) {
        const double light = lightAt(i);
        mGain[i] = static_cast<float>(compressed(light) / light);
        const double shown = i == 0 ? 0 : std::min(light, 1.0);
        mCodes[i] = static_cast<uint16_t>(std::pow(shown, 1 / kScreenGamma) * kMaxCode + 0.5);
    }
}

void ToneMapper::mapRow(const float* const linear[3], int width, uint16_t* const coded[3]) const {
    const float* gains = mGain.data();
    const uint16_t* codes = mCodes.data();
    for (int x = 0; x < width; ++x) {
        const float red = linear[0][x];
        const float green = linear[1][x];
        const float blue = linear[2][x];
        const float gain = gains[indexOf(std::max(std::max(red, green), blue))];
        coded[0][x] = codes[indexOf(red * gain)];
        coded[1][x] = codes[indexOf(green * gain)];
        coded[2][x] = codes[indexOf(blue * gain)];
    }
}

}  // namespace qmmediaeditor
}  // namespace android
