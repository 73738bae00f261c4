#include <errno.h>
#include <fcntl.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/report/ReceiptCompletion.h>
#include <qmtranscode/sandbox/SectionWorkers.h>
#include <qmtranscode/sandbox/SignalHandler.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/Worker.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>
#include <variant>

using namespace android::qmmediaeditor;

namespace {

// A file that is opened later could otherwise get the descriptor of a stream that the caller has
// closed, and messages would be written into it.
void openClosedStreams() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
    if (fd >= 0) close(fd);
}

int failed(const cli::Failure& failure) {
    cli::console::printFailure(failure);
    return failure.status;
}

int print(const std::string& text) {
    if (cli::console::printOutput(text) == 0) return cli::kExitComplete;
    return failed({cli::kExitFailed, "standard output", strerror(errno)});
}

int cannotStart() { return failed({cli::kExitFailed, "the worker process", strerror(errno)}); }

cli::SharedState* makeSharedState() {
    void* const memory = mmap(nullptr, sizeof(cli::SharedState), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : new (memory) cli::SharedState;
}

int run(int argc, char** argv) {
    openClosedStreams();
    // Writing to a closed pipe or beyond the file size limit then fails with an error; a signal
    // would end the process and leave a temporary file.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);

    auto parsed = cli::parseOptions(argc, argv);
    if (const auto* failure = std::get_if<cli::Failure>(&parsed)) return failed(*failure);
    if (const auto* information = std::get_if<cli::Information>(&parsed)) {
        return print(information->text);
    }
    auto& options = std::get<cli::Options>(parsed);
    // The worker has no terminal.
    const auto style =
        isatty(STDERR_FILENO) == 1 ? cli::ProgressStyle::kBar : cli::ProgressStyle::kNone;
    options.progress = options.progress.value_or(style);

    cli::SignalHandler::block();
    cli::JobFiles files;
    if (const std::optional<cli::Failure> failure = files.open(options)) return failed(*failure);

    int links[2];
    int libraryOutput[2];
    cli::SharedState* const shared = makeSharedState();
    if (shared == nullptr || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, links) != 0 ||
        pipe2(libraryOutput, O_CLOEXEC) != 0) {
        return cannotStart();
    }
    shared->columns = cli::console::terminalColumns();
    const pid_t parent = getpid();
    cli::SectionWorkers sections;
    // startWorker() does not throw.
    const auto start = [](const cli::Options& own, cli::JobFiles* ofAll,
                          const cli::WorkerLink& link, cli::SharedState* state, int output,
                          pid_t pid) { cli::startWorker(own, ofAll, link, state, output, pid); };
    if (options.jobs > 1 && !sections.start(options, &files, shared, parent, +start)) {
        return cannotStart();
    }
    const pid_t worker = fork();
    if (worker < 0) return cannotStart();
    if (worker == 0) {
        sections.closeLinks();
        close(links[0]);
        close(libraryOutput[0]);
        const cli::WorkerLink link(links[1]);
        cli::startWorker(options, &files, link, shared, libraryOutput[1], parent);
    }
    close(links[1]);
    close(libraryOutput[1]);
    fcntl(links[0], F_SETFL, O_NONBLOCK);
    const cli::WorkerLink link(links[0]);
    cli::Supervisor::Job job;
    job.input = options.input;
    job.output = options.plan ? nullptr : &files.output;
    job.trace = options.trace && !options.plan ? &files.trace : nullptr;
    job.receipt = files.receipt;
    job.libraryOutput = libraryOutput[0];
    job.showsLibraryOutput = options.logFilter.has_value();
    job.mayKeepPartial = options.keepPartial && files.output.older() == nullptr && !options.section;
    if (options.jobs > 1) job.sections = &sections;
    if (options.json) job.emptyReceipt = cli::emptyReceipt(options.input, options.output);
    return cli::Supervisor(job, worker, link, shared).run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        constexpr char kLine[] = "qmtranscode: not enough memory\n";
        const ssize_t written = write(STDERR_FILENO, kLine, sizeof(kLine) - 1);
        static_cast<void>(written);
        return cli::kExitFailed;
    }
}
