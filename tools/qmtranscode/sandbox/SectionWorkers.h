// The workers of --jobs: each encodes one section of the output into a file without a name. For the
// parent process; one thread. After start(), nothing allocates.
#pragma once

#include <poll.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/WorkerLink.h>
#include <stddef.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace android::qmmediaeditor::cli {

class SectionWorkers {
public:
    using StartWorker = void(const Options&, JobFiles*, const WorkerLink&, SharedState*, int,
                             pid_t);
    // Forks one for each section and one for the audio, which go on in `startWorker`; false with
    // errno on error.
    bool start(const Options& options, JobFiles* files, SharedState* shared, pid_t parent,
               StartWorker* startWorker);
    // In another worker, which must not keep the connections to these.
    void closeLinks();

    // Where their messages go.
    struct Listener {
        std::function<void(std::string_view)> onLine;
        std::function<void()> onCpuLimit;
        bool showsLibraryOutput = false;
    };
    static constexpr size_t kMaxPolled = 2 * 65;
    // Fills in the descriptors to wait for, and returns their number.
    size_t fill(pollfd* fds) const;
    // `fds` as fill() left it, after poll().
    void handle(const pollfd* fds, const Listener& listener);
    // After SIGCHLD.
    void reap();

    // All have ended as they should.
    bool areDone() const;
    // The number of the section whose worker failed or crashed; nothing if none did.
    std::optional<int> failed() const;
    // How that worker ends the run. The texts are in this object and in `reason`, which has `room`.
    RunEnd endOf(int section, std::string_view input, char* reason, size_t room) const;

    int percent() const;
    // A stop now leaves parts that can be joined.
    bool canStop() const;
    void stop();
    void printState();
    void killAll();
    // Adds what all of them have used.
    void addUsage(rusage* usage) const;

private:
    struct Worker {
        pid_t pid = -1;
        int link = -1;
        int libraryOutput = -1;
        bool hasEnded = false;
        int waitStatus = 0;
        WorkerStage stage = WorkerStage::kOpening;
        int percent = 0;
        bool hasResult = false;
        WorkerResult result;
        char failure[1024];
        size_t failureSize = 0;
    };

    void handleMessage(Worker* worker, const Listener& listener);
    static bool hasFailed(const Worker& worker);

    std::vector<Worker> mWorkers;  // by number of the section; the first one has the audio
    rusage mUsage{};
};

}  // namespace android::qmmediaeditor::cli
