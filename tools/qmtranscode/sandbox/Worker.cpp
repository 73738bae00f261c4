#include <host/Host.h>
#include <malloc.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/job/JoinJob.h>
#include <qmtranscode/monitor/LogOutput.h>
#include <qmtranscode/monitor/RunMonitor.h>
#include <qmtranscode/sandbox/Sandbox.h>
#include <qmtranscode/sandbox/Worker.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>

namespace android::qmmediaeditor::cli {

namespace {

// For signal handlers and the log's aborter.
const WorkerLink* gLink = nullptr;

void sendResult(WorkerResult result, const Failure& failure) {
    const std::string subject = failure.subject.substr(0, UINT16_MAX);
    result.codeBytes = static_cast<uint16_t>(failure.code.size());
    result.subjectBytes = static_cast<uint16_t>(subject.size());
    const std::string payload(reinterpret_cast<const char*>(&result), sizeof(result));
    gLink->send(Message::kResult, payload + failure.code + subject + failure.reason);
}

void reportCpuLimit(int /* signal */) { gLink->send(Message::kCpuLimit); }

// Terminals, timeout(1) and service managers signal all processes of a group, so that only the
// parent acts on signals.
void ignoreSignals() {
    for (const int each : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGWINCH}) {
        signal(each, SIG_IGN);
    }
    struct sigaction limit {};
    limit.sa_handler = reportCpuLimit;
    limit.sa_flags = SA_RESTART;
    sigaction(SIGXCPU, &limit, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Does not allocate, because there may be no memory left.
[[noreturn]] void endWith(std::string_view code, std::string_view reason,
                          std::string_view more = {}) {
    gLink->sendFailure(code, reason, more);
    _exit(kExitFailed);
}

[[noreturn]] void endWithoutMemory() { endWith(kMemoryCode, "not enough memory"); }

// When an exception is being handled: the standard library reports a lack of memory or threads so.
[[noreturn]] void endOnException() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        endWithoutMemory();
    } catch (const std::system_error& error) {
        if (error.code() == std::errc::resource_unavailable_try_again) {
            endWith(kThreadCode, "a thread could not be created");
        }
        throw;
    }
}

void endOnFailedCheck(const std::string& text) {
    endWith("internal-check", "internal check failed: ", text);
}

Outcome runJob(const Options& options, int threads, JobFiles* files, const WorkerLink& link) {
    // Never destroyed, because threads of the host may log until the process ends.
    static auto* const monitor = new RunMonitor;
    static auto* const observer = new RunObserver;
    static auto* const trace = new TraceFile(files->trace);
    configureProcess({true, true, false});
    installLog(options.logFilter, options.logFormat, monitor, endOnFailedCheck);
    WorkerControl control(link, [] { printRunState(*monitor, "the state of each thread:"); });
    const StallDetector stallDetector(monitor, std::chrono::seconds(10));
    if (!options.parts.empty() || (options.jobs > 1 && !options.section)) {
        return JoinJob(options, files, &control, observer).run();
    }
    return Job(options, hostOptions(options, threads), files, trace, &control, monitor, observer)
        .run();
}

}  // namespace

void qmtranscodeRunWorker(const Options& options, JobFiles* files, const WorkerLink& link,
                          SharedState* shared) noexcept {
    gLink = &link;
    ignoreSignals();
    // Tables of long files are then mapped, and given back to the system when they are freed.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    if (options.verify) {
        // libavfilter copies each frame, and a new mapping costs more than the copy.
        mallopt(M_MMAP_THRESHOLD, 32 << 20);
        mallopt(M_TRIM_THRESHOLD, 256 << 20);
    }
    // The session waits in steps of 0.5 ms, and each step that finds nothing costs two switches of
    // threads. A signalled condition still wakes its thread at once.
    constexpr unsigned long kTimerSlackNs = 1000000;
    prctl(PR_SET_TIMERSLACK, kTimerSlackNs, 0, 0, 0);
    console::useLink(&link, &shared->columns);
    // Before the sandbox, because it reads a file that the log's times need.
    tzset();
    const int threads = options.threads.value_or(std::max(defaultThreads() / options.jobs, 1));
    if (!enterSandbox()) endWithoutMemory();
    Outcome outcome;
    try {
        outcome = runJob(options, threads, files, link);
    } catch (...) {
        endOnException();
    }
    WorkerResult result;
    const Failure failure = outcome.failure.value_or(Failure{kExitComplete, "", "", ""});
    result.status = failure.status;
    result.keepOutput = outcome.keepOutput;
    result.traceError = outcome.traceError;
    result.ending = outcome.ending;
    sendResult(result, failure);
    // Without destroying `files`, whose names belong to the parent.
    exit(result.status);
}

}  // namespace android::qmmediaeditor::cli
