// How far the work is, on standard error: a bar for people, or lines for programs. Any thread may
// report.
#pragma once

#include <qmtranscode/Options.h>
#include <stdint.h>

#include <mutex>
#include <string>

namespace android::qmmediaeditor::cli {

class Progress {
public:
    // `name` stands in front of the bar.
    Progress(ProgressStyle style, const std::string& name);

    // A share in percent. What is not more than before is passed over, and 100 is left to finish():
    // only a whole file is done.
    void report(int32_t percent);
    void finish();

private:
    void show(int32_t percent);

    const ProgressStyle mStyle;
    const std::string mName;
    std::mutex mLock;
    int32_t mLast = -1;  // guarded by mLock
};

}  // namespace android::qmmediaeditor::cli
