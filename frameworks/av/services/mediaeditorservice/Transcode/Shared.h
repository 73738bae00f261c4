// What threads share without a lock.
#pragma once

#include <atomic>

namespace android {
namespace qmmediaeditor {

// A value that any thread may read and write at any time and that others poll. As large as the
// plain value, and without order among several of them but for publish() and take().
template <typename T>
class Shared {
public:
    Shared(T value) : mValue(value) {}

    operator T() const { return mValue.load(std::memory_order_relaxed); }
    T operator=(T value) {
        mValue.store(value, std::memory_order_relaxed);
        return value;
    }
    T exchange(T value) { return mValue.exchange(value, std::memory_order_relaxed); }

    // Whoever takes the value sees what its publisher wrote before.
    void publish(T value) { mValue.store(value, std::memory_order_release); }
    T take(T next) { return mValue.exchange(next, std::memory_order_acquire); }

private:
    static_assert(std::atomic<T>::is_always_lock_free, "polled values must not hide a lock");
    static_assert(sizeof(std::atomic<T>) == sizeof(T), "records keep their layout");

    std::atomic<T> mValue;
};

}  // namespace qmmediaeditor
}  // namespace android
