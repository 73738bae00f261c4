#include <errno.h>
#include <fcntl.h>
#include <media/stagefright/MediaErrors.h>
#include <qmtranscode/job/InputFile.h>
#include <string.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

namespace {

const char* kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "this is a folder";
    if (S_ISFIFO(mode)) return "this is a pipe";
    return "this is a device";
}

}  // namespace

InputFile::~InputFile() {
    if (mFd >= 0) close(mFd);
}

std::optional<Failure> InputFile::open(const std::string& path) {
    mPath = path;
    if (path == "-") {
        return Failure{kExitUnusable, path,
                       "standard input cannot be read back and forth; a file is needed"};
    }
    // Looked at before it is opened: a pipe would wait for its writer.
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return Failure{exitStatusOf(errno), path, strerror(errno)};
    if (!S_ISREG(status.st_mode)) {
        return Failure{kExitUnusable, path,
                       std::string(kindOf(status.st_mode)) + "; a file is needed"};
    }
    if (status.st_size == 0) return Failure{kExitUnusable, path, "the file is empty"};
    mFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (mFd < 0) return Failure{exitStatusOf(errno), path, strerror(errno)};
    if (fstat(mFd, &mStatus) != 0) return Failure{kExitFailed, path, strerror(errno)};
    return std::nullopt;
}

std::optional<Failure> InputFile::probe(const RunFacts& facts) {
    const auto [media, status] = readMediaFile(mFd);
    if (auto failure = checkReads(facts)) return failure;
    if (status < 0 && status > MEDIA_ERROR_BASE) {
        return Failure{kExitFailed, mPath, strerror(-status)};
    }
    if (!media) {
        return Failure{kExitUnusable, mPath, "not a media file, or damaged beyond reading"};
    }
    if (!media->audio && !media->video) {
        return Failure{kExitUnusable, mPath,
                       media->mimes.empty() ? "there is no track in this file"
                                            : "no track of this file can be decoded here"};
    }
    mMedia = *media;
    return std::nullopt;
}

std::optional<Failure> InputFile::checkReads(const RunFacts& facts) const {
    if (const std::optional<ReadError> read = facts.readError()) {
        const std::string place = " at byte " + std::to_string(read->offsetBytes);
        if (read->error != ESTALE)
            return Failure{kExitFailed, mPath, strerror(read->error) + place};
        return Failure{kExitFailed, mPath, "it became shorter while it was read; it ended" + place};
    }
    if (const std::optional<std::string> reason = facts.refusal()) {
        return Failure{kExitUnusable, mPath, *reason};
    }
    struct stat now {};
    if (fstat(mFd, &now) != 0) return Failure{kExitFailed, mPath, strerror(errno)};
    const bool grew = now.st_size > mStatus.st_size;
    const bool changed = now.st_mtim.tv_sec != mStatus.st_mtim.tv_sec ||
                         now.st_mtim.tv_nsec != mStatus.st_mtim.tv_nsec;
    if (now.st_size < mStatus.st_size || (changed && !grew)) {
        return Failure{kExitFailed, mPath, "it was changed while it was read"};
    }
    return std::nullopt;
}

bool InputFile::isSameFile(const struct stat* file) const {
    return file != nullptr && file->st_dev == mStatus.st_dev && file->st_ino == mStatus.st_ino;
}

}  // namespace android::qmmediaeditor::cli
