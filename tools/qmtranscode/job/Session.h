// One session of the component, from the request to its result, and the dry run: a short session
// into memory, which shows whether a request works, what its output looks like, and how fast it is.
#pragma once

#include <Platform.h>
#include <TranscodeComponent.h>
#include <TranscodeTypes.h>
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/monitor/RunMonitor.h>
#include <utils/StrongPointer.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

// `periods` and `onProgress` must exist as long as the session.
struct SessionRequest {
    int inputFd;                              // the caller's
    int outputFd;                             // the session closes it
    const std::vector<TrimPeriod>& periods;   // empty for the whole input
    sp<AMessage> outputFormat;                // null for the input's
    std::function<void(int32_t)> onProgress;  // in percent
    std::shared_ptr<Platform> platform;
};

class Session {
public:
    explicit Session(const SessionRequest& request);
    ~Session();

    // Blocks until the output is finished or the session stops.
    int32_t run();
    // From any thread.
    void cancel();

private:
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    TranscodeProperty mProperty;
    const sp<TranscodeComponent> mComponent;
};

// Why a session ended with `result`.
struct SessionError {
    std::string reason;  // as Failure's
    const char* code;
};
SessionError errorOf(int32_t result);

struct DryRun {
    TrackCodecs video;
    TrackCodecs audio;
    // Nothing when the time was too short for the first samples.
    std::optional<OutputContents> output;
    double wallSeconds = 0;
};

// Runs for two seconds: less when the work is done earlier, and up to ten until each track has
// reached the writer. A failure if the request cannot be carried out.
Result<DryRun> dryRun(const JobInput& input, const std::vector<TrimPeriod>& periods,
                      const sp<AMessage>& outputFormat, RunMonitor* monitor, RunObserver* observer);

}  // namespace android::qmmediaeditor::cli
