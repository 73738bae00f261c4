// Where the platform log goes: to a listener, and to standard error when the user asks for it.
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
    // On the thread that logs, and at the same time on several.
    virtual void onMessage(const LogMessage& message) = 0;
};

// Prints what logcat's filter lets through, in one of logcat's formats; nothing without a filter.
// Every message goes to `listener`, which lives as long as the process: a thread may log until its
// very end. `onFailedCheck` is called for a failed internal check, and ends the process.
void installLog(const std::optional<std::string>& filter, const std::string& format,
                LogListener* listener, void (*onFailedCheck)(const std::string& reason));

// The clock of messages: monotonic, in microseconds.
int64_t nowUs();

}  // namespace android::qmmediaeditor::cli
