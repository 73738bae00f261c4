#include <fmt/format.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/monitor/RunMonitor.h>
#include <qmtranscode/report/Format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace android::qmmediaeditor::cli {

void RunMonitor::begin(const std::vector<TrimPeriod>& periods, TraceSink* sink) {
    Mutex::Autolock lock(mLock);
    mIsRunning = true;
    mSink = sink;
    mPeriodEndsUs.clear();
    mPeriod.reset();
    int64_t endUs = 0;
    for (const TrimPeriod& period : periods) {
        endUs += period.mEndUs - period.mStartUs;
        mPeriodEndsUs.push_back(endUs);
    }
    mThreads.clear();
    mLengths.fill(0);
    mStages.fill({});
    mReadPercent = -1;
    mLastProgressUs = 0;
}

void RunMonitor::end(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    for (auto& [id, thread] : mThreads) endSlice(id, &thread, timeUs);
    mIsRunning = false;
    mSink = nullptr;
}

void RunMonitor::onMessage(const LogMessage& message) {
    const std::optional<LogEvent> event = parseLogMessage(message.tag, message.text);
    Mutex::Autolock lock(mLock);
    if (!mIsRunning) return;
    // Another thread's later message may have come to the lock first.
    mLastMessageUs = std::max(mLastMessageUs, message.timeUs);
    if (!event) return;
    followPeriods(message.thread, *event);
    applyEvent(message.thread, mLastMessageUs, *event);
}

void RunMonitor::followPeriods(pid_t thread, const LogEvent& event) {
    const bool hasOutputTime = event.pattern->change == QueueChange::kDropped ||
                               event.pattern->stage == Stage::kAudioDecoded;
    if (!hasOutputTime || mPeriodEndsUs.empty()) return;
    const auto end =
        std::upper_bound(mPeriodEndsUs.begin(), std::prev(mPeriodEndsUs.end()), event.second);
    const auto period = static_cast<size_t>(end - mPeriodEndsUs.begin());
    if (mPeriod && period <= *mPeriod) return;
    if (mPeriod && mSink != nullptr) mSink->onEvent(thread, "cut", mLastMessageUs);
    mPeriod = period;
}

void RunMonitor::onProgress(int32_t percent) {
    Mutex::Autolock lock(mLock);
    if (!mIsRunning) return;
    mReadPercent = percent;
    mReadAtUs = mLastProgressUs = nowUs();
}

void RunMonitor::applyEvent(pid_t id, int64_t timeUs, const LogEvent& event) {
    const LogPattern& pattern = *event.pattern;
    ThreadState& thread = mThreads[id];
    if (pattern.role != nullptr && thread.role != pattern.role) {
        thread.role = pattern.role;
        if (mSink != nullptr) mSink->onThread(id, pattern.role);
    }
    changeQueue(event, timeUs);
    changeActivity(id, pattern, timeUs);
    if (pattern.stage != Stage::kNone) {
        StageState& stage = mStages[static_cast<size_t>(pattern.stage)];
        ++stage.count;
        stage.lastUs = timeUs;
        if (pattern.timestampIndex == 1) stage.timestampUs = event.first;
        if (pattern.timestampIndex == 2) stage.timestampUs = event.second;
    }
    if (pattern.activity != Activity::kPolls) mLastProgressUs = timeUs;
}

void RunMonitor::changeActivity(pid_t id, const LogPattern& pattern, int64_t timeUs) {
    if (pattern.activity == Activity::kUnchanged) return;
    if (pattern.activity == Activity::kEvent) {
        if (mSink != nullptr) mSink->onEvent(id, pattern.what, timeUs);
        return;
    }
    ThreadState& thread = mThreads[id];
    // Repeated polls are one wait.
    if (pattern.activity == Activity::kPolls && thread.what == pattern.what) return;
    endSlice(id, &thread, timeUs);
    thread.what = pattern.what;
    thread.activity = pattern.activity;
    thread.sinceUs = timeUs;
    thread.queue = pattern.activity == Activity::kWaits ? pattern.queue : Queue::kNone;
    thread.change = pattern.change;
    thread.afterwards = pattern.afterwards;
}

void RunMonitor::endSlice(pid_t id, ThreadState* thread, int64_t timeUs) {
    if (thread->what == nullptr) return;
    if (mSink != nullptr) {
        mSink->onSlice(id, thread->what, thread->isWaiting(), thread->sinceUs, timeUs);
    }
    thread->what = nullptr;
}

