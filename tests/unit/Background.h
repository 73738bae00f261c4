// Work of a test on a thread of its own.
#pragma once

#include <fakes/Journal.h>
#include <stdio.h>
#include <stdlib.h>

#include <functional>
#include <future>
#include <thread>

namespace android::qmmediaeditor {

class Background {
public:
    explicit Background(std::function<void()> work)
        : mTask(std::move(work)), mDone(mTask.get_future()), mThread([this] { mTask(); }) {}

    // By now the test has woken everyone: a thread that still waits would wait for ever.
    ~Background() {
        if (!finishes()) {
            fprintf(stderr, "a thread of the test does not end\n");
            abort();
        }
        mThread.join();
    }

    bool finishes() { return mDone.wait_for(kFailureBound) == std::future_status::ready; }

private:
    std::packaged_task<void()> mTask;
    std::future<void> mDone;
    std::thread mThread;
};

}  // namespace android::qmmediaeditor
