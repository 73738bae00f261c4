// The metadata of the input that the output has, and the rest with the reason.
#pragma once

#include <host/Host.h>
#include <qmtranscode/job/MediaFile.h>
#include <qmtranscode/report/Format.h>

#include <string>
#include <utility>
#include <vector>

namespace android::qmmediaeditor::cli {

struct MetadataReport {
    // Names and values: the fields of RecordingMetadata, "video_language" and "audio_language".
    std::vector<std::pair<std::string, std::string>> kept;
    // Names and reasons.
    std::vector<std::pair<std::string, std::string>> dropped;
};

// For a plan: of the output that is to be expected.
MetadataReport describeMetadata(const MediaFile& input, MetadataPolicy policy);
// `kept` is what is in `output`.
MetadataReport describeMetadata(const MediaFile& input, MetadataPolicy policy,
                                const MediaFile& output);

Json toJson(const MetadataReport& report);

}  // namespace android::qmmediaeditor::cli
