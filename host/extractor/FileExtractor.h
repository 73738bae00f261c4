// Reads media files through FFmpeg's demuxers.
#pragma once

#include <Platform.h>
#include <host/Host.h>
#include <utils/StrongPointer.h>

namespace android {
namespace qmmediaeditor {

// An extractor that nothing has been opened with yet. What each operation promises stands in
// QmMediaExtractorWrapper.h; setDataSource also gives NO_MEMORY, and -errno when the descriptor
// cannot be used. One thread at a time. `observer` may be null and outlives the extractor.
sp<ExtractorBackend> createFileExtractor(HostObserver* observer = nullptr);

}  // namespace qmmediaeditor
}  // namespace android
