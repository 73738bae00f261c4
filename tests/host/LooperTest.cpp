// The priority of a looper's thread.
#include <gtest/gtest.h>
#include <media/stagefright/foundation/ALooper.h>
#include <sys/resource.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <thread>

#include "WaitingThread.h"

namespace android {
namespace {

int niceOfThread() { return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); }

int niceOfLooper(int32_t priority) {
    const sp<ALooper> looper = new ALooper;
    EXPECT_EQ(OK, looper->start(false, false, priority));
    std::promise<int> nice;
    looper->post([&nice] { nice.set_value(niceOfThread()); });
    const int value = nice.get_future().get();
    looper->stop();
    return value;
}

TEST(LooperTest, aThreadMayLowerItsPriorityButNotRaiseIt) {
    // On a thread of its own, because only root may raise a priority again.
    std::thread([] {
        const int inherited = niceOfThread() + 5;
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), inherited));
        EXPECT_EQ(inherited, niceOfLooper(-16));
        EXPECT_EQ(inherited, niceOfLooper(PRIORITY_DEFAULT));
        EXPECT_EQ(inherited + 2, niceOfLooper(inherited + 2));
    }).join();
}

// Objects that the work holds may use the looper when it is destroyed.
TEST(LooperTest, workIsDestroyedWithoutTheLoopersLock) {
    const sp<ALooper> looper = new ALooper;
    ASSERT_EQ(OK, looper->start());
    std::promise<void> done;
    auto held =
        std::shared_ptr<void>(nullptr, [&](void*) { looper->post([&] { done.set_value(); }); });
    looper->post([held] {});
    held.reset();
    std::future<void> destroyed = done.get_future();
    qmmediaeditor::resultOf(&destroyed);
    looper->stop();
}

}  // namespace
}  // namespace android
