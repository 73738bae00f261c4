// A file that gets its name only when it is complete and on disk. Until then it has no name at all,
// or a hidden one in its directory where the file system has no unnamed files. Any failure leaves
// the directory as it was, with an older file's content untouched. One exception: if a file system
// cannot exchange two names and then fails to write the directory to disk, the older file is gone.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <sys/stat.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

// Calls in this order: locate, checkPlace, create, commit. One thread at a time, removeNow
// excepted.
class PendingFile {
public:
    PendingFile() = default;
    // Removes a file that was not committed.
    ~PendingFile();

    // Finds the file's directory and name behind symbolic links, and the older file under that
    // name. Writes nothing.
    std::optional<Failure> locate(const std::string& path);
    // Whether a file can be written there, or an older one be replaced. Writes nothing.
    std::optional<Failure> checkPlace(bool overwrite) const;

    std::optional<Failure> create(bool overwrite);
    // Open for reading and writing; -1 before `create`.
    int fd() const { return mFd; }
    // A new descriptor of the same file, the caller's; -1 with errno on error.
    int duplicate() const;

    // Writes the file to disk and gives it its name. A file that has taken the name since `locate`
    // is replaced only if `create` was told to overwrite.
    std::optional<Failure> commit();

    const std::string& path() const { return mPath; }
    // The file under the name at `locate`; null if there was none.
    const struct stat* older() const { return mOlder ? &*mOlder : nullptr; }
    // Whether both are one file, or would become one, however their paths are spelled.
    bool isSameAs(const PendingFile& other) const;

    // Removes all hidden names, for a process that ends at once: async-signal-safe, on any thread.
    static void removeNow();

private:
    struct HiddenName;

    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // These return -1 with errno on error.
    int createUnnamed();
    int createHidden();
    int copyAttributes() const;
    int syncFile() const;
    int syncDirectory() const;
    int giveName();
    int moveHidden();
    int replace();
    int exchange();

    bool reserveHiddenName();
    void releaseHiddenName();
    Failure failed() const;

    static HiddenName sHiddenNames[];

    std::string mPath;
    std::string mName;
    std::optional<struct stat> mOlder;
    bool mOverwrite = false;
    int mDirectory = -1;
    int mFd = -1;
    // Null while the file has no hidden name.
    HiddenName* mHidden = nullptr;
};

}  // namespace android::qmmediaeditor::cli
