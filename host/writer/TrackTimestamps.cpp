#include "host/writer/TrackTimestamps.h"

#include <stdlib.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int64_t kSecondUs = 1000000;
// Whoever counts samples in microseconds is off by a few of them; a real gap is longer.
constexpr int64_t kToleranceUs = 500;

int64_t toTicks(int64_t timeUs, int64_t ticksPerSecond) {
    const int64_t seconds = timeUs / kSecondUs;
    const int64_t rest = timeUs % kSecondUs * ticksPerSecond;
    const int64_t half = rest >= 0 ? kSecondUs / 2 : -kSecondUs / 2;
    return seconds * ticksPerSecond + (rest + half) / kSecondUs;
}

}  // namespace

TrackTimestamps::TrackTimestamps(int64_t ticksPerSecond, int64_t frameTicks, int64_t usualTicks)
    : mTicksPerSecond(ticksPerSecond),
      mFrameTicks(frameTicks),
      mToleranceTicks(toTicks(kToleranceUs, ticksPerSecond)),
      mDurationTicks(std::max<int64_t>(frameTicks > 0 ? frameTicks : usualTicks, 1)) {}

int64_t TrackTimestamps::ticksAt(int64_t timeUs) const { return toTicks(timeUs, mTicksPerSecond); }

TrackTimestamps::Stamp TrackTimestamps::stamp(int64_t timeUs) {
    int64_t ticks = ticksAt(timeUs);
    if (mLastTicks.has_value()) {
        const int64_t expected = *mLastTicks + mFrameTicks;
        if (mFrameTicks > 0 && std::abs(ticks - expected) <= mToleranceTicks) ticks = expected;
        ticks = std::max(ticks, *mLastTicks + 1);
        if (mFrameTicks == 0) mDurationTicks = ticks - *mLastTicks;
    }
    mLastTicks = ticks;
    return {ticks, mDurationTicks};
}

}  // namespace qmmediaeditor
}  // namespace android
