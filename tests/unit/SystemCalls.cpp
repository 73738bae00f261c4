#include "SystemCalls.h"

#include <errno.h>
#include <fakes/Journal.h>
#include <sys/resource.h>
#include <time.h>
#include <utils/AndroidThreads.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace android::qmmediaeditor {

namespace {

enum class Event { kWait, kWakeUp };

// The calls, and the requests of the test, while a SystemCalls lives.
struct Record {
    bool active = false;
    bool holdThreads = false;
    std::map<std::pair<const pthread_cond_t*, Event>, std::function<void()>> hooks;
    std::vector<std::pair<const pthread_cond_t*, int64_t>> timedWaits;
    size_t timeouts = 0;
    std::vector<useconds_t> sleeps;
};

struct State {
    std::mutex lock;
    std::condition_variable changed;
    Record record;
};

// Never destroyed: threads of the component may outlive the tests.
State& state() {
    static State* const instance = new State;
    return *instance;
}

template <typename Use>
auto locked(const Use& use) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().changed.notify_all();
    return use(state().record);
}

thread_local int tPriority = 0;
std::atomic<int32_t> gLastThreadPriority{0};

void runHook(const pthread_cond_t* condition, Event event) {
    const std::function<void()> hook = locked([&](Record& record) {
        const auto found = record.hooks.find({condition, event});
        return found == record.hooks.end() ? nullptr : found->second;
    });
    if (hook != nullptr) hook();
}

// The function that a held thread is to run.
struct Start {
    void* (*entry)(void*);
    void* argument;
};

void* startReleased(void* start) {
    const Start run = *static_cast<Start*>(start);
    delete static_cast<Start*>(start);
    {
        std::unique_lock<std::mutex> guard(state().lock);
        state().changed.wait(guard, [] { return !state().record.holdThreads; });
    }
    return run.entry(run.argument);
}

}  // namespace

SystemCalls::SystemCalls() {
    locked([](Record& record) { record.active = true; });
}

SystemCalls::~SystemCalls() {
    locked([](Record& record) { record = {}; });
}

void SystemCalls::onWait(const Condition& condition, std::function<void()> hook) {
    locked([&](Record& record) { record.hooks[{&condition.mCond, Event::kWait}] = hook; });
}

void SystemCalls::onWakeUp(const Condition& condition, std::function<void()> hook) {
    locked([&](Record& record) { record.hooks[{&condition.mCond, Event::kWakeUp}] = hook; });
}

void SystemCalls::forgetHooks() {
    locked([](Record& record) { record.hooks.clear(); });
}

void SystemCalls::holdThreads(bool hold) {
    locked([&](Record& record) { record.holdThreads = hold; });
}

std::vector<int64_t> SystemCalls::timedWaitsNs(const Condition& condition) const {
    return locked([&](const Record& record) {
        std::vector<int64_t> waits;
        for (const auto& [waited, ns] : record.timedWaits) {
            if (waited == &condition.mCond) waits.push_back(ns);
        }
        return waits;
    });
}

bool SystemCalls::waitForTimedWait(const Condition& condition) const {
    std::unique_lock<std::mutex> guard(state().lock);
    return state().changed.wait_for(guard, kFailureBound, [&] {
        for (const auto& wait : state().record.timedWaits) {
            if (wait.first == &condition.mCond) return true;
        }
        return false;
    });
}

size_t SystemCalls::timeouts() const {
    return locked([](const Record& record) { return record.timeouts; });
}

std::vector<useconds_t> SystemCalls::sleeps() const {
    return locked([](const Record& record) { return record.sleeps; });
}

int SystemCalls::priorityOfThisThread() { return tPriority; }
int32_t SystemCalls::lastThreadPriority() { return gLastThreadPriority; }

}  // namespace android::qmmediaeditor

using namespace android::qmmediaeditor;

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*);
int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int __real_pthread_cond_signal(pthread_cond_t*);
int __real_pthread_cond_broadcast(pthread_cond_t*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument) {
    auto* start = new Start{entry, argument};
    const int err = __real_pthread_create(thread, attributes, startReleased, start);
    if (err != 0) delete start;
    return err;
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    runHook(condition, Event::kWait);
    return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* end) {
    runHook(condition, Event::kWait);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t seconds = end->tv_sec - now.tv_sec;
    const int64_t boundNs = seconds * 1000000000 + end->tv_nsec - now.tv_nsec;
    locked([&](Record& record) {
        if (record.active) record.timedWaits.emplace_back(condition, boundNs);
    });
    const int err = __real_pthread_cond_timedwait(condition, mutex, end);
    locked([&](Record& record) {
        if (record.active && err == ETIMEDOUT && boundNs > 1000000000) ++record.timeouts;
    });
    return err;
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition) {
    runHook(condition, Event::kWakeUp);
    return __real_pthread_cond_signal(condition);
}

int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
    runHook(condition, Event::kWakeUp);
    return __real_pthread_cond_broadcast(condition);
}

int __wrap_usleep(useconds_t us) {
    locked([&](Record& record) {
        if (record.active) record.sleeps.push_back(us);
    });
    return 0;
}

// Takes the place of the library's function for the platform's threads, which looks at the priority
// on a device only.
int androidCreateRawThreadEtc(android_thread_func_t entry, void* argument, const char*,
                              int32_t priority, size_t, android_thread_id_t*) {
    gLastThreadPriority = priority;
    try {
        std::thread([=] { entry(argument); }).detach();
    } catch (const std::system_error&) {
        return 0;
    }
    return 1;
}

// Loopers lower a priority but never raise one, so every thread begins at the highest.
int getpriority(__priority_which_t, id_t) noexcept { return -20; }
int setpriority(__priority_which_t, id_t, int priority) noexcept {
    tPriority = priority;
    return 0;
}

}  // extern "C"
