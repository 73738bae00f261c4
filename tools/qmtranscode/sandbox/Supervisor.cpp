#include <errno.h>
#include <fmt/format.h>
#include <poll.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/ImageFiles.h>
#include <qmtranscode/monitor/Timer.h>
#include <qmtranscode/sandbox/SectionWorkers.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <new>

namespace android::qmmediaeditor::cli {

namespace {

constexpr int64_t kPrintStateUs = 1000000;
// How long the last line of a stopped command waits for a blocked terminal.
constexpr int kLastLineMs = 100;

struct StageTexts {
    const char* name;    // as RunEnd's
    const char* object;  // of that verb
};

StageTexts textsOf(WorkerStage stage) {
    switch (stage) {
        case WorkerStage::kOpening:
            return {nameOf(stage), " the input"};
        case WorkerStage::kStarting:
        case WorkerStage::kTranscoding:
            return {nameOf(stage), ""};
        case WorkerStage::kVerifying:
            return {nameOf(stage), " the output"};
    }
    return {"", ""};
}

constexpr const char* kPublishing = "publishing";
constexpr std::string_view kLineBegin = "qmtranscode: ";
constexpr size_t kMaxWarningBytes = 8 * 1024;

ExitStatus exitStatus(int value) {
    for (const ExitStatus known : {kExitComplete, kExitUsage, kExitUnusable, kExitStopped}) {
        if (value == known) return known;
    }
    return kExitFailed;
}

}  // namespace

void Supervisor::ErrorOutput::append(std::string_view text) {
    text = text.substr(0, sizeof(mData) - mSize);
    memcpy(mData + mSize, text.data(), text.size());
    mSize += text.size();
}

void Supervisor::ErrorOutput::line(std::string_view text) {
    if (!hasRoom()) return;
    if (mBarSize > 0) append(console::kEraseLine);
    const size_t begin = mSize;
    append(text);
    mSize =
        begin + console::makePrintable(mData + begin, mSize - begin, console::LineBreaks::kKeep);
    append("\n");
    append({mBar, mBarSize});
}

void Supervisor::ErrorOutput::bar(std::string_view text) {
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
    // Without room, the bar is skipped, because it would be out of date by the time it is shown.
    if (!hasRoom()) return;
    append(console::kEraseLine);
    append({mBar, mBarSize});
}

void Supervisor::ErrorOutput::removeBar() {
    if (mBarSize > 0 && hasRoom()) append(console::kEraseLine);
    mBarSize = 0;
}

// Writes what a pipe or a terminal takes without blocking when poll() has found it ready.
void Supervisor::ErrorOutput::writeSome() {
    constexpr size_t kMaxWriteBytes = 4096;
    const ssize_t written = write(STDERR_FILENO, mData, std::min(mSize, kMaxWriteBytes));
    if (written < 0 && errno == EINTR) return;
    // Without standard error, there is no way to report its errors.
    const size_t done = written < 0 ? mSize : static_cast<size_t>(written);
    memmove(mData, mData + done, mSize - done);
    mSize -= done;
}

Supervisor::Supervisor(const Job& job, pid_t worker, const WorkerLink& link, SharedState* shared)
    : mJob(job), mWorker(worker), mLink(link), mShared(shared) {
    mWarnings.reserve(kMaxWarningBytes);
    // A quoted text may become twice as long.
    mObject.reserve(mJob.request.size() + mJob.names.size() +
                    2 * (kMaxWarningBytes + sizeof(mFailure)) + 4096);
}

int Supervisor::run() {
    if (mSignals.fd() < 0) mWaitError = mSignals.error();
    while (mWaitError == 0 && !mStopNow && (!mHasWorkerEnded || mIsLinkOpen)) step();
    return mWaitError != 0 || mStopNow ? endNow() : conclude();
}

// Waits for an event and handles it.
void Supervisor::step() {
    // Messages are read while there is room for their text; after a stop, in any case.
    if (mStopRequested && !mErrors.hasRoom()) mErrors.discard();
    const bool canRead = mErrors.hasRoom();
    constexpr size_t kOwn = 4;
    pollfd fds[kOwn + SectionWorkers::kMaxPolled] = {
        {mSignals.fd(), POLLIN, 0},
        {mIsLinkOpen && canRead ? mLink.fd() : -1, POLLIN, 0},
        {mIsLibraryOutputOpen && canRead ? mJob.libraryOutput : -1, POLLIN, 0},
        {mErrors.isEmpty() ? -1 : STDERR_FILENO, POLLOUT, 0},
    };
    SectionWorkers* const sections = canRead ? mJob.sections : nullptr;
    const size_t polled = kOwn + (sections == nullptr ? 0 : sections->fill(fds + kOwn));
    int timeoutMs = -1;
    if (mStateDueUs != 0) {
        const int64_t leftUs = std::max<int64_t>(mStateDueUs - nowUs(), 0);
        timeoutMs = static_cast<int>(leftUs / 1000 + 1);
    }
    if (poll(fds, polled, timeoutMs) < 0) {
        if (errno != EINTR) mWaitError = errno;
        return;
    }
    if (fds[3].revents != 0) mErrors.writeSome();
    if (fds[0].revents != 0) handleSignal(mSignals.read());
    if (fds[1].revents != 0) handleMessage();
    if (fds[2].revents != 0) handleLibraryOutput();
    if (sections != nullptr) handleSections(fds + kOwn);
    if (mStateDueUs != 0 && nowUs() >= mStateDueUs) {
        mStateDueUs = 0;
        mErrors.line("qmtranscode: the worker process does not answer");
    }
}

void Supervisor::handleSections(const pollfd* fds) {
    SectionWorkers& sections = *mJob.sections;
    const auto onLine = [this](std::string_view text) {
        mStateDueUs = 0;
        if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
        mErrors.line(text);
    };
    const auto onCpuLimit = [this] { handleSignal(mSignals.onCpuLimit()); };
    sections.handle(fds, {onLine, onCpuLimit, mJob.showsLibraryOutput});
    if (sections.failed()) mStopNow = true;
    const int percent = sections.percent();
    if (percent != mSectionsPercent) {
        mSectionsPercent = percent;
        const char code = static_cast<char>(percent);
        mLink.send(Message::kSectionsPercent, {&code, 1});
    }
    if (mHaveSectionsEnded || !sections.areDone()) return;
    mHaveSectionsEnded = true;
    // A worker that cannot be told has mostly ended already; its status says why.
    if (!mLink.send(Message::kSectionsEnded) && !mHasWorkerEnded) kill(mWorker, SIGKILL);
}

void Supervisor::handleSignal(SignalAction action) {
    switch (action) {
        case SignalAction::kNone:
            return;
        case SignalAction::kChildEnded:
            reapWorker();
            if (mJob.sections != nullptr) mJob.sections->reap();
            return;
        case SignalAction::kTerminalResized:
            mShared->columns = console::terminalColumns();
            return;
        case SignalAction::kPrintState:
            mLink.send(Message::kPrintState);
            if (mJob.sections != nullptr) mJob.sections->printState();
            mStateDueUs = nowUs() + kPrintStateUs;
            return;
        case SignalAction::kStop:
            stop();
            return;
        case SignalAction::kStopNow:
            mStopRequested = true;
            mStopNow = true;
            return;
    }
}

void Supervisor::stop() {
    mStopRequested = true;
    if (mJob.sections != nullptr && !mHaveSectionsEnded) {
        // The parts are joined as far as they go.
        mStopNow = !mJob.mayKeepPartial || !mJob.sections->canStop();
        if (!mStopNow) mJob.sections->stop();
        return;
    }
    const bool isKeepable = mStage == WorkerStage::kTranscoding && mJob.mayKeepPartial;
    if (!isKeepable || !mLink.send(Message::kStop)) mStopNow = true;
}

void Supervisor::handleMessage() {
    char buffer[WorkerLink::kBufferBytes];
    const auto received = mLink.receive(buffer);
    if (!received) {
        mIsLinkOpen = false;
        return;
    }
    const std::string_view payload = received->payload;
    switch (received->message) {
        case Message::kLine:
            mStateDueUs = 0;
            mErrors.line(payload);
            return;
        case Message::kWarning:
            mStateDueUs = 0;
            warn(payload);
            return;
        case Message::kBar:
            mErrors.bar(payload);
            return;
        case Message::kRemoveBar:
            mErrors.removeBar();
            return;
        case Message::kStage:
            if (payload.size() == 1 && static_cast<unsigned char>(payload[0]) <=
                                           static_cast<unsigned char>(WorkerStage::kVerifying)) {
                mStage = static_cast<WorkerStage>(payload[0]);
            }
            return;
        case Message::kParts:
            if (payload.size() != sizeof(size_t)) return;
            memcpy(&mParts.emplace(), payload.data(), sizeof(size_t));
            return;
        case Message::kCpuLimit:
            handleSignal(mSignals.onCpuLimit());
            return;
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

void Supervisor::handleLibraryOutput() {
    char buffer[1024];
    const ssize_t size = read(mJob.libraryOutput, buffer, sizeof(buffer));
    if (size <= 0) mIsLibraryOutputOpen = false;
    if (size <= 0 || !mJob.showsLibraryOutput) return;
    std::string_view text(buffer, static_cast<size_t>(size));
    if (text.back() == '\n') text.remove_suffix(1);
    mErrors.line(text);
}

bool Supervisor::reapWorker() {
    if (mHasWorkerEnded) return true;
    pid_t result;
    do {
        result = wait4(mWorker, &mWorkerStatus, WNOHANG, &mUsage);
    } while (result < 0 && errno == EINTR);
    mHasWorkerEnded = result == mWorker || result < 0;
    return mHasWorkerEnded;
}

// Reads a signal while the command waits to write its last lines, after the worker has ended. After
// a stop, the remaining waits are short, so that one signal ends them all.
bool Supervisor::readStopSignal() {
    const SignalAction action = mSignals.read();
    const bool isStop = action == SignalAction::kStop || action == SignalAction::kStopNow;
    if (isStop) mStopRequested = true;
    return isStop;
}

// Until everything is written to standard error or the time is over; -1 means no limit.
void Supervisor::flush(int timeoutMs) {
    const int64_t endUs = nowUs() + int64_t{timeoutMs} * 1000;
    while (!mErrors.isEmpty()) {
        pollfd fds[] = {{STDERR_FILENO, POLLOUT, 0}, {mSignals.fd(), POLLIN, 0}};
        int left = -1;
        if (timeoutMs >= 0) left = static_cast<int>(std::max<int64_t>(endUs - nowUs(), 0) / 1000);
        const int ready = poll(fds, 2, left);
        if (ready == 0) return;
        if (fds[0].revents != 0) {
            mErrors.writeSome();
        } else if (fds[1].revents != 0 && readStopSignal()) {
            return;
        }
    }
}

// Prints a line that begins with the command's name, and keeps it for the object of the run.
void Supervisor::warn(std::string_view text) {
    mErrors.line(text);
    text.remove_prefix(std::min(kLineBegin.size(), text.size()));
    if (mWarnings.size() + text.size() + 1 > kMaxWarningBytes) return;
    if (!mWarnings.empty()) mWarnings += '\n';
    mWarnings += text;
}

int Supervisor::endNow() {
    kill(mWorker, SIGKILL);
    if (mJob.sections != nullptr) mJob.sections->killAll();
    PendingFile::removeNow();
    mErrors.removeBar();
    if (!mErrors.hasRoom()) mErrors.discard();
    mStopRequested = true;
    const StageTexts stage = textsOf(mStage);
    const std::optional<int> section =
        mJob.sections == nullptr ? std::nullopt : mJob.sections->failed();
    char reason[256];
    const int status =
        section           ? fail(mJob.sections->endOf(*section, mJob.input, reason, sizeof(reason)))
        : mWaitError == 0 ? fail({"nothing written", kExitStopped, stage.name, kStoppedCode, "",
                                  "stopped; nothing was kept"})
                          : fail({"failed", kExitFailed, stage.name, "no-supervision",
                                  "the worker process cannot be supervised", strerror(mWaitError)});
    flush(kLastLineMs);
    reapWorker();
    return status;
}

int Supervisor::conclude() {
    mErrors.removeBar();
    // A short time, because a finished output must not wait for a terminal to get its name.
    flush(kLastLineMs);
    // A sanitizer changes the status of a worker that has given its result.
    const bool isWell =
        mHasResult && WIFEXITED(mWorkerStatus) && WEXITSTATUS(mWorkerStatus) == mResult.status;
    const int status = isWell ? publish() : workerCrashed();
    flush(mStopRequested ? kLastLineMs : -1);
    return status;
}

int Supervisor::workerCrashed() {
    char cause[64] = "ended without a result";
    if (WIFSIGNALED(mWorkerStatus)) {
        const char* const name = sigabbrev_np(WTERMSIG(mWorkerStatus));
        *fmt::format_to_n(cause, sizeof(cause) - 1, "was terminated by SIG{}",
                          name == nullptr ? "?" : name)
             .out = '\0';
    }
    char reason[256];
    const StageTexts stage = textsOf(mStage);
    const auto end = fmt::format_to_n(reason, sizeof(reason),
                                      "the worker process {} while {}{}; nothing was kept", cause,
                                      stage.name, stage.object);
    return fail({"failed",
                 kExitFailed,
                 stage.name,
                 "worker-crashed",
                 std::string_view(mJob.input).substr(0, 300),
                 {reason, end.size}});
}

// Without allocating, because the worker may have used up the memory.
int Supervisor::fail(const RunEnd& end) {
    if (mJob.printsObject) static_cast<void>(printReport(end, ""));
    char line[640];
    const auto text = fmt::format_to_n(line, sizeof(line), "{}{}{}{}", kLineBegin, end.subject,
                                       end.subject.empty() ? "" : ": ", end.reason);
    mErrors.line({line, std::min(text.size, sizeof(line))});
    return end.exitStatus;
}

int Supervisor::publish() {
    const bool isPlan = mJob.output == nullptr;
    const char* stage = textsOf(mStage).name;
    std::optional<Failure> failure = receivedFailure();
    const bool isWell = !failure;
    bool isKept = mResult.keepOutput && !isPlan;
    if (isKept) {
        if (auto reason = mJob.output->commit()) {
            failure = reason;
            stage = kPublishing;
            isKept = false;
        }
    }
    const std::string complete = isPlan ? "" : mJob.output->path() + " is complete; ";
    if (mJob.trace != nullptr) {
        if (auto reason = commitTrace()) {
            if (failure) {
                warn(std::string(kLineBegin) + reason->text());
            } else {
                reason->subject = complete + reason->subject;
                failure = reason;
                stage = kPublishing;
            }
        }
    }
    if (mJob.images >= 0 && isKept && isWell) {
        if (auto reason = publishImages(*mJob.options, mJob.images, mJob.options->fileNames())) {
            if (failure) {
                warn(std::string(kLineBegin) + reason->text());
            } else {
                reason->subject = complete + reason->subject;
                reason->status = kExitFailed;
                failure = reason;
                stage = kPublishing;
            }
        }
    }
    RunEnd end;
    end.status = isPlan ? "planned" : isWell ? "complete" : "stopped";
    if (mResult.ending == Ending::kAlready) end.status = "already";
    if (mResult.ending == Ending::kCopied) end.status = "kept";
    if (failure) {
        end.exitStatus = failure->status;
        if (!isKept) end.status = end.exitStatus == kExitStopped ? "nothing written" : "failed";
        end.stage = stage;
        end.code = failure->code;
        end.subject = failure->subject;
        end.reason = failure->reason;
    }
    std::string receipt;
    bool isPrinted = true;
    try {
        if (isKept || (isWell && !mResult.keepOutput)) isPrinted = readReceipt(&receipt);
        if (isPrinted) isPrinted = printReport(end, receipt);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        isPrinted = false;
    }
    if (!isPrinted) {
        Failure lost = systemFailure(kExitFailed, isPlan ? "standard output" : "", errno);
        if (!isPlan) lost.reason = "the receipt could not be written: " + lost.reason;
        if (failure) {
            failure->reason += "; " + lost.reason;
        } else {
            if (!isPlan) lost.reason = complete + lost.reason;
            failure = lost;
        }
    }
    if (!failure) return kExitComplete;
    mErrors.line(std::string(kLineBegin) + failure->text());
    return failure->status;
}

// The failure that the worker has reported; nothing for a success.
std::optional<Failure> Supervisor::receivedFailure() const {
    const ExitStatus status = exitStatus(mResult.status);
    if (status == kExitComplete) return std::nullopt;
    std::string_view texts(mFailure, mFailureSize);
    const auto take = [&texts](size_t size) {
        const std::string_view text = texts.substr(0, size);
        texts.remove_prefix(text.size());
        return std::string(text);
    };
    Failure failure{status, "", "", take(mResult.codeBytes)};
    if (failure.code.empty()) failure.code = "unknown-error";
    failure.subject = take(mResult.subjectBytes);
    failure.reason = texts;
    return failure;
}

// Writes the trace to disk and gives it its name, unless the worker could not write all of it.
std::optional<Failure> Supervisor::commitTrace() {
    std::optional<Failure> failure;
    if (mResult.traceError != 0) {
        failure = systemFailure(kExitFailed, mJob.trace->path(), mResult.traceError);
    } else {
        failure = mJob.trace->commit();
    }
    if (failure) failure->reason = "the trace could not be written: " + failure->reason;
    return failure;
}

// The worker's receipt or plan, with CPU time and memory, which are known only now. False with
// errno on error.
bool Supervisor::readReceipt(std::string* text) {
    if (mJob.sections != nullptr) mJob.sections->addUsage(&mUsage);
    return cli::readReceipt(mJob.receipt, usageOf(mUsage), text);
}

// Prints the receipt, or the object of the run with it. False as printAndCheck().
bool Supervisor::printReport(const RunEnd& end, std::string_view receipt) {
    const std::string_view members = membersOf(receipt);
    if (mJob.printsObject || !members.empty()) {
        makeObject(end, mWarnings, mJob.request, members.empty() ? mJob.names : members, &mObject);
    } else {
        mObject = receipt;
    }
    mObject.resize(
        console::makePrintable(mObject.data(), mObject.size(), console::LineBreaks::kKeep));
    if (mJob.object != nullptr && mJob.printsObject) {
        *mJob.object = mObject;
        return true;
    }
    return printAndCheck(mObject);
}

// False, with errno, if not all of it could be written or a signal ended the wait.
bool Supervisor::printAndCheck(std::string_view text) {
    if (text.empty()) return true;
    constexpr size_t kMaxWriteBytes = 4096;
    while (!text.empty()) {
        pollfd fds[] = {{STDOUT_FILENO, POLLOUT, 0}, {mSignals.fd(), POLLIN, 0}};
        const int ready = poll(fds, 2, mStopRequested ? kLastLineMs : -1);
        if (ready == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        if (fds[0].revents == 0) {
            if (!readStopSignal()) continue;
            errno = EINTR;
            return false;
        }
        const ssize_t written =
            write(STDOUT_FILENO, text.data(), std::min(text.size(), kMaxWriteBytes));
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) text.remove_prefix(static_cast<size_t>(written));
    }
    return checkByClosing(STDOUT_FILENO) == 0;
}

}  // namespace android::qmmediaeditor::cli
