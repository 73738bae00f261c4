// To be preloaded: the second write to a disk blocks until the file $SLOW_DISK_UNTIL exists.

// Both forms of the call are replaced, which this macro would make one.
#undef _FILE_OFFSET_BITS

#include <dlfcn.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>

namespace {

ssize_t writeSlowly(const char* name, int fd, const void* data, size_t size, off_t offset) {
    using Write = ssize_t (*)(int, const void*, size_t, off_t);
    static const auto real = reinterpret_cast<Write>(dlsym(RTLD_NEXT, name));
    static std::atomic<int> writes{0};
    if (++writes == 2) {
        while (access(getenv("SLOW_DISK_UNTIL"), F_OK) != 0) usleep(50000);
    }
    return real(fd, data, size, offset);
}

}  // namespace

extern "C" {
ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    return writeSlowly("pwrite", fd, data, size, offset);
}
ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    return writeSlowly("pwrite64", fd, data, size, offset);
}
}
