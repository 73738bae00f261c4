#include <errno.h>
#include <poll.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/monitor/LogOutput.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Receipt.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int kExplainMs = 1000;
// How long the last line of a stopped command waits for a terminal.
constexpr int kLastLineMs = 100;

// A shell starts background jobs with SIGINT ignored, and a signal that is sent to one of them is
// meant. An ignored SIGHUP is nohup's, and stays ignored.
sigset_t takenSignals() {
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

int terminalColumns() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) return 0;
    return size.ws_col;
}

const char* textOf(WorkerStage stage) {
    switch (stage) {
        case WorkerStage::kOpening:
            return "opening the input";
        case WorkerStage::kStarting:
        case WorkerStage::kTranscoding:
            return "transcoding";
        case WorkerStage::kChecking:
            return "checking the output";
    }
    return "";
}

ExitStatus exitStatus(int value) {
    for (const ExitStatus known : {kExitComplete, kExitUsage, kExitUnusable, kExitStopped}) {
        if (value == known) return known;
    }
    return kExitFailed;
}

}  // namespace

void blockSignals() {
    signal(SIGINT, SIG_DFL);
    const sigset_t signals = takenSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

void Supervisor::Screen::append(std::string_view text) {
    text = text.substr(0, sizeof(mData) - mSize);
    memcpy(mData + mSize, text.data(), text.size());
    mSize += text.size();
}

void Supervisor::Screen::line(std::string_view text) {
    if (!hasRoom()) return;
    if (mBarSize > 0) append(console::kEraseLine);
    const size_t begin = mSize;
    append(text);
    mSize =
        begin + console::makePrintable(mData + begin, mSize - begin, console::LineBreaks::kKeep);
    append("\n");
    append({mBar, mBarSize});
}

void Supervisor::Screen::bar(std::string_view text) {
    constexpr std::string_view kGreen = "\x1b[32m";
    constexpr std::string_view kPlain = "\x1b[m";
    mBarSize = 0;
    const auto add = [this](std::string_view part) {
        part = part.substr(0, sizeof(mBar) - mBarSize);
        memcpy(mBar + mBarSize, part.data(), part.size());
        mBarSize += part.size();
    };
    while (!text.empty()) {
        const size_t mark = std::min(text.find(kGreenBegin), text.find(kGreenEnd));
        const size_t begin = mBarSize;
        add(text.substr(0, mark));
        mBarSize = begin + console::makePrintable(mBar + begin, mBarSize - begin,
                                                  console::LineBreaks::kReplace);
        if (mark >= text.size()) break;
        add(text[mark] == kGreenBegin ? kGreen : kPlain);
        text.remove_prefix(mark + 1);
    }
    // A bar that the terminal has no room for is out of date by the time that it has.
    if (!hasRoom()) return;
    append(console::kEraseLine);
    append({mBar, mBarSize});
}

void Supervisor::Screen::removeBar() {
    if (mBarSize > 0 && hasRoom()) append(console::kEraseLine);
    mBarSize = 0;
}

// A pipe or a terminal that poll() has found ready takes this much without waiting.
void Supervisor::Screen::writeSome() {
    constexpr size_t kAtOnce = 4096;
    const ssize_t written = write(STDERR_FILENO, mData, std::min(mSize, kAtOnce));
    if (written < 0 && errno == EINTR) return;
    // Nobody can be told that standard error cannot be written.
    const size_t done = written < 0 ? mSize : static_cast<size_t>(written);
    memmove(mData, mData + done, mSize - done);
    mSize -= done;
}

Supervisor::Supervisor(const Job& job, pid_t worker, const Link& link, SharedState* shared)
    : mJob(job), mWorker(worker), mLink(link), mShared(shared) {
    const sigset_t signals = takenSignals();
    mSignals = signalfd(-1, &signals, SFD_CLOEXEC);
}

Supervisor::~Supervisor() {
    if (mSignals >= 0) close(mSignals);
}

int Supervisor::run() {
    if (mSignals < 0) mEndAtOnce = true;
    while (!mEndAtOnce && (!mWorkerEnded || mLinkOpen)) step(-1);
    return mEndAtOnce ? endAtOnce() : conclude();
}

// Waits until something has happened, and deals with it.
void Supervisor::step(int timeoutMs) {
    // The worker is heard when there is room for what it says; once it is to stop, in any case.
    if (mStopRequested && !mScreen.hasRoom()) mScreen.drop();
    const bool hears = mScreen.hasRoom();
    pollfd fds[] = {
        {mSignals, POLLIN, 0},
        {mLinkOpen && hears ? mLink.fd() : -1, POLLIN, 0},
        {mLibraryOpen && hears ? mJob.libraryOutput : -1, POLLIN, 0},
        {mScreen.isEmpty() ? -1 : STDERR_FILENO, POLLOUT, 0},
    };
    if (mExplainDueUs != 0) {
        const int64_t leftUs = std::max<int64_t>(mExplainDueUs - nowUs(), 0);
        const int leftMs = static_cast<int>(leftUs / 1000 + 1);
        timeoutMs = timeoutMs < 0 ? leftMs : std::min(timeoutMs, leftMs);
    }
    if (poll(fds, 4, timeoutMs) < 0) return;
    if (fds[3].revents != 0) mScreen.writeSome();
    if (fds[0].revents != 0) takeSignal();
    if (fds[1].revents != 0) takeMessage();
    if (fds[2].revents != 0) takeLibraryOutput();
    if (mExplainDueUs != 0 && nowUs() >= mExplainDueUs) {
        mExplainDueUs = 0;
        mScreen.line("qmtranscode: the worker does not answer");
    }
}

void Supervisor::takeSignal() {
    signalfd_siginfo info{};
    if (read(mSignals, &info, sizeof(info)) != sizeof(info)) return;
    switch (info.ssi_signo) {
        case SIGCHLD:
            reapWorker();
            return;
        case SIGWINCH:
            mShared->columns = terminalColumns();
            return;
        case SIGUSR1:
            explain();
            return;
        default:
            stop(info);
    }
}

void Supervisor::explain() {
    mLink.send(Message::kExplain);
    mExplainDueUs = nowUs() + kExplainMs * 1000;
}

void Supervisor::stop(const signalfd_siginfo& signal) {
    // timeout(1) sends its signal to the process and to its group: that is one wish.
    constexpr int64_t kOneWishUs = 100000;
    const bool doubled = signal.ssi_pid != 0 && signal.ssi_pid == mFirstSignal.ssi_pid &&
                         signal.ssi_signo == mFirstSignal.ssi_signo &&
                         nowUs() - mFirstSignalUs < kOneWishUs;
    // Beyond a limit of CPU time, the kernel sends SIGXCPU again each second.
    // When a terminal closes, its shell and the kernel send one SIGHUP each, in either order.
    const bool isTerminalGone =
        signal.ssi_signo == SIGHUP && mFirstSignal.ssi_signo == SIGHUP &&
        (signal.ssi_code == SI_KERNEL || mFirstSignal.ssi_code == SI_KERNEL);
    const bool isRepeated =
        doubled || isTerminalGone || (signal.ssi_signo == SIGXCPU && signal.ssi_code == SI_KERNEL);
    if (mStopRequested) {
        if (!isRepeated) mEndAtOnce = true;
        return;
    }
    mStopRequested = true;
    mFirstSignal = signal;
    mFirstSignalUs = nowUs();
    const bool isKeepable = mStage == WorkerStage::kTranscoding && mJob.mayKeepPartial;
    if (!isKeepable || signal.ssi_signo == SIGQUIT || !mLink.send(Message::kStop)) {
        mEndAtOnce = true;
    }
}

void Supervisor::takeMessage() {
    char buffer[Link::kBufferBytes];
    const auto received = mLink.receive(buffer);
    if (!received) {
        mLinkOpen = false;
        return;
    }
    const std::string_view payload = received->payload;
    switch (received->message) {
        case Message::kLine:
            mExplainDueUs = 0;
            mScreen.line(payload);
            return;
        case Message::kBar:
            mScreen.bar(payload);
            return;
        case Message::kNoBar:
            mScreen.removeBar();
            return;
        case Message::kStage:
            if (payload.size() == 1 && static_cast<unsigned char>(payload[0]) <=
                                           static_cast<unsigned char>(WorkerStage::kChecking)) {
                mStage = static_cast<WorkerStage>(payload[0]);
            }
            return;
        case Message::kCpuLimit: {
            signalfd_siginfo info{};
            info.ssi_signo = SIGXCPU;
            info.ssi_code = SI_KERNEL;
            stop(info);
            return;
        }
        case Message::kResult:
            if (payload.size() < sizeof(mResult)) return;
            memcpy(&mResult, payload.data(), sizeof(mResult));
            mFailureSize = std::min(payload.size() - sizeof(mResult), sizeof(mFailure));
            memcpy(mFailure, payload.data() + sizeof(mResult), mFailureSize);
            mHasResult = true;
            return;
        default:
            return;
    }
}

void Supervisor::takeLibraryOutput() {
    char buffer[1024];
    const ssize_t size = read(mJob.libraryOutput, buffer, sizeof(buffer));
    if (size <= 0) mLibraryOpen = false;
    if (size <= 0 || !mJob.showsLibraryOutput) return;
    std::string_view text(buffer, static_cast<size_t>(size));
    if (text.back() == '\n') text.remove_suffix(1);
    mScreen.line(text);
}

bool Supervisor::reapWorker() {
    if (mWorkerEnded) return true;
    pid_t result;
    do {
        result = wait4(mWorker, &mWorkerStatus, WNOHANG, &mUsage);
    } while (result < 0 && errno == EINTR);
    mWorkerEnded = result == mWorker || result < 0;
    return mWorkerEnded;
}

// Whether a signal ends the wait for a reader, which is all that is left to stop once the worker
// has ended. The waits that follow are short, because one signal has to end them all.
bool Supervisor::endsWait(const signalfd_siginfo& signal) {
    if (signal.ssi_signo == SIGCHLD || signal.ssi_signo == SIGWINCH) return false;
    if (signal.ssi_signo == SIGUSR1) return false;
    mStopRequested = true;
    return true;
}

// Until everything stands on standard error, or the time is over; without a limit for -1.
void Supervisor::flush(int timeoutMs) {
    const int64_t endUs = nowUs() + int64_t{timeoutMs} * 1000;
    while (!mScreen.isEmpty()) {
        pollfd fds[] = {{STDERR_FILENO, POLLOUT, 0}, {mSignals, POLLIN, 0}};
        int left = -1;
        if (timeoutMs >= 0) left = static_cast<int>(std::max<int64_t>(endUs - nowUs(), 0) / 1000);
        const int ready = poll(fds, 2, left);
        if (ready == 0) return;
        if (fds[0].revents != 0) {
            mScreen.writeSome();
        } else if (fds[1].revents != 0) {
            signalfd_siginfo info{};
            const bool isRead = read(mSignals, &info, sizeof(info)) == sizeof(info);
            if (isRead && endsWait(info)) return;
        }
    }
}

int Supervisor::endAtOnce() {
    kill(mWorker, SIGKILL);
    OutputFile::removeNow();
    mScreen.removeBar();
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    if (!mJob.lastWords.empty() && poll(&out, 1, kLastLineMs) == 1) {
        const ssize_t written = write(STDOUT_FILENO, mJob.lastWords.data(), mJob.lastWords.size());
        static_cast<void>(written);
    }
    if (!mScreen.hasRoom()) mScreen.drop();
    mScreen.line("qmtranscode: stopped; nothing was kept");
    flush(kLastLineMs);
    reapWorker();
    return kExitStopped;
}

int Supervisor::conclude() {
    mScreen.removeBar();
    // A finished output does not wait for a terminal to get its name.
    flush(kLastLineMs);
    // A sanitizer changes the status of a worker that has given its result.
    const bool isWell =
        mHasResult && WIFEXITED(mWorkerStatus) && WEXITSTATUS(mWorkerStatus) == mResult.status;
    const int status = isWell ? kept() : crashed();
    flush(mStopRequested ? kLastLineMs : -1);
    return status;
}

int Supervisor::crashed() {
    char line[512];
    char reason[128];
    if (WIFSIGNALED(mWorkerStatus)) {
        const int signal = WTERMSIG(mWorkerStatus);
        const char* const name = sigabbrev_np(signal);
        snprintf(reason, sizeof(reason), "ended by SIG%s", name == nullptr ? "?" : name);
    } else {
        snprintf(reason, sizeof(reason), "ended without a result");
    }
    snprintf(line, sizeof(line), "qmtranscode: %.300s: the worker process was %s while %s; %s",
             mJob.input.c_str(), reason, textOf(mStage), "nothing was kept");
    mScreen.line(line);
    return kExitFailed;
}

int Supervisor::kept() {
    ExitStatus status = exitStatus(mResult.status);
    std::string failure(mFailure, mFailureSize);
    bool isComplete = status == kExitComplete;
    bool isKept = true;
    const auto fail = [&](const Failure& reason) {
        status = reason.status;
        failure = reason.subject.empty() ? reason.reason : reason.subject + ": " + reason.reason;
        isComplete = false;
    };
    if (mResult.keepOutput && mJob.output != nullptr) {
        if (auto reason = mJob.output->keep()) {
            fail(*reason);
            isKept = false;
        }
    }
    const std::string output = mJob.output == nullptr ? "" : mJob.output->path();
    if (isKept && !printReceipt()) {
        const std::string lost =
            "; the receipt could not be written: " + std::string(strerror(errno));
        if (mJob.output == nullptr) {
            fail({kExitFailed, "standard output", strerror(errno)});
        } else if (isComplete) {
            fail({kExitFailed, "", output + " is complete" + lost});
        } else {
            failure += lost;
        }
    }
    if (mJob.trace != nullptr) {
        if (auto reason = mJob.trace->commit(mResult.traceError)) {
            if (isComplete) {
                fail({kExitFailed, output + " is complete; " + reason->subject, reason->reason});
            } else {
                mScreen.line("qmtranscode: " + reason->subject + ": " + reason->reason);
            }
        }
    }
    if (status != kExitComplete) mScreen.line("qmtranscode: " + failure);
    return status;
}

// CPU time and memory are known when the worker has ended, so that the receipt has marks in their
// places.
bool Supervisor::printReceipt() {
    struct stat file {};
    if (fstat(mJob.receipt, &file) != 0) return false;
    std::string raw(static_cast<size_t>(file.st_size), '\0');
    const ssize_t size = pread(mJob.receipt, raw.data(), raw.size(), 0);
    if (size < 0) return false;
    raw.resize(static_cast<size_t>(size));
    if (raw.empty()) return true;
    const Usage usage = usageOf(mUsage);
    std::string text;
    size_t begin = 0;
    while (begin <= raw.size()) {
        const size_t mark = std::min(raw.find_first_of(kUsageMarks, begin), raw.size());
        text += console::printable(raw.substr(begin, mark - begin), console::LineBreaks::kKeep);
        if (mark < raw.size()) text += usageText(usage, raw[mark]);
        begin = mark + 1;
    }
    return printChecked(text);
}

// False, with errno, when not all of it could be written, or when a signal ended the wait.
bool Supervisor::printChecked(std::string_view text) {
    constexpr size_t kAtOnce = 4096;
    while (!text.empty()) {
        pollfd fds[] = {{STDOUT_FILENO, POLLOUT, 0}, {mSignals, POLLIN, 0}};
        const int ready = poll(fds, 2, mStopRequested ? kLastLineMs : -1);
        if (ready == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        if (fds[0].revents == 0) {
            signalfd_siginfo info{};
            const bool isRead = read(mSignals, &info, sizeof(info)) == sizeof(info);
            if (!isRead || !endsWait(info)) continue;
            errno = EINTR;
            return false;
        }
        const ssize_t written = write(STDOUT_FILENO, text.data(), std::min(text.size(), kAtOnce));
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) text.remove_prefix(static_cast<size_t>(written));
    }
    return checkByClosing(STDOUT_FILENO) == 0;
}

}  // namespace android::qmmediaeditor::cli
