// The platform on this machine: FFmpeg's libraries behind the codecs, the extractor and the writer,
// zimg and libswresample behind the converters.
#pragma once

#include <Platform.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace android {
namespace qmmediaeditor {

// What a user of the host may choose and the component knows nothing of.
struct HostOptions {
    // Speed preset of the AVC encoder, in x264's words.
    std::string avcPreset = "veryfast";
    // Put the movie box in front of the samples.
    bool fastStart = false;
    // Microseconds on the input's time line, rising: where sound can be cut to the sample; empty
    // when nothing is cut. When it is not known, a cut may fall some milliseconds late, which adds
    // up from period to period, and sound moves in shorter pieces, which takes longer.
    std::optional<std::vector<int64_t>> cutTimesUs;
};

// To be given to Platform::install, and to be kept until the last session is gone.
std::unique_ptr<Platform> createHostPlatform(const HostOptions& options);

}  // namespace qmmediaeditor
}  // namespace android
