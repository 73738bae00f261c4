// Crops and scales working frames on their way into an encoder.
#pragma once

#include <Platform.h>

namespace android {
namespace qmmediaeditor {

// Implements Platform::scale. An invalid request is logged. Any thread; each keeps the filters of
// the sizes that it scaled last.
void scaleFrame(const ScaleRequest& request);

// Whether scaling into this memory has failed, because memory was short or the request was invalid.
// Platform::scale cannot report a failure, so that the encoder asks here. The answer is then
// forgotten. Any thread.
bool takeScaleFailure(const unsigned char* frame);

}  // namespace qmmediaeditor
}  // namespace android
