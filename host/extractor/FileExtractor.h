// Reads media files through FFmpeg's demuxers.
#pragma once

#include <Platform.h>
#include <host/Host.h>
#include <utils/StrongPointer.h>

#include <memory>

namespace android {
namespace qmmediaeditor {

class InputHandover;

// An extractor without a file. QmMediaExtractorWrapper.h describes the operations; setDataSource
// also returns NO_MEMORY, and -errno when the descriptor cannot be used. One thread at a time.
// `observer` may be null and outlives the extractor. `handover`, which may be null, is shared by
// extractors that open the same file one after the other, with the same choice of tracks.
sp<ExtractorBackend> createFileExtractor(HostObserver* observer = nullptr,
                                         const TrackChoice& tracks = {},
                                         std::shared_ptr<InputHandover> handover = nullptr);

}  // namespace qmmediaeditor
}  // namespace android
