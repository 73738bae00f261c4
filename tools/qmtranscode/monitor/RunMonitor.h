// Follows runs by the log: one at a time, from begin() to end(). Any thread may call any operation.
#pragma once

#include <qmtranscode/monitor/LogOutput.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <qmtranscode/monitor/ThreadBoard.h>
#include <utils/Mutex.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

class RunMonitor : public LogListener {
public:
    RunMonitor() = default;

    // `picture` may be null; it is used until end() has returned.
    void begin(const std::vector<TrimPeriod>& periods, RunPicture* picture);
    RunCounts end();

    void onMessage(const LogMessage& message) override;
    void onProgress(int32_t percent);

    // When the run moved last; 0 while there is none.
    int64_t lastMoveUs() const;
    // Whether each of these tracks has come as far as the writer.
    bool hasEncoded(bool video, bool audio) const;
    // What every thread does, in lines for a person.
    std::vector<std::string> describe() const;

private:
    RunMonitor(const RunMonitor&) = delete;
    RunMonitor& operator=(const RunMonitor&) = delete;

    // The picture is drawn under it.
    mutable Mutex mLock;
    bool mRunning GUARDED_BY(mLock) = false;
    ThreadBoard mBoard GUARDED_BY(mLock);
    RunCounts mCounts GUARDED_BY(mLock);
    RunPicture* mPicture GUARDED_BY(mLock) = nullptr;
};

}  // namespace android::qmmediaeditor::cli
