#include <qmtranscode/cli/Console.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/monitor/StallDetector.h>
#include <qmtranscode/report/Format.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

StallWatch::StallWatch(const RunMonitor* monitor, std::chrono::milliseconds patience)
    : mMonitor(monitor), mPatience(patience), mThread([this] { watch(); }) {}

StallWatch::~StallWatch() {
    {
        Mutex::Autolock lock(mLock);
        mEnd = true;
        mEnded.signal();
    }
    mThread.join();
}

void StallWatch::watch() {
    const int64_t patienceUs = std::chrono::microseconds(mPatience).count();
    const auto step = std::max(mPatience / 10, std::chrono::milliseconds(1));
    constexpr int64_t kLateUs = 500000;
    int64_t toldUs = 0;
    int64_t resumedUs = 0;
    Mutex::Autolock lock(mLock);
    while (!mEnd) {
        const int64_t beganUs = nowUs();
        mEnded.waitRelative(mLock, std::chrono::nanoseconds(step).count());
        if (mEnd) return;
        // The process itself was stopped, by Ctrl-Z for example.
        const int64_t stepUs = std::chrono::microseconds(step).count();
        if (nowUs() - beganUs > 2 * stepUs + kLateUs) resumedUs = nowUs();
        const int64_t movedUs = mMonitor->lastMoveUs();
        if (movedUs == 0 || movedUs == toldUs) continue;
        if (nowUs() - std::max(movedUs, resumedUs) < patienceUs) continue;
        toldUs = movedUs;
        explainRun(*mMonitor, "nothing has moved for " + secondsText(nowUs() - movedUs) +
                                  "; what every thread does:");
    }
}

void explainRun(const RunMonitor& monitor, const std::string& headline) {
    std::string text = "qmtranscode: " + headline;
    for (const std::string& line : monitor.describe()) text += '\n' + line;
    console::printLine(text);
}

}  // namespace android::qmmediaeditor::cli
