// Writes MP4 and 3GP files (ISO/IEC 14496-12 and -14, 3GPP TS 26.244).
#pragma once

#include <host/Host.h>
#include <media/stagefright/MediaWriter.h>
#include <utils/StrongPointer.h>

#include <memory>

#include "host/codec/SessionTimeline.h"

namespace android {
namespace qmmediaeditor {

// A writer on a duplicate of `fd`, which must be open for writing and seekable. When it cannot be
// duplicated, start() fails. Tracks may stay empty: the file is closed properly however the run
// ended. `session` may be null.
sp<MediaWriter> createFileWriter(int fd, const HostOptions& options,
                                 const std::shared_ptr<SessionTimeline>& session = nullptr);

// Before `writer`, made by createFileWriter, is stopped. `data` is one uuid box's 16-byte type and
// payload, or several whole boxes, as TopLevelBoxes::uuidData in IsoBoxes.h, and is copied. Less
// than a type, or null, means no box.
void setWriterUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size);

}  // namespace qmmediaeditor
}  // namespace android
