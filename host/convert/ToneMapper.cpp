#include "host/convert/ToneMapper.h"

#include <string.h>

#include <algorithm>
#include <cmath>

namespace android {
namespace qmmediaeditor {

namespace {

// Most HDR material is mastered for 1000 nits.
constexpr double kPeak = 1000 / ToneMapper::kWhiteNits;
// Compression begins here.
constexpr double kKnee = 0.4;
constexpr double kScreenGamma = 2.4;
constexpr double kMaxCode = 65535;

// Above the knee, a hyperbola that continues with the same slope and reaches 1 at the peak:
// kScale * (light + kA) / (light + kB).
constexpr double kA = -kKnee * kKnee * (kPeak - 1) / (kKnee * kKnee - 2 * kKnee + kPeak);
constexpr double kB = (kKnee * kKnee - 2 * kKnee * kPeak + kPeak) / (kPeak - 1);
constexpr double kScale = (kB + kKnee) * (kB + kKnee) / (kB - kA);

// The factor that compresses the light of a pixel, by its largest component.
QM_INLINED float gainOf(float largest) {
    const float light = std::max(largest, static_cast<float>(kKnee));
    const float rising = std::min(light, static_cast<float>(kPeak));
    const float compressed = static_cast<float>(kScale) * (rising + static_cast<float>(kA));
    const float gain = compressed / ((rising + static_cast<float>(kB)) * light);
    return largest < static_cast<float>(kKnee) ? 1 : gain;
}

}  // namespace

double ToneMapper::lightAt(size_t index) {
    const auto bits =
        kMinBits + (static_cast<int32_t>(index) << kDroppedBits) + (1 << (kDroppedBits - 1));
    float light = 0;
    memcpy(&light, &bits, sizeof(light));
    return static_cast<double>(light);
}

ToneMapper::ToneMapper() {
    mCodes.resize(kEntries);
    for (size_t i = 0; i < kEntries; ++i) {
        const double light = lightAt(i);
        const double shown = i == 0 ? 0 : std::min(light, 1.0);
        mCodes[i] = static_cast<uint16_t>(std::pow(shown, 1 / kScreenGamma) * kMaxCode + 0.5);
    }
}

void ToneMapper::mapRow(const float* const linear[3], int width, uint16_t* const coded[3],
                        Instructions instructions) const {
    if (shouldUseAvx512(instructions)) return mapRowWithAvx512(linear, width, coded);
    if (shouldUseAvx2(instructions)) return mapRowWithAvx2(linear, width, coded);
    mapBlocks(linear, width, coded);
}

void ToneMapper::mapRowWithAvx512(const float* const linear[3], int width,
                                  uint16_t* const coded[3]) const {
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
    for (int first = 0; first < width; first += kBlock) {
        const int count = std::min(kBlock, width - first);
        const float* red = linear[0] + first;
        const float* green = linear[1] + first;
        const float* blue = linear[2] + first;
        for (int x = 0; x < count; ++x) {
            const float gain = gainOf(std::max(std::max(red[x], green[x]), blue[x]));
            index[0][x] = indexOf(red[x] * gain);
            index[1][x] = indexOf(green[x] * gain);
            index[2][x] = indexOf(blue[x] * gain);
        }
        for (int i = 0; i < 3; ++i) lookUp(mCodes.data(), index[i], count, coded[i] + first);
    }
}

}  // namespace qmmediaeditor
}  // namespace android
