// Progress on standard error: a bar for people, or JSON lines for programs. Any thread may report.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/monitor/RunStatistics.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <functional>
#include <string>
#include <utility>

namespace android::qmmediaeditor::cli {

class Progress {
public:
    // Where the output is among those of --split; nothing for a single output.
    struct Span {
        int64_t beforeUs = 0;
        int64_t totalUs = 0;
    };

    // `name` is the output's, and `lengthUs` its length. The percentage is that of the span.
    // `observer`, which outlives the object, counts its frames.
    Progress(ProgressStyle style, const std::string& name, int64_t lengthUs, const Span& span,
             const RunObserver& observer);
    // Removes the bar.
    ~Progress();

    // Also called with each value that is above the previous one.
    void reportTo(std::function<void(int32_t)> listener) { mListener = std::move(listener); }
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
    std::function<void(int32_t)> mListener;
    const Span mSpan;
    const RunObserver& mObserver;
    Mutex mLock;
    int64_t mStartUs GUARDED_BY(mLock);
    int32_t mLast GUARDED_BY(mLock) = -1;
};

}  // namespace android::qmmediaeditor::cli
