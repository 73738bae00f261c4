// A file that was given as a descriptor, read and written at explicit offsets.
//
// It works on a duplicate of the caller's descriptor, whose position stays where it is. Offsets
// count from the start of the window. The first read or write error is repeated by every later
// call, because a demuxer that resumed behind unreadable bytes would lose them without a trace.
// A file opened for reading may be used by any thread; one opened for writing by one at a time.
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

class DescriptorFile {
public:
    struct Opened {
        std::shared_ptr<DescriptorFile> file;  // null unless status is OK
        status_t status;                       // OK or -errno
    };
    // For reading, a window of the file. It ends with the file if that is shorter; an empty one is
    // refused with -ENODATA. `observer`, which may be null, is told of the first read error and of
    // a refusal, and outlives the file.
    static Opened openForReading(int fd, int64_t offset, int64_t length,
                                 HostObserver* observer = nullptr);
    // For writing from offset 0. -errno when `fd` cannot be duplicated or cannot seek.
    static Opened openForWriting(int fd);
    ~DescriptorFile();

    // Bytes of the window, or up to the last byte written.
    int64_t sizeBytes() const { return mSizeBytes; }
    // Always true of a file opened for reading; of one opened for writing, when its descriptor
    // allows it or the file can be opened again.
    bool makeReadable();

    // Up to `size` bytes from `position`: the number of bytes read, 0 at the end, or -errno. A file
    // that has become shorter than the window gives -ESTALE.
    ssize_t readAt(int64_t position, void* data, size_t size) const;
    // True when all of them were read.
    bool readFully(int64_t position, void* data, size_t size) const;
    // Writes all bytes: OK or -errno.
    status_t writeAt(int64_t position, const void* data, size_t size);

    // Tells the observer why the file is refused.
    void refuse(const std::string& reason) const;
    // OK, or the first error as -errno.
    status_t status() const { return mStatus; }

    // After writing: removes what the file held beyond sizeBytes() and closes the duplicate. The
    // first error since open, or OK.
    status_t finish();

private:
    DescriptorFile() = default;
    DescriptorFile(const DescriptorFile&) = delete;
    DescriptorFile& operator=(const DescriptorFile&) = delete;

    // True when this is the first error.
    bool keepError(int error) const;

    int mReadFd = -1;
    int mWriteFd = -1;
    int64_t mOffset = 0;  // of the window
    int64_t mSizeBytes = 0;
    HostObserver* mObserver = nullptr;
    // Written by the first thread whose operation fails, read by all.
    mutable std::atomic<status_t> mStatus{OK};
};

}  // namespace qmmediaeditor
}  // namespace android
