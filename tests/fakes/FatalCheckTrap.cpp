#include <android/log.h>
#include <fakes/FatalCheckTrap.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <utils/CallStack.h>

#include <atomic>
#include <utility>

namespace android::qmmediaeditor {

namespace {

std::atomic<FatalCheckTrap*> gTrap{nullptr};

}  // namespace

FatalCheckTrap::FatalCheckTrap() : mOwner(std::this_thread::get_id()) { gTrap = this; }

FatalCheckTrap::~FatalCheckTrap() { gTrap = nullptr; }

void FatalCheckTrap::onFailure(const char* message) {
    FatalCheckTrap* trap = gTrap;
    if (trap == nullptr) __android_log_default_aborter(message);
    if (std::this_thread::get_id() == trap->mOwner) throw FatalCheckFailure(message);
    {
        std::lock_guard<std::mutex> guard(trap->mLock);
        trap->mElsewhere.push_back(message);
    }
    pthread_exit(nullptr);
}

std::vector<std::string> FatalCheckTrap::elsewhere() {
    std::lock_guard<std::mutex> guard(mLock);
    return std::exchange(mElsewhere, {});
}

}  // namespace android::qmmediaeditor

// A check that fails in a constructor leaves an object without a strong reference behind: the
// library logs the stack then, and on ARM Debian's build of it crashes while it walks the stack.
android::CallStack::CallStackUPtr android::CallStack::getCurrentInternal(int32_t) {
    return CallStackUPtr(nullptr);
}

// Takes the place of the log library's own, which is C: on ARM neither an exception nor the end of
// a thread finds a way through its frames.
void __android_log_assert(const char* /* condition */, const char* tag, const char* format, ...) {
    char message[1024];
    va_list values;
    va_start(values, format);
    vsnprintf(message, sizeof(message), format, values);
    va_end(values);
    __android_log_write(ANDROID_LOG_FATAL, tag, message);
    android::qmmediaeditor::FatalCheckTrap::onFailure(message);
}
