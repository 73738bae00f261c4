#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/cli/NumberedName.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/report/PartObjects.h>
#include <qmtranscode/report/RunObject.h>
#include <qmtranscode/sandbox/SectionWorkers.h>
#include <qmtranscode/sandbox/SignalHandler.h>
#include <qmtranscode/sandbox/Supervisor.h>
#include <qmtranscode/sandbox/Worker.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

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

// The report of one run of --split.
struct PartReport {
    std::string object;  // with --json
    std::optional<size_t> parts;
};

// For a failure before there is a worker: as failed(), and with the object of the run, which goes
// to `report` unless that is null. `request` is JSON.
int failedEarly(const cli::Failure& failure, const char* stage, bool printsObject,
                const std::string& request, PartReport* report = nullptr) {
    if (printsObject) {
        std::string object;
        cli::makeObject(
            {"failed", failure.status, stage, failure.code, failure.subject, failure.reason}, "",
            request, "", &object);
        if (report != nullptr) {
            report->object = object;
        } else if (cli::console::printOutput(object) != 0) {
            cli::Failure both = failure;
            both.reason += fmt::format("; standard output: {}", strerror(errno));
            return failed(both);
        }
    }
    return failed(failure);
}

// As failedEarly(), for a lack of memory. Does not allocate.
int failedWithoutMemory(bool printsObject) {
    constexpr std::string_view kObject =
        "{\n  \"status\": \"failed\",\n  \"exit\": 1,\n  \"error\": {\n    \"code\": \"ENOMEM\",\n"
        "    \"stage\": \"opening\",\n    \"subject\": \"\",\n    \"text\": \"not enough memory\",\n"
        "    \"retryable\": true\n  },\n  \"warnings\": [],\n  \"version\": \"" QMTRANSCODE_VERSION
        "\",\n  \"request\": null\n}\n";
    constexpr std::string_view kLine = "qmtranscode: not enough memory\n";
    const auto print = [](int fd, std::string_view text) {
        const ssize_t written = write(fd, text.data(), text.size());
        static_cast<void>(written);
    };
    if (printsObject) print(STDOUT_FILENO, kObject);
    print(STDERR_FILENO, kLine);
    return cli::kExitFailed;
}

int print(const std::string& text) {
    if (cli::console::printOutput(text) == 0) return cli::kExitComplete;
    return failed(cli::systemFailure(cli::kExitFailed, "standard output", errno));
}

cli::SharedState* makeSharedState() {
    void* const memory = mmap(nullptr, sizeof(cli::SharedState), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : new (memory) cli::SharedState;
}

// One input and one output. `report` is null for the only run of the command.
int runOnce(const cli::Options& options, cli::SharedState* shared, PartReport* report) {
    const auto fail = [&](const cli::Failure& failure) {
        return failedEarly(failure, "opening", options.json, options.request, report);
    };
    cli::JobFiles files;
    if (const std::optional<cli::Failure> failure = files.open(options)) return fail(*failure);
    int links[2];
    int libraryOutput[2];
    if (shared == nullptr || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, links) != 0 ||
        pipe2(libraryOutput, O_CLOEXEC) != 0) {
        return fail(cli::systemFailure(cli::kExitFailed, "the worker process", errno));
    }
    shared->columns = cli::console::terminalColumns();
    const pid_t parent = getpid();
    cli::SectionWorkers sections;
    // startWorker() does not throw.
    const auto start = [](const cli::Options& own, cli::JobFiles* ofAll,
                          const cli::WorkerLink& link, cli::SharedState* state, int output,
                          pid_t pid) { cli::startWorker(own, ofAll, link, state, output, pid); };
    if (options.jobs > 1 && !sections.start(options, &files, shared, parent, +start)) {
        return fail(cli::systemFailure(cli::kExitFailed, "the worker process", errno));
    }
    const pid_t worker = fork();
    if (worker < 0) return fail(cli::systemFailure(cli::kExitFailed, "the worker process", errno));
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
    // A part is complete or absent.
    job.mayKeepPartial =
        options.keepPartial && !options.part && !options.section && files.output.older() == nullptr;
    if (options.jobs > 1) job.sections = &sections;
    job.printsObject = options.json;
    job.options = &options;
    job.images = files.images;
    job.request = options.request;
    job.names = cli::namesOf(options);
    if (report != nullptr) job.object = &report->object;
    cli::Supervisor supervisor(job, worker, link, shared);
    const int status = supervisor.run();
    if (report != nullptr) report->parts = supervisor.parts();
    close(links[0]);
    close(libraryOutput[0]);
    return status;
}

// One run for each output of --split. The first failure or stop is the last run.
int runParts(const cli::Options& options, cli::SharedState* shared) {
    std::vector<std::string> objects;
    size_t count = cli::knownParts(options);
    if (const auto failure = cli::JobFiles::checkParts(options, 1, std::max<size_t>(count, 1))) {
        return failedEarly(*failure, "opening", options.json, options.request);
    }
    int status = cli::kExitComplete;
    for (size_t part = 0; status == cli::kExitComplete && part < std::max<size_t>(count, 1);
         ++part) {
        cli::Options own = options;
        own.part = part;
        own.output = cli::numberedName(*options.split, static_cast<int>(part) + 1);
        PartReport report;
        status = runOnce(own, shared, &report);
        objects.push_back(report.object);
        // The number of chapters, and whether anything follows the last cut, is known only now.
        const size_t before = count;
        count = std::min(report.parts.value_or(count), cli::kMaxParts);
        if (status != cli::kExitComplete || count <= before) continue;
        if (const auto failure = cli::JobFiles::checkParts(options, part + 2, count)) {
            PartReport refused;
            status = failedEarly(*failure, "opening", options.json, options.request, &refused);
            objects.push_back(refused.object);
        }
    }
    if (!options.json) return status;
    if (cli::console::printOutput(cli::combineObjects(options, objects)) == 0) return status;
    return failed(cli::systemFailure(cli::kExitFailed, "standard output", errno));
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
    cli::SharedState* const shared = makeSharedState();
    return options.split ? runParts(options, shared) : runOnce(options, shared, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        return failedWithoutMemory(cli::asksForJson(argc, argv));
    }
}
