#include "host/foundation/FrameAllocator.h"

#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <utils/Mutex.h>

#include <algorithm>
#include <list>
#include <vector>

namespace android {
namespace qmmediaeditor {

namespace {

// Sizes that differ by a little share regions.
constexpr size_t kGranule = 64 * 1024;
constexpr size_t kLargePage = 2 * 1024 * 1024;
// Only address space: pages that no block has used take no memory.
constexpr size_t kMaxBlocksPerRegion = 32;
// Keeps the sizes below representable, and is more than any frame takes.
constexpr size_t kMaxBlockBytes = SIZE_MAX / 4;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Recycled blocks would hide a use after free from the sanitizers.
constexpr bool kRecycles = false;
#else
constexpr bool kRecycles = true;
#endif

size_t roundUp(size_t bytes, size_t unit) { return (bytes + unit - 1) / unit * unit; }

struct Region {
    uint8_t* memory;
    size_t bytes;
    size_t blockBytes;
    size_t blocks;
    size_t touched = 0;  // blocks that were ever used; they are the first ones
    std::vector<void*> free = {};

    bool holds(const void* block) const {
        const auto* address = static_cast<const uint8_t*>(block);
        return address >= memory && address < memory + bytes;
    }
    bool isFull() const { return free.empty() && touched == blocks; }
    bool isIdle() const { return free.size() == touched; }
};

class Regions {
public:
    void* allocate(size_t bytes) {
        if (bytes > kMaxBlockBytes) return nullptr;
        const size_t blockBytes = roundUp(std::max<size_t>(bytes, 1), kGranule);
        Mutex::Autolock lock(mLock);
        Region* region = findRoom(blockBytes);
        if (region == nullptr) return nullptr;
        if (region->free.empty()) return region->memory + blockBytes * region->touched++;
        void* block = region->free.back();
        region->free.pop_back();
        return block;
    }

    void release(void* block) {
        Mutex::Autolock lock(mLock);
        const auto region = std::find_if(mRegions.begin(), mRegions.end(),
                                         [&](const Region& each) { return each.holds(block); });
        region->free.push_back(block);
        if (mKeepers == 0) dropIdle();
    }

    void keep(int change) {
        Mutex::Autolock lock(mLock);
        mKeepers += change;
        if (mKeepers == 0) dropIdle();
    }

private:
    // Each region of a size is as large as all before it together, because a single buffer must not
    // reserve address space for many. A smaller region will do where address space is short.
    Region* findRoom(size_t blockBytes) REQUIRES(mLock) {
        size_t blocks = 0;
        for (Region& region : mRegions) {
            if (region.blockBytes != blockBytes) continue;
            if (!region.isFull()) return &region;
            blocks += region.blocks;
        }
        blocks = std::clamp<size_t>(blocks, 1, kMaxBlocksPerRegion);
        blocks = std::min(blocks, kMaxBlockBytes / blockBytes);
        for (; blocks > 0; blocks /= 2) {
            if (Region* region = addRegion(blockBytes, blocks)) return region;
        }
        return nullptr;
    }

    Region* addRegion(size_t blockBytes, size_t blocks) REQUIRES(mLock) {
        // Large pages begin at multiples of their size. Their rest has room for more small blocks.
        const size_t bytes = roundUp(blockBytes * blocks, kLargePage);
        void* mapped = mmap(nullptr, bytes + kLargePage, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (mapped == MAP_FAILED) return nullptr;
        auto* const start = static_cast<uint8_t*>(mapped);
        const size_t before = roundUp(reinterpret_cast<uintptr_t>(start), kLargePage) -
                              reinterpret_cast<uintptr_t>(start);
        if (before > 0) munmap(start, before);
        if (before < kLargePage) munmap(start + before + bytes, kLargePage - before);
        // Where there are none, small pages do.
        madvise(start + before, bytes, MADV_HUGEPAGE);
        mRegions.push_back({start + before, bytes, blockBytes, bytes / blockBytes});
        return &mRegions.back();
    }

    void dropIdle() REQUIRES(mLock) {
        mRegions.remove_if([](const Region& region) {
            if (!region.isIdle()) return false;
            munmap(region.memory, region.bytes);
            return true;
        });
    }

    Mutex mLock;
    std::list<Region> mRegions GUARDED_BY(mLock);
    int mKeepers GUARDED_BY(mLock) = 0;
};

// Never destroyed: a buffer may outlive everything else.
Regions& regions() {
    static auto* const instance = new Regions;
    return *instance;
}

class AllocatedBuffer : public ABuffer {
public:
    AllocatedBuffer(void* block, size_t bytes) : ABuffer(block, bytes), mBlock(block) {}

protected:
    ~AllocatedBuffer() override { FrameAllocator::release(mBlock, capacity()); }

private:
    void* const mBlock;
};

}  // namespace

void* FrameAllocator::allocate(size_t bytes) {
    if (kRecycles && bytes >= kMinBytes) return regions().allocate(bytes);
    void* block = nullptr;
    if (posix_memalign(&block, kAlignment, std::max(bytes, kAlignment)) != 0) return nullptr;
    return block;
}

void FrameAllocator::release(void* block, size_t bytes) {
    if (kRecycles && bytes >= kMinBytes) {
        regions().release(block);
    } else {
        free(block);
    }
}

sp<ABuffer> FrameAllocator::makeBuffer(size_t bytes) {
    void* block = allocate(bytes);
    return block == nullptr ? nullptr : new AllocatedBuffer(block, bytes);
}

FrameAllocator::Keep::Keep() { regions().keep(1); }
FrameAllocator::Keep::~Keep() { regions().keep(-1); }

}  // namespace qmmediaeditor
}  // namespace android
