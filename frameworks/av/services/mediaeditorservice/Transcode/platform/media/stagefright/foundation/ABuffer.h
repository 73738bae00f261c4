// A block of bytes with a payload range inside it.
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class ABuffer : public RefBase {
public:
    // Owns `capacity` uninitialised bytes; the range covers all of them.
    explicit ABuffer(size_t capacity);
    // Refers to memory of the caller, who keeps it alive.
    ABuffer(void* data, size_t capacity);

    uint8_t* base() { return static_cast<uint8_t*>(mData); }
    uint8_t* data() { return base() + mRangeOffset; }
    size_t capacity() const { return mCapacity; }
    size_t size() const { return mRangeLength; }
    size_t offset() const { return mRangeOffset; }

    // `offset` + `size` must not exceed the capacity; a range outside of it is ignored.
    void setRange(size_t offset, size_t size);

    // Created on first use.
    sp<AMessage> meta();

    // A buffer with a copy of `capacity` bytes, which is not to be written to, because it may share
    // memory that nobody changes. Null when memory is short.
    static sp<ABuffer> CreateAsCopy(const void* data, size_t capacity);

protected:
    ~ABuffer() override;

private:
    sp<AMessage> mMeta;
    void* mData;
    size_t mCapacity;
    size_t mRangeOffset = 0;
    size_t mRangeLength;
    bool mOwnsData;
};

}  // namespace android
