// The platform's AVC profile and level bits (ITU-T H.264, annex A). Any thread.
#pragma once

#include <stdint.h>

namespace android {
namespace qmmediaeditor {

// The profile's name in x264's words, or null for one that is not encoded here.
const char* avcProfileName(int32_t profileBit);

// What an encoder of AVC is asked for, as far as a level limits it.
struct AvcDemand {
    int width = 0;
    int height = 0;
    double frameRate = 0;    // frames a second
    int64_t maxBitRate = 0;  // bits a second
};

// level_idc (41 for level 4.1), or 0 when the level is unknown or cannot hold what is asked for.
int avcLevelFor(int32_t levelBit, const AvcDemand& demand);

}  // namespace qmmediaeditor
}  // namespace android
