#include "host/codec/OutputSequencer.h"

#include <algorithm>
#include <utility>

#include "host/codec/InputLimits.h"
#include "host/foundation/TimedWait.h"

namespace android {
namespace qmmediaeditor {

void OutputSequencer::beginSegment(int64_t startUs) {
    Mutex::Autolock lock(mLock);
    mSegment.number++;
    mSegment.startUs = std::max<int64_t>(startUs, 0);
    mPositionUs = std::numeric_limits<int64_t>::min();
    mVideoRuns.clear();
    mChanged.broadcast();
}

void OutputSequencer::advancePosition(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    if (timeUs <= mPositionUs) return;
    mPositionUs = timeUs;
    for (const auto& entry : mMembers) {
        if (owesSilence(entry.second.state)) entry.second.wake();
    }
    mChanged.broadcast();
}

void OutputSequencer::addVideo(int64_t timeUs) {
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

int64_t OutputSequencer::videoBefore(int64_t timeUs) const {
    Mutex::Autolock lock(mLock);
    for (auto run = mVideoRuns.rbegin(); run != mVideoRuns.rend(); ++run) {
        if (run->firstUs <= timeUs) return std::min(run->lastUs, timeUs);
    }
    return std::numeric_limits<int64_t>::min();
}

InputSegment OutputSequencer::segment() const {
    Mutex::Autolock lock(mLock);
    return mSegment;
}

int64_t OutputSequencer::position() const {
    Mutex::Autolock lock(mLock);
    return mPositionUs;
}

size_t OutputSequencer::join(std::function<void()> wake) {
    Mutex::Autolock lock(mLock);
    const size_t member = mNextMember++;
    mMembers[member].wake = std::move(wake);
    return member;
}

void OutputSequencer::leave(size_t member) {
    Mutex::Autolock lock(mLock);
    mMembers.erase(member);
    mChanged.broadcast();
}

bool OutputSequencer::publish(size_t member, const MemberState& state) {
    Mutex::Autolock lock(mLock);
    const auto found = mMembers.find(member);
    if (found == mMembers.end()) return false;
    found->second.state = state;
    mChanged.broadcast();
    return owesSilence(state);
}

OutputSequencer::Turn OutputSequencer::waitForTurn(size_t member, nsecs_t deadline) {
    Mutex::Autolock lock(mLock);
    for (;;) {
        const Turn turn = turnOf(member);
        if (turn != Turn::kTimedOut) return turn;
        if (!waitUntil(deadline, mChanged, mLock)) return turnOf(member);
    }
}

bool OutputSequencer::owesSilence(const MemberState& state) const {
    return state.silenceDueUs < std::min(mPositionUs, state.silenceUntilUs);
}

bool OutputSequencer::mayWaitFor(const MemberState& mine, const MemberState& other) const {
    if (owesSilence(other)) return true;
    const bool earlierInside = other.earliestUs < mine.earliestUs;
    if (earlierInside && other.working) return true;
    if (other.inputEnded) return false;
    const bool readerBehind = mine.earliestUs > mPositionUs;
    return (earlierInside || readerBehind) && !mine.inputFull;
}

// Returns kTimedOut while the answer is not known; waitForTurn() then waits for a change.
OutputSequencer::Turn OutputSequencer::turnOf(size_t member) const {
    const auto found = mMembers.find(member);
    if (found == mMembers.end() || !found->second.state.hasHead) return Turn::kHeadGone;
    const MemberState& mine = found->second.state;
    bool wait = false;
    for (const auto& entry : mMembers) {
        if (entry.first == member) continue;
        const MemberState& other = entry.second.state;
        if (other.hasHead) {
            // Its head is its next output, so there is nothing earlier to wait for.
            if (other.earliestUs < mine.earliestUs) return Turn::kOtherFirst;
            continue;
        }
        wait = wait || mayWaitFor(mine, other);
    }
    return wait ? Turn::kTimedOut : Turn::kYes;
}

}  // namespace qmmediaeditor
}  // namespace android
