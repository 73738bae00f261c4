#include "host/media/DecodeOrder.h"

#include <algorithm>
#include <utility>

namespace android {
namespace qmmediaeditor {

void DecodeOrder::beginTimeLine(int64_t startUs) {
    std::lock_guard<std::mutex> lock(mLock);
    mTimeLine.number++;
    mTimeLine.startUs = std::max<int64_t>(startUs, 0);
    mPositionUs = std::numeric_limits<int64_t>::min();
    mChanged.notify_all();
}

void DecodeOrder::advancePosition(int64_t timeUs) {
    std::lock_guard<std::mutex> lock(mLock);
    if (timeUs <= mPositionUs) return;
    mPositionUs = timeUs;
    for (const auto& entry : mMembers) {
        if (owesSilence(entry.second.standing)) entry.second.wake();
    }
    mChanged.notify_all();
}

TimeLine DecodeOrder::timeLine() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mTimeLine;
}

int64_t DecodeOrder::position() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mPositionUs;
}

size_t DecodeOrder::join(std::function<void()> wake) {
    std::lock_guard<std::mutex> lock(mLock);
    const size_t member = mNextMember++;
    mMembers[member].wake = std::move(wake);
    return member;
}

void DecodeOrder::leave(size_t member) {
    std::lock_guard<std::mutex> lock(mLock);
    mMembers.erase(member);
    mChanged.notify_all();
}

bool DecodeOrder::publish(size_t member, const Standing& standing) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto found = mMembers.find(member);
    if (found == mMembers.end()) return false;
    found->second.standing = standing;
    mChanged.notify_all();
    return owesSilence(standing);
}

DecodeOrder::Turn DecodeOrder::waitForTurn(size_t member,
                                           std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        const Turn turn = turnOf(member);
        if (turn != Turn::kTimedOut) return turn;
        if (mChanged.wait_until(lock, deadline) == std::cv_status::timeout) return turnOf(member);
    }
}

bool DecodeOrder::owesSilence(const Standing& standing) const {
    return standing.silenceDueUs < std::min(mPositionUs, standing.silenceUntilUs);
}

bool DecodeOrder::mayWaitFor(const Standing& mine, const Standing& other) const {
    if (owesSilence(other)) return true;
    const bool earlierInside = other.earliestUs < mine.earliestUs;
    if (earlierInside && other.working) return true;
    if (other.inputEnded) return false;
    const bool readerBehind = mine.earliestUs > mPositionUs;
    return (earlierInside || readerBehind) && !mine.inputFull;
}

// kTimedOut: not yet clear.
DecodeOrder::Turn DecodeOrder::turnOf(size_t member) const {
    const auto found = mMembers.find(member);
    if (found == mMembers.end() || !found->second.standing.hasHead) return Turn::kHeadGone;
    const Standing& mine = found->second.standing;
    bool wait = false;
    for (const auto& entry : mMembers) {
        if (entry.first == member) continue;
        const Standing& other = entry.second.standing;
        if (other.hasHead) {
            // Its head is the next thing that it delivers; there is nothing earlier to wait for.
            if (other.earliestUs < mine.earliestUs) return Turn::kOtherFirst;
            continue;
        }
        wait = wait || mayWaitFor(mine, other);
    }
    return wait ? Turn::kTimedOut : Turn::kYes;
}

}  // namespace qmmediaeditor
}  // namespace android
