#include <errno.h>
#include <fcntl.h>
#include <qmtranscode/job/Session.h>
#include <qmtranscode/monitor/Timer.h>
#include <qmtranscode/report/Format.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

namespace {

constexpr Timer::Delay kMeasurement{2000};
constexpr Timer::Delay kNextCheck{50};
// A track may start an hour after the other one, and the machine may be busy.
constexpr int64_t kMaxUs = 10000000;

}  // namespace

Session::Session(const SessionRequest& request) : mComponent(new TranscodeComponent()) {
    mProperty.mInputFd = request.inputFd;
    mProperty.mOutputFd = request.outputFd;
    mProperty.mProgressCallback = request.onProgress;
    mProperty.mOutputFormat = request.outputFormat;
    mProperty.mTrimEnabled = !request.periods.empty();
    mProperty.mPeriodCount = static_cast<int32_t>(request.periods.size());
    mProperty.mPeriods = request.periods.data();
    mComponent->create(&mProperty, request.platform);
}

Session::~Session() { mComponent->destory(); }

int32_t Session::run() { return mComponent->process(); }

void Session::cancel() { mComponent->cancel(); }

SessionError errorOf(int32_t result) {
    switch (result) {
        case kInvalidRequest:
            return {"no decoder could be set up for the tracks of the input", "no-decoder"};
        case kNoThread:
            return {"a thread could not be created", kThreadCode};
        case kReadError:
            return {"the input could not be read", "read-failed"};
        case kDecoderError:
            return {"a decoder failed", "decoder-failed"};
        case kStopped:
            return {"the output could not be written", "write-failed"};
        case kSessionFailed:
            return {"an encoder could not be created, or the output could not be finished",
                    "session-failed"};
        case kEncoderError:
            return {"an encoder failed", "encoder-failed"};
        default:
            return {"failed with code " + std::to_string(result), "session-failed"};
    }
}

Result<DryRun> dryRun(const JobInput& input, const std::vector<TrimPeriod>& periods,
                      const sp<AMessage>& outputFormat, RunMonitor* monitor,
                      RunObserver* observer) {
    const int memory = memfd_create("qmtranscode-plan", MFD_CLOEXEC);
    const int output = memory < 0 ? -1 : fcntl(memory, F_DUPFD_CLOEXEC, 0);
    if (output < 0) return systemFailure(kExitFailed, "memory for the dry run", errno);

    const int64_t startUs = nowUs();
    monitor->begin(periods, nullptr);
    observer->begin(periods, nullptr);
    int32_t status;
    {
        Session session({input.fd(), output, periods, outputFormat,
                         [monitor](int32_t percent) { monitor->onProgress(percent); },
                         Platform::current()});
        const MediaFile& media = input.media();
        const Timer stop(kMeasurement, [&]() -> std::optional<Timer::Delay> {
            const bool isMeasured =
                monitor->hasEncoded(media.video.has_value(), media.audio.has_value());
            if (!isMeasured && nowUs() - startUs < kMaxUs) return kNextCheck;
            session.cancel();
            return std::nullopt;
        });
        status = session.run();
    }
    DryRun result;
    monitor->end();
    result.video = observer->video();
    result.audio = observer->audio();
    result.wallSeconds = secondsOf(nowUs() - startUs);
    result.output = readOutput(memory);
    close(memory);
    if (status == OK || status == kStopped) return result;
    const SessionError error = errorOf(status);
    return Failure{kExitUnusable, input.path(), error.reason, error.code};
}

}  // namespace android::qmmediaeditor::cli
