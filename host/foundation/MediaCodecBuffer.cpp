#include <media/MediaCodecBuffer.h>

namespace android {

MediaCodecBuffer::MediaCodecBuffer(const sp<AMessage>& format, const sp<ABuffer>& buffer)
    : mFormat(format), mBuffer(buffer) {}

MediaCodecBuffer::~MediaCodecBuffer() = default;

status_t MediaCodecBuffer::setRange(size_t offset, size_t size) {
    if (offset > capacity() || size > capacity() - offset) return BAD_VALUE;
    mBuffer->setRange(offset, size);
    return OK;
}

}  // namespace android
