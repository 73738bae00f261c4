#include <media/stagefright/MediaBufferBase.h>

#include <atomic>
#include <cstdlib>

namespace android {

namespace {

class MediaBuffer final : public MediaBufferBase {
public:
    MediaBuffer(void* data, size_t size) : mData(data), mSize(size), mRangeLength(size) {}

    void release() override {
        MediaBufferObserver* const observer = mObserver;
        // A buffer without references was never lent; releasing it deletes it.
        const int before = mRefCount.fetch_sub(1, std::memory_order_acq_rel);
        if (before > 1) return;
        if (observer == nullptr) {
            delete this;
        } else {
            observer->signalBufferReturned(this);
        }
    }
    void add_ref() override { mRefCount.fetch_add(1, std::memory_order_relaxed); }
    int refcount() const override { return mRefCount.load(std::memory_order_acquire); }

    void* data() const override { return mData; }
    size_t size() const override { return mSize; }
    size_t range_offset() const override { return mRangeOffset; }
    size_t range_length() const override { return mRangeLength; }
    void set_range(size_t offset, size_t length) override {
        if (offset > mSize || length > mSize - offset) return;
        mRangeOffset = offset;
        mRangeLength = length;
    }
    MetaDataBase& meta_data() override { return mMeta; }
    void setObserver(MediaBufferObserver* observer) override { mObserver = observer; }

private:
    ~MediaBuffer() override { free(mData); }

    void* const mData;
    const size_t mSize;
    size_t mRangeOffset = 0;
    size_t mRangeLength;
    MetaDataBase mMeta;
    MediaBufferObserver* mObserver = nullptr;
    std::atomic<int> mRefCount{0};
};

}  // namespace

MediaBufferBase* MediaBufferBase::Create(size_t size) {
    void* data = malloc(size);
    return data == nullptr ? nullptr : new MediaBuffer(data, size);
}

}  // namespace android
