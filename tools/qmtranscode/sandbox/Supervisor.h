// The parent of the command's two processes. It alone has the signals, the terminal and the names
// of files; the worker decodes, encodes and writes through descriptors that it was given. A worker
// that crashes, hangs or lies can neither harm a file nor steer the terminal.
//
// One thread, one loop. It allocates nothing in the loop, because memory may be what the worker has
// used up.
#pragma once

#include <qmtranscode/job/OutputFile.h>
#include <qmtranscode/monitor/TraceFile.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/types.h>

#include <atomic>
#include <string>
#include <string_view>

namespace android::qmmediaeditor::cli {

// Blocks the signals that the command takes, for this process and for those that it forks.
void blockSignals();

// In memory that both processes share.
struct SharedState {
    std::atomic<int> columns{0};  // of the terminal; written by the parent
};

class Supervisor {
public:
    struct Job {
        std::string input;   // for messages
        OutputFile* output;  // null when nothing is to be written
        TraceFile* trace;
        int receipt;        // the worker writes it there
        int libraryOutput;  // what libraries of the worker print can be read there
        bool showsLibraryOutput;
        bool mayKeepPartial;    // a stop keeps what has been written
        std::string lastWords;  // for standard output when nothing is kept
    };
    // All outlive the object.
    Supervisor(const Job& job, pid_t worker, const Link& link, SharedState* shared);
    ~Supervisor();

    // Until the worker has ended. The exit status.
    int run();

private:
    // What stands on standard error, or waits for it.
    class Screen {
    public:
        void line(std::string_view text);
        void bar(std::string_view text);
        void removeBar();
        bool hasRoom() const { return mSize + kLineRoom <= sizeof(mData); }
        bool isEmpty() const { return mSize == 0; }
        void writeSome();
        void drop() { mSize = 0; }

    private:
        static constexpr size_t kLineRoom = Link::kMaxPayload + 2 * 1024;
        void append(std::string_view text);

        char mData[4 * Link::kMaxPayload];
        size_t mSize = 0;
        char mBar[1024];
        size_t mBarSize = 0;
    };

    void step(int timeoutMs);
    void takeSignal();
    void takeMessage();
    void takeLibraryOutput();
    void stop(const signalfd_siginfo& signal);
    void explain();
    bool reapWorker();
    int endAtOnce();
    int conclude();
    int crashed();
    int kept();
    bool printReceipt();
    bool printChecked(std::string_view text);
    bool endsWait(const signalfd_siginfo& signal);
    void flush(int timeoutMs);

    const Job mJob;
    const pid_t mWorker;
    const Link& mLink;
    SharedState* const mShared;
    int mSignals = -1;
    Screen mScreen;

    bool mLinkOpen = true;
    bool mLibraryOpen = true;
    bool mWorkerEnded = false;
    int mWorkerStatus = 0;
    rusage mUsage{};
    WorkerStage mStage = WorkerStage::kOpening;
    bool mHasResult = false;
    WorkerResult mResult;
    char mFailure[2048];
    size_t mFailureSize = 0;

    bool mStopRequested = false;
    bool mEndAtOnce = false;
    signalfd_siginfo mFirstSignal{};
    int64_t mFirstSignalUs = 0;
    int64_t mExplainDueUs = 0;  // 0 when no answer is awaited
};

}  // namespace android::qmmediaeditor::cli
