#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <vector>

#include "host/foundation/FrameAllocator.h"

namespace android {
namespace qmmediaeditor {
namespace {

constexpr size_t kBytes = 1920 * 1088 * 3 / 2;

TEST(FrameAllocatorTest, liveBlocksNeverOverlap_andAreAligned) {
    const FrameAllocator::Keep keep;
    // More than one region of them, with some given back on the way.
    std::vector<sp<ABuffer>> buffers;
    for (size_t i = 0; i < 80; ++i) {
        buffers.push_back(FrameAllocator::makeBuffer(kBytes + i % 2 * FrameAllocator::kMinBytes));
        ASSERT_NE(nullptr, buffers.back());
        EXPECT_EQ(0u,
                  reinterpret_cast<uintptr_t>(buffers.back()->base()) % FrameAllocator::kAlignment);
        memset(buffers.back()->base(), static_cast<int>(i), buffers.back()->capacity());
        if (i % 3 == 0) buffers.erase(buffers.begin());
    }
    for (const auto& buffer : buffers) {
        EXPECT_EQ(0, memcmp(buffer->base(), buffer->base() + 1, buffer->capacity() - 1));
    }
}

TEST(FrameAllocatorTest, copiesOfPicturesHoldTheBytes_afterTheKeeperIsGone) {
    auto keep = std::make_unique<FrameAllocator::Keep>();
    std::vector<uint8_t> bytes(kBytes);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
    const sp<ABuffer> copy = ABuffer::CreateAsCopy(bytes.data(), bytes.size());
    keep.reset();
    FrameAllocator::makeBuffer(kBytes);
    ASSERT_EQ(bytes.size(), copy->size());
    EXPECT_EQ(0, memcmp(bytes.data(), copy->data(), bytes.size()));
}

int64_t addressSpaceBytes() {
    int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * sysconf(_SC_PAGESIZE);
}

TEST(FrameAllocatorTest, aSingleCopyReservesLittleMoreThanItsBytes) {
    constexpr int64_t kCopiedBytes = 60 << 20;
    const std::vector<uint8_t> bytes(kCopiedBytes, 7);
    const int64_t before = addressSpaceBytes();
    const sp<ABuffer> copy = ABuffer::CreateAsCopy(bytes.data(), bytes.size());
    ASSERT_NE(nullptr, copy);
    EXPECT_LT(addressSpaceBytes() - before, kCopiedBytes * 3 / 2);
}

TEST(FrameAllocatorTest, sizesThatNoAddressSpaceHoldsAreRefused) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer ends the process at such sizes";
#endif
    // 32 blocks of the first size are 4 MiB when the product overflows.
    for (const size_t bytes : {SIZE_MAX / 32 + (128 << 10), SIZE_MAX / 4, SIZE_MAX / 2, SIZE_MAX}) {
        EXPECT_EQ(nullptr, FrameAllocator::makeBuffer(bytes));
    }
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
