// Frames whose memory a copy may share instead of having its own.
//
// A decoder enters each frame that it delivers. Nobody writes to such a frame: its owner holds a
// reference that keeps the decoder from using the memory again. Any thread.
#pragma once

#include <stddef.h>
#include <utils/RefBase.h>

namespace android {
namespace qmmediaeditor {

class SharedFrames {
public:
    // While `owner` exists, `bytes` at `data` stay as they are. It calls remove() when it is
    // destroyed. The same memory may have several owners.
    static void add(const void* data, size_t bytes, const sp<RefBase>& owner);
    static void remove(const RefBase* owner);

    // An owner of the frame that begins at `data` and has at least `bytes`; null when there is
    // none. The caller holds a reference to the frame.
    static sp<RefBase> find(const void* data, size_t bytes);
};

}  // namespace qmmediaeditor
}  // namespace android
