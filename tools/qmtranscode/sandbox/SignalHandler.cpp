#include <errno.h>
#include <qmtranscode/monitor/Timer.h>
#include <qmtranscode/sandbox/SignalHandler.h>
#include <signal.h>
#include <unistd.h>

#include <initializer_list>

namespace android::qmmediaeditor::cli {

namespace {

// Whether SIGINT was ignored at the start. A script starts background jobs so, because an interrupt
// typed at the terminal is not for them; a SIGINT that a process sends to the job is.
bool gIgnoresTerminalInterrupt = false;

// A SIGHUP that nohup has ignored stays ignored.
sigset_t handledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGXCPU, SIGUSR1, SIGCHLD, SIGWINCH}) {
        sigaddset(&signals, signal);
    }
    struct sigaction hangup {};
    sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
    return signals;
}

}  // namespace

void SignalHandler::block() {
    struct sigaction interrupt {};
    sigaction(SIGINT, nullptr, &interrupt);
    gIgnoresTerminalInterrupt = interrupt.sa_handler == SIG_IGN;
    signal(SIGINT, SIG_DFL);
    // Some programs leave SIGCHLD ignored to their children. It would then not report the worker's
    // end.
    signal(SIGCHLD, SIG_DFL);
    const sigset_t signals = handledSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

SignalHandler::SignalHandler() {
    const sigset_t signals = handledSignals();
    mFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (mFd < 0) mError = errno;
}

SignalHandler::~SignalHandler() {
    if (mFd >= 0) close(mFd);
}

SignalAction SignalHandler::read() {
    signalfd_siginfo signal{};
    if (::read(mFd, &signal, sizeof(signal)) != sizeof(signal)) return SignalAction::kNone;
    switch (signal.ssi_signo) {
        case SIGCHLD:
            return SignalAction::kChildEnded;
        case SIGWINCH:
            return SignalAction::kTerminalResized;
        case SIGUSR1:
            return SignalAction::kPrintState;
        case SIGINT:
            if (gIgnoresTerminalInterrupt && signal.ssi_code == SI_KERNEL) {
                return SignalAction::kNone;
            }
            return onStopSignal(signal);
        default:
            return onStopSignal(signal);
    }
}

SignalAction SignalHandler::onCpuLimit() {
    signalfd_siginfo signal{};
    signal.ssi_signo = SIGXCPU;
    signal.ssi_code = SI_KERNEL;
    return onStopSignal(signal);
}

SignalAction SignalHandler::onStopSignal(const signalfd_siginfo& signal) {
    if (mStopRequested) return isSameRequest(signal) ? SignalAction::kNone : SignalAction::kStopNow;
    mStopRequested = true;
    mFirst = signal;
    mFirstUs = nowUs();
    return signal.ssi_signo == SIGQUIT ? SignalAction::kStopNow : SignalAction::kStop;
}

// Whether a later signal belongs to the first request to stop.
bool SignalHandler::isSameRequest(const signalfd_siginfo& signal) const {
    // timeout(1) sends its signal to the process and to its group.
    constexpr int64_t kSameRequestUs = 100000;
    const bool isDoubled = signal.ssi_pid != 0 && signal.ssi_pid == mFirst.ssi_pid &&
                           signal.ssi_signo == mFirst.ssi_signo &&
                           nowUs() - mFirstUs < kSameRequestUs;
    // When a terminal closes, its shell and the kernel send one SIGHUP each, in either order.
    const bool isClosedTerminal = signal.ssi_signo == SIGHUP && mFirst.ssi_signo == SIGHUP &&
                                  (signal.ssi_code == SI_KERNEL || mFirst.ssi_code == SI_KERNEL);
    // Beyond a limit of CPU time, the kernel sends SIGXCPU again each second.
    const bool isCpuLimit = signal.ssi_signo == SIGXCPU && signal.ssi_code == SI_KERNEL;
    return isDoubled || isClosedTerminal || isCpuLimit;
}

}  // namespace android::qmmediaeditor::cli
