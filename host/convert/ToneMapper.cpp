#include "host/convert/ToneMapper.h"

#include <string.h>

#include <algorithm>
#include <cmath>

namespace android {
namespace qmmediaeditor {

namespace {

// Less light is black; more light than kMaxLight is treated as kMaxLight.
// Most HDR material is mastered for 1000 nits.
constexpr double kPeak = 1000 / ToneMapper::kWhiteNits;
// Compression begins here.
constexpr double kKnee = 0.4;
constexpr double kScreenGamma = 2.4;
constexpr double kMaxCode = 65535;

double squared(double value) { return value * value; }

// Linear up to the knee, then a hyperbola that continues with the same slope and reaches 1 at the
// peak.
double compressed(double light) {
    if (light <= kKnee) return light;
    const double a = -squared(kKnee) * (kPeak - 1) / (squared(kKnee) - 2 * kKnee + kPeak);
    const double b = (squared(kKnee) - 2 * kKnee * kPeak + kPeak) / (kPeak - 1);
    const double scale = (squared(b) + 2 * b * kKnee + squared(kKnee)) / (b - a);
    return std::min(scale * (light + a) / (light + b), 1.0);
}

}  // namespace

double ToneMapper::lightAt(size_t index) {
    const auto bits = static_cast<uint32_t>(index << kDroppedBits) + bitsOf(kMinLight) +
                      (1u << (kDroppedBits - 1));
    float light = 0;
    memcpy(&light, &bits, sizeof(light));
    return static_cast<double>(light);
}

ToneMapper::ToneMapper() {
    mGain.resize(kEntries);
    mCodes.resize(kEntries);
    for (size_t i = 0; i < kEntries; ++i) {
        const double light = lightAt(i);
        mGain[i] = static_cast<float>(compressed(light) / light);
        const double shown = i == 0 ? 0 : std::min(light, 1.0);
        mCodes[i] = static_cast<uint16_t>(std::pow(shown, 1 / kScreenGamma) * kMaxCode + 0.5);
    }
}

void ToneMapper::mapRow(const float* const linear[3], int width, uint16_t* const coded[3],
                        Instructions instructions) const {
    if (shouldUseAvx2(instructions)) return mapRowWithAvx2(linear, width, coded);
    mapBlocks(linear, width, coded);
}

void ToneMapper::mapRowWithAvx2(const float* const linear[3], int width,
                                uint16_t* const coded[3]) const {
    mapBlocks(linear, width, coded);
}

// Arithmetic and lookups are loops of their own, because only arithmetic can be vectorised.
QM_INLINED void ToneMapper::mapBlocks(const float* const linear[3], int width,
                                      uint16_t* const coded[3]) const {
    constexpr int kBlock = 256;
    uint16_t index[3][kBlock];
    float gain[kBlock];
    for (int first = 0; first < width; first += kBlock) {
        const int count = std::min(kBlock, width - first);
        const float* red = linear[0] + first;
        const float* green = linear[1] + first;
        const float* blue = linear[2] + first;
        for (int x = 0; x < count; ++x) {
            index[0][x] = indexOf(std::max(std::max(red[x], green[x]), blue[x]));
        }
        lookUp(mGain.data(), index[0], count, gain);
        for (int x = 0; x < count; ++x) {
            index[0][x] = indexOf(red[x] * gain[x]);
            index[1][x] = indexOf(green[x] * gain[x]);
            index[2][x] = indexOf(blue[x] * gain[x]);
        }
        for (int i = 0; i < 3; ++i) lookUp(mCodes.data(), index[i], count, coded[i] + first);
    }
}

}  // namespace qmmediaeditor
}  // namespace android
