// Finds out what a file holds before its samples are read. Private to the extractor.
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <memory>
#include <optional>
#include <vector>

#include "host/codec/TrackSource.h"
#include "host/extractor/TimestampRepair.h"
#include "host/io/DescriptorFile.h"

namespace android {
namespace qmmediaeditor {

struct TrackInfo {
    sp<AMessage> format;
    // Null for a track that is neither audio nor video.
    sp<TrackSource> source;
    bool isVideo = false;
    int streamIndex = 0;
    // The stream whose index leads to this track's samples.
    int seekStreamIndex = 0;
    // Where the track begins, on the file's own time line.
    int64_t startUs = 0;
    // How far before a seek's target its decoder has to begin.
    int64_t prerollUs = 0;
    size_t maxSampleBytes = 0;
    // Of video, where the container states it: when the track ends, on the file's own time line,
    // and the decoding time of its last sample, in the stream's time base, where an index has it.
    // The duration that libavformat gives the last sample is off by what an edit list moves, means
    // little where frames are reordered, and is the default of the track in Matroska.
    struct Ending {
        std::optional<int64_t> lastDts;
        int64_t endUs;
    };
    std::optional<Ending> ending;
    // How many pictures can precede one in decoding order and follow it on the screen.
    size_t reorderDepth = 0;
    // For video of a constant rate.
    std::optional<ConstantFrameRate> constantRate;
    // One for all tracks of the file. Null where the clock never jumps.
    std::shared_ptr<TimestampDiscontinuities> discontinuities;
};

struct InputInfo {
    sp<AMessage> format;
    std::vector<TrackInfo> tracks;
    // An edit list has put the file's zero where it belongs; what lies before it is not shown.
    bool zeroIsFixed = false;
};

// ERROR_UNSUPPORTED for what is no container of audio or video, ERROR_IO when the file cannot be
// read, NO_MEMORY when memory is short.
status_t probeInput(const std::shared_ptr<const DescriptorFile>& file, InputInfo* info);

}  // namespace qmmediaeditor
}  // namespace android
