#include "host/io/DescriptorFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

DescriptorFile::Opened DescriptorFile::openForReading(int fd, int64_t offset, int64_t length,
                                                      HostObserver* observer) {
    struct stat info;
    if (fstat(fd, &info) != 0) return {nullptr, -errno};
    if (offset < 0 || length <= 0) return {nullptr, -EINVAL};
    if (S_ISREG(info.st_mode)) length = std::min<int64_t>(length, info.st_size - offset);
    if (length <= 0) return {nullptr, -ENODATA};
    std::shared_ptr<DescriptorFile> file(new DescriptorFile);
    file->mReadFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (file->mReadFd < 0) return {nullptr, -errno};
    file->mOffset = offset;
    file->mSizeBytes = length;
    file->mObserver = observer;
    return {std::move(file), OK};
}

DescriptorFile::Opened DescriptorFile::openForWriting(int fd) {
    std::shared_ptr<DescriptorFile> file(new DescriptorFile);
    file->mWriteFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (file->mWriteFd < 0 || lseek(fd, 0, SEEK_CUR) < 0) return {nullptr, -errno};
    return {std::move(file), OK};
}

DescriptorFile::~DescriptorFile() {
    if (mReadFd >= 0) close(mReadFd);
    if (mWriteFd >= 0) close(mWriteFd);
}

bool DescriptorFile::makeReadable() {
    if (mReadFd >= 0) return true;
    const int flags = fcntl(mWriteFd, F_GETFL);
    if (flags >= 0 && (flags & O_ACCMODE) == O_RDWR) {
        mReadFd = fcntl(mWriteFd, F_DUPFD_CLOEXEC, 0);
    } else {
        const std::string path = "/proc/self/fd/" + std::to_string(mWriteFd);
        mReadFd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    return mReadFd >= 0;
}

ssize_t DescriptorFile::readAt(int64_t position, void* data, size_t size) const {
    if (position < 0) return -EINVAL;
    if (position >= mSizeBytes) return 0;
    if (const status_t status = mStatus; status != OK) return status;
    // Bytes beyond the window, or beyond what has been written, belong to another file.
    size = std::min<size_t>(size, static_cast<size_t>(mSizeBytes - position));
    ssize_t count;
    do {
        count = pread(mReadFd, data, size, mOffset + position);
    } while (count < 0 && errno == EINTR);
    if (count > 0 || size == 0) return count;
    const int error = count < 0 ? errno : ESTALE;
    if (keepError(error) && mObserver != nullptr) mObserver->onReadError(error, mOffset + position);
    return -error;
}

bool DescriptorFile::readFully(int64_t position, void* data, size_t size) const {
    auto* bytes = static_cast<uint8_t*>(data);
    while (size > 0) {
        const ssize_t count = readAt(position, bytes, size);
        if (count <= 0) return false;
        bytes += count;
        position += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

status_t DescriptorFile::writeAt(int64_t position, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (size > 0) {
        if (const status_t status = mStatus; status != OK) return status;
        const ssize_t count = pwrite(mWriteFd, bytes, size, position);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            keepError(errno);
            return mStatus;
        }
        bytes += count;
        position += count;
        size -= static_cast<size_t>(count);
        mSizeBytes = std::max(mSizeBytes, position);
    }
    return OK;
}

bool DescriptorFile::keepError(int error) const {
    status_t ok = OK;
    return mStatus.compare_exchange_strong(ok, -error);
}

void DescriptorFile::refuse(const std::string& reason) const {
    if (mObserver != nullptr) mObserver->onRefused(reason);
}

status_t DescriptorFile::finish() {
    if (mWriteFd < 0) return mStatus;
    // Not every descriptor can be truncated; a fresh file holds nothing to remove either.
    if (mStatus == OK && ftruncate(mWriteFd, mSizeBytes) != 0 && errno != EINVAL) keepError(errno);
    // Network file systems report a failed write as late as here.
    if (close(mWriteFd) != 0) keepError(errno);
    mWriteFd = -1;
    return mStatus;
}

}  // namespace qmmediaeditor
}  // namespace android
