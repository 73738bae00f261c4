// One run of the command, from checked options to an exit status.
#pragma once

#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/monitor/RunFacts.h>
#include <qmtranscode/monitor/RunMonitor.h>
#include <qmtranscode/report/Receipt.h>
#include <qmtranscode/sandbox/WorkerControl.h>
#include <utils/StrongPointer.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

class Progress;

// How a job ends. The receipt or the plan is written by then.
struct Outcome {
    // Nothing when the output is complete.
    std::optional<Failure> failure;
    // The output is to get its name: it is complete, or valid up to where it was stopped.
    bool keepOutput = false;
    int traceError = 0;  // errno of the first failed write of the trace
};

class Job {
public:
    // All outlive the job. A platform has to be installed; its observer is `facts`, and the log
    // goes to the monitor.
    Job(const Options& options, JobFiles* files, WorkerControl* control, RunMonitor* monitor,
        RunFacts* facts)
        : mOptions(options),
          mInput(files->input),
          mOutput(files->output),
          mTrace(files->trace),
          mReceipt(files->receipt),
          mControl(control),
          mMonitor(monitor),
          mFacts(facts) {}

    Outcome run();

private:
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    // Everything that can be refused before anything is written.
    std::optional<Failure> prepare();
    // Writes the plan.
    std::optional<Failure> plan();
    // Runs the session; its result code.
    int32_t transcode(int outputFd, Progress* progress);
    // From the session's result code to the receipt.
    Outcome conclude(int32_t result, Progress* progress);
    Outcome keepWhole(Progress* progress);
    Outcome keepStopped();
    std::optional<Failure> failed(int32_t result) const;
    // Why not even one sample has come out.
    Failure nothingWritten() const;
    // A failure when nothing of a track could be decoded; a line where the input has nothing of it.
    std::optional<Failure> checkTracks(const WrittenFile& written) const;
    // The receipt, with what can be read back of the output.
    Receipt readReceipt() const;
    std::optional<Failure> writeReceipt(const Receipt& receipt) const;
    std::optional<Failure> writeReceipt(const std::string& text) const;
    int64_t outputLengthUs() const;

    const Options& mOptions;
    InputFile& mInput;
    const OutputFile& mOutput;
    TraceFile& mTrace;
    const int mReceipt;
    WorkerControl* const mControl;
    RunMonitor* const mMonitor;
    RunFacts* const mFacts;
    std::vector<TrimPeriod> mPeriods;
    sp<AMessage> mOutputFormat;
    RunCounts mCounts;
    double mWallSeconds = 0;
};

}  // namespace android::qmmediaeditor::cli
