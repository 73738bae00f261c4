#include "host/extractor/TimestampDiscontinuities.h"

#include <stdlib.h>

#include <iterator>

namespace android {
namespace qmmediaeditor {

namespace {

// Times that go back by less are a multiplexer's carelessness.
constexpr int64_t kMaxStepBackUs = 500000;
constexpr int64_t kMaxStepUs = 10000000;
// Whoever leaves one track out for so long still writes the other at 40 kb/s.
constexpr int64_t kMinBytesPerSecond = 5000;
// The samples of one time lie no further apart in a file.
constexpr int64_t kMaxInterleavingBytes = 8 << 20;
// More jumps than a recording has in so many bytes; bounds the search where all timestamps jump.
constexpr int kMaxNearbyDiscontinuities = 1000;

}  // namespace

bool TimestampDiscontinuities::isDiscontinuity(int64_t stepUs, int64_t stepBytes) {
    if (stepUs < -kMaxStepBackUs) return true;
    return stepUs > kMaxStepUs && stepBytes < stepUs / 1000000 * kMinBytesPerSecond;
}

int64_t TimestampDiscontinuities::offsetUs(int stream, int64_t position, int64_t timeUs,
                                           int64_t expectedUs) {
    Offsets& own = mOffsets[stream];
    // Read again after a seek. Other jumps of the same stream are no match, however near: where its
    // clock jumps twice in ten seconds, that would drop what lies between.
    if (const auto known = own.find(position); known != own.end()) return known->second;
    int64_t bestUs = expectedUs - timeUs;
    int64_t bestErrorUs = kMaxStepUs;
    for (const auto& [other, discontinuities] : mOffsets) {
        if (other == stream) continue;
        auto jump = discontinuities.lower_bound(position - kMaxInterleavingBytes + 1);
        for (int i = 0; i < kMaxNearbyDiscontinuities && jump != discontinuities.end();
             ++i, ++jump) {
            if (jump->first - position >= kMaxInterleavingBytes) break;
            const int64_t errorUs = std::llabs(timeUs + jump->second - expectedUs);
            if (errorUs >= bestErrorUs) continue;
            bestErrorUs = errorUs;
            bestUs = jump->second;
        }
    }
    if (bestErrorUs == kMaxStepUs) own[position] = bestUs;
    return bestUs;
}

int64_t TimestampDiscontinuities::offsetUsAt(int64_t position) const {
    int64_t latest = -1;
    int64_t offsetUs = 0;
    for (const auto& [stream, discontinuities] : mOffsets) {
        const auto next = discontinuities.upper_bound(position);
        if (next == discontinuities.begin()) continue;
        const auto& [jumpPosition, jumpUs] = *std::prev(next);
        if (jumpPosition <= latest) continue;
        latest = jumpPosition;
        offsetUs = jumpUs;
    }
    return offsetUs;
}

}  // namespace qmmediaeditor
}  // namespace android
