// Which CPU quota applies to a process, on folders laid out like those of the kernel.
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "host/foundation/CpuCount.h"

namespace android {
namespace qmmediaeditor {
namespace {

namespace fs = std::filesystem;

class CpuQuotaTest : public ::testing::Test {
protected:
    CpuQuotaTest() {
        std::string path = fs::temp_directory_path() / "cgroup.XXXXXX";
        if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary folder");
        mRoot = path;
    }
    ~CpuQuotaTest() override { fs::remove_all(mRoot); }

    void write(const std::string& name, const std::string& text) {
        fs::create_directories((mRoot / name).parent_path());
        std::ofstream(mRoot / name) << text;
    }
    int quotaOf(const std::string& membership) {
        write("membership", membership);
        return cpuQuota(mRoot / "membership", mRoot);
    }

private:
    fs::path mRoot;
};

TEST_F(CpuQuotaTest, theSmallestQuotaOfAllAncestorsIsRoundedUp) {
    EXPECT_EQ(0, quotaOf("0::/a/b/c\n"));
    write("a/b/c/cpu.max", "max 100000\n");
    EXPECT_EQ(0, quotaOf("0::/a/b/c\n"));
    write("a/b/cpu.max", "800000 100000\n");
    EXPECT_EQ(8, quotaOf("0::/a/b/c\n"));
    write("a/cpu.max", "150000 100000\n");
    EXPECT_EQ(2, quotaOf("0::/a/b/c\n"));
    write("a/b/c/cpu.max", "1000 100000\n");
    EXPECT_EQ(1, quotaOf("0::/a/b/c\n"));
    EXPECT_EQ(0, quotaOf("0::/\n"));
    write("cpu.max", "300000 100000\n");
    EXPECT_EQ(3, quotaOf("0::/\n"));
    EXPECT_EQ(3, quotaOf("0::/not/in/this/container\n"));
}

TEST_F(CpuQuotaTest, version1IsReadFromTheFolderOfItsControllers) {
    write("cpu,cpuacct/job/cpu.cfs_quota_us", "-1\n");
    write("cpu,cpuacct/job/cpu.cfs_period_us", "100000\n");
    write("cpuset/job/cpu.cfs_quota_us", "100000\n");
    write("cpuset/job/cpu.cfs_period_us", "100000\n");
    const std::string membership = "5:cpuset:/job\n4:cpu,cpuacct:/job\n1:name=systemd:/job\n";
    EXPECT_EQ(0, quotaOf(membership));
    write("cpu,cpuacct/job/cpu.cfs_quota_us", "250000\n");
    EXPECT_EQ(3, quotaOf(membership));
    // Where both versions are mounted, either may limit.
    write("job/cpu.max", "100000 100000\n");
    EXPECT_EQ(1, quotaOf(membership + "0::/job\n"));
    write("cpu/other/cpu.cfs_quota_us", "400000\n");
    write("cpu/other/cpu.cfs_period_us", "100000\n");
    EXPECT_EQ(4, quotaOf("4:cpu:/other\n"));
    EXPECT_EQ(4, quotaOf("4:cpuacct,cpu:/other\n"));
}

TEST_F(CpuQuotaTest, damagedFilesMeanNoQuota) {
    write("a/cpu.max", "many\n");
    EXPECT_EQ(0, quotaOf("0::/a\n"));
    write("a/cpu.max", "100000 0\n");
    EXPECT_EQ(0, quotaOf("0::/a\nno colons\n::\n0::relative\n"));
    write("a/cpu.max", "9223372036854775807 1\n");
    EXPECT_EQ(INT32_MAX, quotaOf("0::/a\n"));
}

TEST(CodecThreadsTest, theNumberFollowsTheAffinityMaskUnlessItIsGiven) {
    EXPECT_EQ(40, codecThreads(40));
    // The mask of a thread of its own, so that other tests keep theirs.
    std::thread([] {
        cpu_set_t mask;
        ASSERT_EQ(0, sched_getaffinity(0, sizeof(mask), &mask));
        int first = 0;
        while (!CPU_ISSET(first, &mask)) ++first;
        CPU_ZERO(&mask);
        CPU_SET(first, &mask);
        ASSERT_EQ(0, sched_setaffinity(0, sizeof(mask), &mask));
        EXPECT_EQ(1, codecThreads(0));
    }).join();
}

}  // namespace
}  // namespace qmmediaeditor
}  // namespace android
