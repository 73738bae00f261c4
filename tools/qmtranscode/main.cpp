#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/report/RunObject.h>
#include <qmtranscode/sandbox/SignalHandler.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/Worker.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>
#include <string_view>
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

// The same before there is a worker, with the object of the run. `request` is JSON.
int failedEarly(const cli::Failure& failure, const char* stage, bool printsObject,
                const std::string& request) {
    if (printsObject) {
        std::string object;
        cli::makeObject(
            {"failed", failure.status, stage, failure.code, failure.subject, failure.reason}, "",
            request, "", &object);
        if (cli::console::printOutput(object) != 0) {
            cli::Failure both = failure;
            both.reason += fmt::format("; standard output: {}", strerror(errno));
            return failed(both);
        }
    }
    return failed(failure);
}

// The same without allocating.
int failedWithoutMemory(bool printsObject) {
    constexpr std::string_view kObject =
        "{\n  \"status\": \"failed\",\n  \"exit\": 1,\n  \"error\": {\n    \"code\": \"ENOMEM\",\n"
        "    \"stage\": \"opening\",\n    \"subject\": \"\",\n    \"text\": \"not enough memory\",\n"
        "    \"retryable\": true\n  },\n  \"warnings\": [],\n  \"version\": \"" QMTRANSCODE_VERSION
        "\",\n  \"request\": null\n}\n";
    constexpr std::string_view kLine = "qmtranscode: not enough memory\n";
    ssize_t written = 0;
    if (printsObject) written = write(STDOUT_FILENO, kObject.data(), kObject.size());
    written = write(STDERR_FILENO, kLine.data(), kLine.size());
    static_cast<void>(written);
    return cli::kExitFailed;
}

int print(const std::string& text) {
    if (cli::console::printOutput(text) == 0) return cli::kExitComplete;
    return failed(cli::systemFailure(cli::kExitFailed, "standard output", errno));
}

int cannotStart(const cli::Options& options) {
    return failedEarly(cli::systemFailure(cli::kExitFailed, "the worker process", errno), "opening",
                       options.json, options.request);
}

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
    if (const auto* failure = std::get_if<cli::Failure>(&parsed)) {
        return failedEarly(*failure, "options", cli::asksForJson(argc, argv), "null");
    }
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
    if (const std::optional<cli::Failure> failure = files.open(options)) {
        return failedEarly(*failure, "opening", options.json, options.request);
    }

    int links[2];
    int libraryOutput[2];
    cli::SharedState* const shared = makeSharedState();
    if (shared == nullptr || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, links) != 0 ||
        pipe2(libraryOutput, O_CLOEXEC) != 0) {
        return cannotStart(options);
    }
    shared->columns = cli::console::terminalColumns();
    const pid_t parent = getpid();
    const pid_t worker = fork();
    if (worker < 0) return cannotStart(options);
    if (worker == 0) {
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
    job.mayKeepPartial = options.keepPartial && files.output.older() == nullptr;
    job.printsObject = options.json;
    job.request = options.request;
    job.names = cli::namesOf(options);
    return cli::Supervisor(job, worker, link, shared).run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        return failedWithoutMemory(cli::asksForJson(argc, argv));
    }
}
