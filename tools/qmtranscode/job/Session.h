// One session of the component, from the request to its result.
#pragma once

#include <TranscodeComponent.h>
#include <TranscodeTypes.h>
#include <utils/StrongPointer.h>

#include <functional>
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
std::string reasonOf(int32_t result);

}  // namespace android::qmmediaeditor::cli
