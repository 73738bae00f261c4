#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <qmtranscode/job/PendingFile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <system_error>

namespace android::qmmediaeditor::cli {

namespace {

namespace fs = std::filesystem;

// The hidden names of a process at one moment: those of all jobs that replace a file, and those of
// the sections of --jobs.
constexpr size_t kMaxHiddenNames = 136;

// The path that symbolic links lead to, whether there is a file or not. Nothing for a loop.
std::optional<fs::path> followLinks(fs::path path) {
    // The limit of the kernel.
    constexpr int kMaxLinks = 40;
    for (int i = 0; i <= kMaxLinks; ++i) {
        std::error_code error;
        const fs::path target = fs::read_symlink(path, error);
        if (error || target.empty()) return path;
        // An absolute target replaces the whole path.
        path = path.parent_path() / target;
    }
    return std::nullopt;
}

// Files can be created in a directory that may not be read.
int openDirectory(const fs::path& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 || errno != EACCES) return fd;
    return open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

std::string descriptorPath(int fd) { return fmt::format("/proc/self/fd/{}", fd); }

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Errors of an operation that the file system does not support.
bool isUnsupported(int error) {
    return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM;
}

// Errors of a change of owner that is not allowed to this user or in this user namespace.
bool isRefusedOwner(int error) { return error == EPERM || error == EINVAL; }

// Why the kernel does not allow to replace the file; empty if it does.
std::string whyNotReplaceable(int directory, const std::string& name) {
    struct statx status {};
    if (statx(directory, name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) != 0) {
        return strerror(errno);
    }
    const uint64_t attributes = status.stx_attributes;
    if ((attributes & STATX_ATTR_MOUNT_ROOT) != 0) return "it is a mount point";
    if ((attributes & STATX_ATTR_IMMUTABLE) != 0) return "it is immutable";
    if ((attributes & STATX_ATTR_APPEND) != 0) return "it is append-only";
    struct stat parent {};
    if (fstat(directory, &parent) != 0) return strerror(errno);
    const uid_t user = geteuid();
    if ((parent.st_mode & S_ISVTX) != 0 && user != 0 && user != status.stx_uid &&
        user != parent.st_uid) {
        return "it belongs to another user, and its directory has the sticky bit";
    }
    return "";
}

}  // namespace

// In static memory and never freed, because removeNow() may read it on another thread while a
// PendingFile is destroyed.
struct PendingFile::HiddenName {
    std::atomic<bool> taken{false};
    // Written after the other two, which are valid while it is true.
    std::atomic<bool> valid{false};
    int directory = -1;
    char name[NAME_MAX + 1] = {};
};

PendingFile::HiddenName PendingFile::sHiddenNames[kMaxHiddenNames];

PendingFile::~PendingFile() {
    if (mHidden != nullptr) {
        unlinkat(mDirectory, mHidden->name, 0);
        releaseHiddenName();
    }
    if (mFd >= 0) close(mFd);
    if (mDirectory >= 0) close(mDirectory);
}

std::optional<Failure> PendingFile::locate(const std::string& path) {
    mPath = path;
    const std::optional<fs::path> target = followLinks(path);
    if (!target) return systemFailure(kExitUsage, path, ELOOP);
    mName = target->filename();
    if (mName.empty()) return Failure{kExitUsage, path, "the file name is missing", "no-file-name"};
    mDirectory = openDirectory(target->has_parent_path() ? target->parent_path() : ".");
    if (mDirectory < 0) {
        // Another try may succeed when descriptors or memory are exhausted.
        const bool isExhausted =
            errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == EIO;
        Failure failure = systemFailure(isExhausted ? kExitFailed : kExitUsage, path, errno);
        failure.reason = "cannot open its directory: " + failure.reason;
        return failure;
    }
    struct stat status {};
    if (fstatat(mDirectory, mName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        mOlder = status;
    } else if (errno != ENOENT) {
        return systemFailure(kExitUsage, path, errno);
    }
    // Links below /proc lead to files that no path leads to, such as a pipe on standard output.
    if (stat(path.c_str(), &status) == 0 && !(mOlder && isSameFile(*mOlder, status))) {
        return Failure{kExitUsage, path,
                       "this names an open file that is in no directory, such as a pipe",
                       "output-not-a-file"};
    }
    return std::nullopt;
}

std::optional<Failure> PendingFile::checkPlace(bool overwrite) const {
    if (mOlder) {
        if (!S_ISREG(mOlder->st_mode)) {
            return Failure{kExitUsage, mPath, "this is not a regular file", "output-not-a-file"};
        }
        if (!overwrite) {
            return Failure{kExitUsage, mPath, "the file exists; --overwrite would replace it",
                           "output-exists"};
        }
        const std::string reason = whyNotReplaceable(mDirectory, mName);
        if (!reason.empty()) {
            return Failure{kExitUsage, mPath, "the file cannot be replaced: " + reason,
                           "output-not-replaceable"};
        }
    }
    if (faccessat(mDirectory, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        Failure failure = systemFailure(kExitUsage, mPath, errno);
        failure.reason = "cannot write to its directory: " + failure.reason;
        return failure;
    }
    return std::nullopt;
}

std::optional<Failure> PendingFile::create(bool overwrite) {
    mOverwrite = overwrite;
    // Any error leads to the hidden name, because file systems refuse unnamed files with different
    // ones.
    if (createUnnamed() != 0 && createHidden() != 0) return failed();
    // Before anything is in the file, because the older one may be private.
    if (copyAttributes() != 0) return failed();
    return std::nullopt;
}

int PendingFile::createUnnamed() {
    mFd = openat(mDirectory, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (mFd < 0) return -1;
    // The file gets its name through this path.
    if (access(descriptorPath(mFd).c_str(), F_OK) == 0) return 0;
    close(mFd);
    mFd = -1;
    return -1;
}

int PendingFile::createHidden() {
    if (!reserveHiddenName()) return -1;
    mFd = openat(mDirectory, mHidden->name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (mFd >= 0) return 0;
    releaseHiddenName();
    return -1;
}

int PendingFile::duplicate() const { return fcntl(mFd, F_DUPFD_CLOEXEC, 0); }

std::optional<Failure> PendingFile::commit() {
    if (copyAttributes() != 0 || syncFile() != 0) return failed();
    if (giveName() == 0) {
        if (syncDirectory() == 0) return std::nullopt;
        const Failure failure = failed();
        unlinkat(mDirectory, mName.c_str(), 0);
        return failure;
    }
    if (errno == EEXIST && !mOverwrite) {
        return Failure{kExitUsage, mPath,
                       "the file was made by another program during the run; --overwrite would "
                       "replace it",
                       "output-exists"};
    }
    if (errno == EEXIST && replace() == 0) return std::nullopt;
    return failed();
}

// Gives the file the permissions, the owner and the group of the file that it replaces.
int PendingFile::copyAttributes() const {
    struct stat older {};
    if (!mOverwrite) return 0;
    if (fstatat(mDirectory, mName.c_str(), &older, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    if (!S_ISREG(older.st_mode)) {
        errno = EEXIST;
        return -1;
    }
    struct stat own {};
    if (fstat(mFd, &own) != 0) return -1;
    // The group on its own too, because a user may change it within the user's groups.
    if (own.st_uid != older.st_uid && fchown(mFd, older.st_uid, static_cast<gid_t>(-1)) != 0 &&
        !isRefusedOwner(errno)) {
        return -1;
    }
    if (own.st_gid != older.st_gid && fchown(mFd, static_cast<uid_t>(-1), older.st_gid) != 0 &&
        !isRefusedOwner(errno)) {
        return -1;
    }
    // Last, because a change of owner may clear some of them.
    constexpr mode_t kPermissions = 0777;
    if (((own.st_mode ^ older.st_mode) & kPermissions) == 0) return 0;
    return fchmod(mFd, older.st_mode & kPermissions);
}

int PendingFile::syncFile() const {
    // Some file systems have no such operation.
    if (fsync(mFd) != 0 && errno != EINVAL) return -1;
    return checkByClosing(mFd);
}

int PendingFile::syncDirectory() const {
    // A directory that may not be read cannot be synchronized on its own.
    const bool isReadable = (fcntl(mDirectory, F_GETFL) & O_PATH) == 0;
    const int result = isReadable ? fsync(mDirectory) : syncfs(mFd);
    // Some file systems have no such operation for directories.
    return result != 0 && errno == EINVAL ? 0 : result;
}

// Does not replace a file.
int PendingFile::giveName() {
    if (mHidden != nullptr) return moveHidden();
    return linkat(AT_FDCWD, descriptorPath(mFd).c_str(), mDirectory, mName.c_str(),
                  AT_SYMLINK_FOLLOW);
}

int PendingFile::moveHidden() {
    int result = renameat2(mDirectory, mHidden->name, mDirectory, mName.c_str(), RENAME_NOREPLACE);
    if (result != 0 && isUnsupported(errno)) {
        result = linkat(mDirectory, mHidden->name, mDirectory, mName.c_str(), 0);
        if (result == 0) {
            unlinkat(mDirectory, mHidden->name, 0);
        } else if (isUnsupported(errno)) {
            // A file system that can do neither in one step.
            if (faccessat(mDirectory, mName.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
                errno = EEXIST;
                return -1;
            }
            result = renameat(mDirectory, mHidden->name, mDirectory, mName.c_str());
        }
    }
    if (result == 0) releaseHiddenName();
    return result;
}

int PendingFile::replace() {
    if (mHidden == nullptr) {
        if (!reserveHiddenName()) return -1;
        if (linkat(AT_FDCWD, descriptorPath(mFd).c_str(), mDirectory, mHidden->name,
                   AT_SYMLINK_FOLLOW) != 0) {
            releaseHiddenName();
            return -1;
        }
    }
    if (exchange() == 0) {
        if (syncDirectory() == 0) {
            unlinkat(mDirectory, mHidden->name, 0);
            releaseHiddenName();
            return 0;
        }
        const int error = errno;
        // The older file keeps the hidden name if it cannot get its own one back.
        if (exchange() != 0) releaseHiddenName();
        errno = error;
        return -1;
    }
    // ENOENT: the older file has gone in the meantime.
    if (!isUnsupported(errno) && errno != ENOENT) return -1;
    if (renameat(mDirectory, mHidden->name, mDirectory, mName.c_str()) != 0) return -1;
    releaseHiddenName();
    return syncDirectory();
}

int PendingFile::exchange() {
    return renameat2(mDirectory, mHidden->name, mDirectory, mName.c_str(), RENAME_EXCHANGE);
}

bool PendingFile::reserveHiddenName() {
    for (HiddenName& hidden : sHiddenNames) {
        bool taken = false;
        if (!hidden.taken.compare_exchange_strong(taken, true)) continue;
        // Shortened, because a file name has at most 255 bytes.
        constexpr size_t kNameBytes = 200;
        const std::string name =
            fmt::format(".{}.qmtranscode-{:08x}{:08x}", mName.substr(0, kNameBytes), arc4random(),
                        arc4random());
        strcpy(hidden.name, name.c_str());
        hidden.directory = mDirectory;
        hidden.valid = true;
        mHidden = &hidden;
        return true;
    }
    errno = EMFILE;
    return false;
}

void PendingFile::releaseHiddenName() {
    mHidden->valid = false;
    mHidden->taken = false;
    mHidden = nullptr;
}

bool PendingFile::isSameAs(const PendingFile& other) const {
    if (mOlder && other.mOlder && isSameFile(*mOlder, *other.mOlder)) return true;
    struct stat directory {};
    struct stat others {};
    return mName == other.mName && fstat(mDirectory, &directory) == 0 &&
           fstat(other.mDirectory, &others) == 0 && isSameFile(directory, others);
}

Failure PendingFile::failed() const { return systemFailure(kExitFailed, mPath, errno); }

void PendingFile::removeNow() {
    for (HiddenName& hidden : sHiddenNames) {
        if (hidden.valid) unlinkat(hidden.directory, hidden.name, 0);
    }
}

}  // namespace android::qmmediaeditor::cli
