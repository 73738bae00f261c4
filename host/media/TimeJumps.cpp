#include "host/media/TimeJumps.h"

#include <stdlib.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

// Times that go back by less are a multiplexer's carelessness.
constexpr int64_t kMaxStepBackUs = 500000;
constexpr int64_t kMaxStepUs = 10000000;
// Whoever leaves one track out for so long still writes the other at 40 kb/s.
constexpr int64_t kLeastBytesPerSecond = 5000;
// The samples of one time lie no further apart in a file.
constexpr int64_t kMaxInterleavingBytes = 8 << 20;

}  // namespace

bool TimeJumps::isJump(int64_t stepUs, int64_t stepBytes) {
    if (stepUs < -kMaxStepBackUs) return true;
    return stepUs > kMaxStepUs && stepBytes < stepUs / 1000000 * kLeastBytesPerSecond;
}

int64_t TimeJumps::offsetUs(int64_t position, int64_t timeUs, int64_t expectedUs) {
    for (const Jump& jump : mJumps) {
        const bool isNear = std::llabs(jump.position - position) < kMaxInterleavingBytes;
        if (isNear && std::llabs(timeUs + jump.offsetUs - expectedUs) < kMaxStepUs) {
            return jump.offsetUs;
        }
    }
    const Jump jump = {position, expectedUs - timeUs};
    const auto behind = std::find_if(mJumps.begin(), mJumps.end(), [&](const Jump& other) {
        return other.position > jump.position;
    });
    mJumps.insert(behind, jump);
    return jump.offsetUs;
}

int64_t TimeJumps::offsetUsAt(int64_t position) const {
    int64_t offsetUs = 0;
    for (const Jump& jump : mJumps) {
        if (jump.position <= position) offsetUs = jump.offsetUs;
    }
    return offsetUs;
}

}  // namespace qmmediaeditor
}  // namespace android
