// Conversion between the two forms of a track's format.
#pragma once

#include <media/stagefright/MetaData.h>
#include <media/stagefright/foundation/AMessage.h>

namespace android {

// Writes what `format` says of a track ("mime", the frame or PCM keys, "csd-0", "csd-1") into
// `meta`. Codec-specific data goes under its own name as a key (fourCharCode("csd0"), 'csd1').
void convertMessageToMetaData(const sp<AMessage>& format, sp<MetaData>& meta);

}  // namespace android
