// Every sample of a file, read from its first to its last.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

// Times are microseconds.
struct TrackSamples {
    int64_t count = 0;
    int64_t bytes = 0;
    int64_t firstUs = 0;
    int64_t endUs = 0;  // where the last one ends
    // Of every sample, in the order of the file.
    std::vector<int64_t> timesUs;
};

// Reads all data of the tracks with these numbers; a result for each. Nothing when some sample
// cannot be read.
std::optional<std::vector<TrackSamples>> walkTracks(int fd, const std::vector<size_t>& tracks);

// The time of the sample from which decoding has to begin to have what comes at `timeUs`.
std::optional<int64_t> seekPointUs(int fd, const std::vector<size_t>& tracks, int64_t timeUs);

}  // namespace android::qmmediaeditor::cli
