// The state of the calling thread while the library works on it, and which it does not keep.
#pragma once

#include <locale.h>
#include <pthread.h>
#include <signal.h>

namespace android::qmmediaeditor::api {

// The numbers of requests have points, whatever the locale of the process.
class CLocale {
public:
    CLocale() : mLocale(newlocale(LC_ALL_MASK, "C", nullptr)), mBefore(uselocale(mLocale)) {}
    ~CLocale() {
        uselocale(mBefore);
        if (mLocale != nullptr) freelocale(mLocale);
    }

private:
    CLocale(const CLocale&) = delete;
    CLocale& operator=(const CLocale&) = delete;

    const locale_t mLocale;
    const locale_t mBefore;
};

// Neither a file-size limit nor a pthread_cancel() ends the thread in the middle of a job. Threads
// that are created meanwhile have the same signal mask.
class SafeThread {
public:
    SafeThread() {
        sigemptyset(&mSignals);
        sigaddset(&mSignals, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &mSignals, &mBefore);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mCancelState);
    }
    ~SafeThread() {
        if (sigismember(&mBefore, SIGXFSZ) == 0) {
            // A write that exceeded the limit has left it behind, and has failed with EFBIG.
            const timespec now{};
            while (sigtimedwait(&mSignals, nullptr, &now) > 0) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
        pthread_setcancelstate(mCancelState, nullptr);
    }

private:
    SafeThread(const SafeThread&) = delete;
    SafeThread& operator=(const SafeThread&) = delete;

    sigset_t mSignals;
    sigset_t mBefore;
    int mCancelState = PTHREAD_CANCEL_ENABLE;
};

}  // namespace android::qmmediaeditor::api
