#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <qmtranscode/sandbox/Sandbox.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

namespace android::qmmediaeditor::cli {
namespace {

class SandboxTest : public testing::Test {
protected:
    void SetUp() override {
        mFd = mkstemp(mPath);
        ASSERT_EQ(3, write(mFd, "old", 3));
    }
    void TearDown() override {
        close(mFd);
        unlink(mPath);
    }

    // The errno of a call in a sandboxed process, or 0 when it succeeds.
    static int errnoOf(const std::function<long()>& call) {
        const pid_t child = fork();
        if (child == 0) {
            if (!enterSandbox()) _exit(255);
            _exit(call() < 0 ? errno : 0);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
        return WEXITSTATUS(status);
    }

    char mPath[32] = "/tmp/qm-sandbox-XXXXXX";
    int mFd = -1;
};

TEST_F(SandboxTest, files_cannotBeCreatedOrChangedByPath) {
    EXPECT_NE(0, errnoOf([this] { return open(mPath, O_WRONLY); }));
    EXPECT_NE(0, errnoOf([] { return open("/tmp/qm-new", O_WRONLY | O_CREAT, 0600); }));
    EXPECT_NE(0, errnoOf([this] { return truncate(mPath, 0); }));
    EXPECT_NE(0, errnoOf([this] { return unlink(mPath); }));
    EXPECT_NE(0, errnoOf([this] { return rename(mPath, "/tmp/qm-other"); }));
    EXPECT_NE(0, errnoOf([] { return mkdir("/tmp/qm-folder", 0700); }));
    EXPECT_EQ(3, lseek(mFd, 0, SEEK_END));
}

TEST_F(SandboxTest, openDescriptors_memoryAndThreadsWork) {
    EXPECT_EQ(0, errnoOf([this] { return pwrite(mFd, "new", 3, 0); }));
    EXPECT_EQ(0, errnoOf([this] { return ftruncate(mFd, 2); }));
    EXPECT_EQ(0, errnoOf([] { return memfd_create("memory", 0); }));
    EXPECT_EQ(0, errnoOf([] {
                  int result = -1;
                  std::thread([&result] { result = 0; }).join();
                  return result;
              }));
    EXPECT_EQ(0, errnoOf([] { return open("/usr/lib/os-release", O_RDONLY); }));
    EXPECT_EQ(2, lseek(mFd, 0, SEEK_END));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
// Sanitizers read files, and need what the filter for system calls refuses.
TEST_F(SandboxTest, files_cannotBeReadAndSocketsAndProcessesNotCreated) {
    EXPECT_EQ(EACCES, errnoOf([this] { return open(mPath, O_RDONLY); }));
    EXPECT_EQ(EACCES, errnoOf([] { return open("/etc/passwd", O_RDONLY); }));
    EXPECT_EQ(EPERM, errnoOf([] { return socket(AF_INET, SOCK_STREAM, 0); }));
    int pair[2];
    EXPECT_EQ(EPERM, errnoOf([&] { return socketpair(AF_UNIX, SOCK_STREAM, 0, pair); }));
    EXPECT_EQ(EPERM, errnoOf([] { return fork(); }));
    EXPECT_NE(0, errnoOf([] { return execl("/bin/true", "true", nullptr); }));
    EXPECT_EQ(EPERM, errnoOf([] { return kill(getppid(), 0); }));
}
#endif

}  // namespace
}  // namespace android::qmmediaeditor::cli
