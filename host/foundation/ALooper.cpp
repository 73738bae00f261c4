#include <media/stagefright/foundation/ALooper.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/Timers.h>

#include <deque>
#include <system_error>
#include <thread>

namespace android {

namespace {

// Sets the calling thread's nice value to `priority`, but never below the value that the thread
// inherited. A process that was started with a low priority must keep it, also as root.
void lowerPriority(int32_t priority) {
    const auto thread = static_cast<id_t>(gettid());
    if (priority > getpriority(PRIO_PROCESS, thread)) {
        // The work is the same at any priority.
        (void)setpriority(PRIO_PROCESS, thread, priority);
    }
}

}  // namespace

// Shared with the thread, so that a looper may go away while its last work still runs.
struct ALooper::State {
    Mutex lock;
    Condition workOrStop;
    std::string name GUARDED_BY(lock) = "ALooper";
    std::deque<std::function<void()>> work GUARDED_BY(lock);
    std::thread thread GUARDED_BY(lock);
    bool running GUARDED_BY(lock) = false;
    // Tells a thread that was stopped, and perhaps outlived by a new one, to end.
    uint64_t generation GUARDED_BY(lock) = 0;

    void loop(uint64_t myGeneration) {
        Mutex::Autolock guard(lock);
        while (true) {
            while (generation == myGeneration && work.empty()) workOrStop.wait(lock);
            if (generation != myGeneration) return;
            std::function<void()> next = std::move(work.front());
            work.pop_front();
            lock.unlock();
            next();
            // The objects that the work owns are destroyed while the lock is free.
            next = nullptr;
            lock.lock();
        }
    }
};

ALooper::ALooper() : mState(std::make_shared<State>()) {}

ALooper::~ALooper() { stop(); }

void ALooper::setName(const char* name) {
    Mutex::Autolock guard(mState->lock);
    mState->name = name;
}

status_t ALooper::start(bool runOnCallingThread, bool /* canCallJava */, int32_t priority) {
    Mutex::Autolock guard(mState->lock);
    if (mState->running || runOnCallingThread) return INVALID_OPERATION;
    try {
        mState->thread = std::thread([state = mState, priority, generation = mState->generation] {
            {
                Mutex::Autolock nameGuard(state->lock);
                // The kernel keeps 15 characters.
                pthread_setname_np(pthread_self(), state->name.substr(0, 15).c_str());
            }
            lowerPriority(priority);
            state->loop(generation);
        });
    } catch (const std::system_error& error) {
        return -error.code().value();
    }
    mState->running = true;
    return OK;
}

bool ALooper::isRunning() const {
    Mutex::Autolock guard(mState->lock);
    return mState->running;
}

status_t ALooper::stop() {
    std::thread thread;
    std::deque<std::function<void()>> dropped;
    {
        Mutex::Autolock guard(mState->lock);
        if (!mState->running) return INVALID_OPERATION;
        mState->running = false;
        ++mState->generation;
        dropped.swap(mState->work);
        thread = std::move(mState->thread);
        mState->workOrStop.broadcast();
    }
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
    } else {
        thread.join();
    }
    return OK;
}

void ALooper::post(std::function<void()> work) {
    {
        Mutex::Autolock guard(mState->lock);
        if (!mState->running) return;
        mState->work.push_back(std::move(work));
    }
    // The thread that wakes finds the lock free.
    mState->workOrStop.signal();
}

int64_t ALooper::GetNowUs() { return systemTime(SYSTEM_TIME_MONOTONIC) / 1000; }

}  // namespace android
