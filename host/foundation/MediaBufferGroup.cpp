#include <media/stagefright/MediaBufferGroup.h>
#include <media/stagefright/MediaErrors.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <algorithm>
#include <list>

namespace android {

struct MediaBufferGroup::State {
    Mutex lock;
    Condition returned;
    std::list<MediaBufferBase*> buffers GUARDED_BY(lock);
};

MediaBufferGroup::MediaBufferGroup() : mState(std::make_unique<State>()) {}

MediaBufferGroup::~MediaBufferGroup() {
    for (MediaBufferBase* buffer : mState->buffers) {
        buffer->setObserver(nullptr);
        // A buffer that is still out is deleted when it is given back.
        if (buffer->refcount() == 0) buffer->release();
    }
}

void MediaBufferGroup::add_buffer(MediaBufferBase* buffer) {
    Mutex::Autolock guard(mState->lock);
    buffer->setObserver(this);
    mState->buffers.push_back(buffer);
    mState->returned.signal();
}

status_t MediaBufferGroup::acquire_buffer(MediaBufferBase** out, bool nonBlocking,
                                          size_t requestedSize) {
    Mutex::Autolock guard(mState->lock);
    auto& buffers = mState->buffers;
    auto isFree = [](MediaBufferBase* b) { return b->refcount() == 0; };
    auto fits = [&](MediaBufferBase* b) { return isFree(b) && b->size() >= requestedSize; };

    while (true) {
        auto found = std::find_if(buffers.begin(), buffers.end(), fits);
        if (found == buffers.end()) {
            found = std::find_if(buffers.begin(), buffers.end(), isFree);
            if (found != buffers.end()) {
                MediaBufferBase* larger = MediaBufferBase::Create(requestedSize);
                if (larger == nullptr) return NO_MEMORY;
                larger->setObserver(this);
                (*found)->setObserver(nullptr);
                (*found)->release();
                *found = larger;
            }
        }
        if (found != buffers.end()) {
            MediaBufferBase* buffer = *found;
            buffer->add_ref();
            buffer->set_range(0, buffer->size());
            buffer->meta_data().clear();
            *out = buffer;
            return OK;
        }
        if (nonBlocking) return WOULD_BLOCK;
        mState->returned.wait(mState->lock);
    }
}

size_t MediaBufferGroup::buffers() const {
    Mutex::Autolock guard(mState->lock);
    return mState->buffers.size();
}

void MediaBufferGroup::signalBufferReturned(MediaBufferBase*) {
    // The lock makes sure that a waiter has either seen the buffer free or is asleep already.
    Mutex::Autolock guard(mState->lock);
    mState->returned.signal();
}

}  // namespace android
