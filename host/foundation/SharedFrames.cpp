#include "host/foundation/SharedFrames.h"

#include <utils/Mutex.h>

#include <algorithm>
#include <vector>

namespace android {
namespace qmmediaeditor {

namespace {

struct Frame {
    const void* data;
    size_t bytes;
    // Weak, because another owner of the same memory may be about to go.
    wp<RefBase> owner;
};

// A few dozen at most, so that a search is fast. Never destroyed: a buffer may outlive everything
// else.
struct Frames {
    Mutex lock;
    std::vector<Frame> all GUARDED_BY(lock);
};

Frames& frames() {
    static auto* const instance = new Frames;
    return *instance;
}

}  // namespace

void SharedFrames::add(const void* data, size_t bytes, const sp<RefBase>& owner) {
    Mutex::Autolock lock(frames().lock);
    frames().all.push_back({data, bytes, owner});
}

void SharedFrames::remove(const RefBase* owner) {
    Mutex::Autolock lock(frames().lock);
    auto& all = frames().all;
    all.erase(std::remove_if(all.begin(), all.end(),
                             [owner](const Frame& frame) { return frame.owner == owner; }),
              all.end());
}

sp<RefBase> SharedFrames::find(const void* data, size_t bytes) {
    Mutex::Autolock lock(frames().lock);
    for (const Frame& frame : frames().all) {
        if (frame.data != data || frame.bytes < bytes) continue;
        if (sp<RefBase> owner = frame.owner.promote(); owner != nullptr) return owner;
    }
    return nullptr;
}

}  // namespace qmmediaeditor
}  // namespace android
