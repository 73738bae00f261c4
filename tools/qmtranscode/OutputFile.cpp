#include <errno.h>
#include <fcntl.h>
#include <qmtranscode/OutputFile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <memory>

namespace android::qmmediaeditor::cli {

namespace {

// The name of the temporary file, while there is one.
std::atomic<const char*> gTemporary{nullptr};

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

std::string nameOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The file that a symbolic link leads to; the path itself when there is none.
std::string followLinks(const std::string& path) {
    const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
    return real == nullptr ? path : std::string(real.get());
}

mode_t newFileMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

OutputFile::~OutputFile() {
    if (mTemporary.empty()) return;
    gTemporary = nullptr;
    unlink(mTemporary.c_str());
}

std::optional<Failure> OutputFile::check(const std::string& path, bool overwrite,
                                         const InputFile& input) {
    mPath = path;
    mOverwrite = overwrite;
    mTarget = followLinks(path);
    mMode = newFileMode();
    if (path == "-") {
        return Failure{kExitUsage, path,
                       "an MP4 file cannot be piped; the output has to be a file"};
    }
    const std::string folder = folderOf(mTarget);
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0) {
        return Failure{kExitUsage, path,
                       "its folder cannot be used: " + std::string(strerror(errno))};
    }
    if (stat(mTarget.c_str(), &status) == 0) {
        if (input.isSameFile(status.st_dev, status.st_ino)) {
            return Failure{kExitUsage, path, "this is the input"};
        }
        if (!S_ISREG(status.st_mode)) {
            return Failure{kExitUsage, path, "this is there already, and is no plain file"};
        }
        if (!overwrite) {
            return Failure{kExitUsage, path, "this file exists; --overwrite would replace it"};
        }
        mMode = status.st_mode & 0777;
    } else if (nameOf(mTarget).empty()) {
        return Failure{kExitUsage, path, "the name of a file is missing"};
    }
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
        return Failure{kExitUsage, path,
                       "nothing can be written to its folder: " + std::string(strerror(errno))};
    }
    return std::nullopt;
}

std::optional<Failure> OutputFile::create(int* fd) {
    // Room for the rest within the 255 bytes of a file name.
    constexpr size_t kNameBytes = 200;
    std::string temporary =
        folderOf(mTarget) + "." + nameOf(mTarget).substr(0, kNameBytes) + ".qmtranscode-XXXXXX";
    *fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (*fd < 0) return Failure{kExitFailed, mPath, strerror(errno)};
    fchmod(*fd, mMode);
    mTemporary = temporary;
    gTemporary = mTemporary.c_str();
    return std::nullopt;
}

int OutputFile::openForReading() const { return open(mTemporary.c_str(), O_RDONLY | O_CLOEXEC); }

std::optional<Failure> OutputFile::keep() {
    int result = -1;
    if (mOverwrite) {
        result = rename(mTemporary.c_str(), mTarget.c_str());
    } else {
        // Another file may have come there in the meantime.
        result =
            renameat2(AT_FDCWD, mTemporary.c_str(), AT_FDCWD, mTarget.c_str(), RENAME_NOREPLACE);
        // Some file systems cannot do this in one step.
        if (result != 0 && errno == EINVAL && access(mTarget.c_str(), F_OK) != 0) {
            result = rename(mTemporary.c_str(), mTarget.c_str());
        }
    }
    if (result != 0) return Failure{kExitFailed, mPath, strerror(errno)};
    gTemporary = nullptr;
    mTemporary.clear();
    return std::nullopt;
}

bool OutputFile::isFull() const {
    struct statvfs status {};
    return statvfs(folderOf(mTarget).c_str(), &status) == 0 && status.f_bavail == 0;
}

void OutputFile::removeNow() {
    const char* temporary = gTemporary;
    if (temporary != nullptr) unlink(temporary);
}

}  // namespace android::qmmediaeditor::cli
