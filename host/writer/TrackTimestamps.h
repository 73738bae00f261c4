// Turns the times of a track's samples, in microseconds, into ticks of the track's time scale.
//
// Ticks rise from sample to sample, which a file demands. Sound of a fixed frame length keeps that
// length exactly: microseconds cannot express it, and every rounding would cost an entry of the
// file's time tables.
#pragma once

#include <stdint.h>

#include <optional>

namespace android {
namespace qmmediaeditor {

class TrackTimestamps {
public:
    // `ticksPerSecond` is positive. `frameTicks` is the length of each sample, or 0 when they
    // differ; `usualTicks` is what a sample lasts that is alone in its track.
    TrackTimestamps(int64_t ticksPerSecond, int64_t frameTicks, int64_t usualTicks);

    struct Stamp {
        int64_t ticks = 0;
        // As long as the sample before: right for the last one, and replaced by the next one's time
        // before.
        int64_t durationTicks = 0;
    };
    Stamp stamp(int64_t timeUs);
    int64_t ticksAt(int64_t timeUs) const;

private:
    const int64_t mTicksPerSecond;
    const int64_t mFrameTicks;
    const int64_t mToleranceTicks;
    int64_t mDurationTicks;
    std::optional<int64_t> mLastTicks;
};

}  // namespace qmmediaeditor
}  // namespace android
