// The rate of a video track, from the times of its frames.
//
// A container that counts in milliseconds gives the frames of 30 a second times 33 and 34 ms apart,
// and a frame that comes a moment too early for the announced rate is dropped further on. So times
// of constant-rate video are put back where they were before the container rounded them.
#pragma once

#include <stdint.h>

#include <optional>
#include <vector>

namespace android {
namespace qmmediaeditor {

// Frames a second, as a fraction.
struct FrameRate {
    int64_t numerator = 0;
    int64_t denominator = 1;
};

class ConstantFrameRate {
public:
    // `tickUs` is the container's resolution, microseconds.
    ConstantFrameRate(FrameRate rate, int64_t tickUs);

    // The grid's time nearest to `timeUs`, when what lies between them can be the container's
    // rounding. Else the stream has a break there: `timeUs`, where the grid begins anew. It begins
    // at the first time it is given, and follows a slow drift.
    int64_t snap(int64_t timeUs);

private:
    FrameRate mRate;
    int64_t mToleranceUs;
    std::optional<int64_t> mAnchorUs;
};

struct FrameRateEstimate {
    // Frames per second, rounded up, so that no two frames are closer than 1000000 / rate.
    int rate = 0;
    // For a constant rate.
    std::optional<ConstantFrameRate> constantRate;
};

// Presentation times of frames, in any order.
struct FrameTimestamps {
    std::vector<int64_t> timesUs;
    // Of all frames of the track, rather than of its first ones.
    bool complete = false;
};

// `tickUs` is the container's resolution; `likely` are rates that the container names, if it does.
// With fewer than two times the first of these decides, or 30.
FrameRateEstimate estimateFrameRate(FrameTimestamps times, int64_t tickUs,
                                    const std::vector<FrameRate>& likely);

}  // namespace qmmediaeditor
}  // namespace android
