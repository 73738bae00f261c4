// Maps the light of an HDR frame to the range of an SDR screen.
//
// Light up to a knee does not change; brighter light is compressed so that the brightest expected
// highlight becomes white. Colours keep their hue. Any thread, one at a time.
#pragma once

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "host/convert/Instructions.h"

namespace android {
namespace qmmediaeditor {

class ToneMapper {
public:
    // Luminance that stands for 1.0 in the linear input (ITU-R BT.2408: HDR reference white).
    static constexpr double kWhiteNits = 203;

    ToneMapper();

    // Maps one row of linear R, G, B with BT.709 primaries to 16-bit full-range samples for a
    // screen as in ITU-R BT.1886.
    void mapRow(const float* const linear[3], int width, uint16_t* const coded[3],
                Instructions instructions = Instructions::kBest) const;

private:
    // Range of the table: 2^-22, less than half an 8-bit code and shown as black, to just below 8.
    static constexpr int32_t kMinBits = 0x34800000;
    static constexpr int32_t kMaxBits = 0x40ffffff;
    // Nine bits of the mantissa remain: steps of 0.2 percent.
    static constexpr int kDroppedBits = 14;
    static constexpr size_t kEntries = ((kMaxBits - kMinBits) >> kDroppedBits) + 1;

    static int32_t bitsOf(float value) {
        int32_t bits = 0;
        memcpy(&bits, &value, sizeof(bits));
        return bits;
    }
    // As integers, the forms of positive numbers have the order of the numbers.
    static uint16_t indexOf(float light) {
        const int32_t bits =
            std::min(std::max(bitsOf(light), int32_t{kMinBits}), int32_t{kMaxBits});
        return static_cast<uint16_t>((bits - kMinBits) >> kDroppedBits);
    }
    // The middle of the light that has this index.
    static double lightAt(size_t index);

    QM_AVX512 void mapRowWithAvx512(const float* const linear[3], int width,
                                    uint16_t* const coded[3]) const;
    QM_AVX2 void mapRowWithAvx2(const float* const linear[3], int width,
                                uint16_t* const coded[3]) const;
    void mapBlocks(const float* const linear[3], int width, uint16_t* const coded[3]) const;

    // Output for light between 0 and 1, by the upper bits of its floating-point form.
    std::vector<uint16_t> mCodes;
};

}  // namespace qmmediaeditor
}  // namespace android
