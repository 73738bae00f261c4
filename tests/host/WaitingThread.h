// Runs a call on a thread of its own, and waits until it sleeps: for tests of what wakes it.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <utility>

namespace android::qmmediaeditor {

// The result of a call that must not block any longer. A thread that is blocked for good could not
// be joined: the process ends, and with it this one test.
template <typename Result>
Result resultOf(std::future<Result>* call) {
    if (call->wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << "the call is blocked";
        fprintf(stderr, "a blocked call ends the test\n");
        abort();
    }
    return call->get();
}

template <typename Result>
class WaitingThread {
public:
    // Returns when the thread sleeps in `call`, which has to block.
    template <typename Call>
    explicit WaitingThread(Call call) {
        std::promise<pid_t> started;
        std::future<pid_t> id = started.get_future();
        mResult = std::async(std::launch::async, [call, &started] {
            started.set_value(gettid());
            return call();
        });
        const std::string path = "/proc/self/task/" + std::to_string(id.get()) + "/stat";
        const auto limit = std::chrono::steady_clock::now() + kBound;
        // The state follows the name in brackets. A lock may make it sleep for a moment, too.
        for (int sleeping = 0; sleeping < 20;) {
            std::string line;
            std::getline(std::ifstream(path), line);
            const size_t name = line.rfind(')');
            const bool sleeps = name != std::string::npos && line.compare(name, 3, ") S") == 0;
            sleeping = sleeps ? sleeping + 1 : 0;
            if (std::chrono::steady_clock::now() > limit) {
                ADD_FAILURE() << "the call does not block";
                break;
            }
            sched_yield();
        }
    }

    // The call's result, once something else has woken it.
    Result get() { return resultOf(&mResult); }

private:
    static constexpr std::chrono::seconds kBound{10};

    std::future<Result> mResult;
};

}  // namespace android::qmmediaeditor
