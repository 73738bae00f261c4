// Progress on standard error: a bar for people, or JSON lines for programs. Any thread may report.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <functional>
#include <string>
#include <utility>

namespace android::qmmediaeditor::cli {

class Progress {
public:
    // `name` is in front of the bar. `lengthUs` is the length of the output.
    Progress(ProgressStyle style, const std::string& name, int64_t lengthUs);
    // Removes the bar.
    ~Progress();

    // Also called with each value that is above the previous one.
    void reportTo(std::function<void(int32_t)> listener) { mListener = std::move(listener); }
    // In percent. Values that are not above the previous one are ignored. 100 is left to finish(),
    // because only a verified file is complete.
    void report(int32_t percent);
    void finish();

private:
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(int32_t percent);

    const ProgressStyle mStyle;
    const std::string mName;
    const double mLengthSeconds;
    const int64_t mStartUs;
    std::function<void(int32_t)> mListener;
    Mutex mLock;
    int32_t mLast GUARDED_BY(mLock) = -1;
};

}  // namespace android::qmmediaeditor::cli
