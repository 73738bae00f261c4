// The worker's end of the connection: receives the requests of the parent on a thread of its own,
// and reports stages to it.
#pragma once

#include <qmtranscode/sandbox/WorkerLink.h>
#include <utils/Mutex.h>

#include <atomic>
#include <functional>
#include <thread>

namespace android::qmmediaeditor::cli {

class WorkerControl {
public:
    // `link` outlives the object; `printState` is called on the thread.
    WorkerControl(const WorkerLink& link, std::function<void()> printState);
    // Shuts the link down for reading.
    ~WorkerControl();

    // `stop` is called once, on the thread: at the first request to stop, or immediately if there
    // was one. After `ignoreStop` has returned, it is not called any more.
    void onStop(std::function<void()> stop);
    void ignoreStop();
    bool stopRequested() const { return mStopRequested; }

    void report(WorkerStage stage) const;

private:
    WorkerControl(const WorkerControl&) = delete;
    WorkerControl& operator=(const WorkerControl&) = delete;

    void receiveRequests();

    const WorkerLink& mLink;
    const std::function<void()> mPrintState;
    // Written by the thread, read by any.
    std::atomic<bool> mStopRequested{false};
    Mutex mLock;
    std::function<void()> mStop GUARDED_BY(mLock);
    std::thread mThread;
};

}  // namespace android::qmmediaeditor::cli
