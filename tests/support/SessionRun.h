// One real session, from a clip into a file of its own, with process() on a thread of its own.
//
// One thread uses a run; cancel() may be called by any. A run that does not end within kEndBound
// ends the test's process, since there is no way to go on without it.
#pragma once

#include <TranscodeComponent.h>
#include <stdint.h>
#include <stdlib.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace android::qmmediaeditor {

typedef std::chrono::steady_clock Clock;

// Sanitizers make everything slower, and with it what counts as soon. The one for threads may start
// one of its own at any time.
#if defined(QM_THREAD_SANITIZER)
constexpr int kSlowness = 10;
constexpr size_t kForeignThreads = 1;
#elif defined(QM_ADDRESS_SANITIZER)
constexpr int kSlowness = 5;
constexpr size_t kForeignThreads = 0;
#else
constexpr int kSlowness = 1;
constexpr size_t kForeignThreads = 0;
#endif
constexpr std::chrono::seconds kEndBound{20 * kSlowness};

inline double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

class TemporaryFile {
public:
    TemporaryFile();
    ~TemporaryFile();

    const std::string& path() const { return mPath; }
    int64_t sizeBytes() const;
    // Another descriptor, at the beginning.
    int open() const;

private:
    std::string mPath;
};

class SessionRun {
public:
    // Starts at once, on the installed platform or a given one.
    explicit SessionRun(const std::string& clip, std::vector<TrimPeriod> periods = {},
                        std::shared_ptr<Platform> platform = nullptr,
                        const sp<AMessage>& outputFormat = nullptr);
    // Waits for the end, and destroys the session.
    ~SessionRun();

    void cancel() { mComponent->cancel(); }

    bool endsWithin(std::chrono::milliseconds time) {
        return mEnded.wait_for(time) == std::future_status::ready;
    }
    // Both wait until process() has returned.
    int32_t result();
    Clock::time_point endedAt();

    const TemporaryFile& output() const { return mOutput; }

private:
    void waitForEnd();

    const std::vector<TrimPeriod> mPeriods;
    const TemporaryFile mOutput;
    TranscodeProperty mProperty;
    sp<TranscodeComponent> mComponent;
    // Written by the run's thread before it keeps the promise.
    int32_t mResult = 0;
    Clock::time_point mEndedAt;
    std::promise<void> mEnd;
    std::future<void> mEnded = mEnd.get_future();
    std::thread mThread;
};

inline uint64_t numberFromEnvironment(const char* name, uint64_t otherwise) {
    const char* text = getenv(name);
    return text == nullptr ? otherwise : strtoull(text, nullptr, 10);
}

// "" when every packet of the file decodes, else what ffmpeg says about it.
std::string complaintsAbout(const std::string& path);

// The resources of the process that a session must leave as they were.
struct Footprint {
    size_t threads;
    size_t descriptors;
    size_t heapBytes;

    // A detached thread is gone a moment after its last word: looks again until no more than
    // `expectedThreads` are there, or a while has passed.
    static Footprint take(size_t expectedThreads);
};

}  // namespace android::qmmediaeditor
