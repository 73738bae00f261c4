#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <qmtranscode/sandbox/SectionWorkers.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

bool SectionWorkers::start(const Options& options, JobFiles* files, SharedState* shared,
                           pid_t parent, StartWorker* startWorker) {
    mWorkers.resize(files->sections.size());
    for (size_t i = 0; i < mWorkers.size(); ++i) {
        int links[2];
        int output[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, links) != 0) return false;
        if (pipe2(output, O_CLOEXEC) != 0) return false;
        Worker& worker = mWorkers[i];
        worker.pid = fork();
        if (worker.pid == 0) {
            closeLinks();
            close(links[0]);
            close(output[0]);
            Options own = options;
            own.section = Section{static_cast<int32_t>(i), options.jobs};
            own.progress = ProgressStyle::kNone;
            files->receipt = memfd_create("qmtranscode-receipt", MFD_CLOEXEC);
            const WorkerLink link(links[1]);
            startWorker(own, files, link, shared, output[1], parent);
            _exit(kExitFailed);
        }
        close(links[1]);
        close(output[1]);
        fcntl(links[0], F_SETFL, O_NONBLOCK);
        worker.link = links[0];
        worker.libraryOutput = output[0];
        if (worker.pid < 0) {
            const int error = errno;
            killAll();
            errno = error;
            return false;
        }
    }
    return true;
}

void SectionWorkers::closeLinks() {
    for (Worker& worker : mWorkers) {
        if (worker.link >= 0) close(worker.link);
        if (worker.libraryOutput >= 0) close(worker.libraryOutput);
        worker.link = worker.libraryOutput = -1;
    }
}

size_t SectionWorkers::fill(pollfd* fds) const {
    size_t count = 0;
    for (const Worker& worker : mWorkers) {
        fds[count++] = {worker.link, POLLIN, 0};
        fds[count++] = {worker.libraryOutput, POLLIN, 0};
    }
    return count;
}

void SectionWorkers::handle(const pollfd* fds, const Listener& listener) {
    for (Worker& worker : mWorkers) {
        if (fds++->revents != 0) handleMessage(&worker, listener);
        if (fds++->revents == 0) continue;
        char buffer[1024];
        const ssize_t size = read(worker.libraryOutput, buffer, sizeof(buffer));
        if (size > 0 && listener.showsLibraryOutput) {
            listener.onLine({buffer, static_cast<size_t>(size)});
        }
        if (size > 0) continue;
        close(worker.libraryOutput);
        worker.libraryOutput = -1;
    }
}

void SectionWorkers::handleMessage(Worker* worker, const Listener& listener) {
    char buffer[WorkerLink::kBufferBytes];
    const auto received = WorkerLink(worker->link).receive(buffer);
    if (!received) {
        close(worker->link);
        worker->link = -1;
        return;
    }
    const std::string_view payload = received->payload;
    const auto first = payload.empty() ? 0 : static_cast<unsigned char>(payload[0]);
    switch (received->message) {
        case Message::kLine:
        case Message::kWarning:
            return listener.onLine(payload);
        case Message::kCpuLimit:
            return listener.onCpuLimit();
        case Message::kStage:
            worker->stage = static_cast<WorkerStage>(
                std::min<int>(first, static_cast<int>(WorkerStage::kVerifying)));
            return;
        case Message::kPercent:
            worker->percent = std::min<int>(first, 100);
            return;
        case Message::kResult:
            if (payload.size() < sizeof(worker->result)) return;
            memcpy(&worker->result, payload.data(), sizeof(worker->result));
            worker->failureSize =
                std::min(payload.size() - sizeof(worker->result), sizeof(worker->failure));
            memcpy(worker->failure, payload.data() + sizeof(worker->result), worker->failureSize);
            worker->hasResult = true;
            return;
        default:
            return;
    }
}

void SectionWorkers::reap() {
    for (Worker& worker : mWorkers) {
        if (worker.hasEnded || worker.pid < 0) continue;
        rusage usage{};
        if (wait4(worker.pid, &worker.waitStatus, WNOHANG, &usage) != worker.pid) continue;
        worker.hasEnded = true;
        timeradd(&mUsage.ru_utime, &usage.ru_utime, &mUsage.ru_utime);
        timeradd(&mUsage.ru_stime, &usage.ru_stime, &mUsage.ru_stime);
        mUsage.ru_maxrss += usage.ru_maxrss;
    }
}

