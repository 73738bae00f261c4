// Lets an owner wait until the threads that work for it have gone.
#pragma once

#include <pthread.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/Timers.h>

namespace android {
namespace qmmediaeditor {

class PortLatch {
public:
    // One more thread works. Called before it is created, so that no wait misses it.
    void enter() {
        Mutex::Autolock guard(mLock);
        ++mRunning;
    }

    // The last act of such a thread.
    void leave() {
        Mutex::Autolock guard(mLock);
        --mRunning;
        mIdle.broadcast();
    }

    // True when none works any more.
    bool waitIdle(nsecs_t bound) {
        const nsecs_t end = systemTime(SYSTEM_TIME_MONOTONIC) + bound;
        Mutex::Autolock guard(mLock);
        while (mRunning > 0) {
            const nsecs_t left = end - systemTime(SYSTEM_TIME_MONOTONIC);
            if (left <= 0) return false;
            mIdle.waitRelative(mLock, left);
        }
        return true;
    }

    void waitIdle() {
        Mutex::Autolock guard(mLock);
        while (mRunning > 0) mIdle.wait(mLock);
    }

private:
    Mutex mLock;
    Condition mIdle;
    int mRunning GUARDED_BY(mLock) = 0;
};

// Creates a detached thread; false when there is none.
inline bool createDetachedThread(pthread_t* thread, void* (*entry)(void*), void* argument) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const bool created = pthread_create(thread, &attributes, entry, argument) == 0;
    pthread_attr_destroy(&attributes);
    return created;
}

}  // namespace qmmediaeditor
}  // namespace android
