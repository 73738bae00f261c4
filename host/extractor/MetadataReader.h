// Finds the metadata of a recording: in the containers' tags as libavformat reports them, and in
// the user data of ISO files. Private to the extractor.
#pragma once

#include "host/codec/RecordingMetadata.h"
#include "host/extractor/Demuxer.h"
#include "host/io/DescriptorFile.h"
#include "host/io/IsoBoxes.h"

struct AVStream;

namespace android {
namespace qmmediaeditor {

// `boxes` are the file's; without a movie box for other containers.
RecordingMetadata readMetadata(const DescriptorFile& file, Demuxer* demuxer,
                               const TopLevelBoxes& boxes);

// As languageCode() returns it.
std::string readLanguage(const AVStream& stream);

// In times from `originUs`, the first sample's.
std::vector<Chapter> readChapters(const AVFormatContext& context, int64_t originUs);

}  // namespace qmmediaeditor
}  // namespace android
