// The parent of the command's two processes. It alone has the signals, the terminal and the names
// of files; the worker decodes, encodes and writes through descriptors that it was given. A worker
// that crashes, hangs or sends false messages can neither damage a file nor control the terminal.
//
// One thread, one poll loop. The loop allocates nothing, because the worker may have used up the
// memory.
#pragma once

#include <poll.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/PendingFile.h>
#include <qmtranscode/report/RunObject.h>
#include <qmtranscode/sandbox/SignalHandler.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

namespace android::qmmediaeditor::cli {

// In memory that both processes share.
struct SharedState {
    std::atomic<int> columns{0};  // of the terminal; written by the parent
};

class SectionWorkers;

class Supervisor {
public:
    struct Job {
        std::string input;    // for messages
        PendingFile* output;  // null if nothing is to be written
        PendingFile* trace;   // may be null
        int receipt;          // the worker writes it there
        int libraryOutput;    // the read end of the worker's standard output and error
        bool showsLibraryOutput;
        bool mayKeepPartial;  // a stop keeps what has been written
        // Print the run's JSON object, also of a run that writes nothing.
        bool printsObject;
        // Of --poster and --contact-sheet, and the memory that they are in; -1 without.
        const Options* options = nullptr;
        int images = -1;
        std::string request;  // a JSON value
        std::string names;    // as namesOf()
        // Their outputs are joined by the worker; null without --jobs.
        SectionWorkers* sections = nullptr;
        // The object goes there instead, if not null.
        std::string* object = nullptr;
    };
    // All outlive the object.
    Supervisor(const Job& job, pid_t worker, const WorkerLink& link, SharedState* shared);

    // Until the worker has ended. The exit status.
    int run();
    // After run(): how many outputs --split makes, if the worker has found out.
    std::optional<size_t> parts() const { return mParts; }

private:
    // Text that waits to be written to standard error, and the progress bar below it.
    class ErrorOutput {
    public:
        void line(std::string_view text);
        void bar(std::string_view text);
        void removeBar();
        bool hasRoom() const { return mSize + kLineRoom <= sizeof(mData); }
        bool isEmpty() const { return mSize == 0; }
        void writeSome();
        void discard() { mSize = 0; }

    private:
        static constexpr size_t kLineRoom = WorkerLink::kMaxPayload + 2 * 1024;
        void append(std::string_view text);

        char mData[4 * WorkerLink::kMaxPayload];
        size_t mSize = 0;
        char mBar[1024];
        size_t mBarSize = 0;
    };

    void step();
    void handleSignal(SignalAction action);
    void handleMessage();
    void handleSections(const pollfd* fds);
    void handleLibraryOutput();
    void stop();
    bool reapWorker();
    int endNow();
    int conclude();
    int workerCrashed();
    int publish();
    std::optional<Failure> commitTrace();
    std::optional<Failure> receivedFailure() const;
    void warn(std::string_view text);
    // The end of a run that leaves no output.
    int fail(const RunEnd& end);
    bool printReport(const RunEnd& end, std::string_view receipt);
    bool readReceipt(std::string* text);
    bool printAndCheck(std::string_view text);
    bool readStopSignal();
    void flush(int timeoutMs);

    const Job mJob;
    const pid_t mWorker;
    const WorkerLink& mLink;
    SharedState* const mShared;
    SignalHandler mSignals;
    ErrorOutput mErrors;

    bool mIsLinkOpen = true;
    bool mIsLibraryOutputOpen = true;
    bool mHasWorkerEnded = false;
    int mWorkerStatus = 0;
    rusage mUsage{};
    WorkerStage mStage = WorkerStage::kOpening;
    std::optional<size_t> mParts;
    bool mHasResult = false;
    WorkerResult mResult;
    char mFailure[8 * 1024];
    size_t mFailureSize = 0;
    // Both get their memory at the beginning.
    std::string mWarnings;  // lines
    std::string mObject;

    int mSectionsPercent = 0;
    bool mHaveSectionsEnded = false;

    bool mStopRequested = false;
    bool mStopNow = false;
    int mWaitError = 0;       // the errno that makes waiting impossible
    int64_t mStateDueUs = 0;  // when the worker must have printed its state; 0 if not asked
};

}  // namespace android::qmmediaeditor::cli
