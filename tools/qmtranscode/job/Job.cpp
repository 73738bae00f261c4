#include <errno.h>
#include <malloc.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/job/Session.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Plan.h>
#include <qmtranscode/report/Progress.h>
#include <string.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

Outcome Job::run() {
    limitAllocations();
    if (auto failure = prepare()) return {failure};
    if (mOptions.plan) return {plan()};
    // The session closes it.
    const int outputFd = mOutput.duplicate();
    if (outputFd < 0) return {Failure{kExitFailed, mOutput.path(), strerror(errno)}};
    Progress progress(mOptions.progress.value_or(ProgressStyle::kNone), mOptions.output,
                      outputLengthUs());
    const bool traces = mOptions.trace.has_value();
    if (traces) mTrace.begin();
    const int32_t result = transcode(outputFd, &progress);
    Outcome outcome = conclude(result, &progress);
    if (traces) outcome.traceError = mTrace.end();
    return outcome;
}

Outcome Job::conclude(int32_t result, Progress* progress) {
    if (auto failure = mInput.checkReads(*mFacts)) return {failure};
    if (result == OK) return keepWhole(progress);
    if (result == kStopped && mControl->stopRequested()) return keepStopped();
    return {failed(result)};
}

std::optional<Failure> Job::prepare() {
    if (auto failure = mInput.probe(*mFacts)) return failure;
    if (auto failure = makePeriods(mOptions, mInput.media(), &mPeriods)) return failure;
    return makeOutputFormat(mOptions, mInput.media(), &mOutputFormat);
}

std::optional<Failure> Job::plan() {
    TrialResult trial;
    if (auto failure = tryRequest(mInput, mPeriods, mOutputFormat, mMonitor, &trial)) {
        return failure;
    }
    return writeReceipt(planJson(mOptions, mInput, mPeriods, trial));
}

int64_t Job::outputLengthUs() const {
    if (mPeriods.empty()) return mInput.media().durationUs();
    int64_t lengthUs = 0;
    for (const TrimPeriod& period : mPeriods) lengthUs += period.mEndUs - period.mStartUs;
    return lengthUs;
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
        mControl->onStop([&session] { session.cancel(); });
        mControl->report(WorkerStage::kStarting);
        mFacts->begin([this] { mControl->report(WorkerStage::kTranscoding); });
        result = session.run();
        mControl->ignoreStop();
        mControl->report(WorkerStage::kChecking);
    }
    mCounts = mMonitor->end();
    // What long tracks need tables for is needed again by whoever reads the output back.
    malloc_trim(0);
    mWallSeconds = static_cast<double>(nowUs() - beginUs) / 1e6;
    return result;
}

Outcome Job::keepWhole(Progress* progress) {
    Receipt receipt = readReceipt();
    if (!receipt.written) return {nothingWritten()};
    if (auto failure = checkWhole(mInput, mCounts, *mFacts, *receipt.written, mOutput.path())) {
        return {failure};
    }
    if (auto failure = checkTracks(*receipt.written)) return {failure};
    receipt.complete = true;
    progress->finish();
    if (auto failure = writeReceipt(receipt)) return {failure};
    return {std::nullopt, true};
}

Outcome Job::keepStopped() {
    const Receipt receipt = readReceipt();
    if (auto failure = writeReceipt(receipt)) return {failure};
    if (!receipt.written) {
        return {Failure{kExitStopped, mOutput.path(), "stopped before anything was written"}};
    }
    return {Failure{kExitStopped, mOutput.path(),
                    "stopped; it is valid up to " + secondsText(commonEndUs(*receipt.written))},
            true};
}

std::optional<Failure> Job::failed(int32_t result) const {
    if (const std::optional<int> error = mFacts->writeError()) {
        return Failure{kExitFailed, mOutput.path(), strerror(*error)};
    }
    const bool isInputs =
        result == kInvalidRequest || result == kReadError || result == kDecoderError;
    return Failure{kExitFailed, isInputs ? mInput.path() : mOutput.path(), reasonOf(result)};
}

Failure Job::nothingWritten() const {
    if (!mFacts->framesUs().empty() || mFacts->audioUs() > 0) {
        return {kExitFailed, mOutput.path(), "the check of the output failed: it cannot be read"};
    }
    if (mPeriods.empty()) return {kExitUnusable, mInput.path(), "nothing in it could be decoded"};
    return {kExitUnusable, mInput.path(),
            "no frame and no audio begins in " +
                std::string(mPeriods.size() > 1 ? "these periods" : "this period")};
}

std::optional<Failure> Job::checkTracks(const WrittenFile& written) const {
    const bool lacksVideo = mInput.media().video && !written.video;
    const bool lacksAudio = mInput.media().audio && !written.audio;
    if (lacksVideo && mCounts.damagedVideo > 0) {
        return Failure{kExitUnusable, mInput.path(), "no frame of its video could be decoded"};
    }
    if (lacksAudio && mCounts.damagedAudio > 0) {
        return Failure{kExitUnusable, mInput.path(), "nothing of its audio could be decoded"};
    }
    const std::string where =
        mPeriods.empty() ? "the input's has no samples" : "none of it begins in these periods";
    if (lacksVideo) {
        console::printLine("qmtranscode: " + mOutput.path() + ": no video track: " + where);
    }
    if (lacksAudio) {
        console::printLine("qmtranscode: " + mOutput.path() + ": no audio track: " + where);
    }
    return std::nullopt;
}

Receipt Job::readReceipt() const {
    Receipt receipt;
    receipt.input = mInput.path();
    receipt.output = mOutput.path();
    receipt.asked = mOptions.periods;
    receipt.inputUs = mInput.media().durationUs();
    receipt.counts = mCounts;
    receipt.wallSeconds = mWallSeconds;
    receipt.written = readBack(mOutput.fd());
    return receipt;
}

std::optional<Failure> Job::writeReceipt(const Receipt& receipt) const {
    if (mOptions.json) return writeReceipt(toJson(receipt));
    return receipt.written ? writeReceipt(toText(receipt)) : std::nullopt;
}

std::optional<Failure> Job::writeReceipt(const std::string& text) const {
    if (writeAll(mReceipt, text) == 0) return std::nullopt;
    return Failure{kExitFailed, "the receipt", strerror(errno)};
}

}  // namespace android::qmmediaeditor::cli
