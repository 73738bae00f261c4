// How far the work is, on standard error: a bar for people, or lines for programs. Any thread may
// report.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <string>

namespace android::qmmediaeditor::cli {

class Progress {
public:
    // `name` stands in front of the bar. `lengthUs` is the length of what the work makes.
    Progress(ProgressStyle style, const std::string& name, int64_t lengthUs);
    // Takes the bar away.
    ~Progress();

    // A share in percent. What is not more than before is passed over, and 100 is left to finish():
    // only a whole file is done.
    void report(int32_t percent);
    void finish();

private:
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(int32_t percent);

    const ProgressStyle mStyle;
    const std::string mName;
    const double mLengthSeconds;
    const int64_t mBeginUs;
    Mutex mLock;
    int32_t mLast GUARDED_BY(mLock) = -1;
};

}  // namespace android::qmmediaeditor::cli
