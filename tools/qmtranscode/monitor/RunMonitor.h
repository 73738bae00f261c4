// Follows a run by its log: what each thread does and since when, how full the queues are, and when
// each stage made progress. It finds out what a stalled run waits for.
//
// A thread logs what it does next, and does that until its next message. The end of a wait has no
// message; it is derived from messages of the other side of the queue.
#pragma once

#include <TranscodeTypes.h>
#include <qmtranscode/monitor/LogEvent.h>
#include <qmtranscode/monitor/LogOutput.h>
#include <qmtranscode/monitor/Timer.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/Mutex.h>

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// Receives the events of a trace; times are those of LogMessage. Calls do not overlap.
class TraceSink {
public:
    virtual ~TraceSink() = default;
    virtual void onThread(pid_t thread, const char* role) = 0;
    virtual void onSlice(pid_t thread, const char* what, bool isWait, int64_t startUs,
                         int64_t endUs) = 0;
    virtual void onQueueLength(Queue queue, int64_t length, int64_t timeUs) = 0;
    virtual void onEvent(pid_t thread, const char* what, int64_t timeUs) = 0;
};

// One run at a time, from begin() to end(). Any thread may call any operation.
class RunMonitor : public LogListener {
public:
    RunMonitor() = default;

    // `sink` may be null; it is used until end() has returned.
    void begin(const std::vector<TrimPeriod>& periods, TraceSink* sink);
    // Ends what the threads still do.
    void end(int64_t timeUs = nowUs());

    void onMessage(const LogMessage& message) override;
    // Progress of the input reader, which has no message for it.
    void onProgress(int32_t percent);

    // The time of the last progress; 0 before the first message and while there is no run.
    int64_t lastProgressUs() const;
    // Whether each of these tracks has reached the writer.
    bool hasEncoded(bool video, bool audio) const;
    // Lines for people: threads, queues, stages.
    std::vector<std::string> describe(int64_t timeUs = nowUs()) const;

private:
    struct ThreadState {
        const char* role = nullptr;
        // Null while the thread does nothing for the run.
        const char* what = nullptr;
        Activity activity = Activity::kUnchanged;
        int64_t sinceUs = 0;
        // For a wait that the other side of a queue ends.
        Queue queue = Queue::kNone;
        QueueChange change = QueueChange::kNone;
        const char* afterwards = nullptr;

        bool isWaiting() const {
            return activity == Activity::kWaits || activity == Activity::kPolls;
        }
    };
    struct StageState {
        int64_t count = 0;
        int64_t lastUs = 0;
        int64_t timestampUs = -1;  // of the output; -1 where the messages have none
    };

    RunMonitor(const RunMonitor&) = delete;
    RunMonitor& operator=(const RunMonitor&) = delete;

    // For a trace: an event where another period begins.
    void followPeriods(pid_t thread, const LogEvent& event) REQUIRES(mLock);
    void applyEvent(pid_t thread, int64_t timeUs, const LogEvent& event) REQUIRES(mLock);
    void changeActivity(pid_t id, const LogPattern& pattern, int64_t timeUs) REQUIRES(mLock);
    void endSlice(pid_t id, ThreadState* thread, int64_t timeUs) REQUIRES(mLock);
    void changeQueue(const LogEvent& event, int64_t timeUs) REQUIRES(mLock);
    void endWaits(Queue queue, QueueChange waiter, int64_t timeUs) REQUIRES(mLock);
    void setLength(Queue queue, int64_t length, int64_t timeUs) REQUIRES(mLock);
    bool hasReached(Stage stage) const REQUIRES(mLock) {
        return mStages[static_cast<size_t>(stage)].count > 0;
    }

    // Also held during calls of the sink.
    mutable Mutex mLock;
    bool mIsRunning GUARDED_BY(mLock) = false;
    TraceSink* mSink GUARDED_BY(mLock) = nullptr;
    // Where the periods end in the output, and the one that something was last decoded from; none
    // before.
    std::vector<int64_t> mPeriodEndsUs GUARDED_BY(mLock);
    std::optional<size_t> mPeriod GUARDED_BY(mLock);
    std::map<pid_t, ThreadState> mThreads GUARDED_BY(mLock);
    std::array<int64_t, kQueueCount> mLengths GUARDED_BY(mLock){};
    std::array<StageState, kStageCount> mStages GUARDED_BY(mLock){};
    int32_t mReadPercent GUARDED_BY(mLock) = -1;
    int64_t mReadAtUs GUARDED_BY(mLock) = 0;
    int64_t mLastProgressUs GUARDED_BY(mLock) = 0;
    int64_t mLastMessageUs GUARDED_BY(mLock) = 0;
};

// Prints the state of the run on standard error, below this headline.
void printRunState(const RunMonitor& monitor, const std::string& headline);

// Prints the state of a run that has made no progress for a while, once for each stall. It is a
// diagnosis and ends nothing.
class StallDetector {
public:
    StallDetector(const RunMonitor* monitor, std::chrono::milliseconds patience);

private:
    std::optional<Timer::Delay> check();

    const RunMonitor* const mMonitor;
    const std::chrono::milliseconds mPatience;
    const Timer::Delay mInterval;
    int64_t mCheckedUs;
    // When this process went on after it had been stopped, by Ctrl-Z for example.
    int64_t mResumedUs = 0;
    // The last progress before the stall that was printed.
    int64_t mPrintedUs = 0;
    Timer mTimer;  // last, because it uses the other members
};

}  // namespace android::qmmediaeditor::cli
