// One direction of the hand-off between two threads.
//
// A queue moves in batches: the producer fills it, wakes the consumer only when more samples than
// the bound wait, and sleeps until the consumer has emptied it. Either side therefore runs for a
// whole batch without a switch of threads.
//
// A sleeping thread is woken by the other side, or by wakeBoth(). A wait that is woken with nothing
// to do waits again, except awaitOnce().
#pragma once

#include <RelaxedAtomic.h>
#include <stddef.h>
#include <utils/Condition.h>
#include <utils/List.h>
#include <utils/Mutex.h>
#include <utils/Timers.h>

#include <functional>

namespace android {
namespace qmmediaeditor {

template <class Sample>
class BatchQueue {
public:
    // The interval at which a waiting producer calls its stop test.
    static constexpr nsecs_t kStopPollNs = milliseconds_to_nanoseconds(50);

    // Refers to members of the source that the queue belongs to. `stopped` is set before
    // wakeBoth() is called, and never cleared.
    BatchQueue(Mutex& lock, List<Sample>& samples, Condition& available, Condition& returned,
               const RelaxedAtomic<bool>& stopped)
        : mLock(lock),
          mSamples(samples),
          mAvailable(available),
          mReturned(returned),
          mStopped(stopped) {}

    // The mutex that all operations but wakeBoth() need.
    Mutex& lock() const RETURN_CAPABILITY(mLock) { return mLock; }

    bool empty() const REQUIRES(mLock) { return mSamples.empty(); }
    size_t size() const REQUIRES(mLock) { return mSamples.size(); }

    // Producer: queues `sample`. With more than `bound` samples it then wakes the consumer, calls
    // `onFull(count)`, and sleeps until the queue is empty or stopped, or until `stopTest` returns
    // true. `stopTest` may be null; it is polled every kStopPollNs.
    template <typename OnFull>
    void push(const Sample& sample, size_t bound, const OnFull& onFull,
              const std::function<bool()>& stopTest = nullptr) REQUIRES(mLock) {
        mSamples.push_back(sample);
        if (mSamples.size() <= bound) return;
        mAvailable.signal();
        onFull(mSamples.size());
        while (!mSamples.empty() && !mStopped) {
            if (stopTest == nullptr) {
                mReturned.wait(mLock);
            } else if (stopTest()) {
                return;
            } else {
                mReturned.waitRelative(mLock, kStopPollNs);
            }
        }
    }

    // Producer: queues `sample` and wakes the consumer at once.
    void pushLast(const Sample& sample) REQUIRES(mLock) {
        mSamples.push_back(sample);
        mAvailable.signal();
    }

    // Consumer: waits until a sample is queued or the queue is stopped.
    void await() REQUIRES(mLock) {
        while (mSamples.empty() && !mStopped) mAvailable.wait(mLock);
    }

    // Consumer: waits for one wake-up, whatever it brings.
    void awaitOnce() REQUIRES(mLock) { mAvailable.wait(mLock); }

    // Consumer: the oldest sample, which stays queued.
    const Sample& head() const REQUIRES(mLock) { return *mSamples.begin(); }

    // Consumer: takes the oldest sample. The last of a batch wakes the producer, which runs when
    // the consumer releases the lock.
    Sample pop() REQUIRES(mLock) {
        Sample sample = *mSamples.begin();
        mSamples.erase(mSamples.begin());
        if (mSamples.empty()) mReturned.signal();
        return sample;
    }

    // Consumer: wakes a sleeping producer, which checks the queue again.
    void wakeProducer() REQUIRES(mLock) { mReturned.signal(); }

    // Wakes both sides, which check their flags again. The lock is taken so that neither side
    // falls asleep between its check of a flag and the wake-up.
    void wakeBoth() EXCLUDES(mLock) {
        Mutex::Autolock guard(mLock);
        mAvailable.broadcast();
        mReturned.broadcast();
    }

private:
    Mutex& mLock;
    List<Sample>& mSamples GUARDED_BY(mLock);
    Condition& mAvailable;
    Condition& mReturned;
    const RelaxedAtomic<bool>& mStopped;
};

}  // namespace qmmediaeditor
}  // namespace android
