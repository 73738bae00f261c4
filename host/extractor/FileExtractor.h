// Reads media files through FFmpeg's demuxers.
#pragma once

#include <Platform.h>
#include <host/Host.h>
#include <utils/StrongPointer.h>

#include <memory>

#include "host/codec/SessionTimeline.h"

namespace android {
namespace qmmediaeditor {

class InputHandover;

// An extractor without a file. QmMediaExtractorWrapper.h describes the operations; setDataSource
// also returns NO_MEMORY, and -errno when the descriptor cannot be used. One thread at a time.
// The observer, the choice of tracks and the metadata policy of `options` count. `session`, which
// may be null, gets the metadata of the file and the languages of the selected tracks. `handover`,
// which may be null, is shared by extractors that open the same file one after the other with the
// same options.
sp<ExtractorBackend> createFileExtractor(const HostOptions& options = {},
                                         const std::shared_ptr<SessionTimeline>& session = nullptr,
                                         const std::shared_ptr<InputHandover>& handover = nullptr);

}  // namespace qmmediaeditor
}  // namespace android
