// Requests to stop a run, and the reports of its stage and its progress.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <atomic>
#include <functional>

namespace android::qmmediaeditor::cli {

enum class WorkerStage : char {
    kOpening,
    kStarting,     // the run goes on, and nothing has been written that could be kept
    kTranscoding,  // a stop keeps what has been written
    kVerifying,
};

// The name of a stage in the object of a run.
const char* nameOf(WorkerStage stage);

// How an output came about.
enum class Ending : char {
    kTranscoded,
    kAlready,  // the output exists
    kCopied,   // the input is what was asked for
};

// Any thread may call any operation.
class RunControl {
public:
    RunControl() = default;
    virtual ~RunControl() = default;

    void requestStop();
    bool stopRequested() const { return mStopRequested; }

    // `stop` is called once: at the first request to stop, on its thread, or immediately if there
    // was one. After `ignoreStop` has returned, it is not called any more.
    void onStop(std::function<void()> stop);
    void ignoreStop();

    virtual void report(WorkerStage /* stage */) {}
    // In percent of the input; the same value may come again.
    virtual void reportProgress(int32_t /* percent */) {}
    // How many outputs --split makes.
    virtual void reportParts(size_t /* count */) {}

private:
    RunControl(const RunControl&) = delete;
    RunControl& operator=(const RunControl&) = delete;

    std::atomic<bool> mStopRequested{false};
    Mutex mLock;
    std::function<void()> mStop GUARDED_BY(mLock);
};

}  // namespace android::qmmediaeditor::cli
