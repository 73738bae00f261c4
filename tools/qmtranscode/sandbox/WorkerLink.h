// Messages between the command's two processes, over one pair of sockets. Each message is sent and
// received whole.
#pragma once

#include <stddef.h>

#include <optional>
#include <string_view>

namespace android::qmmediaeditor::cli {

enum class Message : char {
    // From the worker.
    kLine = 'l',      // text for standard error, without the last line break
    kBar = 'b',       // the progress bar; the part between kGreenBegin and kGreenEnd is coloured
    kNoBar = 'n',     // remove the bar
    kStage = 's',     // one Stage
    kCpuLimit = 'x',  // the kernel has sent SIGXCPU
    kResult = 'r',    // a WorkerResult, and the failure's line behind it; the last message
    // To the worker.
    kStop = 't',
    kExplain = 'e',
};

constexpr char kGreenBegin = 1;
constexpr char kGreenEnd = 2;

// How far the worker is.
enum class WorkerStage : char {
    kOpening,
    kStarting,     // the run goes on, and nothing has been written that could be kept
    kTranscoding,  // a stop keeps what has been written
    kChecking,
};

struct WorkerResult {
    int status = 0;           // an ExitStatus
    bool keepOutput = false;  // the output gets its name
    int traceError = 0;       // errno of the first failed write of the trace
};

class Link {
public:
    static constexpr size_t kMaxPayload = 16 * 1024;

    // `fd` is one end of a SOCK_SEQPACKET pair; the caller's.
    explicit Link(int fd) : mFd(fd) {}
    int fd() const { return mFd; }

    // Longer payloads are cut. Waits while the other end does not read; false when it has gone.
    // Async-signal-safe, on any thread.
    bool send(Message message, std::string_view payload = {}) const;

    struct Received {
        Message message;
        std::string_view payload;  // in the caller's buffer
    };
    // Waits for a message; nothing when the other end has gone. `buffer` has kBufferBytes bytes.
    static constexpr size_t kBufferBytes = kMaxPayload + 1;
    std::optional<Received> receive(char* buffer) const;

private:
    const int mFd;
};

}  // namespace android::qmmediaeditor::cli
