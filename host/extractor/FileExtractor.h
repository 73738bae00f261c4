// Reads media files through FFmpeg's demuxers.
#pragma once

#include <Platform.h>
#include <host/Host.h>
#include <utils/StrongPointer.h>

namespace android {
namespace qmmediaeditor {

// An extractor without a file. QmMediaExtractorWrapper.h describes the operations; setDataSource
// also returns NO_MEMORY, and -errno when the descriptor cannot be used. One thread at a time.
// `observer` may be null and outlives the extractor.
sp<ExtractorBackend> createFileExtractor(HostObserver* observer = nullptr,
                                         const TrackChoice& tracks = {});

}  // namespace qmmediaeditor
}  // namespace android
