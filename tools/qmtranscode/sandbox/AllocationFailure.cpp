#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <qmtranscode/sandbox/AllocationFailure.h>
#include <stddef.h>
#include <stdlib.h>

#include <atomic>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QM_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QM_SANITIZED
#endif
#endif

#ifdef QM_SANITIZED

namespace android::qmmediaeditor::cli {
void endOnFailedAllocation(void (*)()) {}
}  // namespace android::qmmediaeditor::cli

#else

namespace {

// Written once, before the worker starts its threads.
std::atomic<void (*)()> gEnd{nullptr};

void* checked(void* memory) {
    if (memory == nullptr) {
        if (void (*const end)() = gEnd.load(std::memory_order_relaxed)) end();
    }
    return memory;
}

// The function that would be called if this file did not define one of the same name: a preloaded
// library's, or the C library's. The first call looks it up; at that time there is one thread.
template <typename Result, typename... Arguments>
class Next {
public:
    constexpr explicit Next(const char* name) : mName(name) {}

    Result operator()(Arguments... arguments) {
        Function function = mFunction.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, mName));
            if (function == nullptr) abort();
            mFunction.store(function, std::memory_order_relaxed);
        }
        return function(arguments...);
    }

private:
    using Function = Result (*)(Arguments...);

    const char* const mName;
    std::atomic<Function> mFunction{nullptr};
};

Next<void*, size_t> gMalloc("malloc");
Next<void*, size_t, size_t> gCalloc("calloc");
Next<void*, void*, size_t> gRealloc("realloc");
Next<void*, size_t, size_t> gMemalign("memalign");
Next<void*, size_t, size_t> gAlignedAlloc("aligned_alloc");
Next<int, void**, size_t, size_t> gPosixMemalign("posix_memalign");

}  // namespace

// These only check the result. The memory is the C library's, whose free() releases it.
extern "C" {

void* malloc(size_t size) { return checked(gMalloc(size)); }

void* calloc(size_t count, size_t size) { return checked(gCalloc(count, size)); }

void* realloc(void* memory, size_t size) {
    void* const moved = gRealloc(memory, size);
    // With a size of 0, realloc() frees the memory and may return null.
    return size == 0 ? moved : checked(moved);
}

void* memalign(size_t alignment, size_t size) { return checked(gMemalign(alignment, size)); }

void* aligned_alloc(size_t alignment, size_t size) {
    return checked(gAlignedAlloc(alignment, size));
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
    const int error = gPosixMemalign(memory, alignment, size);
    if (error == ENOMEM) checked(nullptr);
    return error;
}
}

namespace android::qmmediaeditor::cli {

void endOnFailedAllocation(void (*end)()) { gEnd = end; }

}  // namespace android::qmmediaeditor::cli

#endif
