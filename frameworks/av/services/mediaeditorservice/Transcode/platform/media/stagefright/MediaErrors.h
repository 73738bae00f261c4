// Media status values, beside those of <utils/Errors.h>.
#pragma once

#include <utils/Errors.h>

namespace android {

enum {
    MEDIA_ERROR_BASE = -1000,

    ERROR_ALREADY_CONNECTED = MEDIA_ERROR_BASE,
    ERROR_NOT_CONNECTED = MEDIA_ERROR_BASE - 1,
    ERROR_IO = MEDIA_ERROR_BASE - 4,
    ERROR_MALFORMED = MEDIA_ERROR_BASE - 7,
    ERROR_OUT_OF_RANGE = MEDIA_ERROR_BASE - 8,
    ERROR_BUFFER_TOO_SMALL = MEDIA_ERROR_BASE - 9,
    ERROR_UNSUPPORTED = MEDIA_ERROR_BASE - 10,
    ERROR_END_OF_STREAM = MEDIA_ERROR_BASE - 11,

    // Reported by a decoder or encoder in place of a buffer; neither is a failure.
    INFO_FORMAT_CHANGED = MEDIA_ERROR_BASE - 12,
    INFO_OUTPUT_BUFFERS_CHANGED = MEDIA_ERROR_BASE - 14,
};

}  // namespace android
