// Crops and scales working pictures on their way into an encoder.
#pragma once

#include <Platform.h>

namespace android {
namespace qmmediaeditor {

// What Platform::scale promises. A request that makes no sense is logged, and fills nothing. Any
// thread; each keeps the filters of the last sizes that it scaled.
void scalePicture(const ScaleRequest& request);

}  // namespace qmmediaeditor
}  // namespace android
