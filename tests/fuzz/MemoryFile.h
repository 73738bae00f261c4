// A file of bytes that were made up, without a name.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

class MemoryFile {
public:
    explicit MemoryFile(const uint8_t* data = nullptr, size_t size = 0)
        : mFd(memfd_create("fuzz", MFD_CLOEXEC)) {
        if (mFd < 0 || (size > 0 && write(mFd, data, size) != static_cast<ssize_t>(size))) abort();
    }
    ~MemoryFile() { close(mFd); }

    int fd() const { return mFd; }

private:
    const int mFd;
};
