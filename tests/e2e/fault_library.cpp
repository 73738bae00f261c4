// To be preloaded: makes calls fail.
//
// QM_FAULT is nothing or a fault:
//   pread:7:EIO     the 7th call fails
//   pwrite:7:WAIT   the 7th call waits until the file $QM_FAULT_UNTIL exists
// The operations are those of kNames. Each includes its 64-bit form, rename includes renameat2,
// and malloc all functions that allocate.
// A close that fails closes the descriptor all the same; any other call that fails does nothing.
//
// QM_FAULT_COUNT names a file that is written at exit: "OPERATION CALLS" for each operation.
//
// Calls count from main() on, those of forked children included.

// Both forms of a call are replaced, which this macro would make one.
#undef _FILE_OFFSET_BITS

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <regex>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kNames[] = {"pread",  "pwrite", "fsync", "close",         "rename",
                                       "linkat", "malloc", "mmap",  "pthread_create"};
constexpr size_t kOperations = std::size(kNames);
// The library's own calls do not count.
thread_local bool tInside = false;

struct Fault {
    std::string operation;
    long long call;  // from 1
    int error;       // 0 waits
};

// In memory that forked processes share.
struct Counts {
    std::atomic<bool> counting;
    std::atomic<long long> calls[kOperations];
};

const pid_t gProcess = getpid();
Counts* gCounts = nullptr;
Fault* gFault = nullptr;

// A fault that cannot be parsed ends the test, because a fault that never happens proves nothing.
[[noreturn]] void refuse(const std::string& text) {
    fprintf(stderr, "QM_FAULT cannot be parsed: %s\n", text.c_str());
    abort();
}

int errorOf(const std::string& name) {
    if (name == "WAIT") return 0;
    for (int error = 1; error < 200; ++error) {
        if (name == (strerrorname_np(error) ?: "")) return error;
    }
    refuse(name);
}

__attribute__((constructor)) void setUp() {
    void* memory =
        mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    gCounts = static_cast<Counts*>(memory);
    const std::string text = getenv("QM_FAULT") ?: "";
    if (text.empty()) return;
    std::smatch m;
    if (!std::regex_match(text, m, std::regex("(\\w+):(\\d+):(\\w+)")) ||
        std::find(std::begin(kNames), std::end(kNames), m[1].str()) == std::end(kNames)) {
        refuse(text);
    }
    gFault = new Fault{m[1], std::stoll(m[2]), errorOf(m[3])};
}

__attribute__((destructor)) void report() {
    const char* path = getenv("QM_FAULT_COUNT");
    // A forked child may not be allowed to write files.
    if (path == nullptr || getpid() != gProcess) return;
    gCounts->counting = false;
    FILE* file = fopen(path, "w");
    if (file == nullptr) abort();
    for (size_t i = 0; i < kOperations; ++i) {
        fprintf(file, "%s %lld\n", kNames[i].data(), +gCounts->calls[i]);
    }
    fclose(file);
}

// Counts a call. False, with errno set, when it is to fail.
bool passes(std::string_view name) {
    if (gCounts == nullptr || !gCounts->counting || tInside) return true;
    const auto operation = std::find(kNames, std::end(kNames), name) - kNames;
    const long long number = ++gCounts->calls[operation];
    if (gFault == nullptr || gFault->operation != name || gFault->call != number) return true;
    if (gFault->error != 0) {
        errno = gFault->error;
        return false;
    }
    while (access(getenv("QM_FAULT_UNTIL"), F_OK) != 0) usleep(20000);
    return true;
}

}  // namespace

static void* find(const char* name) {
    tInside = true;
    void* const function = dlsym(RTLD_NEXT, name);
    tInside = false;
    return function;
}

// The function that this one replaces.
#define REAL(function) reinterpret_cast<decltype(&function)>(find(#function))

#define TRANSFER(function, operation, Buffer, Offset)                   \
    ssize_t function(int fd, Buffer data, size_t size, Offset offset) { \
        if (!passes(operation)) return -1;                              \
        return REAL(function)(fd, data, size, offset);                  \
    }

extern "C" {

TRANSFER(pread, "pread", void*, off_t)
TRANSFER(pread64, "pread", void*, off64_t)
TRANSFER(pwrite, "pwrite", const void*, off_t)
TRANSFER(pwrite64, "pwrite", const void*, off64_t)

int fsync(int fd) { return passes("fsync") ? REAL(fsync)(fd) : -1; }

int close(int fd) {
    const bool passed = passes("close");
    const int error = errno;
    const int result = REAL(close)(fd);
    if (passed) return result;
    errno = error;
    return -1;
}

int rename(const char* from, const char* to) noexcept {
    return passes("rename") ? REAL(rename)(from, to) : -1;
}

int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) noexcept {
    if (!passes("rename")) return -1;
    return REAL(renameat2)(fromDir, from, toDir, to, flags);
}

int linkat(int fromDir, const char* from, int toDir, const char* to, int flags) noexcept {
    if (!passes("linkat")) return -1;
    return REAL(linkat)(fromDir, from, toDir, to, flags);
}

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

// Not by dlsym(), which allocates.
void* malloc(size_t size) { return passes("malloc") ? __libc_malloc(size) : nullptr; }

void* calloc(size_t count, size_t size) {
    return passes("malloc") ? __libc_calloc(count, size) : nullptr;
}

void* realloc(void* memory, size_t size) {
    return passes("malloc") ? __libc_realloc(memory, size) : nullptr;
}

void* memalign(size_t alignment, size_t size) {
    return passes("malloc") ? __libc_memalign(alignment, size) : nullptr;
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** memory, size_t alignment, size_t size) {
    *memory = memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

void* mmap64(void* address, size_t size, int protection, int flags, int fd,
             off64_t offset) noexcept {
    if (!passes("mmap")) return MAP_FAILED;
    return REAL(mmap64)(address, size, protection, flags, fd, offset);
}

void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    return mmap64(address, size, protection, flags, fd, offset);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) noexcept {
    if (!passes("pthread_create")) return errno;
    return REAL(pthread_create)(thread, attributes, run, argument);
}

using Main = int (*)(int, char**, char**);
static Main gMain = nullptr;

static int countingMain(int count, char** arguments, char** environment) {
    gCounts->counting = true;
    return gMain(count, arguments, environment);
}

// The C library's entry, which no header declares.
int __libc_start_main(Main main, int count, char** arguments, void (*init)(), void (*fini)(),
                      void (*loaderFini)(), void* stackEnd) {
    gMain = main;
    return REAL(__libc_start_main)(countingMain, count, arguments, init, fini, loaderFini,
                                   stackEnd);
}
}
