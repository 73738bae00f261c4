// The monotonic clock of the command, and a timer that runs on it.
#pragma once

#include <stdint.h>
#include <time.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

namespace android::qmmediaeditor::cli {

// CLOCK_MONOTONIC in microseconds. Log messages and traces have these times.
inline int64_t nowUs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

// Calls a function on a thread of its own, as often as the function asks for.
class Timer {
public:
    using Delay = std::chrono::milliseconds;
    // The first call comes after `delay`. The result of a call is the delay until the next one;
    // no result ends the calls.
    Timer(Delay delay, std::function<std::optional<Delay>()> onTimeout);
    // After the destructor has returned, the function is not called any more.
    ~Timer();

private:
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void run(Delay delay);
    // False when the timer is being destroyed.
    bool waitFor(Delay delay);

    const std::function<std::optional<Delay>()> mOnTimeout;
    Mutex mLock;
    Condition mStopped;
    bool mStop GUARDED_BY(mLock) = false;
    std::thread mThread;
};

}  // namespace android::qmmediaeditor::cli
