// One run of the command, from checked options to an exit status.
#pragma once

#include <qmtranscode/InputFile.h>
#include <qmtranscode/Interrupt.h>
#include <qmtranscode/Options.h>
#include <qmtranscode/OutputFile.h>
#include <qmtranscode/Receipt.h>
#include <qmtranscode/RunFacts.h>
#include <qmtranscode/RunMonitor.h>
#include <qmtranscode/TraceFile.h>
#include <utils/StrongPointer.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

class Progress;

class Job {
public:
    // All outlive the job. A platform has to be installed; its observer is `facts`, and the log
    // goes to the monitor.
    Job(const Options& options, Interrupt* interrupt, RunMonitor* monitor, RunFacts* facts)
        : mOptions(options), mInterrupt(interrupt), mMonitor(monitor), mFacts(facts) {}

    // Nothing when the output is whole and has its name.
    std::optional<Failure> run();

private:
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    // Everything that can be refused before anything is written.
    std::optional<Failure> prepare();
    std::optional<Failure> openTrace();
    // Says what would be done.
    std::optional<Failure> plan();
    // Runs the session; its result code.
    int32_t transcode(int outputFd, Progress* progress);
    // From the session's result code to the output's name and the receipt.
    std::optional<Failure> conclude(int32_t result, Progress* progress);
    std::optional<Failure> keepWhole(Progress* progress);
    std::optional<Failure> keepStopped();
    std::optional<Failure> failed(int32_t result) const;
    // What is wrong with the request or the input when not even one sample has come out.
    Failure nothingWritten() const;
    // A failure when nothing of a track could be decoded; a line where the input has nothing of it.
    std::optional<Failure> checkTracks(const WrittenFile& written) const;
    // The receipt, with what can be read back of the output.
    Receipt readReceipt() const;
    // The end of a message that says why the receipt could not be written; empty if it was.
    std::string printReceipt(const Receipt& receipt) const;
    int64_t outputLengthUs() const;

    const Options& mOptions;
    Interrupt* const mInterrupt;
    RunMonitor* const mMonitor;
    RunFacts* const mFacts;
    InputFile mInput;
    OutputFile mOutput;
    TraceFile mTrace;
    std::vector<TrimPeriod> mPeriods;
    sp<AMessage> mOutputFormat;
    RunCounts mCounts;
    double mWallSeconds = 0;
};

}  // namespace android::qmmediaeditor::cli
