// Joins outputs of sessions with HostOptions::isPart. No sample is decoded or encoded, and the file
// is written as a session writes it.
#pragma once

#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/Host.h"
#include "host/codec/FrameRate.h"
#include "host/codec/RecordingMetadata.h"

namespace android {
namespace qmmediaeditor {

// All times are microseconds of the output.
struct JoinRequest {
    struct Part {
        int fd;           // the caller's; its position is not used
        int64_t firstUs;  // the time of its first sample
        int64_t fromUs;   // earlier samples are left out
        int64_t untilUs;  // samples at or after this time are left out
    };
    // In time order, each with a video track alone.
    std::vector<Part> video;
    std::optional<Part> audio;

    int32_t fileType = 2;  // as the writer has it: 1 for 3GP, 2 for MP4
    bool fastStart = false;
    FrameRate frameRate;  // 0 unless it is constant
    int32_t rotation = 0;
    RecordingMetadata metadata;
    std::string videoLanguage;
    std::string audioLanguage;
    std::string uuidData;  // as the extractor reports it

    HostObserver* observer = nullptr;  // is told of frames, audio and errors as in a session
    // With the time that is reached; false stops.
    std::function<bool(int64_t)> onProgress;
};

// Nothing, or why the parts cannot be joined. An empty text when the observer was told of an error,
// or onProgress has stopped it. `outputFd` is the caller's.
std::optional<std::string> joinParts(const JoinRequest& request, int outputFd);

}  // namespace qmmediaeditor
}  // namespace android
