#include <host/Host.h>
#include <malloc.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/Job.h>
#include <qmtranscode/monitor/LogOutput.h>
#include <qmtranscode/monitor/StallDetector.h>
#include <qmtranscode/sandbox/Sandbox.h>
#include <qmtranscode/sandbox/Worker.h>
#include <qmtranscode/sandbox/WorkerControl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <new>

namespace android::qmmediaeditor::cli {

namespace {

// For signal handlers and the log's aborter.
const Link* gLink = nullptr;

void sendResult(const WorkerResult& result, const std::string& failure) {
    std::string payload(reinterpret_cast<const char*>(&result), sizeof(result));
    gLink->send(Message::kResult, payload + failure);
}

void reportCpuLimit(int /* signal */) { gLink->send(Message::kCpuLimit); }

// Terminals, timeout(1) and service managers signal all processes of a group: the parent alone
// decides.
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

// Without memory of its own: there may be none.
[[noreturn]] void endWith(const char* reason, const char* more = "") {
    WorkerResult result;
    result.status = kExitFailed;
    char payload[sizeof(result) + 512];
    memcpy(payload, &result, sizeof(result));
    snprintf(payload + sizeof(result), sizeof(payload) - sizeof(result), "%s%s", reason, more);
    gLink->send(Message::kResult, {payload, sizeof(result) + strlen(payload + sizeof(result))});
    _exit(kExitFailed);
}

void endOnFailedCheck(const std::string& text) { endWith("internal check failed: ", text.c_str()); }

Outcome runJob(const Options& options, int threads, JobFiles* files, const Link& link) {
    // These live as long as the process: the host's threads log until its very end.
    static auto* const monitor = new RunMonitor;
    static auto* const facts = new RunFacts;
    installLog(options.logFilter, options.logFormat, monitor, endOnFailedCheck);
    WorkerControl control(link, [] { explainRun(*monitor, "what every thread does:"); });
    const StallWatch stallWatch(monitor, std::chrono::seconds(10));
    const std::unique_ptr<Platform> platform = createHostPlatform(
        {options.preset, options.fastStart, options.cutTimesUs(), facts, threads});
    Platform::install(platform.get());
    return Job(options, files, &control, monitor, facts).run();
}

}  // namespace

void runWorker(const Options& options, JobFiles* files, const Link& link, SharedState* shared,
               int libraryOutput, pid_t parent) noexcept {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kExitFailed);
    gLink = &link;
    ignoreSignals();
    dup2(libraryOutput, STDOUT_FILENO);
    dup2(libraryOutput, STDERR_FILENO);
    // Tables of long files come and go as a whole, and leave no holes.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    console::useLink(&link, &shared->columns);
    // The log's times need it, and it reads a file.
    tzset();
    const int threads = options.threads.value_or(defaultThreads());
    if (!enterSandbox()) endWith("not enough memory");
    Outcome outcome;
    try {
        outcome = runJob(options, threads, files, link);
    } catch (const std::bad_alloc&) {
        endWith("not enough memory");
    }
    WorkerResult result;
    result.status = outcome.failure ? outcome.failure->status : kExitComplete;
    result.keepOutput = outcome.keepOutput;
    result.traceError = outcome.traceError;
    std::string failure;
    if (outcome.failure) {
        failure = outcome.failure->reason;
        if (!outcome.failure->subject.empty()) failure = outcome.failure->subject + ": " + failure;
    }
    sendResult(result, failure);
    // Not by returning: the files' names are the parent's.
    exit(result.status);
}

}  // namespace android::qmmediaeditor::cli
