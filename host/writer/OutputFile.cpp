#include "host/writer/OutputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <string>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kIoBufferBytes = 256 * 1024;

}  // namespace

struct OutputFile::Cursor {
    int fd = -1;
    int64_t position = 0;
    int64_t sizeBytes = 0;
    int error = 0;  // 0 or the first -errno

    ~Cursor() {
        if (fd >= 0) close(fd);
    }

    int fail() {
        const int result = -errno;
        if (error == 0) error = result;
        return result;
    }

    static int write(void* opaque, uint8_t* data, int size) {
        auto* cursor = static_cast<Cursor*>(opaque);
        if (cursor->error != 0) return cursor->error;
        for (int done = 0; done < size;) {
            const ssize_t count =
                pwrite(cursor->fd, data + done, static_cast<size_t>(size - done), cursor->position);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) return cursor->fail();
            done += static_cast<int>(count);
            cursor->position += count;
        }
        cursor->sizeBytes = std::max(cursor->sizeBytes, cursor->position);
        return size;
    }

    static int read(void* opaque, uint8_t* data, int size) {
        auto* cursor = static_cast<Cursor*>(opaque);
        // What lies behind is an older file's.
        const int64_t remaining = cursor->sizeBytes - cursor->position;
        if (remaining <= 0) return AVERROR_EOF;
        size = static_cast<int>(std::min<int64_t>(size, remaining));
        ssize_t count;
        do {
            count = pread(cursor->fd, data, static_cast<size_t>(size), cursor->position);
        } while (count < 0 && errno == EINTR);
        if (count < 0) return cursor->fail();
        cursor->position += count;
        return count == 0 ? AVERROR_EOF : static_cast<int>(count);
    }

    static int64_t seek(void* opaque, int64_t offset, int whence) {
        auto* cursor = static_cast<Cursor*>(opaque);
        switch (whence & ~AVSEEK_FORCE) {
            case AVSEEK_SIZE:
                return cursor->sizeBytes;
            case SEEK_SET:
                break;
            case SEEK_CUR:
                offset += cursor->position;
                break;
            case SEEK_END:
                offset += cursor->sizeBytes;
                break;
            default:
                return AVERROR(EINVAL);
        }
        if (offset < 0) return AVERROR(EINVAL);
        return cursor->position = offset;
    }
};

OutputFile::OutputFile()
    : mWriting(std::make_unique<Cursor>()), mReading(std::make_unique<Cursor>()) {}

OutputFile::~OutputFile() = default;

std::unique_ptr<OutputFile> OutputFile::open(int fd) {
    std::unique_ptr<OutputFile> file(new OutputFile);
    file->mWriting->fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (file->mWriting->fd < 0 || lseek(fd, 0, SEEK_CUR) < 0) return nullptr;
    auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferBytes));
    if (buffer == nullptr) return nullptr;
    file->mIo.reset(avio_alloc_context(buffer, kIoBufferBytes, 1, file->mWriting.get(), nullptr,
                                       Cursor::write, Cursor::seek));
    if (file->mIo == nullptr) {
        av_free(buffer);
        return nullptr;
    }
    return file;
}

bool OutputFile::isReadable() {
    if (mReading->fd >= 0) return true;
    const int flags = fcntl(mWriting->fd, F_GETFL);
    if (flags >= 0 && (flags & O_ACCMODE) == O_RDWR) {
        mReading->fd = fcntl(mWriting->fd, F_DUPFD_CLOEXEC, 0);
    } else {
        const std::string path = "/proc/self/fd/" + std::to_string(mWriting->fd);
        mReading->fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    return mReading->fd >= 0;
}

AVIOContext* OutputFile::openForReading() {
    if (!isReadable()) return nullptr;
    avio_flush(mIo.get());
    mReading->position = 0;
    mReading->sizeBytes = mWriting->sizeBytes;
    auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferBytes));
    if (buffer == nullptr) return nullptr;
    AVIOContext* const io = avio_alloc_context(buffer, kIoBufferBytes, 0, mReading.get(),
                                               Cursor::read, nullptr, Cursor::seek);
    if (io == nullptr) av_free(buffer);
    return io;
}

std::shared_ptr<const InputFile> OutputFile::written() {
    avio_flush(mIo.get());
    return isReadable() ? InputFile::open(mReading->fd, 0, mWriting->sizeBytes).file : nullptr;
}

status_t OutputFile::finish() {
    if (mWriting->fd < 0) return mWriting->error;
    avio_flush(mIo.get());
    // Not every descriptor can be cut; a fresh file has nothing to cut off either.
    if (mWriting->error == 0 && ftruncate(mWriting->fd, mWriting->sizeBytes) != 0 &&
        errno != EINVAL) {
        mWriting->fail();
    }
    // Network file systems report a failed write as late as here.
    if (close(mWriting->fd) != 0 && mWriting->error == 0) mWriting->fail();
    mWriting->fd = -1;
    return mWriting->error;
}

}  // namespace qmmediaeditor
}  // namespace android
