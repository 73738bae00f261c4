// Reads the command's signals from a descriptor, in the parent process.
#pragma once

#include <stdint.h>
#include <sys/signalfd.h>

namespace android::qmmediaeditor::cli {

enum class SignalAction {
    kNone,
    kChildEnded,
    kTerminalResized,
    kPrintState,
    kStop,     // the first request to stop
    kStopNow,  // a second one, or SIGQUIT
};

class SignalHandler {
public:
    // Blocks the signals for this process and for those that it forks.
    static void block();

    SignalHandler();
    ~SignalHandler();

    // Readable when there is a signal; -1 if the descriptor could not be created.
    int fd() const { return mFd; }
    // errno of that failure.
    int error() const { return mError; }
    // Reads one signal.
    SignalAction read();
    // For a SIGXCPU that the kernel has sent to the worker.
    SignalAction onCpuLimit();

private:
    SignalHandler(const SignalHandler&) = delete;
    SignalHandler& operator=(const SignalHandler&) = delete;

    SignalAction onStopSignal(const signalfd_siginfo& signal);
    bool isSameRequest(const signalfd_siginfo& signal) const;

    int mFd = -1;
    int mError = 0;
    bool mStopRequested = false;
    signalfd_siginfo mFirst{};  // the signal of the first request
    int64_t mFirstUs = 0;
};

}  // namespace android::qmmediaeditor::cli
