// The platform log of one test, from verbose up. One at a time.
#pragma once

#include <android/log.h>
#include <fakes/Journal.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace android::qmmediaeditor {

class LogCapture {
public:
    struct Line {
        int priority;
        std::string tag;
        std::string text;
        std::thread::id thread;
    };

    // Each message also goes into `journal`, as "<tag>: <text>".
    explicit LogCapture(Journal* journal);
    ~LogCapture();

    std::vector<Line> lines() const;
    bool contains(int priority, const std::string& tag, const std::string& text) const;
    bool waitFor(const std::string& tag, const std::string& text, size_t times = 1) const {
        return mJournal->waitFor(tag + ": " + text, times);
    }

private:
    static void record(const __android_logger_data* data, const char* text);

    Journal* const mJournal;
    const int mPriorityBefore;
    mutable std::mutex mLock;
    std::vector<Line> mLines;
};

}  // namespace android::qmmediaeditor
