// The memory of frames, the threads of loopers, and the number of CPUs that a process may use.
#include <sched.h>
#include <string.h>
#include <sys/resource.h>

#include <fstream>
#include <memory>
#include <thread>

#include "CodecSupport.h"
#include "IoSupport.h"
#include "host/foundation/CpuCount.h"
#include "host/foundation/FrameAllocator.h"

namespace android::qmmediaeditor {
namespace {

TEST(FrameAllocatorTest, blocksAreAlignedNeverOverlapAndOutliveTheKeep) {
    constexpr size_t kBytes = 1920 * 1088 * 3 / 2;
    auto keep = std::make_unique<FrameAllocator::Keep>();
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
    keep.reset();
    FrameAllocator::makeBuffer(kBytes);
    for (const auto& buffer : buffers) {
        EXPECT_EQ(0, memcmp(buffer->base(), buffer->base() + 1, buffer->capacity() - 1));
    }
}

TEST(FrameAllocatorTest, sizesBeyondTheAddressSpaceAreRefused) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer ends the process at such sizes";
#endif
    // 32 blocks of the first size are 4 MiB when the product overflows.
    for (const size_t bytes : {SIZE_MAX / 32 + (128 << 10), SIZE_MAX / 4, SIZE_MAX / 2, SIZE_MAX}) {
        EXPECT_EQ(nullptr, FrameAllocator::makeBuffer(bytes));
    }
}

bool isMapped(const void* address) {
    unsigned char state = 0;
    const auto page = reinterpret_cast<uintptr_t>(address) & ~uintptr_t{4095};
    return mincore(reinterpret_cast<void*>(page), 1, &state) == 0;
}

TEST(FrameAllocatorTest, freeMemoryIsKeptForTheNextFrameOnlyWhileAKeepExists) {
#if defined(QM_SANITIZED)
    GTEST_SKIP() << "nothing is recycled under a sanitizer";
#endif
    // A size that no other test uses.
    constexpr size_t kOwnBytes = 3 * 1000 * 1000;
    auto keep = std::make_unique<FrameAllocator::Keep>();
    void* const first = FrameAllocator::allocate(kOwnBytes);
    FrameAllocator::release(first, kOwnBytes);
    EXPECT_TRUE(isMapped(first));
    EXPECT_EQ(first, FrameAllocator::allocate(kOwnBytes)) << "recycled";
    keep.reset();
    EXPECT_TRUE(isMapped(first)) << "still in use";
    FrameAllocator::release(first, kOwnBytes);
    EXPECT_FALSE(isMapped(first));
    keep = std::make_unique<FrameAllocator::Keep>();
    void* const second = FrameAllocator::allocate(kOwnBytes);
    FrameAllocator::release(second, kOwnBytes);
    keep.reset();
    EXPECT_FALSE(isMapped(second)) << "the last Keep returns what is free";
}

int niceOfThread() { return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); }

int niceOfLooper(int32_t priority) {
    const sp<ALooper> looper = new ALooper;
    EXPECT_EQ(OK, looper->start(false, false, priority));
    std::promise<int> nice;
    looper->post([&nice] { nice.set_value(niceOfThread()); });
    const int value = nice.get_future().get();
    looper->stop();
    return value;
}

TEST(LooperTest, aThreadMayLowerItsPriorityButNotRaiseIt) {
    // On a thread of its own, because only root may raise a priority again.
    std::thread([] {
        const int inherited = niceOfThread() + 5;
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), inherited));
        EXPECT_EQ(inherited, niceOfLooper(-16));
        EXPECT_EQ(inherited, niceOfLooper(0));
        EXPECT_EQ(inherited + 2, niceOfLooper(inherited + 2));
    }).join();
}