bool SectionWorkers::hasFailed(const Worker& worker) {
    if (!worker.hasEnded || worker.link >= 0) return false;
    const bool isWell = worker.hasResult && WIFEXITED(worker.waitStatus) &&
                        WEXITSTATUS(worker.waitStatus) == worker.result.status;
    // A worker that was stopped has described its part.
    return !isWell ||
           (worker.result.status != kExitComplete && worker.result.status != kExitStopped);
}

bool SectionWorkers::areDone() const {
    return std::all_of(mWorkers.begin(), mWorkers.end(), [](const Worker& worker) {
        return worker.hasEnded && worker.link < 0 && !hasFailed(worker);
    });
}

std::optional<int> SectionWorkers::failed() const {
    const auto found = std::find_if(mWorkers.begin(), mWorkers.end(), hasFailed);
    if (found == mWorkers.end()) return std::nullopt;
    return static_cast<int>(found - mWorkers.begin());
}

RunEnd SectionWorkers::endOf(int section, std::string_view input, char* reason, size_t room) const {
    const Worker& worker = mWorkers[static_cast<size_t>(section)];
    if (worker.hasResult) {
        std::string_view texts(worker.failure, worker.failureSize);
        const auto take = [&texts](size_t size) {
            const std::string_view text = texts.substr(0, size);
            texts.remove_prefix(text.size());
            return text;
        };
        RunEnd end{"failed", worker.result.status, "transcoding", "", "", ""};
        end.code = take(worker.result.codeBytes);
        end.subject = take(worker.result.subjectBytes);
        end.reason = texts;
        return end;
    }
    const bool isSignal = WIFSIGNALED(worker.waitStatus);
    const char* const name = isSignal ? sigabbrev_np(WTERMSIG(worker.waitStatus)) : nullptr;
    const auto text =
        fmt::format_to_n(reason, room, "the worker process of section {} {}{}; nothing was kept",
                         section, isSignal ? "was terminated by SIG" : "ended without a result",
                         isSignal ? (name == nullptr ? "?" : name) : "");
    return {"failed",         kExitFailed,          "transcoding",
            "worker-crashed", input.substr(0, 300), {reason, std::min(text.size, room)}};
}

// The audio takes less time than any section, unless there is no video.
int SectionWorkers::percent() const {
    constexpr int kComplete = 100;
    const auto percentOf = [](const Worker& worker) {
        const bool isComplete = worker.hasResult && worker.result.status == kExitComplete;
        return isComplete ? kComplete : worker.percent;
    };
    int sum = 0;
    for (size_t i = 1; i < mWorkers.size(); ++i) sum += percentOf(mWorkers[i]);
    const int video = sum / static_cast<int>(mWorkers.size() - 1);
    return video < kComplete ? video : percentOf(mWorkers.front());
}

bool SectionWorkers::canStop() const {
    return std::all_of(mWorkers.begin(), mWorkers.end(), [](const Worker& worker) {
        return worker.hasEnded || worker.stage >= WorkerStage::kTranscoding;
    });
}

void SectionWorkers::stop() {
    for (const Worker& worker : mWorkers) {
        if (worker.link >= 0) WorkerLink(worker.link).send(Message::kStop);
    }
}

void SectionWorkers::printState() {
    for (const Worker& worker : mWorkers) {
        if (worker.link >= 0) WorkerLink(worker.link).send(Message::kPrintState);
    }
}

void SectionWorkers::killAll() {
    for (const Worker& worker : mWorkers) {
        if (worker.pid > 0 && !worker.hasEnded) kill(worker.pid, SIGKILL);
    }
}

void SectionWorkers::addUsage(rusage* usage) const {
    timeradd(&usage->ru_utime, &mUsage.ru_utime, &usage->ru_utime);
    timeradd(&usage->ru_stime, &mUsage.ru_stime, &usage->ru_stime);
    usage->ru_maxrss = std::max(usage->ru_maxrss, mUsage.ru_maxrss);
}

}  // namespace android::qmmediaeditor::cli
