// Says what a run waits for when nothing has moved for a while. A diagnosis: it ends nothing.
#pragma once

#include <qmtranscode/monitor/RunMonitor.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <chrono>
#include <thread>

namespace android::qmmediaeditor::cli {

class StallWatch {
public:
    // Watches on a thread of its own, until it is destroyed. Says it once for each stall.
    StallWatch(const RunMonitor* monitor, std::chrono::milliseconds patience);
    ~StallWatch();

private:
    StallWatch(const StallWatch&) = delete;
    StallWatch& operator=(const StallWatch&) = delete;

    void watch();

    const RunMonitor* const mMonitor;
    const std::chrono::milliseconds mPatience;
    Mutex mLock;
    Condition mEnded;
    bool mEnd GUARDED_BY(mLock) = false;
    std::thread mThread;
};

// What the run does at this moment, on standard error, under this headline.
void explainRun(const RunMonitor& monitor, const std::string& headline);

}  // namespace android::qmmediaeditor::cli
