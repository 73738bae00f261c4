#include <dlfcn.h>
#include <qmtranscode/sandbox/AllocationFailure.h>
#include <qmtranscode/sandbox/Worker.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

namespace {

// For endWithoutMemory().
const WorkerLink* gLink = nullptr;

[[noreturn]] void endWithoutMemory() {
    gLink->sendFailure(kMemoryCode, "not enough memory");
    _exit(kExitFailed);
}

[[noreturn]] void endWithoutLibrary(const WorkerLink& link) {
    link.sendFailure("no-worker", "the worker process cannot start: ", dlerror());
    _exit(kExitFailed);
}

}  // namespace

void startWorker(const Options& options, JobFiles* files, const WorkerLink& link,
                 SharedState* shared, int libraryOutput, pid_t parent) noexcept {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kExitFailed);
    dup2(libraryOutput, STDOUT_FILENO);
    dup2(libraryOutput, STDERR_FILENO);
    gLink = &link;
    endOnFailedAllocation(endWithoutMemory);
    // A symbol is looked up in all libraries that are loaded together, and there are 150: loading
    // them in groups takes a seventh less time. The last call reports one that is missing.
    for (const char* name : {QM_EARLY_LIBRARIES}) dlopen(name, RTLD_LAZY);
    // The executable's run path has its directory.
    void* const library = dlopen("libqmtranscode-worker.so", RTLD_LAZY);
    if (library == nullptr) endWithoutLibrary(link);
    const auto run =
        reinterpret_cast<decltype(&qmtranscodeRunWorker)>(dlsym(library, "qmtranscodeRunWorker"));
    if (run == nullptr) endWithoutLibrary(link);
    run(options, files, link, shared);
    _exit(kExitFailed);
}

}  // namespace android::qmmediaeditor::cli
