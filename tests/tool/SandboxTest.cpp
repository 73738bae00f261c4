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
#include <string>
#include <thread>

namespace android::qmmediaeditor::cli {
namespace {

// Runs `attempt` in a sandboxed process and returns its result.
int inSandbox(const std::function<int()>& attempt) {
    const pid_t child = fork();
    if (child == 0) {
        if (!enterSandbox()) _exit(255);
        _exit(attempt());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

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

    char mPath[32] = "/tmp/qm-sandbox-XXXXXX";
    int mFd = -1;
};

// Attempts return errno, or 0 when they succeed.
int resultOf(long result) { return result < 0 ? errno : 0; }

TEST_F(SandboxTest, files_cannotBeCreatedOrChangedByPath) {
    EXPECT_NE(0, inSandbox([this] { return resultOf(open(mPath, O_WRONLY)); }));
    EXPECT_NE(0, inSandbox([] { return resultOf(open("/tmp/qm-new", O_WRONLY | O_CREAT, 0600)); }));
    EXPECT_NE(0, inSandbox([this] { return resultOf(truncate(mPath, 0)); }));
    EXPECT_NE(0, inSandbox([this] { return resultOf(unlink(mPath)); }));
    EXPECT_NE(0, inSandbox([this] { return resultOf(rename(mPath, "/tmp/qm-other")); }));
    EXPECT_NE(0, inSandbox([] { return resultOf(mkdir("/tmp/qm-folder", 0700)); }));
    EXPECT_EQ(3, lseek(mFd, 0, SEEK_END));
}

TEST_F(SandboxTest, openDescriptors_memoryAndThreadsWork) {
    EXPECT_EQ(0, inSandbox([this] { return resultOf(pwrite(mFd, "new", 3, 0)); }));
    EXPECT_EQ(0, inSandbox([this] { return resultOf(ftruncate(mFd, 2)); }));
    EXPECT_EQ(0, inSandbox([] { return resultOf(memfd_create("memory", 0)); }));
    EXPECT_EQ(0, inSandbox([] {
                  int result = 1;
                  std::thread([&result] { result = 0; }).join();
                  return result;
              }));
    EXPECT_EQ(0, inSandbox([] { return resultOf(open("/usr/lib/os-release", O_RDONLY)); }));
    EXPECT_EQ(2, lseek(mFd, 0, SEEK_END));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
// Sanitizers read files, and need what the filter for system calls refuses.
TEST_F(SandboxTest, files_cannotBeRead) {
    EXPECT_EQ(EACCES, inSandbox([this] { return resultOf(open(mPath, O_RDONLY)); }));
    EXPECT_EQ(EACCES, inSandbox([] { return resultOf(open("/etc/passwd", O_RDONLY)); }));
}

TEST_F(SandboxTest, sockets_andProcessesCannotBeCreated) {
    EXPECT_EQ(EPERM, inSandbox([] { return resultOf(socket(AF_INET, SOCK_STREAM, 0)); }));
    EXPECT_EQ(EPERM, inSandbox([] {
                  int pair[2];
                  return resultOf(socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
              }));
    EXPECT_EQ(EPERM, inSandbox([] {
                  const pid_t child = fork();
                  if (child == 0) _exit(0);
                  return resultOf(child);
              }));
    EXPECT_NE(0, inSandbox([] { return resultOf(execl("/bin/true", "true", nullptr)); }));
    EXPECT_EQ(EPERM, inSandbox([] { return resultOf(kill(getppid(), 0)); }));
}
#endif

}  // namespace
}  // namespace android::qmmediaeditor::cli
