// Memory for pictures: large blocks on large pages, used again instead of being given back.
//
// A picture that is allocated anew costs a page fault for each of its 4 KiB, which takes longer
// than copying it. Blocks of one size lie side by side in regions of large pages. A region goes
// back to the system when all of its blocks are free and nobody keeps the memory. Any thread.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <stddef.h>

namespace android {
namespace qmmediaeditor {

class FrameAllocator {
public:
    // Smaller blocks are better off with malloc.
    static constexpr size_t kMinBytes = 256 * 1024;
    static constexpr size_t kAlignment = 64;

    // Uninitialised, aligned to kAlignment at least. Null when memory is short.
    static void* allocate(size_t bytes);
    // `bytes` as it was allocated with.
    static void release(void* block, size_t bytes);

    // A buffer that owns such a block; null when memory is short.
    static sp<ABuffer> makeBuffer(size_t bytes);

    // While one of these lives, free blocks stay for the next picture.
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
