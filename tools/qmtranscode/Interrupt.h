// SIGINT, SIGTERM, SIGHUP and SIGXCPU: the first one stops the run and keeps what it has written, or
// ends the process where nothing could be kept; the second one ends the process. SIGUSR1 asks for a
// report.
#pragma once

#include <utils/Mutex.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace android::qmmediaeditor::cli {

class Interrupt {
public:
    // To be made before any other thread: it blocks the signals in this thread and in all that come
    // later, and takes them from a descriptor on a thread of its own. `explain` is called there for
    // SIGUSR1; `lastWords` go to standard output when the process ends at once.
    Interrupt(std::function<void()> explain, std::string lastWords);
    ~Interrupt();

    // From here on the first signal calls `stop`, on that thread, instead of ending the process.
    void onFirst(std::function<void()> stop);
    // The first signal ends the process again. After this has returned, `stop` is not called any
    // more.
    void endAtFirst();

    bool requested() const { return mRequested; }

    // Before the output is kept: from here on a second signal leaves that alone. Does not return
    // when one has come already; the process ends.
    void beginKeeping();
    // The output is kept, what remains to be said may take long: a second signal ends the process.
    void endKeeping() { mEnding = Ending::kKept; }

private:
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    // Who has the last words.
    enum class Ending { kOpen, kKeeping, kKept, kAtOnce };

    void waitForSignals();
    // Unless the output is being kept.
    void endProcess();

    const std::function<void()> mExplain;
    const std::string mLastWords;
    // Written by the thread, read by any.
    std::atomic<bool> mRequested{false};
    std::atomic<Ending> mEnding{Ending::kOpen};
    Mutex mLock;
    std::function<void()> mStop GUARDED_BY(mLock);
    int mSignalFd = -1;
    int mEndFd = -1;
    std::thread mThread;
};

}  // namespace android::qmmediaeditor::cli
