#include <errno.h>
#include <fcntl.h>
#include <qmtranscode/InputFile.h>
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
    if (stat(path.c_str(), &status) != 0) return Failure{kExitUnusable, path, strerror(errno)};
    if (!S_ISREG(status.st_mode)) {
        return Failure{kExitUnusable, path,
                       std::string(kindOf(status.st_mode)) + "; a file is needed"};
    }
    if (status.st_size == 0) return Failure{kExitUnusable, path, "the file is empty"};
    mFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (mFd < 0) return Failure{kExitUnusable, path, strerror(errno)};
    mDevice = status.st_dev;
    mInode = status.st_ino;
    return std::nullopt;
}

std::optional<Failure> InputFile::probe() {
    const std::optional<MediaFile> media = readMediaFile(mFd);
    if (!media) {
        return Failure{kExitUnusable, mPath, "no media file that can be read, or a damaged one"};
    }
    if (!media->audio && !media->video) {
        return Failure{kExitUnusable, mPath,
                       media->mimes.empty() ? "there is no track in this file"
                                            : "no track of this file can be decoded here"};
    }
    mMedia = *media;
    return std::nullopt;
}

bool InputFile::isSameFile(const struct stat* file) const {
    return file != nullptr && file->st_dev == mDevice && file->st_ino == mInode;
}

}  // namespace android::qmmediaeditor::cli
