// Crops and scales working pictures on their way into an encoder.
#pragma once

#include <Platform.h>

namespace android {
namespace qmmediaeditor {

// Implements Platform::scale. A request that makes no sense is logged. Any thread; each keeps
// the filters of the last sizes that it scaled.
void scaleFrame(const ScaleRequest& request);

// Whether the last frame scaled into this memory is missing there, since memory was short or the
// request made no sense. Platform::scale reports no failure, so that the encoder asks for it.
// Forgets the answer. Any thread.
bool takeScaleFailure(const unsigned char* frame);

}  // namespace qmmediaeditor
}  // namespace android
