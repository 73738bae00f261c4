// A pool of buffers that a source lends to a writer. Any thread may call any operation.
#pragma once

#include <media/stagefright/MediaBufferBase.h>
#include <stddef.h>
#include <utils/Errors.h>

#include <memory>

namespace android {

class MediaBufferGroup : public MediaBufferObserver {
public:
    MediaBufferGroup();
    // Every buffer must have come back.
    ~MediaBufferGroup() override;

    // Takes the buffer over.
    void add_buffer(MediaBufferBase* buffer);

    // Hands out a free buffer of at least `requestedSize` bytes with one reference; a free one that
    // is too small is replaced by a larger one. Without a free buffer it waits, or returns
    // WOULD_BLOCK when `nonBlocking` is set. NO_MEMORY when the larger one cannot be allocated.
    status_t acquire_buffer(MediaBufferBase** buffer, bool nonBlocking = false,
                            size_t requestedSize = 0);

    size_t buffers() const;

    void signalBufferReturned(MediaBufferBase* buffer) override;

private:
    struct State;

    const std::unique_ptr<State> mState;
};

}  // namespace android
