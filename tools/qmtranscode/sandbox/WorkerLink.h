// The connection of the command's two processes: messages over a pair of sockets. Each message is
// sent and received as a unit.
#pragma once

#include <qmtranscode/job/RunControl.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string_view>
#include <thread>

namespace android::qmmediaeditor::cli {

enum class Message : char {
    // From the worker.
    kLine = 'l',     // text for standard error, without the last line break
    kWarning = 'w',  // the same; without its first word, also for the JSON object of the run
    kBar = 'b',      // the progress bar; text between kGreenBegin and kGreenEnd is green
    kRemoveBar = 'n',
    kStage = 's',     // one WorkerStage
    kPercent = 'p',   // the progress: one number from 0 to 100
    kParts = 'o',     // how many outputs --split makes: a size_t
    kCpuLimit = 'x',  // the kernel has sent SIGXCPU
    kResult = 'r',    // a WorkerResult, followed by the texts of the failure; the last message
    // To the worker.
    kStop = 't',
    kPrintState = 'e',
    // To the worker that joins sections.
    kSectionsPercent = 'q',  // their progress, as kPercent
    kSectionsEnded = 'd',    // they are complete, or were stopped
};

constexpr char kGreenBegin = 1;
constexpr char kGreenEnd = 2;

struct WorkerResult {
    int status = 0;           // an ExitStatus
    bool keepOutput = false;  // the output gets its name
    int traceError = 0;       // errno of the first failed write of the trace
    Ending ending = Ending::kTranscoded;
    // Of the failure; its reason is the rest of the message.
    uint16_t codeBytes = 0;
    uint16_t subjectBytes = 0;
};

class WorkerLink {
public:
    static constexpr size_t kMaxPayload = 16 * 1024;

    // `fd` is one end of a SOCK_SEQPACKET pair; the caller's.
    explicit WorkerLink(int fd) : mFd(fd) {}
    int fd() const { return mFd; }

    // Longer payloads are truncated. Blocks while the other end does not read; false when it is
    // closed. Async-signal-safe, on any thread.
    bool send(Message message, std::string_view payload = {}) const;

    // Sends the result of a worker that ends with status 1; the reason is both texts. Does not
    // allocate.
    void sendFailure(std::string_view code, std::string_view reason,
                     std::string_view more = {}) const;

    struct Received {
        Message message;
        std::string_view payload;  // in the caller's buffer
    };
    // Blocks until there is a message; nothing when the other end is closed. `buffer` has
    // kBufferBytes bytes.
    static constexpr size_t kBufferBytes = kMaxPayload + 1;
    std::optional<Received> receive(char* buffer) const;

private:
    const int mFd;
};

// The worker's end of the connection: receives the requests of the parent on a thread of its own,
// and reports stages to it.
class WorkerControl : public RunControl {
public:
    // `link` outlives the object; `printState` is called on the thread.
    WorkerControl(const WorkerLink& link, std::function<void()> printState);
    // Shuts the link down for reading.
    ~WorkerControl() override;

    void report(WorkerStage stage) override;
    // Sends each percentage once.
    void reportProgress(int32_t percent) override;
    void reportParts(size_t count) override;

    // Until the parent has told that the sections have ended; their progress is reported to
    // `onPercent`. False when the parent is gone.
    bool awaitSections(const std::function<void(int32_t)>& onPercent);

private:
    void receiveRequests();

    const WorkerLink& mLink;
    const std::function<void()> mPrintState;
    std::atomic<int32_t> mLastPercent{-1};
    // Written by the thread.
    Mutex mLock;
    Condition mSectionsChanged;
    int32_t mSectionsPercent GUARDED_BY(mLock) = 0;
    bool mHaveSectionsEnded GUARDED_BY(mLock) = false;
    bool mIsParentGone GUARDED_BY(mLock) = false;
    std::thread mThread;
};

}  // namespace android::qmmediaeditor::cli
