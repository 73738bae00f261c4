// A named thread that runs posted work in order.
#pragma once

#include <media/stagefright/foundation/AString.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <functional>
#include <memory>

namespace android {

class ALooper : public RefBase {
public:
    ALooper();

    // Takes effect when set before `start`.
    void setName(const char* name);

    // INVALID_OPERATION when it runs already, or when `runOnCallingThread` is asked for; -EAGAIN
    // when the thread cannot be created.
    status_t start(bool runOnCallingThread = false, bool canCallJava = false, int32_t priority = 0);

    // Lets the work that runs now come to its end, drops what is still waiting and ends the thread.
    // After it has returned, no posted work runs, unless it was called by that very thread.
    status_t stop();

    // For codecs: whether posted work will run. Any thread.
    bool isRunning() const;

    // For codecs, whose work runs on the looper's thread. Any thread may post; work posted to a
    // looper that does not run is dropped.
    void post(std::function<void()> work);

    // The monotonic clock, in microseconds.
    static int64_t GetNowUs();

protected:
    ~ALooper() override;

private:
    struct State;

    const std::shared_ptr<State> mState;
};

}  // namespace android
