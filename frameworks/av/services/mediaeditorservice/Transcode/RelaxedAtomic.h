// Values that threads share without a lock.
#pragma once

#include <atomic>

namespace android {
namespace qmmediaeditor {

// A value that any thread may read and write at any time and that others poll. It is as large as
// the plain value, because the records that hold it keep their layout. Accesses are relaxed; only
// publish() and take() order other accesses.
template <typename T>
class RelaxedAtomic {
public:
    RelaxedAtomic(T value) : mValue(value) {}

    operator T() const { return mValue.load(std::memory_order_relaxed); }
    T operator=(T value) {
        mValue.store(value, std::memory_order_relaxed);
        return value;
    }
    T exchange(T value) { return mValue.exchange(value, std::memory_order_relaxed); }

    // A thread that takes the value sees everything that was written before publish().
    void publish(T value) { mValue.store(value, std::memory_order_release); }
    T take(T next) { return mValue.exchange(next, std::memory_order_acquire); }

private:
    static_assert(std::atomic<T>::is_always_lock_free, "polled values must not hide a lock");
    static_assert(sizeof(std::atomic<T>) == sizeof(T), "records keep their layout");

    std::atomic<T> mValue;
};

}  // namespace qmmediaeditor
}  // namespace android