// Objects that the work holds may use the looper when it is destroyed.
TEST(LooperTest, workIsDestroyedWithoutTheLoopersLock) {
    const sp<ALooper> looper = new ALooper;
    ASSERT_EQ(OK, looper->start());
    std::promise<void> done;
    auto held =
        std::shared_ptr<void>(nullptr, [&](void*) { looper->post([&] { done.set_value(); }); });
    looper->post([held] {});
    held.reset();
    std::future<void> destroyed = done.get_future();
    resultOf(&destroyed);
    looper->stop();
}

// On folders laid out like those of the kernel.
class CpuQuotaTest : public ::testing::Test {
protected:
    ~CpuQuotaTest() override { std::filesystem::remove_all(mRoot); }

    void write(const std::string& name, const std::string& text) {
        std::filesystem::create_directories((mRoot / name).parent_path());
        std::ofstream(mRoot / name) << text;
    }
    void writeVersion1(const std::string& folder, const std::string& quota) {
        write(folder + "/cpu.cfs_quota_us", quota + "\n");
        write(folder + "/cpu.cfs_period_us", "100000\n");
    }
    int quotaOf(const std::string& membership) {
        write("membership", membership);
        return cpuQuota(mRoot / "membership", mRoot);
    }

    const std::filesystem::path mRoot = scratchPath("cgroup");
};

TEST_F(CpuQuotaTest, theSmallestQuotaOfAllAncestorsIsRoundedUp) {
    EXPECT_EQ(0, quotaOf("0::/a/b/c\n"));
    const struct {
        const char* file;
        const char* text;
        int expected;
    } kCases[] = {{"a/b/c/cpu.max", "max 100000\n", 0},    {"a/b/cpu.max", "800000 100000\n", 8},
                  {"a/cpu.max", "150000 100000\n", 2},     {"a/b/c/cpu.max", "1000 100000\n", 1},
                  {"a/b/c/cpu.max", "many\n", 2},          {"a/b/c/cpu.max", "1000 0\n", 2},
                  {"cpu.max", "9223372036854775807 1", 2}, {"a/cpu.max", "", 8}};
    for (const auto& c : kCases) {
        write(c.file, c.text);
        EXPECT_EQ(c.expected, quotaOf("no colons\n::\n0::relative\n0::/a/b/c\n")) << c.file;
    }
    EXPECT_EQ(INT32_MAX, quotaOf("0::/\n"));
    EXPECT_EQ(INT32_MAX, quotaOf("0::/not/in/this/container\n"));
}

TEST_F(CpuQuotaTest, version1IsReadFromTheFolderOfItsControllers) {
    const std::string membership = "5:cpuset:/job\n4:cpu,cpuacct:/job\n1:name=systemd:/job\n";
    writeVersion1("cpuset/job", "100000");
    writeVersion1("cpu,cpuacct/job", "-1");
    EXPECT_EQ(0, quotaOf(membership));
    writeVersion1("cpu,cpuacct/job", "250000");
    EXPECT_EQ(3, quotaOf(membership));
    // Where both versions are mounted, either may limit.
    write("job/cpu.max", "100000 100000\n");
    EXPECT_EQ(1, quotaOf(membership + "0::/job\n"));
    writeVersion1("cpu/other", "400000");
    EXPECT_EQ(4, quotaOf("4:cpu:/other\n"));
    EXPECT_EQ(4, quotaOf("4:cpuacct,cpu:/other\n"));
}

TEST(CodecThreadsTest, theNumberFollowsTheAffinityMaskUnlessItIsGiven) {
    EXPECT_EQ(40, codecThreads(40));
    // The mask of a thread of its own, so that other tests keep theirs.
    std::thread([] {
        cpu_set_t mask;
        CPU_ZERO(&mask);
        CPU_SET(sched_getcpu(), &mask);
        ASSERT_EQ(0, sched_setaffinity(0, sizeof(mask), &mask));
        EXPECT_EQ(1, codecThreads(0));
    }).join();
}

}  // namespace
}  // namespace android::qmmediaeditor
