#include <fcntl.h>
#include <host/Host.h>
#include <malloc.h>
#include <qmtranscode/Console.h>
#include <qmtranscode/Job.h>
#include <qmtranscode/RunFacts.h>
#include <qmtranscode/StallWatch.h>
#include <signal.h>
#include <unistd.h>

using namespace android::qmmediaeditor;

namespace {

// A file that is opened later would take the place of a stream that the caller has closed, and what
// is said would go into it.
void openClosedStreams() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
    if (fd >= 0) close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    openClosedStreams();
    // A closed pipe and a file that grew too large are results of a write, not reasons to die with
    // a temporary file left behind.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    // Tables of long files come and go as a whole, and leave no holes.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);

    cli::Options options;
    if (const std::optional<int> status = cli::parseOptions(argc, argv, &options)) return *status;

    // Lives as long as the process: the host's threads log until its very end.
    auto* const monitor = new cli::RunMonitor;
    cli::Interrupt interrupt([monitor] { cli::explainRun(*monitor, "what every thread does:"); },
                             options.json ? cli::emptyReceipt(options.input, options.output) : "");
    cli::installLog(options.logFilter, options.logFormat, monitor);
    const cli::StallWatch stallWatch(monitor, std::chrono::seconds(10));
    auto* const facts = new cli::RunFacts;
    const std::unique_ptr<Platform> platform =
        createHostPlatform({options.preset, options.fastStart, options.cutTimesUs(), facts,
                            options.threads.value_or(0)});
    Platform::install(platform.get());

    cli::Job job(options, &interrupt, monitor, facts);
    if (const std::optional<cli::Failure> failure = job.run()) {
        cli::console::printFailure(*failure);
        return failure->status;
    }
    return cli::kExitWhole;
}
