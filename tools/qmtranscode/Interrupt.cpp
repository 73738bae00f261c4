#include <poll.h>
#include <qmtranscode/Console.h>
#include <qmtranscode/Failure.h>
#include <qmtranscode/Interrupt.h>
#include <qmtranscode/LogOutput.h>
#include <qmtranscode/OutputFile.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

// A shell starts background jobs with SIGINT ignored; whoever sends it to us means it. An ignored
// SIGHUP is nohup's, and stays so.
sigset_t takenSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGXCPU);
    sigaddset(&signals, SIGUSR1);
    struct sigaction hangup {};
    sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
    return signals;
}

// Past all buffers and locks: a stalled terminal may hold them.
void say(int fd, const std::string& text) {
    const ssize_t written = write(fd, text.data(), text.size());
    static_cast<void>(written);
}

}  // namespace

Interrupt::Interrupt(std::function<void()> explain, std::string lastWords)
    : mExplain(std::move(explain)), mLastWords(std::move(lastWords)) {
    signal(SIGINT, SIG_DFL);
    const sigset_t signals = takenSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    mSignalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    mEndFd = eventfd(0, EFD_CLOEXEC);
    mThread = std::thread([this] { waitForSignals(); });
}

Interrupt::~Interrupt() {
    eventfd_write(mEndFd, 1);
    mThread.join();
    close(mSignalFd);
    close(mEndFd);
}

void Interrupt::onFirst(std::function<void()> stop) {
    Mutex::Autolock lock(mLock);
    mStop = std::move(stop);
}

void Interrupt::endAtFirst() {
    Mutex::Autolock lock(mLock);
    mStop = nullptr;
}

void Interrupt::beginKeeping() {
    Ending open = Ending::kOpen;
    if (mEnding.compare_exchange_strong(open, Ending::kKeeping)) return;
    while (true) pause();
}

void Interrupt::endProcess() {
    Ending open = Ending::kOpen;
    if (!mEnding.compare_exchange_strong(open, Ending::kAtOnce)) {
        if (open == Ending::kKept) _exit(kExitStopped);
        return;
    }
    OutputFile::removeNow();
    if (isatty(STDERR_FILENO) == 1) say(STDERR_FILENO, console::kEraseLine);
    say(STDOUT_FILENO, mLastWords);
    say(STDERR_FILENO, "qmtranscode: stopped; nothing was kept\n");
    _exit(kExitStopped);
}

void Interrupt::waitForSignals() {
    signalfd_siginfo first{};
    int64_t firstUs = 0;
    pollfd fds[] = {{mSignalFd, POLLIN, 0}, {mEndFd, POLLIN, 0}};
    while (true) {
        if (poll(fds, 2, -1) < 0) continue;
        if (fds[1].revents != 0) return;
        signalfd_siginfo info{};
        if (read(mSignalFd, &info, sizeof(info)) != sizeof(info)) continue;
        if (info.ssi_signo == SIGUSR1) {
            mExplain();
            continue;
        }
        // timeout(1) sends its signal to the process and to its group: that is one wish.
        constexpr int64_t kOneWishUs = 100000;
        const bool doubled = info.ssi_pid != 0 && info.ssi_pid == first.ssi_pid &&
                             info.ssi_signo == first.ssi_signo && nowUs() - firstUs < kOneWishUs;
        // Beyond a limit of CPU time, the kernel sends SIGXCPU again each second.
        const bool repeated = doubled || (info.ssi_signo == SIGXCPU && info.ssi_code == SI_KERNEL);
        if (mRequested) {
            if (!repeated) endProcess();
            continue;
        }
        first = info;
        firstUs = nowUs();
        Mutex::Autolock lock(mLock);
        mRequested = true;
        if (mStop) {
            mStop();
        } else {
            endProcess();
        }
    }
}

}  // namespace android::qmmediaeditor::cli
