// Reads media files through FFmpeg's demuxers.
#pragma once

#include <Platform.h>
#include <host/Host.h>
#include <utils/StrongPointer.h>

#include <memory>

#include "host/codec/SessionTimeline.h"

namespace android {
namespace qmmediaeditor {

// An extractor without a file. QmMediaExtractorWrapper.h describes the operations; setDataSource
// also returns NO_MEMORY, and -errno when the descriptor cannot be used. One thread at a time.
// `observer` may be null and outlives the extractor. `session`, which may be null, gets the
// metadata of the file and the languages of the selected tracks.
sp<ExtractorBackend> createFileExtractor(HostObserver* observer = nullptr,
                                         MetadataPolicy policy = MetadataPolicy::kWithoutLocation,
                                         const std::shared_ptr<SessionTimeline>& session = nullptr);

}  // namespace qmmediaeditor
}  // namespace android
