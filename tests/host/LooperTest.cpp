// The priority of a looper's thread.
#include <gtest/gtest.h>
#include <media/stagefright/foundation/ALooper.h>
#include <sys/resource.h>
#include <unistd.h>

#include <future>
#include <thread>

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

TEST(LooperTest, aThreadMayLowerItsPriority_butNotRaiseItAboveTheInheritedOne) {
    // On a thread of its own, because only root may raise a priority again.
    std::thread([] {
        const int inherited = niceOfThread() + 5;
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), inherited));
        EXPECT_EQ(inherited, niceOfLooper(-16));
        EXPECT_EQ(inherited, niceOfLooper(PRIORITY_DEFAULT));
        EXPECT_EQ(inherited + 2, niceOfLooper(inherited + 2));
    }).join();
}

}  // namespace
}  // namespace android
