// One input or output buffer of a codec.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <media/stagefright/foundation/AMessage.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class MediaCodecBuffer : public RefBase {
public:
    // `format` may be null.
    MediaCodecBuffer(const sp<AMessage>& format, const sp<ABuffer>& buffer);

    uint8_t* base() { return mBuffer->base(); }
    uint8_t* data() { return mBuffer->data(); }
    size_t capacity() const { return mBuffer->capacity(); }
    size_t size() const { return mBuffer->size(); }
    size_t offset() const { return mBuffer->offset(); }
    // BAD_VALUE, and the old range, when the new one does not fit.
    status_t setRange(size_t offset, size_t size);

    sp<AMessage> meta() { return mBuffer->meta(); }
    sp<AMessage> format() { return mFormat; }

protected:
    ~MediaCodecBuffer() override;

    // Puts other memory behind the same buffer. For the codec that owns it, while nobody holds its
    // index.
    void setBuffer(const sp<ABuffer>& buffer) { mBuffer = buffer; }

private:
    sp<AMessage> mFormat;
    sp<ABuffer> mBuffer;
};

}  // namespace android
