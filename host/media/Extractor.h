// Reads media files through FFmpeg's demuxers.
#pragma once

#include <Platform.h>
#include <utils/StrongPointer.h>

namespace android {
namespace qmmediaeditor {

// An extractor that nothing has been opened with yet. What each operation promises stands in
// QmMediaExtractorWrapper.h. One thread at a time.
sp<ExtractorBackend> createFileExtractor();

}  // namespace qmmediaeditor
}  // namespace android
