// Moments of the monotonic clock that a wait is bounded by.
#pragma once

#include <stdint.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/Timers.h>

#include <algorithm>

namespace android {

// In nanoseconds. A negative time-out is none, as is one beyond a year.
inline nsecs_t deadlineAfter(int64_t timeoutUs) {
    constexpr int64_t kForeverUs = int64_t{365} * 24 * 3600 * 1000000;
    const int64_t boundedUs = timeoutUs < 0 ? kForeverUs : std::min(timeoutUs, kForeverUs);
    return systemTime(SYSTEM_TIME_MONOTONIC) + microseconds_to_nanoseconds(boundedUs);
}

// False when the deadline has passed. Like every wait, it may also end without reason.
inline bool waitUntil(nsecs_t deadline, Condition& condition, Mutex& lock) REQUIRES(lock) {
    const nsecs_t left = deadline - systemTime(SYSTEM_TIME_MONOTONIC);
    return left > 0 && condition.waitRelative(lock, left) == OK;
}

}  // namespace android
