// Holds a muxer's packets until their order in the file is known: by timestamp across the tracks,
// so that no track runs ahead of the others.
//
// A packet is settled when every other track has a later one or has ended, and when its successor
// is known, because the successor's timestamp is its end. No track waits for another: when the held
// packets exceed the limit, the earliest is settled at once. So the order depends on timestamps and
// sizes, and below the limit not on thread timing.
//
// Not locked. Timestamps are microseconds and rise within a track.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <optional>
#include <vector>

#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

class PacketInterleaver {
public:
    struct Held {
        size_t track = 0;
        PacketPtr packet;  // dts and duration in the track's ticks
        int64_t timeUs = 0;
        int64_t endUs = 0;  // the successor's timeUs, once there is one
    };

    PacketInterleaver(size_t trackCount, size_t maxBytes);

    void push(Held held);
    // No packet of this track follows. Its last one ends at `endUs`.
    void end(size_t track, int64_t endUs);
    bool hasEnded(size_t track) const { return mTracks[track].ended; }
    // The last packet pushed to the track; null when none is held.
    const Held* last(size_t track) const;

    // The next packet in the file's order; nothing while it is not settled.
    std::optional<Held> pop();

    // Where the first of the tracks that have not ended would end now: 0 when one of them has had
    // no packet, INT64_MAX when all have ended.
    int64_t commonEndUs() const;
    // Drops the packets that begin at `timeUs` or later, and ends the others there at the latest.
    void cutAt(int64_t timeUs);

private:
    struct Track {
        std::deque<Held> held;
        bool ended = false;
        int64_t endUs = 0;  // of its last packet so far
    };

    // The track whose first packet comes next; nothing while that is not settled.
    std::optional<size_t> next() const;

    const size_t mMaxBytes;
    size_t mHeldBytes = 0;
    std::vector<Track> mTracks;
};

// Converts the timestamps of a track's samples from microseconds to ticks of the track's timescale.
//
// Ticks rise from sample to sample, as the file format requires. Audio frames of a fixed length
// keep it exactly: microseconds cannot express it, and every rounding would add an entry to the
// file's tables.
class TrackTimestamps {
public:
    // `ticksPerSecond` is positive. `frameTicks` is the length of each sample, or 0 when they
    // differ; `defaultTicks` is the duration of the only sample of a track.
    TrackTimestamps(int64_t ticksPerSecond, int64_t frameTicks, int64_t defaultTicks);

    struct Stamp {
        int64_t ticks = 0;
        // The duration of the sample before; replaced when the next timestamp is known.
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
