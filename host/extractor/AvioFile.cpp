#include "host/extractor/AvioFile.h"

#include <stdio.h>

#include <utility>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace android {
namespace qmmediaeditor {

AvioFile::AvioFile(std::shared_ptr<const DescriptorFile> file, DescriptorFile* writable)
    : mFile(std::move(file)), mWritable(writable) {}

std::unique_ptr<AvioFile> AvioFile::forReading(std::shared_ptr<const DescriptorFile> file,
                                               int bufferBytes) {
    std::unique_ptr<AvioFile> io(new AvioFile(std::move(file), nullptr));
    return io->makeContext(bufferBytes) ? std::move(io) : nullptr;
}

std::unique_ptr<AvioFile> AvioFile::forWriting(const std::shared_ptr<DescriptorFile>& file,
                                               int bufferBytes) {
    std::unique_ptr<AvioFile> io(new AvioFile(file, file.get()));
    return io->makeContext(bufferBytes) ? std::move(io) : nullptr;
}

bool AvioFile::makeContext(int bufferBytes) {
    auto* buffer = static_cast<uint8_t*>(av_malloc(static_cast<size_t>(bufferBytes)));
    if (buffer == nullptr) return false;
    const bool writes = mWritable != nullptr;
    mContext.reset(avio_alloc_context(buffer, bufferBytes, writes ? 1 : 0, this,
                                      writes ? nullptr : read, writes ? write : nullptr, seek));
    if (mContext == nullptr) av_free(buffer);
    return mContext != nullptr;
}

int AvioFile::read(void* self, uint8_t* data, int size) {
    auto* io = static_cast<AvioFile*>(self);
    const ssize_t count = io->mFile->readAt(io->mPosition, data, static_cast<size_t>(size));
    if (count == 0) return AVERROR_EOF;
    if (count > 0) io->mPosition += count;
    return static_cast<int>(count);
}

int AvioFile::write(void* self, uint8_t* data, int size) {
    auto* io = static_cast<AvioFile*>(self);
    const status_t status = io->mWritable->writeAt(io->mPosition, data, static_cast<size_t>(size));
    if (status != OK) return status;
    io->mPosition += size;
    return size;
}

int64_t AvioFile::seek(void* self, int64_t offset, int whence) {
    auto* io = static_cast<AvioFile*>(self);
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return io->mFile->sizeBytes();
        case SEEK_SET:
            break;
        case SEEK_CUR:
            offset += io->mPosition;
            break;
        case SEEK_END:
            offset += io->mFile->sizeBytes();
            break;
        default:
            return AVERROR(EINVAL);
    }
    if (offset < 0) return AVERROR(EINVAL);
    return io->mPosition = offset;
}

}  // namespace qmmediaeditor
}  // namespace android
