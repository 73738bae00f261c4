#include <media/stagefright/foundation/ABuffer.h>

#include <cstdlib>
#include <cstring>

#include "host/foundation/FrameAllocator.h"
#include "host/foundation/SharedFrames.h"

namespace android {

namespace {

// A copy of a frame that cannot change.
class SharedCopy : public ABuffer {
public:
    SharedCopy(void* data, size_t capacity, const sp<RefBase>& owner)
        : ABuffer(data, capacity), mOwner(owner) {}

private:
    const sp<RefBase> mOwner;
};

}  // namespace

// malloc, so that the pages of a large buffer that is never filled cost nothing.
ABuffer::ABuffer(size_t capacity)
    : mData(malloc(capacity)),
      mCapacity(mData == nullptr ? 0 : capacity),
      mRangeLength(mCapacity),
      mOwnsData(true) {}

ABuffer::ABuffer(void* data, size_t capacity)
    : mData(data), mCapacity(capacity), mRangeLength(capacity), mOwnsData(false) {}

ABuffer::~ABuffer() {
    if (mOwnsData) free(mData);
}

void ABuffer::setRange(size_t offset, size_t size) {
    if (offset > mCapacity || size > mCapacity - offset) return;
    mRangeOffset = offset;
    mRangeLength = size;
}

sp<AMessage> ABuffer::meta() {
    if (mMeta == nullptr) mMeta = new AMessage;
    return mMeta;
}

sp<ABuffer> ABuffer::CreateAsCopy(const void* data, size_t capacity) {
    const sp<RefBase> owner = qmmediaeditor::SharedFrames::find(data, capacity);
    if (owner != nullptr) return new SharedCopy(const_cast<void*>(data), capacity, owner);
    // All of it is filled now, so that pages of its own would only cost.
    const sp<ABuffer> copy = capacity < qmmediaeditor::FrameAllocator::kMinBytes
                                 ? new ABuffer(capacity)
                                 : qmmediaeditor::FrameAllocator::makeBuffer(capacity);
    if (copy == nullptr || copy->capacity() != capacity) return nullptr;
    if (capacity > 0) memcpy(copy->base(), data, capacity);
    return copy;
}

}  // namespace android
