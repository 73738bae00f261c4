#include "host/codec/OutputSequencer.h"

#include <algorithm>
#include <utility>

#include "host/codec/SilenceBudget.h"
#include "host/foundation/TimedWait.h"

namespace android {
namespace qmmediaeditor {

void DecodeOrder::beginTimeLine(int64_t startUs) {
    Mutex::Autolock lock(mLock);
    mTimeLine.number++;
    mTimeLine.startUs = std::max<int64_t>(startUs, 0);
    mPositionUs = std::numeric_limits<int64_t>::min();
    mVideoRuns.clear();
    mChanged.broadcast();
}

void DecodeOrder::advancePosition(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    if (timeUs <= mPositionUs) return;
    mPositionUs = timeUs;
    for (const auto& entry : mMembers) {
        if (owesSilence(entry.second.standing)) entry.second.wake();
    }
    mChanged.broadcast();
}

void DecodeOrder::addVideo(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    if (!mVideoRuns.empty() && timeUs <= mVideoRuns.back().lastUs) return;
    const bool continues = !mVideoRuns.empty() &&
                           timeUs - mVideoRuns.back().lastUs <= SilenceBudget::kMaxFrameDistanceUs;
    if (continues) {
        mVideoRuns.back().lastUs = timeUs;
    } else {
        mVideoRuns.push_back({timeUs, timeUs});
    }
}

int64_t DecodeOrder::videoBefore(int64_t timeUs) const {
    Mutex::Autolock lock(mLock);
    for (auto run = mVideoRuns.rbegin(); run != mVideoRuns.rend(); ++run) {
        if (run->firstUs <= timeUs) return std::min(run->lastUs, timeUs);
    }
    return std::numeric_limits<int64_t>::min();
}

TimeLine DecodeOrder::timeLine() const {
    Mutex::Autolock lock(mLock);
    return mTimeLine;
}

int64_t DecodeOrder::position() const {
    Mutex::Autolock lock(mLock);
    return mPositionUs;
}

size_t DecodeOrder::join(std::function<void()> wake) {
    Mutex::Autolock lock(mLock);
    const size_t member = mNextMember++;
    mMembers[member].wake = std::move(wake);
    return member;
}

void DecodeOrder::leave(size_t member) {
    Mutex::Autolock lock(mLock);
    mMembers.erase(member);
    mChanged.broadcast();
}

bool DecodeOrder::publish(size_t member, const Standing& standing) {
    Mutex::Autolock lock(mLock);
    const auto found = mMembers.find(member);
    if (found == mMembers.end()) return false;
    found->second.standing = standing;
    mChanged.broadcast();
    return owesSilence(standing);
}

DecodeOrder::Turn DecodeOrder::waitForTurn(size_t member, nsecs_t deadline) {
    Mutex::Autolock lock(mLock);
    for (;;) {
        const Turn turn = turnOf(member);
        if (turn != Turn::kTimedOut) return turn;
        if (!waitUntil(deadline, mChanged, mLock)) return turnOf(member);
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
