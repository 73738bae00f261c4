#include <qmtranscode/job/Session.h>

namespace android::qmmediaeditor::cli {

Session::Session(const SessionRequest& request) : mComponent(new TranscodeComponent()) {
    mProperty.mInputFd = request.inputFd;
    mProperty.mOutputFd = request.outputFd;
    mProperty.mProgressCallback = request.onProgress;
    mProperty.mOutputFormat = request.outputFormat;
    mProperty.mTrimEnabled = !request.periods.empty();
    mProperty.mPeriodCount = static_cast<int32_t>(request.periods.size());
    mProperty.mPeriods = request.periods.data();
    mComponent->create(&mProperty);
}

Session::~Session() { mComponent->destory(); }

int32_t Session::run() { return mComponent->process(); }

void Session::cancel() { mComponent->cancel(); }

std::string reasonOf(int32_t result) {
    switch (result) {
        case kInvalidRequest:
            return "no decoder could be set up for its tracks";
        case kNoThread:
            return "a thread could not be created";
        case kReadError:
            return "the input could not be read";
        case kDecoderError:
            return "a decoder failed";
        case kStopped:
            return "the output could not be written";
        case kSessionFailed:
            return "an encoder could not be created, or the output could not be finalized";
        case kEncoderError:
            return "an encoder failed";
        default:
            return "failed with code " + std::to_string(result);
    }
}

}  // namespace android::qmmediaeditor::cli
