// The bytes that an extractor was given: a window of a file.
//
// Read through a duplicate of the caller's descriptor with positions of its own, so the caller's
// position stays where it is. Any thread may read.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>

namespace android {
namespace qmmediaeditor {

class InputFile {
public:
    // Null when `fd` cannot be duplicated or the window is empty. The window ends with the file
    // when that comes first.
    static std::shared_ptr<const InputFile> open(int fd, int64_t offset, int64_t length);
    ~InputFile();

    int64_t sizeBytes() const { return mSizeBytes; }

    // Up to `size` bytes from `position` of the window: how many came, 0 at the end, or -errno.
    ssize_t readAt(int64_t position, void* data, size_t size) const;
    // True when all of them came.
    bool readFully(int64_t position, void* data, size_t size) const;

private:
    InputFile(int fd, int64_t offset, int64_t sizeBytes);
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    const int mFd;
    const int64_t mOffset;
    const int64_t mSizeBytes;
};

}  // namespace qmmediaeditor
}  // namespace android