void RunMonitor::changeQueue(const LogEvent& event, int64_t timeUs) {
    const Queue queue = event.pattern->queue;
    const int64_t length = mLengths[static_cast<size_t>(queue)];
    switch (event.pattern->change) {
        case QueueChange::kNone:
            break;
        case QueueChange::kPushed:
            setLength(queue, length + 1, timeUs);
            break;
        case QueueChange::kDropped:
            if (length > 0) setLength(queue, length - 1, timeUs);
            break;
        case QueueChange::kFull:
            setLength(queue, event.first, timeUs);
            endWaits(queue, QueueChange::kEmpty, timeUs);
            break;
        case QueueChange::kEmpty:
            setLength(queue, 0, timeUs);
            endWaits(queue, QueueChange::kFull, timeUs);
            break;
    }
}

// Ends the waits at the other side of the queue.
void RunMonitor::endWaits(Queue queue, QueueChange waiter, int64_t timeUs) {
    for (auto& [id, thread] : mThreads) {
        if (thread.queue != queue || thread.change != waiter) continue;
        endSlice(id, &thread, timeUs);
        thread.what = thread.afterwards;
        thread.activity = Activity::kWorks;
        thread.sinceUs = timeUs;
        thread.queue = Queue::kNone;
    }
}

void RunMonitor::setLength(Queue queue, int64_t length, int64_t timeUs) {
    mLengths[static_cast<size_t>(queue)] = length;
    if (mSink != nullptr) mSink->onQueueLength(queue, length, timeUs);
}

int64_t RunMonitor::lastProgressUs() const {
    Mutex::Autolock lock(mLock);
    return mIsRunning ? mLastProgressUs : 0;
}

bool RunMonitor::hasEncoded(bool video, bool audio) const {
    Mutex::Autolock lock(mLock);
    return (!video || hasReached(Stage::kVideoEncoded)) &&
           (!audio || hasReached(Stage::kAudioEncoded));
}

std::vector<std::string> RunMonitor::describe(int64_t timeUs) const {
    Mutex::Autolock lock(mLock);
    std::vector<std::string> lines;
    for (const auto& [id, thread] : mThreads) {
        if (thread.what == nullptr) continue;
        lines.push_back(fmt::format(
            "  {:<23} {}{}, for {:.1f} s", thread.role != nullptr ? thread.role : "thread",
            thread.isWaiting() ? "waits " : "", thread.what, secondsOf(timeUs - thread.sinceUs)));
    }
    for (size_t i = 1; i < kQueueCount; ++i) {
        lines.push_back(
            fmt::format("  queue of {:<14} {}", nameOf(static_cast<Queue>(i)), mLengths[i]));
    }
    if (mReadPercent >= 0) {
        lines.push_back(fmt::format("  input read: {} %, last {:.1f} s ago", mReadPercent,
                                    secondsOf(timeUs - mReadAtUs)));
    }
    for (size_t i = 1; i < kStageCount; ++i) {
        const StageState& stage = mStages[i];
        if (stage.count == 0) continue;
        std::string line = fmt::format("  {}: last {:.1f} s ago", nameOf(static_cast<Stage>(i)),
                                       secondsOf(timeUs - stage.lastUs));
        if (stage.timestampUs >= 0) {
            line += fmt::format(", timestamp {:.3f} s", secondsOf(stage.timestampUs));
        }
        lines.push_back(line);
    }
    return lines;
}

void printRunState(const RunMonitor& monitor, const std::string& headline) {
    console::printLine(
        fmt::format("qmtranscode: {}\n{}", headline, fmt::join(monitor.describe(), "\n")));
}

StallDetector::StallDetector(const RunMonitor* monitor, std::chrono::milliseconds patience)
    : mMonitor(monitor),
      mPatience(patience),
      mInterval(std::max(patience / 10, Timer::Delay(1))),
      mCheckedUs(nowUs()),
      mTimer(mInterval, [this] { return check(); }) {}

std::optional<Timer::Delay> StallDetector::check() {
    constexpr int64_t kMaxLateUs = 500000;
    const int64_t intervalUs = std::chrono::microseconds(mInterval).count();
    const int64_t checkUs = nowUs();
    if (checkUs - mCheckedUs > 2 * intervalUs + kMaxLateUs) mResumedUs = checkUs;
    const int64_t progressUs = mMonitor->lastProgressUs();
    const int64_t idleUs = checkUs - std::max(progressUs, mResumedUs);
    const bool isStalled = idleUs >= std::chrono::microseconds(mPatience).count();
    if (progressUs != 0 && progressUs != mPrintedUs && isStalled) {
        mPrintedUs = progressUs;
        printRunState(*mMonitor, "no progress for " + secondsText(checkUs - progressUs) +
                                     "; the state of each thread:");
    }
    mCheckedUs = nowUs();
    return mInterval;
}

}  // namespace android::qmmediaeditor::cli
