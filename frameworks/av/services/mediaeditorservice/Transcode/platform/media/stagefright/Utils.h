// Conversion between the two forms of a track's format.
#pragma once

#include <media/stagefright/MetaData.h>
#include <media/stagefright/foundation/AMessage.h>

namespace android {

// Copies the keys of a track's format ("mime", the frame or PCM keys, "csd-0", "csd-1") to `meta`.
// The keys of codec-specific data there are fourCharCode("csd0") and fourCharCode("csd1").
void convertMessageToMetaData(const sp<AMessage>& format, sp<MetaData>& meta);

}  // namespace android
