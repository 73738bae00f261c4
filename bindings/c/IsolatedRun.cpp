// A job in a program of its own, which is the command: its standard output has the object of the
// run, and its standard error lines of progress.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <qmtranscode/report/Format.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/Mutex.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "bindings/c/JobRun.h"

namespace android::qmmediaeditor::api {

namespace {

using Json = nlohmann::json;

constexpr const char* kStage = "transcoding";

class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor() { reset(); }

    int get() const { return mFd; }
    void set(int fd) { mFd = fd; }
    void reset() {
        if (mFd >= 0) close(mFd);
        mFd = -1;
    }

private:
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int mFd = -1;
};

struct Pipe {
    Descriptor read;
    Descriptor write;

    // False with errno.
    bool open() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return false;
        // Above the standard streams, which this process may have closed.
        read.set(fcntl(ends[0], F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        write.set(fcntl(ends[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        const int error = errno;
        close(ends[0]);
        close(ends[1]);
        errno = error;
        return read.get() >= 0 && write.get() >= 0;
    }
};

// The command that was installed, or built, with this library.
std::string installedProgram() {
    Dl_info info{};
    std::error_code ignored;
    if (dladdr(reinterpret_cast<void*>(&installedProgram), &info) != 0) {
        // lib/libqmtranscode.so.0, or lib/ARCHITECTURE/libqmtranscode.so.0.
        const auto directory = std::filesystem::canonical(info.dli_fname, ignored).parent_path();
        for (const char* const place : {"../bin/qmtranscode", "../../bin/qmtranscode"}) {
            const auto program = directory / place;
            if (access(program.c_str(), X_OK) == 0) return program.lexically_normal();
        }
    }
    return QMTRANSCODE_PROGRAM;
}

JobEnd stoppedEnd(const cli::Options& options) {
    return failedEnd({cli::kExitStopped, options.output, "stopped before anything was written",
                      cli::kStoppedCode},
                     "opening", options);
}

// Whether it is an exit status of the command.
bool isStatus(const Json& value) {
    return value == cli::kExitComplete || value == cli::kExitFailed || value == cli::kExitUsage ||
           value == cli::kExitUnusable || value == cli::kExitStopped;
}

class IsolatedRun : public JobRun {
public:
    JobEnd run(const JobRequest& request, std::function<void(int32_t)> onProgress) override;
    void cancel() override;

private:
    // 0, or an errno.
    int start(const std::string& program, const JobRequest& request);
    void readOutput();
    void takeLines(std::string_view text);
    int wait();
    JobEnd conclude(const std::string& program, int status, const cli::Options& options);

    Pipe mOutput;
    Pipe mErrors;
    std::function<void(int32_t)> mOnProgress;
    std::string mObject;
    std::string mLine;
    std::string mLastLine;
    int32_t mLastPercent = -1;
    // Becomes readable with cancel().
    Descriptor mCancelled;
    Mutex mLock;
    bool mIsCancelled GUARDED_BY(mLock) = false;
    // -1 before the program was started, and once its status was taken: the number may be another
    // process's then.
    pid_t mProgram GUARDED_BY(mLock) = -1;
};

JobEnd IsolatedRun::run(const JobRequest& request, std::function<void(int32_t)> onProgress) {
    mOnProgress = std::move(onProgress);
    const std::string program = request.program.empty() ? installedProgram() : request.program;
    if (const int error = start(program, request)) {
        if (error == ECANCELED) return stoppedEnd(request.options);
        return failedEnd(cli::systemFailure(cli::kExitFailed, program, error), "opening",
                         request.options);
    }
    readOutput();
    return conclude(program, wait(), request.options);
}

void IsolatedRun::cancel() {
    Mutex::Autolock lock(mLock);
    mIsCancelled = true;
    if (mProgram <= 0) return;
    kill(mProgram, SIGTERM);
    eventfd_write(mCancelled.get(), 1);
}

// The program has neither the signal mask nor the descriptors of this process. It has a process
// group of its own, so that Ctrl-C reaches this process only, which may cancel the job.
int IsolatedRun::start(const std::string& program, const JobRequest& request) {
    if (!mOutput.open() || !mErrors.open()) return errno;
    mCancelled.set(eventfd(0, EFD_CLOEXEC));
    if (mCancelled.get() < 0) return errno;
    std::vector<std::string> words = {program, "--json", "--progress=json"};
    words.insert(words.end(), request.arguments.begin(), request.arguments.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (const int error = posix_spawn_file_actions_init(&actions)) return error;
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, mOutput.write.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, mErrors.write.get(), STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    int error = ECANCELED;
    {
        Mutex::Autolock lock(mLock);
        if (!mIsCancelled) {
            error = posix_spawn(&mProgram, program.c_str(), &actions, &attributes, arguments.data(),
                                environ);
            if (error != 0) mProgram = -1;
        }
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    mOutput.write.reset();
    mErrors.write.reset();
    return error;
}

// Reads until the program and its children have closed both streams. After a cancel, they are
// killed if they do not end by themselves.
void IsolatedRun::readOutput() {
    using Clock = std::chrono::steady_clock;
    constexpr auto kPatience = std::chrono::seconds(10);
    std::optional<Clock::time_point> end;
    char buffer[4096];
    while (mOutput.read.get() >= 0 || mErrors.read.get() >= 0) {
        int timeoutMs = -1;
        if (end) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now());
            if (left.count() <= 0) {
                Mutex::Autolock lock(mLock);
                kill(-mProgram, SIGKILL);
                return;
            }
            timeoutMs = static_cast<int>(left.count());
        }
        // poll() passes over negative descriptors.
        pollfd fds[] = {{mOutput.read.get(), POLLIN, 0},
                        {mErrors.read.get(), POLLIN, 0},
                        {end ? -1 : mCancelled.get(), POLLIN, 0}};
        const int ready = poll(fds, 3, timeoutMs);
        if (ready < 0 && errno != EINTR) return;
        if (ready <= 0) continue;
        if (fds[2].revents != 0) end = Clock::now() + kPatience;
        for (Pipe* const pipe : {&mOutput, &mErrors}) {
            if (fds[pipe == &mErrors ? 1 : 0].revents == 0) continue;
            const ssize_t size = read(pipe->read.get(), buffer, sizeof(buffer));
            if (size < 0 && errno == EINTR) continue;
            if (size <= 0) {
                pipe->read.reset();
            } else if (pipe == &mOutput) {
                mObject.append(buffer, static_cast<size_t>(size));
            } else {
                takeLines({buffer, static_cast<size_t>(size)});
            }
        }
    }
}

void IsolatedRun::takeLines(std::string_view text) {
    for (const char c : text) {
        if (c != '\n') {
            mLine += c;
            continue;
        }
        const Json line = Json::parse(mLine, nullptr, false);
        const auto percent = line.is_object() ? line.find("progress") : line.end();
        if (line.is_object() && percent != line.end() && percent->is_number_integer()) {
            // The last one means that the file is verified, and not yet that it has its name.
            const auto value = percent->get<int32_t>();
            if (value <= mLastPercent || value >= 100) {
                mLine.clear();
                continue;
            }
            mLastPercent = value;
            if (mOnProgress) mOnProgress(value);
        } else {
            mLastLine = mLine;
        }
        mLine.clear();
    }
}

// The status of the program as waitpid() has it; -1 when this process does not keep the status of
// its children.
int IsolatedRun::wait() {
    pid_t program;
    {
        Mutex::Autolock lock(mLock);
        program = mProgram;
    }
    siginfo_t ended;
    while (waitid(P_PID, static_cast<id_t>(program), &ended, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
    Mutex::Autolock lock(mLock);
    mProgram = -1;
    int status = -1;
    return waitpid(program, &status, 0) == program ? status : -1;
}

JobEnd IsolatedRun::conclude(const std::string& program, int status, const cli::Options& options) {
    auto object = nlohmann::ordered_json::parse(mObject, nullptr, false);
    if (!object.is_object() || !isStatus(object.value("exit", Json()))) {
        {
            Mutex::Autolock lock(mLock);
            if (mIsCancelled) return stoppedEnd(options);
        }
        std::string reason = "the program ended without a result";
        if (status != -1 && WIFSIGNALED(status)) {
            const char* const name = sigabbrev_np(WTERMSIG(status));
            reason =
                fmt::format("the program was terminated by SIG{}", name == nullptr ? "?" : name);
        }
        if (!mLastLine.empty()) reason += ": " + mLastLine;
        return failedEnd({cli::kExitFailed, program, reason, "program-crashed"}, kStage, options);
    }
    JobEnd end;
    end.status = object["exit"].get<int>();
    // The caller's request in place of the program's, so that it runs the same job when used again.
    object["request"] = nlohmann::ordered_json::parse(options.request);
    end.receipt = cli::dumpJson(object);
    const auto error = object.find("error");
    if (error != object.end() && error->is_object()) {
        const auto textOf = [&error](const char* key) {
            const auto found = error->find(key);
            return found != error->end() && found->is_string() ? found->get<std::string>() : "";
        };
        end.code = textOf("code");
        end.text =
            textOf("subject").empty() ? textOf("text") : textOf("subject") + ": " + textOf("text");
    }
    if (end.status == cli::kExitComplete && mOnProgress) mOnProgress(100);
    return end;
}

}  // namespace

std::unique_ptr<JobRun> createIsolatedRun() { return std::make_unique<IsolatedRun>(); }

}  // namespace android::qmmediaeditor::api
