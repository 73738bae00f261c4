// Where the clock of a broadcast or of joined recordings jumps, and by how much.
//
// The tracks of a file share one clock, and each is read by itself: whoever comes to a jump first
// decides, so that sound and picture stay together behind it. One thread at a time.
#pragma once

#include <stdint.h>

#include <map>

namespace android {
namespace qmmediaeditor {

class TimestampDiscontinuities {
public:
    // The offset to add to the timestamps of stream `stream` from byte `position` on, where its
    // clock shows `timeUs` and `expectedUs` would follow from what came before.
    int64_t offsetUs(int stream, int64_t position, int64_t timeUs, int64_t expectedUs);
    // What is known of `position`, for a reader that comes there by a seek.
    int64_t offsetUsAt(int64_t position) const;

    // True when a track's clock does not go on: it goes back, or leaps without as many bytes as so
    // much time would need.
    static bool isDiscontinuity(int64_t stepUs, int64_t stepBytes);

private:
    // Offsets by position; for each stream those that its reader found first.
    typedef std::map<int64_t, int64_t> Offsets;

    std::map<int, Offsets> mOffsets;
};

}  // namespace qmmediaeditor
}  // namespace android
