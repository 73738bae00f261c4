// System calls of the component that a test can see or hold. The linker sends the calls of the
// component, of the loopers and of the tests here (--wrap in CMakeLists.txt).
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <unistd.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <functional>
#include <vector>

namespace android::qmmediaeditor {

// One at a time.
class SystemCalls {
public:
    SystemCalls();
    ~SystemCalls();

    // Runs `hook` on the calling thread, before each wait on `condition` or wake-up of it.
    void onWait(const Condition& condition, std::function<void()> hook);
    void onWakeUp(const Condition& condition, std::function<void()> hook);
    void forgetHooks();

    // A thread that the component creates runs only when threads are no longer held.
    void holdThreads(bool hold);

    // The bounds of the timed waits on `condition` so far, in nanoseconds; a little less than what
    // the caller asked for.
    std::vector<int64_t> timedWaitsNs(const Condition& condition) const;
    // False when no timed wait on `condition` begins within kFailureBound.
    bool waitForTimedWait(const Condition& condition) const;
    // The timed waits of a second or more that nobody ended.
    size_t timeouts() const;

    // Sleeps, which take no time here.
    std::vector<useconds_t> sleeps() const;

    // The priority that the calling thread of a looper was given; 0 before.
    static int priorityOfThisThread();
    // The priority of the platform's thread that was created last.
    static int32_t lastThreadPriority();
};

}  // namespace android::qmmediaeditor
