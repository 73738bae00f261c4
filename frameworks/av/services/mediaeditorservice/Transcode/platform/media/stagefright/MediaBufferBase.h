// A buffer that a source lends to a writer, with its metadata.
#pragma once

#include <media/stagefright/MetaData.h>
#include <stddef.h>

namespace android {

class MediaBufferBase;

// Told when the last reference to a buffer is given back.
class MediaBufferObserver {
public:
    MediaBufferObserver() = default;
    virtual ~MediaBufferObserver() = default;

    virtual void signalBufferReturned(MediaBufferBase* buffer) = 0;

private:
    MediaBufferObserver(const MediaBufferObserver&) = delete;
    MediaBufferObserver& operator=(const MediaBufferObserver&) = delete;
};

class MediaBufferBase {
public:
    // Null when `size` bytes cannot be allocated.
    static MediaBufferBase* Create(size_t size);

    // Gives the buffer back: to its observer when it has one, else it is deleted with its last
    // reference.
    virtual void release() = 0;
    virtual void add_ref() = 0;
    virtual int refcount() const = 0;

    virtual void* data() const = 0;
    virtual size_t size() const = 0;
    virtual size_t range_offset() const = 0;
    virtual size_t range_length() const = 0;
    virtual void set_range(size_t offset, size_t length) = 0;
    virtual MetaDataBase& meta_data() = 0;

    virtual void setObserver(MediaBufferObserver* observer) = 0;

protected:
    virtual ~MediaBufferBase() = default;
};

}  // namespace android
