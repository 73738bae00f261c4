// A job on the calling thread.
#include <errno.h>
#include <fcntl.h>
#include <host/Host.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/report/RunObject.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "bindings/c/JobRun.h"

namespace android::qmmediaeditor::api {

namespace {

using cli::Failure;
using cli::WorkerStage;

class LocalControl : public cli::RunControl {
public:
    void report(WorkerStage stage) override { mStage = stage; }
    void reportProgress(int32_t percent) override {
        Mutex::Autolock lock(mProgressLock);
        if (percent <= mLastPercent || percent >= 100 || !mOnProgress) return;
        mLastPercent = percent;
        mOnProgress(percent);
    }
    void setOnProgress(std::function<void(int32_t)> onProgress) {
        Mutex::Autolock lock(mProgressLock);
        mOnProgress = std::move(onProgress);
    }
    void finishProgress() {
        Mutex::Autolock lock(mProgressLock);
        if (mOnProgress) mOnProgress(100);
    }
    WorkerStage stage() const { return mStage; }

private:
    // Written by the threads of the session.
    std::atomic<WorkerStage> mStage{WorkerStage::kOpening};
    // Held during calls.
    Mutex mProgressLock;
    std::function<void(int32_t)> mOnProgress GUARDED_BY(mProgressLock);
    int32_t mLastPercent GUARDED_BY(mProgressLock) = -1;
};

// The usage of the whole process, because there is none of the threads of a job alone.
cli::Usage processUsage() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return cli::usageOf(usage);
}

// The lines of the job without the name of the command.
std::string warningsOf(const std::string& lines) {
    constexpr std::string_view kBegin = "qmtranscode: ";
    std::string warnings;
    for (size_t at = 0; at < lines.size();) {
        const size_t end = std::min(lines.find('\n', at), lines.size());
        std::string line = lines.substr(at, end - at);
        if (line.compare(0, kBegin.size(), kBegin) == 0) line.erase(0, kBegin.size());
        if (!warnings.empty()) warnings += '\n';
        warnings += cli::console::printable(line);
        at = end + 1;
    }
    return warnings;
}

// Occupies the numbers of standard streams that the process has closed. A file of the job could get
// such a number, and messages of libraries would be written into it.
class StandardStreams {
public:
    StandardStreams() {
        int fd;
        while ((fd = open("/dev/null", O_RDWR | O_CLOEXEC)) >= 0 && fd <= STDERR_FILENO) {
            mFds.push_back(fd);
        }
        if (fd >= 0) close(fd);
    }
    ~StandardStreams() {
        for (const int fd : mFds) close(fd);
    }

private:
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;

    std::vector<int> mFds;
};

class LocalRun : public JobRun {
public:
    JobEnd run(const JobRequest& request, std::function<void(int32_t)> onProgress) override;
    void cancel() override { mControl.requestStop(); }

private:
    cli::Outcome transcode(const cli::Options& options, cli::JobFiles* files);
    JobEnd conclude(const cli::Options& options, const cli::Outcome& outcome, cli::JobFiles* files);

    LocalControl mControl;
    std::string mLines;
    double mCpuSecondsBefore = 0;
};

JobEnd LocalRun::run(const JobRequest& request, std::function<void(int32_t)> onProgress) {
    const cli::Options& options = request.options;
    if (mControl.stopRequested()) {
        return failedEnd({cli::kExitStopped, options.output, "stopped before anything was written",
                          cli::kStoppedCode},
                         nameOf(WorkerStage::kOpening), options);
    }
    mCpuSecondsBefore = processUsage().cpuSeconds;
    mControl.setOnProgress(std::move(onProgress));
    const StandardStreams streams;
    cli::JobFiles files;
    if (const auto failure = files.open(options)) {
        return failedEnd(*failure, nameOf(WorkerStage::kOpening), options);
    }
    return conclude(options, transcode(options, &files), &files);
}

// The standard library reports a lack of memory or of threads as exceptions.
cli::Outcome LocalRun::transcode(const cli::Options& options, cli::JobFiles* files) {
    const cli::console::Capture capture(&mLines);
    cli::RunObserver observer;
    try {
        const int threads = options.threads.value_or(defaultThreads());
        return cli::Job(options, cli::hostOptions(options, threads), files, nullptr, &mControl,
                        nullptr, &observer)
            .run();
    } catch (const std::bad_alloc&) {
        return {Failure{cli::kExitFailed, "", "not enough memory", cli::kMemoryCode}};
    } catch (const std::system_error& error) {
        return {Failure{cli::kExitFailed, "", error.what(), cli::kThreadCode}};
    }
}

JobEnd LocalRun::conclude(const cli::Options& options, const cli::Outcome& outcome,
                          cli::JobFiles* files) {
    std::optional<Failure> failure = outcome.failure;
    const char* stage = nameOf(mControl.stage());
    bool isKept = outcome.keepOutput;
    // As the command: a shorter file does not replace an older one.
    const bool mayKeepPartial =
        options.keepPartial && !options.section && files->output.older() == nullptr;
    if (failure && isKept && !mayKeepPartial) {
        isKept = false;
        failure->subject.clear();
        failure->reason = "stopped; nothing was kept";
    }
    if (isKept) {
        if (const auto reason = files->output.commit()) {
            failure = reason;
            stage = "publishing";
            isKept = false;
        }
    }
    cli::Usage usage = processUsage();
    usage.cpuSeconds -= mCpuSecondsBefore;
    std::string receipt;
    const bool isReported = isKept || (!failure && !outcome.keepOutput);
    if (isReported && !cli::readReceipt(files->receipt, usage, &receipt)) receipt.clear();

    JobEnd end;
    cli::RunEnd head;
    head.status = failure ? (isKept ? "stopped" : "failed") : "complete";
    if (outcome.ending == cli::Ending::kAlready && !failure) head.status = "already";
    if (outcome.ending == cli::Ending::kCopied && !failure) head.status = "kept";
    if (failure) {
        if (!isKept && failure->status == cli::kExitStopped) head.status = "nothing written";
        end.status = head.exitStatus = failure->status;
        end.code = failure->code;
        end.text = failure->text();
        head.stage = stage;
        head.code = failure->code;
        head.subject = failure->subject;
        head.reason = failure->reason;
    }
    const std::string names = cli::namesOf(options);
    const std::string_view members = cli::membersOf(receipt);
    cli::makeObject(head, warningsOf(mLines), options.request, members.empty() ? names : members,
                    &end.receipt);
    if (end.status == cli::kExitComplete) mControl.finishProgress();
    return end;
}

}  // namespace

JobEnd failedEnd(const Failure& failure, const char* stage, const cli::Options& options) {
    JobEnd end;
    end.status = failure.status;
    end.code = failure.code;
    end.text = failure.text();
    const bool isStopped = failure.status == cli::kExitStopped;
    cli::makeObject({isStopped ? "nothing written" : "failed", failure.status, stage, failure.code,
                     failure.subject, failure.reason},
                    "", options.request, cli::namesOf(options), &end.receipt);
    return end;
}

std::unique_ptr<JobRun> createLocalRun() { return std::make_unique<LocalRun>(); }

}  // namespace android::qmmediaeditor::api
