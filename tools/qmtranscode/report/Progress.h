// Progress on standard error: a bar for people, or JSON lines for programs. Any thread may report.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <string>

namespace android::qmmediaeditor::cli {

class Progress {
public:
    // `name` is the output's, and `lengthUs` its length. `observer`, which outlives the object,
    // counts its frames.
    Progress(ProgressStyle style, const std::string& name, int64_t lengthUs,
             const RunObserver& observer);
    // Removes the bar.
    ~Progress();

    // Begins again with 0 %, for a run that is repeated.
    void restart();
    // In percent. Values that are not above the previous one are ignored. 100 is left to finish(),
    // because only a verified file is complete.
    void report(int32_t percent);
    void finish();

private:
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(int32_t percent) REQUIRES(mLock);

    const ProgressStyle mStyle;
    const std::string mName;
    const double mLengthSeconds;
    const RunObserver& mObserver;
    Mutex mLock;
    int64_t mStartUs GUARDED_BY(mLock);
    int32_t mLast GUARDED_BY(mLock) = -1;
};

}  // namespace android::qmmediaeditor::cli
