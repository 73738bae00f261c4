// One run of the command, from checked options to an exit status.
#pragma once

#include <qmtranscode/InputFile.h>
#include <qmtranscode/Interrupt.h>
#include <qmtranscode/Options.h>
#include <qmtranscode/OutputFile.h>
#include <utils/StrongPointer.h>

#include <optional>
#include <vector>

namespace android::qmmediaeditor::cli {

class Progress;

class Job {
public:
    // Both outlive the job. A platform has to be installed.
    Job(const Options& options, Interrupt* interrupt) : mOptions(options), mInterrupt(interrupt) {}

    // Nothing when the output is whole and has its name.
    std::optional<Failure> run();

private:
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    // Everything that can be refused before anything is written.
    std::optional<Failure> prepare();
    // Runs the session; its result code.
    int32_t transcode(int outputFd, Progress* progress);
    std::optional<Failure> keepWhole(Progress* progress);
    std::optional<Failure> keepStopped();

    const Options& mOptions;
    Interrupt* const mInterrupt;
    InputFile mInput;
    OutputFile mOutput;
    std::vector<TrimPeriod> mPeriods;
    sp<AMessage> mOutputFormat;
};

}  // namespace android::qmmediaeditor::cli
