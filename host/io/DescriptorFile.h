// The bytes that an extractor was given: a window of a file.
//
// Read through a duplicate of the caller's descriptor with positions of its own, so the caller's
// position stays where it is. Any thread may read.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/Errors.h>

#include <atomic>
#include <memory>
#include <string>

#include "host/Host.h"

namespace android {
namespace qmmediaeditor {

class InputFile {
public:
    struct Opened {
        std::shared_ptr<const InputFile> file;  // null unless status is OK
        status_t status;                        // OK or -errno
    };
    // The window ends with the file when that comes first; an empty one is refused with -ENODATA.
    // `observer`, which may be null, hears of the first read error and of a refusal, and outlives
    // the file.
    static Opened open(int fd, int64_t offset, int64_t length, HostObserver* observer = nullptr);
    ~InputFile();

    int64_t sizeBytes() const { return mSizeBytes; }

    // Up to `size` bytes from `position` of the window: the number of bytes read, 0 at the end, or
    // -errno. The first error is repeated by every later read, because a demuxer that resumed
    // behind unreadable bytes would lose them without a trace. A file that has become shorter than
    // the window gives -ESTALE.
    ssize_t readAt(int64_t position, void* data, size_t size) const;
    // True when all of them were read.
    bool readFully(int64_t position, void* data, size_t size) const;

    // Tells the observer why the file is refused.
    void refuse(const std::string& reason) const;

    // OK, or the first read error as -errno.
    status_t status() const { return mStatus; }

private:
    InputFile(int fd, int64_t offset, int64_t sizeBytes, HostObserver* observer);
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    ssize_t fail(int error, int64_t position) const;

    const int mFd;
    const int64_t mOffset;
    const int64_t mSizeBytes;
    HostObserver* const mObserver;
    // Written by the first thread whose read fails, read by all.
    mutable std::atomic<status_t> mStatus{OK};
};

}  // namespace qmmediaeditor
}  // namespace android
