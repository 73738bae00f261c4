#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <qmtranscode/job/JobFiles.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

namespace {

const char* fileTypeName(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISFIFO(mode)) return "a pipe";
    return "a device";
}

}  // namespace

JobInput::~JobInput() {
    if (mFd >= 0) close(mFd);
}

std::optional<Failure> JobInput::open(const std::string& path) {
    mPath = path;
    if (path == "-") {
        return Failure{kExitUnusable, path,
                       "standard input is not seekable; INPUT must be a regular file",
                       "input-not-seekable"};
    }
    // stat() first, because open() of a pipe would wait for its writer.
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return systemFailure(exitStatusOf(errno), path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Failure{
            kExitUnusable, path,
            fmt::format("this is {}; INPUT must be a regular file", fileTypeName(status.st_mode)),
            "input-not-a-file"};
    }
    if (status.st_size == 0)
        return Failure{kExitUnusable, path, "the file is empty", "input-empty"};
    mFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (mFd < 0) return systemFailure(exitStatusOf(errno), path, errno);
    if (fstat(mFd, &mStatus) != 0) return systemFailure(kExitFailed, path, errno);
    return std::nullopt;
}

bool JobInput::isSameFile(const struct stat* file) const {
    return file != nullptr && file->st_dev == mStatus.st_dev && file->st_ino == mStatus.st_ino;
}

JobFiles::~JobFiles() {
    for (const int fd : {receipt, existing}) {
        if (fd >= 0) close(fd);
    }
}

std::optional<Failure> JobFiles::open(const Options& options) {
    receipt = memfd_create("qmtranscode-receipt", MFD_CLOEXEC);
    if (receipt < 0) return systemFailure(kExitFailed, "memory for the receipt", errno);
    if (auto failure = input.open(options.input)) return failure;
    if (options.output == "-") {
        return Failure{kExitUsage, options.output,
                       "standard output is not seekable; OUTPUT must be a regular file",
                       "output-not-seekable"};
    }
    if (auto failure = output.locate(options.output)) return failure;
    if (input.isSameFile(output.older())) {
        return Failure{kExitUsage, options.output, "this is the input file", "same-file"};
    }
    const bool overwrite = options.overwrite || options.ifMissing;
    if (auto failure = output.checkPlace(overwrite)) return failure;
    if (options.plan) return std::nullopt;
    if (options.ifMissing && output.older() != nullptr && output.older()->st_size > 0) {
        existing = ::open(options.output.c_str(), O_RDONLY | O_CLOEXEC);
        if (existing < 0) return systemFailure(exitStatusOf(errno), options.output, errno);
    }
    if (auto failure = openTrace(options)) return failure;
    return output.create(overwrite);
}

std::optional<Failure> JobFiles::openTrace(const Options& options) {
    if (!options.trace) return std::nullopt;
    if (auto failure = trace.locate(*options.trace)) return failure;
    if (input.isSameFile(trace.older())) {
        return Failure{kExitUsage, *options.trace, "this is the input file", "same-file"};
    }
    if (trace.isSameAs(output)) {
        return Failure{kExitUsage, *options.trace, "this is the output file", "same-file"};
    }
    if (auto failure = trace.checkPlace(options.overwrite)) return failure;
    return trace.create(options.overwrite);
}

}  // namespace android::qmmediaeditor::cli
