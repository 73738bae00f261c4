// Crops and scales working frames on their way into an encoder.
#pragma once

#include <Platform.h>
#include <media/stagefright/foundation/ABuffer.h>
#include <stddef.h>
#include <utils/RefBase.h>

#include "host/convert/ZimgGraph.h"

namespace android {
namespace qmmediaeditor {

// Implements Platform::scale. An invalid request is logged. Any thread; each keeps the filters of
// the sizes that it scaled last.
//
// A frame from SharedFrames that would only be copied into a buffer of makeEncoderInput() is not
// copied: the buffer stays as it is, and takeScaled() returns the frame.
void scaleFrame(const ScaleRequest& request);

// An encoder's input buffer; null when memory is short.
sp<ABuffer> makeEncoderInput(size_t bytes);

// Result of the last scaleFrame() into some memory.
struct Scaled {
    // Memory was short, or the request invalid. Platform::scale cannot report it.
    bool failed = false;
    // The source's frame, which keeps `planes` unchanged; null when the memory was filled.
    sp<RefBase> owner;
    FramePlanes planes;
};
// Returns the result for `target` once; later calls return an empty one. Any thread.
Scaled takeScaled(const unsigned char* target);

}  // namespace qmmediaeditor
}  // namespace android
