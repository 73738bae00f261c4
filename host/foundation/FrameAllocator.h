// Memory for video frames: large blocks on large pages, recycled instead of returned to the system.
//
// A newly allocated frame costs a page fault for every 4 KiB, which takes longer than copying it.
// Blocks of one size share regions of large pages. A region is returned to the system when all of
// its blocks are free and no Keep exists. Any thread.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <stddef.h>

namespace android {
namespace qmmediaeditor {

class FrameAllocator {
public:
    // Smaller blocks come from malloc.
    static constexpr size_t kMinBytes = 256 * 1024;
    static constexpr size_t kAlignment = 64;

    // Uninitialised, aligned to kAlignment at least. Null when memory is short.
    static void* allocate(size_t bytes);
    // `bytes` is the size that was given to allocate().
    static void release(void* block, size_t bytes);

    // A buffer that owns such a block; null when memory is short.
    static sp<ABuffer> makeBuffer(size_t bytes);

    // While a Keep exists, free blocks are kept for the next frame.
    class Keep {
    public:
        Keep();
        ~Keep();
        Keep(const Keep&) = delete;
        Keep& operator=(const Keep&) = delete;
    };
};

}  // namespace qmmediaeditor
}  // namespace android
