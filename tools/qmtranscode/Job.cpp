#include <errno.h>
#include <malloc.h>
#include <qmtranscode/Console.h>
#include <qmtranscode/Job.h>
#include <qmtranscode/Plan.h>
#include <qmtranscode/Progress.h>
#include <qmtranscode/Request.h>
#include <qmtranscode/Session.h>
#include <string.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

std::optional<Failure> Job::run() {
    if (auto failure = prepare()) return failure;
    if (mOptions.plan) return plan();
    if (auto failure = openTrace()) return failure;
    if (auto failure = mOutput.create()) return failure;
    // The session closes it.
    const int outputFd = mOutput.duplicate();
    if (outputFd < 0) return Failure{kExitFailed, mOutput.path(), strerror(errno)};
    Progress progress(mOptions.progress, mOptions.output, outputLengthUs());
    const int32_t result = transcode(outputFd, &progress);
    auto failure = conclude(result, &progress);
    // A trace is for looking at, above all one of a run that failed.
    const auto traceFailure = mTrace.finish();
    if (!traceFailure) return failure;
    if (failure) {
        console::printFailure(*traceFailure);
        return failure;
    }
    return Failure{kExitFailed, mOutput.path() + " is complete; " + traceFailure->subject,
                   traceFailure->reason};
}

std::optional<Failure> Job::conclude(int32_t result, Progress* progress) {
    if (result == OK) return keepWhole(progress);
    if (result == kStopped && mInterrupt->requested()) return keepStopped();
    return failed(result);
}

std::optional<Failure> Job::prepare() {
    if (auto failure = mInput.open(mOptions.input)) return failure;
    if (auto failure = mOutput.check(mOptions.output, mOptions.overwrite, mInput)) return failure;
    if (auto failure = mInput.probe()) return failure;
    if (auto failure = makePeriods(mOptions, mInput.media(), &mPeriods)) return failure;
    return makeOutputFormat(mOptions, mInput.media(), &mOutputFormat);
}

std::optional<Failure> Job::plan() {
    TrialResult trial;
    if (auto failure = tryRequest(mInput, mPeriods, mOutputFormat, mInterrupt, mMonitor, &trial)) {
        return failure;
    }
    if (console::printOutput(planJson(mOptions, mInput, mPeriods, trial)) == 0) return std::nullopt;
    return Failure{kExitFailed, "standard output", strerror(errno)};
}

int64_t Job::outputLengthUs() const {
    if (mPeriods.empty()) return mInput.media().durationUs();
    int64_t lengthUs = 0;
    for (const TrimPeriod& period : mPeriods) lengthUs += period.mEndUs - period.mStartUs;
    return lengthUs;
}

std::optional<Failure> Job::openTrace() {
    if (!mOptions.trace) return std::nullopt;
    return mTrace.open(*mOptions.trace, mOptions.overwrite, mInput, mOutput);
}

int32_t Job::transcode(int outputFd, Progress* progress) {
    const int64_t beginUs = nowUs();
    mMonitor->begin(mPeriods, mOptions.trace ? &mTrace : nullptr);
    int32_t result;
    {
        Session session(
            {mInput.fd(), outputFd, mPeriods, mOutputFormat, [this, progress](int32_t percent) {
                 mMonitor->onProgress(percent);
                 progress->report(percent);
             }});
        mInterrupt->onFirst([&session] { session.cancel(); });
        result = session.run();
        mInterrupt->ignore();
    }
    mCounts = mMonitor->end();
    // What long tracks need tables for is needed again by whoever reads the output back.
    malloc_trim(0);
    mWallSeconds = static_cast<double>(nowUs() - beginUs) / 1e6;
    return result;
}

std::optional<Failure> Job::keepWhole(Progress* progress) {
    Receipt receipt = readReceipt();
    if (!receipt.written) {
        return Failure{kExitFailed, mOutput.path(), "what was written cannot be read back"};
    }
    if (auto failure = checkWhole(mInput, mPeriods, mCounts, *receipt.written, mOutput.path())) {
        return failure;
    }
    mInterrupt->beginKeeping();
    if (auto failure = mOutput.keep()) return failure;
    mInterrupt->endKeeping();
    receipt.complete = true;
    progress->finish();
    const std::string lost = printReceipt(receipt);
    if (lost.empty()) return std::nullopt;
    return Failure{kExitFailed, "", mOutput.path() + " is complete" + lost};
}

std::optional<Failure> Job::keepStopped() {
    const Receipt receipt = readReceipt();
    mInterrupt->beginKeeping();
    if (receipt.written) {
        if (auto failure = mOutput.keep()) return failure;
    }
    mInterrupt->endKeeping();
    const std::string lost = printReceipt(receipt);
    if (!receipt.written) {
        return Failure{kExitStopped, mOutput.path(), "stopped before anything was written" + lost};
    }
    return Failure{
        kExitStopped, mOutput.path(),
        "stopped; it is valid up to " + secondsText(receipt.written->media.durationUs()) + lost};
}

std::optional<Failure> Job::failed(int32_t result) const {
    if ((result == kStopped || result == kSessionFailed) && mOutput.isFull()) {
        return Failure{kExitFailed, mOutput.path(), "no space is left for it"};
    }
    const bool isInputs = result == kInvalidRequest;
    return Failure{kExitFailed, isInputs ? mInput.path() : mOutput.path(), reasonOf(result)};
}

Receipt Job::readReceipt() const {
    Receipt receipt;
    receipt.input = mInput.path();
    receipt.output = mOutput.path();
    receipt.asked = mOptions.periods;
    receipt.inputUs = mInput.media().durationUs();
    receipt.counts = mCounts;
    receipt.wallSeconds = mWallSeconds;
    receipt.usage = currentUsage();
    receipt.written = readBack(mOutput.fd());
    return receipt;
}

std::string Job::printReceipt(const Receipt& receipt) const {
    if (!mOptions.json && !receipt.written) return "";
    if (console::printOutput(mOptions.json ? toJson(receipt) : toText(receipt)) == 0) return "";
    return "; the receipt could not be written: " + std::string(strerror(errno));
}

}  // namespace android::qmmediaeditor::cli
