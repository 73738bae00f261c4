// A surface that a decoder could render to. The component passes a null one on.
#pragma once

#include <utils/RefBase.h>

namespace android {

class Surface : public RefBase {};

}  // namespace android
