#include "host/writer/PacketInterleaver.h"

#include <stdlib.h>

#include <algorithm>
#include <limits>
#include <utility>

extern "C" {
#include <libavcodec/packet.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

size_t bytesOf(const PacketInterleaver::Held& held) {
    return static_cast<size_t>(held.packet->size);
}

constexpr int64_t kSecondUs = 1000000;
// Timestamps that were rounded to microseconds deviate by a few of them; a real gap is longer.
constexpr int64_t kToleranceUs = 500;

int64_t toTicks(int64_t timeUs, int64_t ticksPerSecond) {
    const int64_t seconds = timeUs / kSecondUs;
    const int64_t rest = timeUs % kSecondUs * ticksPerSecond;
    const int64_t half = rest >= 0 ? kSecondUs / 2 : -kSecondUs / 2;
    return seconds * ticksPerSecond + (rest + half) / kSecondUs;
}

}  // namespace

PacketInterleaver::PacketInterleaver(size_t trackCount, size_t maxBytes)
    : mMaxBytes(maxBytes), mTracks(trackCount) {}

void PacketInterleaver::push(Held held) {
    Track& track = mTracks[held.track];
    if (!track.held.empty()) {
        Held& before = track.held.back();
        before.endUs = held.timeUs;
        before.packet->duration = held.packet->dts - before.packet->dts;
    }
    track.endUs = held.endUs;
    mHeldBytes += bytesOf(held);
    track.held.push_back(std::move(held));
}

void PacketInterleaver::end(size_t index, int64_t endUs) {
    Track& track = mTracks[index];
    track.ended = true;
    track.endUs = endUs;
    if (!track.held.empty()) track.held.back().endUs = endUs;
}

const PacketInterleaver::Held* PacketInterleaver::last(size_t track) const {
    return mTracks[track].held.empty() ? nullptr : &mTracks[track].held.back();
}

std::optional<size_t> PacketInterleaver::next() const {
    const bool full = mHeldBytes > mMaxBytes;
    std::optional<size_t> earliest;
    for (size_t i = 0; i < mTracks.size(); ++i) {
        const Track& track = mTracks[i];
        if (track.held.empty()) {
            if (!track.ended && !full) return std::nullopt;
            continue;
        }
        const bool isSettled = track.held.size() > 1 || track.ended;
        if (full && !isSettled) continue;
        if (!earliest || track.held.front().timeUs < mTracks[*earliest].held.front().timeUs) {
            earliest = i;
        }
    }
    if (!earliest) return std::nullopt;
    const Track& track = mTracks[*earliest];
    if (track.held.size() < 2 && !track.ended) return std::nullopt;
    return earliest;
}

std::optional<PacketInterleaver::Held> PacketInterleaver::pop() {
    const std::optional<size_t> index = next();
    if (!index) return std::nullopt;
    Held held = std::move(mTracks[*index].held.front());
    mTracks[*index].held.pop_front();
    mHeldBytes -= bytesOf(held);
    return held;
}

int64_t PacketInterleaver::commonEndUs() const {
    int64_t endUs = std::numeric_limits<int64_t>::max();
    for (const Track& track : mTracks) {
        if (!track.ended) endUs = std::min(endUs, track.endUs);
    }
    return endUs;
}

void PacketInterleaver::cutAt(int64_t timeUs) {
    for (Track& track : mTracks) {
        while (!track.held.empty() && track.held.back().timeUs >= timeUs) {
            mHeldBytes -= bytesOf(track.held.back());
            track.held.pop_back();
        }
        track.endUs = std::min(track.endUs, timeUs);
        if (!track.held.empty()) track.held.back().endUs = track.endUs;
    }
}

TrackTimestamps::TrackTimestamps(int64_t ticksPerSecond, int64_t frameTicks, int64_t defaultTicks)
    : mTicksPerSecond(ticksPerSecond),
      mFrameTicks(frameTicks),
      mToleranceTicks(toTicks(kToleranceUs, ticksPerSecond)),
      mDurationTicks(std::max<int64_t>(frameTicks > 0 ? frameTicks : defaultTicks, 1)) {}

int64_t TrackTimestamps::ticksAt(int64_t timeUs) const { return toTicks(timeUs, mTicksPerSecond); }

TrackTimestamps::Stamp TrackTimestamps::stamp(int64_t timeUs) {
    int64_t ticks = ticksAt(timeUs);
    if (mLastTicks.has_value()) {
        const int64_t expected = *mLastTicks + mFrameTicks;
        if (mFrameTicks > 0 && std::abs(ticks - expected) <= mToleranceTicks) ticks = expected;
        ticks = std::max(ticks, *mLastTicks + 1);
        if (mFrameTicks == 0) mDurationTicks = ticks - *mLastTicks;
    }
    mLastTicks = ticks;
    return {ticks, mDurationTicks};
}

}  // namespace qmmediaeditor
}  // namespace android
