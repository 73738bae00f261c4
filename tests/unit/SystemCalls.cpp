#include "SystemCalls.h"

#include <errno.h>
#include <fakes/Journal.h>
#include <sched.h>
#include <sys/resource.h>
#include <time.h>
#include <utils/Thread.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

namespace android::qmmediaeditor {

namespace {

typedef std::map<const pthread_cond_t*, std::function<void()>> Hooks;

struct State {
    std::mutex lock;
    std::condition_variable changed;
    bool active = false;
    bool instant = false;
    bool holdThreads = false;
    Hooks onWait;
    Hooks onWakeUp;
    std::vector<std::pair<const pthread_cond_t*, int64_t>> timedWaits;
    size_t timeouts = 0;
    std::vector<useconds_t> sleeps;
    std::vector<int32_t> threadPriorities;
};

// Never destroyed: threads of the component may outlive the tests.
State& state() {
    static State* const instance = new State;
    return *instance;
}

thread_local int tPriority = 0;

void runHook(const Hooks State::*hooks, const pthread_cond_t* condition) {
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> guard(state().lock);
        const auto found = (state().*hooks).find(condition);
        if (found != (state().*hooks).end()) hook = found->second;
    }
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
        state().changed.wait(guard, [] { return !state().holdThreads; });
    }
    return run.entry(run.argument);
}

}  // namespace

SystemCalls::SystemCalls() {
    std::lock_guard<std::mutex> guard(state().lock);
    state().active = true;
}

SystemCalls::~SystemCalls() {
    releaseThreads();
    std::lock_guard<std::mutex> guard(state().lock);
    state().active = state().instant = false;
    state().onWait.clear();
    state().onWakeUp.clear();
    state().timedWaits.clear();
    state().timeouts = 0;
    state().sleeps.clear();
    state().threadPriorities.clear();
}

void SystemCalls::onWait(const Condition& condition, std::function<void()> hook) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().onWait[&condition.mCond] = std::move(hook);
}

void SystemCalls::onWakeUp(const Condition& condition, std::function<void()> hook) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().onWakeUp[&condition.mCond] = std::move(hook);
}

void SystemCalls::forgetHooks() {
    std::lock_guard<std::mutex> guard(state().lock);
    state().onWait.clear();
    state().onWakeUp.clear();
}

void SystemCalls::holdThreads() {
    std::lock_guard<std::mutex> guard(state().lock);
    state().holdThreads = true;
}

void SystemCalls::releaseThreads() {
    std::lock_guard<std::mutex> guard(state().lock);
    state().holdThreads = false;
    state().changed.notify_all();
}

std::vector<int64_t> SystemCalls::timedWaitsNs(const Condition& condition) const {
    std::lock_guard<std::mutex> guard(state().lock);
    std::vector<int64_t> waits;
    for (const auto& [waited, ns] : state().timedWaits) {
        if (waited == &condition.mCond) waits.push_back(ns);
    }
    return waits;
}

bool SystemCalls::waitForTimedWait(const Condition& condition) const {
    std::unique_lock<std::mutex> guard(state().lock);
    return state().changed.wait_for(guard, kFailureBound, [&] {
        for (const auto& wait : state().timedWaits) {
            if (wait.first == &condition.mCond) return true;
        }
        return false;
    });
}

size_t SystemCalls::timeouts() const {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().timeouts;
}

void SystemCalls::setInstant() {
    std::lock_guard<std::mutex> guard(state().lock);
    state().instant = true;
}

std::vector<useconds_t> SystemCalls::sleeps() const {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().sleeps;
}

std::vector<int32_t> SystemCalls::threadPriorities() const {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().threadPriorities;
}

int SystemCalls::priorityOfThisThread() { return tPriority; }

}  // namespace android::qmmediaeditor

using android::qmmediaeditor::runHook;
using android::qmmediaeditor::state;
using android::qmmediaeditor::State;

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*);
int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int __real_pthread_cond_signal(pthread_cond_t*);
int __real_pthread_cond_broadcast(pthread_cond_t*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument) {
    auto* start = new android::qmmediaeditor::Start{entry, argument};
    const int err =
        __real_pthread_create(thread, attributes, android::qmmediaeditor::startReleased, start);
    if (err != 0) delete start;
    return err;
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    runHook(&State::onWait, condition);
    return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* end) {
    runHook(&State::onWait, condition);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t seconds = end->tv_sec - now.tv_sec;
    const int64_t boundNs = seconds * 1000000000 + end->tv_nsec - now.tv_nsec;
    bool instant;
    {
        std::lock_guard<std::mutex> guard(state().lock);
        if (state().active) {
            state().timedWaits.emplace_back(condition, boundNs);
            state().changed.notify_all();
        }
        instant = state().instant;
    }
    if (!instant) {
        const int err = __real_pthread_cond_timedwait(condition, mutex, end);
        std::lock_guard<std::mutex> guard(state().lock);
        if (state().active && err == ETIMEDOUT && boundNs > 1000000000) ++state().timeouts;
        return err;
    }
    pthread_mutex_unlock(mutex);
    sched_yield();
    pthread_mutex_lock(mutex);
    return ETIMEDOUT;
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition) {
    runHook(&State::onWakeUp, condition);
    return __real_pthread_cond_signal(condition);
}

int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
    runHook(&State::onWakeUp, condition);
    return __real_pthread_cond_broadcast(condition);
}

int __wrap_usleep(useconds_t us) {
    std::lock_guard<std::mutex> guard(state().lock);
    if (state().active) state().sleeps.push_back(us);
    return 0;
}

// android::Thread::run(), which is called through the virtual table.
android::status_t realThreadRun(android::Thread*, const char*, int32_t,
                                size_t) asm("__real_" QM_THREAD_RUN);
android::status_t wrapThreadRun(android::Thread*, const char*, int32_t,
                                size_t) asm("__wrap_" QM_THREAD_RUN);
android::status_t wrapThreadRun(android::Thread* thread, const char* name, int32_t priority,
                                size_t stack) {
    {
        std::lock_guard<std::mutex> guard(state().lock);
        state().threadPriorities.push_back(priority);
    }
    return realThreadRun(thread, name, priority, stack);
}

// Loopers lower a priority but never raise one, so every thread begins at the highest.
int getpriority(__priority_which_t, id_t) noexcept { return -20; }
int setpriority(__priority_which_t, id_t, int priority) noexcept {
    android::qmmediaeditor::tPriority = priority;
    return 0;
}

}  // extern "C"
