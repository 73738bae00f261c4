#include <media/stagefright/foundation/ALooper.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace android {

// Shared with the thread, so that a looper may go away while its last work still runs.
struct ALooper::State {
    std::mutex lock;
    std::condition_variable workOrStop;
    std::string name = "ALooper";
    std::deque<std::function<void()>> work;
    std::thread thread;
    bool running = false;
    // Tells a thread that was stopped, and perhaps outlived by a new one, to end.
    uint64_t generation = 0;

    void loop(uint64_t myGeneration) {
        std::unique_lock<std::mutex> guard(lock);
        while (true) {
            workOrStop.wait(guard, [&] { return generation != myGeneration || !work.empty(); });
            if (generation != myGeneration) return;
            std::function<void()> next = std::move(work.front());
            work.pop_front();
            guard.unlock();
            next();
            // What the work holds on to goes while the lock is free.
            next = nullptr;
            guard.lock();
        }
    }
};

ALooper::ALooper() : mState(std::make_shared<State>()) {}

ALooper::~ALooper() { stop(); }

void ALooper::setName(const char* name) {
    std::lock_guard<std::mutex> guard(mState->lock);
    mState->name = name;
}

status_t ALooper::start(bool runOnCallingThread, bool /* canCallJava */, int32_t priority) {
    std::lock_guard<std::mutex> guard(mState->lock);
    if (mState->running || runOnCallingThread) return INVALID_OPERATION;
    mState->running = true;
    mState->thread = std::thread([state = mState, priority, generation = mState->generation] {
        {
            std::lock_guard<std::mutex> nameGuard(state->lock);
            // The kernel keeps 15 characters.
            pthread_setname_np(pthread_self(), state->name.substr(0, 15).c_str());
        }
        // Only a privileged process may raise its priority; without it the work is the same.
        (void)setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), priority);
        state->loop(generation);
    });
    return OK;
}

status_t ALooper::stop() {
    std::thread thread;
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard<std::mutex> guard(mState->lock);
        if (!mState->running) return INVALID_OPERATION;
        mState->running = false;
        ++mState->generation;
        dropped.swap(mState->work);
        thread = std::move(mState->thread);
        mState->workOrStop.notify_all();
    }
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
    } else {
        thread.join();
    }
    return OK;
}

void ALooper::post(std::function<void()> work) {
    std::lock_guard<std::mutex> guard(mState->lock);
    if (!mState->running) return;
    mState->work.push_back(std::move(work));
    mState->workOrStop.notify_one();
}

int64_t ALooper::GetNowUs() { return systemTime(SYSTEM_TIME_MONOTONIC) / 1000; }

}  // namespace android
