#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <qmtranscode/job/PendingFile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

namespace android::qmmediaeditor::cli {

namespace {

// One for the output and one for the trace, and as many again for tests.
constexpr size_t kMostHiddenNames = 4;

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

std::string nameOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The path that symbolic links lead to, whether there is a file or not. Nothing for a loop.
std::optional<std::string> followLinks(std::string path) {
    // The kernel follows as many.
    constexpr int kMostLinks = 40;
    for (int i = 0; i <= kMostLinks; ++i) {
        char target[PATH_MAX];
        const ssize_t length = readlink(path.c_str(), target, sizeof(target));
        if (length <= 0) return path;
        const std::string text(target, static_cast<size_t>(length));
        path = text[0] == '/' ? text : folderOf(path) + text;
    }
    return std::nullopt;
}

// Without the right to read the folder, its descriptor still serves to create files in it.
int openFolder(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 || errno != EACCES) return fd;
    return open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

std::string ownDescriptorPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Errors that mean that a file system does not have an operation.
bool isUnsupported(int error) {
    return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM;
}

// Errors of a change of owner that this user, or this user namespace, is not allowed.
bool isRefusedOwner(int error) { return error == EPERM || error == EINVAL; }

// Why the kernel would not let another file take the name of this one; empty if it would.
std::string whyFixed(int folder, const std::string& name) {
    struct statx status {};
    if (statx(folder, name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) != 0) {
        return strerror(errno);
    }
    const uint64_t attributes = status.stx_attributes;
    if ((attributes & STATX_ATTR_MOUNT_ROOT) != 0) return "it is a mount point";
    if ((attributes & STATX_ATTR_IMMUTABLE) != 0) return "it is marked as immutable";
    if ((attributes & STATX_ATTR_APPEND) != 0) return "it is marked as append-only";
    struct stat inFolder {};
    if (fstat(folder, &inFolder) != 0) return strerror(errno);
    const uid_t user = geteuid();
    if ((inFolder.st_mode & S_ISVTX) != 0 && user != 0 && user != status.stx_uid &&
        user != inFolder.st_uid) {
        return "it is another user's, in a folder with the sticky bit";
    }
    return "";
}

}  // namespace

// In static memory and never freed, because removeNow() may read it on another thread while a
// PendingFile goes away.
struct PendingFile::HiddenName {
    std::atomic<bool> taken{false};
    // Written after the other two, which are valid while it is true.
    std::atomic<bool> valid{false};
    int folder = -1;
    char name[NAME_MAX + 1] = {};
};

PendingFile::HiddenName PendingFile::sHiddenNames[kMostHiddenNames];

PendingFile::~PendingFile() {
    if (mHidden != nullptr) {
        unlinkat(mFolder, mHidden->name, 0);
        releaseHiddenName();
    }
    if (mFd >= 0) close(mFd);
    if (mFolder >= 0) close(mFolder);
}

std::optional<Failure> PendingFile::locate(const std::string& path) {
    mPath = path;
    const std::optional<std::string> target = followLinks(path);
    if (!target) return Failure{kExitUsage, path, strerror(ELOOP)};
    mName = nameOf(*target);
    if (mName.empty()) return Failure{kExitUsage, path, "the name of a file is missing"};
    mFolder = openFolder(folderOf(*target));
    if (mFolder < 0) {
        return Failure{kExitUsage, path,
                       "its folder cannot be used: " + std::string(strerror(errno))};
    }
    struct stat status {};
    if (fstatat(mFolder, mName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        mOlder = status;
    } else if (errno != ENOENT) {
        return Failure{kExitUsage, path, strerror(errno)};
    }
    // Links below /proc lead to files that no path leads to, such as a pipe on standard output.
    if (stat(path.c_str(), &status) == 0 && !(mOlder && isSameFile(*mOlder, status))) {
        return Failure{kExitUsage, path, "this file has no path of its own"};
    }
    return std::nullopt;
}

std::optional<Failure> PendingFile::checkPlace(bool overwrite) const {
    if (mOlder) {
        if (!S_ISREG(mOlder->st_mode)) {
            return Failure{kExitUsage, mPath, "this exists and is not a regular file"};
        }
        if (!overwrite) {
            return Failure{kExitUsage, mPath, "this file exists; --overwrite would replace it"};
        }
        const std::string reason = whyFixed(mFolder, mName);
        if (!reason.empty()) {
            return Failure{kExitUsage, mPath, "this file cannot be replaced: " + reason};
        }
    }
    if (faccessat(mFolder, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        return Failure{kExitUsage, mPath,
                       "nothing can be written to its folder: " + std::string(strerror(errno))};
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
    mFd = openat(mFolder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (mFd < 0) return -1;
    // The file gets its name through this path.
    if (access(ownDescriptorPath(mFd).c_str(), F_OK) == 0) return 0;
    close(mFd);
    mFd = -1;
    return -1;
}

int PendingFile::createHidden() {
    if (!reserveHiddenName()) return -1;
    mFd = openat(mFolder, mHidden->name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (mFd >= 0) return 0;
    releaseHiddenName();
    return -1;
}

int PendingFile::duplicate() const { return fcntl(mFd, F_DUPFD_CLOEXEC, 0); }

std::optional<Failure> PendingFile::commit() {
    if (copyAttributes() != 0 || writeToDisk() != 0) return failed();
    if (giveName() == 0) {
        if (writeFolderToDisk() == 0) return std::nullopt;
        const Failure failure = failed();
        unlinkat(mFolder, mName.c_str(), 0);
        return failure;
    }
    if (errno == EEXIST && mOverwrite && replace() == 0) return std::nullopt;
    return failed();
}

// Gives the file the permissions, the owner and the group of the file that it replaces.
int PendingFile::copyAttributes() const {
    struct stat older {};
    if (!mOverwrite) return 0;
    if (fstatat(mFolder, mName.c_str(), &older, AT_SYMLINK_NOFOLLOW) != 0) {
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

int PendingFile::writeToDisk() const {
    if (fsync(mFd) != 0) return -1;
    return checkByClosing(mFd);
}

int PendingFile::writeFolderToDisk() const {
    // A folder that may not be read cannot be synchronized on its own.
    const bool isReadable = (fcntl(mFolder, F_GETFL) & O_PATH) == 0;
    const int result = isReadable ? fsync(mFolder) : syncfs(mFd);
    // Some file systems have no such operation for folders.
    return result != 0 && errno == EINVAL ? 0 : result;
}

// Does not replace a file.
int PendingFile::giveName() {
    if (mHidden != nullptr) return moveHidden();
    return linkat(AT_FDCWD, ownDescriptorPath(mFd).c_str(), mFolder, mName.c_str(),
                  AT_SYMLINK_FOLLOW);
}

int PendingFile::moveHidden() {
    int result = renameat2(mFolder, mHidden->name, mFolder, mName.c_str(), RENAME_NOREPLACE);
    if (result != 0 && isUnsupported(errno)) {
        result = linkat(mFolder, mHidden->name, mFolder, mName.c_str(), 0);
        if (result == 0) {
            unlinkat(mFolder, mHidden->name, 0);
        } else if (isUnsupported(errno)) {
            // A file system that can do neither in one step.
            if (faccessat(mFolder, mName.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
                errno = EEXIST;
                return -1;
            }
            result = renameat(mFolder, mHidden->name, mFolder, mName.c_str());
        }
    }
    if (result == 0) releaseHiddenName();
    return result;
}

int PendingFile::replace() {
    if (mHidden == nullptr) {
        if (!reserveHiddenName()) return -1;
        if (linkat(AT_FDCWD, ownDescriptorPath(mFd).c_str(), mFolder, mHidden->name,
                   AT_SYMLINK_FOLLOW) != 0) {
            releaseHiddenName();
            return -1;
        }
    }
    if (exchange() == 0) {
        if (writeFolderToDisk() == 0) {
            unlinkat(mFolder, mHidden->name, 0);
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
    if (renameat(mFolder, mHidden->name, mFolder, mName.c_str()) != 0) return -1;
    releaseHiddenName();
    return writeFolderToDisk();
}

int PendingFile::exchange() {
    return renameat2(mFolder, mHidden->name, mFolder, mName.c_str(), RENAME_EXCHANGE);
}

bool PendingFile::reserveHiddenName() {
    for (HiddenName& hidden : sHiddenNames) {
        bool taken = false;
        if (!hidden.taken.compare_exchange_strong(taken, true)) continue;
        // Room for the rest within the 255 bytes of a file name.
        constexpr int kNameBytes = 200;
        snprintf(hidden.name, sizeof(hidden.name), ".%.*s.qmtranscode-%08x%08x", kNameBytes,
                 mName.c_str(), arc4random(), arc4random());
        hidden.folder = mFolder;
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
    struct stat folder {};
    struct stat others {};
    return mName == other.mName && fstat(mFolder, &folder) == 0 &&
           fstat(other.mFolder, &others) == 0 && isSameFile(folder, others);
}

Failure PendingFile::failed() const { return {kExitFailed, mPath, strerror(errno)}; }

void PendingFile::removeNow() {
    for (HiddenName& hidden : sHiddenNames) {
        if (hidden.valid) unlinkat(hidden.folder, hidden.name, 0);
    }
}

}  // namespace android::qmmediaeditor::cli
