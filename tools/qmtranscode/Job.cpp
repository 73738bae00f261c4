#include <Transcode.h>
#include <qmtranscode/Console.h>
#include <qmtranscode/Job.h>
#include <qmtranscode/Progress.h>
#include <qmtranscode/ReadBack.h>
#include <qmtranscode/Request.h>
#include <stdio.h>

#include <string>

namespace android::qmmediaeditor::cli {

namespace {

// What a session that ended with `result` had to do with it.
std::string reasonOf(int32_t result) {
    switch (result) {
        case kInvalidRequest:
            return "its tracks could not be set up for decoding";
        case kStopped:
            return "the output could not be written";
        case kSessionFailed:
            return "an encoder could not be made, or the output could not be finished";
        case kEncoderError:
            return "an encoder failed";
        default:
            return "failed with code " + std::to_string(result);
    }
}

}  // namespace

std::optional<Failure> Job::run() {
    if (auto failure = prepare()) return failure;
    int outputFd = -1;
    if (auto failure = mOutput.create(&outputFd)) return failure;
    Progress progress(mOptions.progress, mOptions.output);
    const int32_t result = transcode(outputFd, &progress);
    if (result == OK) return keepWhole(&progress);
    if (result == kStopped && mInterrupt->requested()) return keepStopped();
    if ((result == kStopped || result == kSessionFailed) && mOutput.isFull()) {
        return Failure{kExitFailed, mOutput.path(), "no space is left for it"};
    }
    const bool isInputs = result == kInvalidRequest;
    return Failure{kExitFailed, isInputs ? mInput.path() : mOutput.path(), reasonOf(result)};
}

std::optional<Failure> Job::prepare() {
    if (auto failure = mInput.open(mOptions.input)) return failure;
    if (auto failure = mOutput.check(mOptions.output, mOptions.overwrite, mInput)) return failure;
    if (auto failure = mInput.probe()) return failure;
    if (auto failure = makePeriods(mOptions, mInput.media(), &mPeriods)) return failure;
    return makeOutputFormat(mOptions, mInput.media(), &mOutputFormat);
}

int32_t Job::transcode(int outputFd, Progress* progress) {
    TranscodeProperty property;
    property.mInputFd = mInput.fd();
    property.mOutputFd = outputFd;
    property.mProgressCallback = [progress](int32_t percent) { progress->report(percent); };
    property.mOutputFormat = mOutputFormat;
    property.mTrimEnabled = !mPeriods.empty();
    property.mPeriodCount = static_cast<int32_t>(mPeriods.size());
    property.mPeriods = mPeriods.data();

    const sp<TranscodeComponent> component = new TranscodeComponent();
    component->create(&property);
    mInterrupt->onFirst([&component] { component->cancel(); });
    const int32_t result = component->process();
    mInterrupt->ignore();
    component->destory();
    return result;
}

std::optional<Failure> Job::keepWhole(Progress* progress) {
    const std::optional<MediaFile> written = readBack(mOutput);
    if (!written) {
        return Failure{kExitFailed, mOutput.path(), "what was written cannot be read back"};
    }
    if (auto failure = checkWhole(mInput, mPeriods, *written, mOutput)) return failure;
    if (auto failure = mOutput.keep()) return failure;
    progress->finish();
    printf("%s: %s\n", mOutput.path().c_str(), describe(*written).c_str());
    return std::nullopt;
}

std::optional<Failure> Job::keepStopped() {
    const std::optional<MediaFile> written = readBack(mOutput);
    if (!written) {
        return Failure{kExitStopped, mOutput.path(), "stopped before anything was written"};
    }
    if (auto failure = mOutput.keep()) return failure;
    return Failure{kExitStopped, mOutput.path(),
                   "stopped; it is valid up to " + secondsText(written->durationUs())};
}

}  // namespace android::qmmediaeditor::cli
