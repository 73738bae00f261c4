#include <qmtranscode/monitor/Timer.h>
#include <utils/Timers.h>

#include <utility>

namespace android::qmmediaeditor::cli {

Timer::Timer(Delay delay, std::function<std::optional<Delay>()> onTimeout)
    : mOnTimeout(std::move(onTimeout)), mThread([this, delay] { run(delay); }) {}

Timer::~Timer() {
    {
        Mutex::Autolock lock(mLock);
        mStop = true;
        mStopped.signal();
    }
    mThread.join();
}

void Timer::run(Delay delay) {
    std::optional<Delay> next = delay;
    while (next && waitFor(*next)) next = mOnTimeout();
}

bool Timer::waitFor(Delay delay) {
    const int64_t endUs = nowUs() + std::chrono::microseconds(delay).count();
    Mutex::Autolock lock(mLock);
    while (!mStop) {
        const int64_t leftUs = endUs - nowUs();
        if (leftUs <= 0) return true;
        mStopped.waitRelative(mLock, microseconds_to_nanoseconds(leftUs));
    }
    return false;
}

}  // namespace android::qmmediaeditor::cli
