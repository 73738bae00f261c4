// The platform log: each message goes to a listener, and to standard error if the user asks for it.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

struct LogMessage {
    int priority;
    const char* tag;
    const char* text;
    int64_t timeUs;  // nowUs()
    pid_t thread;
};

class LogListener {
public:
    virtual ~LogListener() = default;
    // Called on the thread that logs, by several threads at a time.
    virtual void onMessage(const LogMessage& message) = 0;
};

// Prints the messages that pass logcat's filter, in one of logcat's formats; none without a filter.
// `listener` gets every message and must exist until the process ends, because threads may log
// until then. `onFailedCheck` is called for a failed internal check, and ends the process.
void installLog(const std::optional<std::string>& filter, const std::string& format,
                LogListener* listener, void (*onFailedCheck)(const std::string& reason));

}  // namespace android::qmmediaeditor::cli
