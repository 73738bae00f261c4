#include "host/io/DescriptorFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace android {
namespace qmmediaeditor {

InputFile::Opened InputFile::open(int fd, int64_t offset, int64_t length, HostObserver* observer) {
    struct stat info;
    if (fstat(fd, &info) != 0) return {nullptr, -errno};
    if (offset < 0 || length <= 0) return {nullptr, -EINVAL};
    if (S_ISREG(info.st_mode)) length = std::min<int64_t>(length, info.st_size - offset);
    if (length <= 0) return {nullptr, -ENODATA};
    const int duplicate = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) return {nullptr, -errno};
    return {std::shared_ptr<const InputFile>(new InputFile(duplicate, offset, length, observer)),
            OK};
}

InputFile::InputFile(int fd, int64_t offset, int64_t sizeBytes, HostObserver* observer)
    : mFd(fd), mOffset(offset), mSizeBytes(sizeBytes), mObserver(observer) {}

InputFile::~InputFile() { close(mFd); }

ssize_t InputFile::readAt(int64_t position, void* data, size_t size) const {
    if (position < 0) return -EINVAL;
    if (position >= mSizeBytes) return 0;
    if (const status_t status = mStatus; status != OK) return status;
    size = std::min<size_t>(size, static_cast<size_t>(mSizeBytes - position));
    ssize_t count;
    do {
        count = pread(mFd, data, size, mOffset + position);
    } while (count < 0 && errno == EINTR);
    if (count < 0) return fail(errno, position);
    if (count == 0 && size > 0) return fail(ESTALE, position);
    return count;
}

ssize_t InputFile::fail(int error, int64_t position) const {
    status_t ok = OK;
    if (mStatus.compare_exchange_strong(ok, -error) && mObserver != nullptr) {
        mObserver->onReadError(error, mOffset + position);
    }
    return -error;
}

void InputFile::refuse(const std::string& reason) const {
    if (mObserver != nullptr) mObserver->onRefused(reason);
}

bool InputFile::readFully(int64_t position, void* data, size_t size) const {
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

}  // namespace qmmediaeditor
}  // namespace android
