#include "FileFaults.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

namespace android::qmmediaeditor::cli {

FileFaults gFaults;
std::vector<std::string> gCalls;

namespace {

// Whether the call must fail; sets errno.
bool fails(int error) {
    if (error != 0) errno = error;
    return error != 0;
}

}  // namespace

extern "C" {

int __real_openat64(int folder, const char* path, int flags, mode_t mode);
int __real_linkat(int from, const char* path, int to, const char* target, int flags);
int __real_renameat2(int from, const char* path, int to, const char* target, unsigned flags);
int __real_renameat(int from, const char* path, int to, const char* target);
int __real_fsync(int fd);
int __real_close(int fd);

int __wrap_openat64(int folder, const char* path, int flags, mode_t mode) {
    if ((flags & O_TMPFILE) == O_TMPFILE && fails(gFaults.openUnnamed)) return -1;
    return __real_openat64(folder, path, flags, mode);
}

int __wrap_linkat(int from, const char* path, int to, const char* target, int flags) {
    gCalls.emplace_back("link");
    if (fails(gFaults.linkFile)) return -1;
    return __real_linkat(from, path, to, target, flags);
}

int __wrap_renameat2(int from, const char* path, int to, const char* target, unsigned flags) {
    const bool exchange = flags == RENAME_EXCHANGE;
    const bool back = exchange && !gCalls.empty() && gCalls.back() == "sync folder";
    int error = exchange ? gFaults.renameExchange : gFaults.renameNoReplace;
    if (back) error = gFaults.renameBack;
    gCalls.emplace_back(exchange ? "exchange" : "rename");
    if (fails(error)) return -1;
    return __real_renameat2(from, path, to, target, flags);
}

int __wrap_renameat(int from, const char* path, int to, const char* target) {
    gCalls.emplace_back("rename");
    return __real_renameat(from, path, to, target);
}

int __wrap_fsync(int fd) {
    struct stat status {};
    const bool isFolder = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    gCalls.emplace_back(isFolder ? "sync folder" : "sync file");
    if (fails(isFolder ? gFaults.syncFolder : gFaults.syncFile)) return -1;
    return __real_fsync(fd);
}

int __wrap_close(int fd) {
    const int result = __real_close(fd);
    return fails(gFaults.close) ? -1 : result;
}

}  // extern "C"

}  // namespace android::qmmediaeditor::cli
