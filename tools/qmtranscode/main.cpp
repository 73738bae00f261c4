#include <fcntl.h>
#include <host/Host.h>
#include <qmtranscode/Console.h>
#include <qmtranscode/Job.h>
#include <qmtranscode/LogOutput.h>
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

    cli::Options options;
    if (const std::optional<int> status = cli::parseOptions(argc, argv, &options)) return *status;

    cli::Interrupt interrupt;
    cli::installLog(options.logFilter, options.logFormat);
    const std::unique_ptr<Platform> platform =
        createHostPlatform({options.preset, options.fastStart});
    Platform::install(platform.get());

    cli::Job job(options, &interrupt);
    if (const std::optional<cli::Failure> failure = job.run()) {
        cli::console::printFailure(*failure);
        return failure->status;
    }
    return cli::kExitWhole;
}
