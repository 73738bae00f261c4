#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <qmtranscode/cli/NumberedName.h>
#include <qmtranscode/job/ImageFiles.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/report/PartObjects.h>
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
    for (const int fd : {receipt, images, existing}) {
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
    if (options.list && !options.keepChapters) {
        PendingFile list;
        if (!list.locate(*options.list) && list.isSameAs(output)) {
            return Failure{kExitUsage, options.output, "this is the list of periods", "same-file"};
        }
    }
    const bool overwrite = options.overwrite || options.ifMissing;
    if (auto failure = output.checkPlace(overwrite)) return failure;
    if (options.plan) return std::nullopt;
    if (options.ifMissing && output.older() != nullptr && output.older()->st_size > 0) {
        existing = ::open(options.output.c_str(), O_RDONLY | O_CLOEXEC);
        if (existing < 0) return systemFailure(exitStatusOf(errno), options.output, errno);
    }
    if (options.poster || options.contactSheet) {
        if (auto failure =
                checkImages(options, std::max<size_t>(knownParts(options), 1), options.fileNames()))
            return failure;
        images = memfd_create("qmtranscode-images", MFD_CLOEXEC);
        if (images < 0) return systemFailure(kExitFailed, "memory for the images", errno);
    }
    if (auto failure = openTrace(options)) return failure;
    if (auto failure = openParts(options)) return failure;
    return output.create(overwrite);
}

std::optional<Failure> JobFiles::openParts(const Options& options) {
    for (size_t i = 1; i < options.parts.size(); ++i) {
        if (auto failure = otherParts.emplace_back().open(options.parts[i])) return failure;
        if (!otherParts.back().isSameFile(output.older())) continue;
        return Failure{kExitUsage, options.output, "this is one of the parts", "same-file"};
    }
    if (options.jobs == 1) return std::nullopt;
    for (int32_t i = 0; i <= options.jobs; ++i) {
        PendingFile& section = sections.emplace_back();
        if (auto failure = section.locate(options.output)) return failure;
        // As private as an older output.
        if (auto failure = section.create(true)) return failure;
    }
    return std::nullopt;
}

std::optional<Failure> JobFiles::checkParts(const Options& options, size_t first, size_t last) {
    JobInput input;
    if (auto failure = input.open(options.input)) return failure;
    for (size_t number = first; number <= last; ++number) {
        const std::string path = numberedName(*options.split, static_cast<int>(number));
        PendingFile part;
        if (auto failure = part.locate(path)) return failure;
        if (input.isSameFile(part.older())) {
            return Failure{kExitUsage, path, "this is the input file", "same-file"};
        }
        if (auto failure = part.checkPlace(options.overwrite || options.ifMissing)) return failure;
    }
    return std::nullopt;
}

const PendingFile& JobFiles::outputOf(const Options& options) const {
    if (sections.empty() || !options.section) return output;
    return sections[static_cast<size_t>(options.section->index)];
}

std::vector<std::pair<std::string, int>> JobFiles::parts() const {
    std::vector<std::pair<std::string, int>> result;
    for (const PendingFile& section : sections) result.emplace_back(section.path(), section.fd());
    if (!result.empty()) return result;
    result.emplace_back(input.path(), input.fd());
    for (const JobInput& part : otherParts) result.emplace_back(part.path(), part.fd());
    return result;
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
