// The interface that decrypts protected samples. The component passes a null one on.
#pragma once

#include <utils/RefBase.h>

namespace android {

class ICrypto : public RefBase {};

}  // namespace android
