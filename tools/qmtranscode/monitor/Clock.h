// The monotonic clock of the command.
#pragma once

#include <stdint.h>
#include <time.h>

namespace android::qmmediaeditor::cli {

// CLOCK_MONOTONIC in microseconds. Log messages and traces have these times.
inline int64_t nowUs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

}  // namespace android::qmmediaeditor::cli
