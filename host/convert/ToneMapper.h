// Maps the light of an HDR frame to the range of an SDR screen.
//
// Light up to a knee does not change; brighter light is compressed so that the brightest expected
// highlight becomes white. Colours keep their hue. Any thread, one at a time.
#pragma once

#include <stdint.h>

#include <vector>

namespace android {
namespace qmmediaeditor {

class ToneMapper {
public:
    // Luminance that stands for 1.0 in the linear input (ITU-R BT.2408: HDR reference white).
    static constexpr double kWhiteNits = 203;

    ToneMapper();

    // Maps one row of linear R, G, B with BT.709 primaries to 16-bit full-range samples for a
    // screen as in ITU-R BT.1886.
    void mapRow(const float* const linear[3], int width, uint16_t* const coded[3]) const;

private:
    // Both tables are indexed by the upper bits of the light's floating-point form.
    std::vector<float> mGain;      // factor of a pixel, by its largest component
    std::vector<uint16_t> mCodes;  // output for light between 0 and 1
};

}  // namespace qmmediaeditor
}  // namespace android
