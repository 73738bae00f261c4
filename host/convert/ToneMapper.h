// Brings the light of an HDR picture into the range of an ordinary screen.
//
// Up to some brightness nothing changes; what is brighter is compressed, colours keeping their hue,
// so that the brightest highlight that is expected becomes white. Any thread, one at a time.
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

    // One row of linear R, G, B with BT.709 primaries becomes one of 16-bit, full-range samples for
    // a screen as in ITU-R BT.1886.
    void mapRow(const float* const linear[3], int width, uint16_t* const coded[3]) const;

private:
    // Both tables are indexed by the upper bits of the light's floating-point form.
    std::vector<float> mGain;      // what a pixel is multiplied with, by its largest component
    std::vector<uint16_t> mCodes;  // of light between 0 and 1
};

}  // namespace qmmediaeditor
}  // namespace android
