// The root of interfaces that can be called across processes. Nothing here leaves its process.
#pragma once

#include <utils/RefBase.h>
#include <utils/String16.h>

namespace android {

class IBinder;

class IInterface : public virtual RefBase {
public:
    IInterface() = default;

protected:
    ~IInterface() override = default;
    virtual IBinder* onAsBinder() = 0;
};

}  // namespace android
