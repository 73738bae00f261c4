// Which thread does what, and since when; how full the queues are; when each stage moved last.
//
// A thread says what it does next, and does that until it says something else. What it does after a
// wait it does not say: there the other side of the queue tells. Not locked.
#pragma once

#include <qmtranscode/monitor/LogEvent.h>
#include <stdint.h>
#include <sys/types.h>

#include <array>
#include <map>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// What there is to draw of a run; times as in LogMessage.
class RunPicture {
public:
    virtual ~RunPicture() = default;
    virtual void thread(pid_t thread, const char* role) = 0;
    virtual void slice(pid_t thread, const char* what, bool waits, int64_t beginUs,
                       int64_t endUs) = 0;
    virtual void depth(Queue queue, int64_t count, int64_t timeUs) = 0;
    virtual void event(pid_t thread, const char* what, int64_t timeUs) = 0;
};

class ThreadBoard {
public:
    // `picture` may be null.
    void drawInto(RunPicture* picture) { mPicture = picture; }

    void note(pid_t thread, int64_t timeUs, const Saying& saying);
    // Progress of the input reader, which has no message of its own.
    void noteRead(int32_t percent, int64_t timeUs);
    // The run is over: what the threads still do ends here.
    void finish(int64_t timeUs);

    // When anything moved last; 0 before it all begins and after its end.
    int64_t lastMoveUs() const { return mLastMoveUs; }

    // Whether anything has come so far.
    bool has(Stage stage) const { return mStages[static_cast<size_t>(stage)].count > 0; }

    // Lines for a person: threads, queues, stages.
    std::vector<std::string> describe(int64_t timeUs) const;

private:
    struct Thread {
        const char* role = nullptr;
        // Null when the thread has nothing to do with the run at the moment.
        const char* what = nullptr;
        Act act = Act::kNothing;
        int64_t sinceUs = 0;
        // Of a wait that the other side may end.
        Queue queue = Queue::kNone;
        Effect effect = Effect::kNone;
        const char* afterwards = nullptr;
    };
    struct Moved {
        int64_t count = 0;
        int64_t atUs = 0;
        int64_t mediaUs = -1;  // -1 where the messages tell no time
    };

    void switchTo(pid_t id, Thread* thread, const Phrase& phrase, int64_t timeUs);
    void endSlice(pid_t id, Thread* thread, int64_t timeUs);
    void applyEffect(const Saying& saying, int64_t timeUs);
    void endWaits(Queue queue, Effect waiter, int64_t timeUs);
    void setDepth(Queue queue, int64_t count, int64_t timeUs);

    RunPicture* mPicture = nullptr;
    std::map<pid_t, Thread> mThreads;
    std::array<int64_t, kQueueCount> mDepths{};
    std::array<Moved, kStageCount> mStages{};
    int32_t mReadPercent = -1;
    int64_t mReadAtUs = 0;
    int64_t mLastMoveUs = 0;
};

}  // namespace android::qmmediaeditor::cli
