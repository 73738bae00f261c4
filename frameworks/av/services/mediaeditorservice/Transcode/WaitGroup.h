// Lets an owner wait until the detached threads that work for it have ended.
#pragma once

#include <pthread.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/Timers.h>

namespace android {
namespace qmmediaeditor {

class WaitGroup {
public:
    // Counts one more thread. Called before the thread is created, so that no wait misses it.
    void enter() {
        Mutex::Autolock guard(mLock);
        ++mRunning;
    }

    // The last act of a counted thread.
    void leave() {
        Mutex::Autolock guard(mLock);
        --mRunning;
        mIdle.broadcast();
    }

    // Waits until no counted thread runs, for `boundNs` nanoseconds at most. False when one still
    // runs then.
    bool waitIdle(nsecs_t boundNs) {
        const nsecs_t end = systemTime(SYSTEM_TIME_MONOTONIC) + boundNs;
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
