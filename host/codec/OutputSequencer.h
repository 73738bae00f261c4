// Keeps the decoders of one extractor in step.
//
// Trimming has one position for all tracks, and the first decoded frame at or past a period's end
// moves it on. So decoded frames have to come out in time order across the tracks: a decoder
// delivers its head, the earliest frame it has, only when no other decoder can still deliver an
// earlier one. Another decoder can when it has an earlier head (the caller must fetch that first),
// when it works on something, or when the reader has not yet come to the head's time. The last wait
// could last for ever, since the reader hands a sample over before it goes on: a decoder whose
// input is full passes a decoder that only new input could help.
//
// Any thread may call any operation. A decoder may hold its own lock: the order calls nobody but
// the wake functions, and these only post work.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/Timers.h>

#include <functional>
#include <limits>
#include <map>
#include <vector>

namespace android {
namespace qmmediaeditor {

// A stretch of input that is read without a seek.
struct InputSegment {
    uint32_t number = 0;
    // Where working sound begins: what comes before is dropped, a later start is filled with
    // silence.
    int64_t startUs = 0;
};

class OutputSequencer : public RefBase {
public:
    static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

    // For the extractor, once in each seek (the first one, to 0, too), before samples are
    // announced. `startUs` is the seek's target. Decoders drop what they still have of earlier time
    // lines.
    void beginSegment(int64_t startUs);
    // No sample that comes later, of any track, is shown before `timeUs`.
    void advancePosition(int64_t timeUs);
    // For the extractor: a sample of the video track comes, and is shown at `timeUs` or later.
    void addVideo(int64_t timeUs);

    InputSegment segment() const;
    int64_t position() const;
    // The time of the last video sample at or before `timeUs`, where their distances exceed
    // SilenceBudget::kMaxFrameDistanceUs; `timeUs` itself between samples that are closer.
    // INT64_MIN before the first one.
    int64_t videoBefore(int64_t timeUs) const;

    // Where a decoder stands, as far as the others must know.
    struct MemberState {
        bool hasHead = false;
        // It has queued input, or is at work.
        bool working = false;
        // No further input will come.
        bool inputEnded = false;
        // No input slot is free, so that the reader may be waiting for one.
        bool inputFull = false;
        // The time of the head, or the earliest that what it holds can give; kNever when it holds
        // nothing.
        int64_t earliestUs = kNever;
        // When the reader has passed the first, the decoder makes up silence, to the second at
        // most. Never, for pictures.
        int64_t silenceDueUs = kNever;
        int64_t silenceUntilUs = kNever;
    };

    // From start to stop, or to the end of stream, a decoder is a member. `wake` is called when the
    // reader has passed a hole that the decoder has to fill.
    size_t join(std::function<void()> wake);
    void leave(size_t member);
    // True when the decoder has to fill a hole now.
    bool publish(size_t member, const MemberState& state);

    enum class Turn { kYes, kOtherFirst, kTimedOut, kHeadGone };

    // Waits until it is clear whether `member` may deliver its head.
    Turn waitForTurn(size_t member, nsecs_t deadline);

protected:
    ~OutputSequencer() override = default;

private:
    struct Member {
        MemberState state;
        std::function<void()> wake;
    };

    bool owesSilence(const MemberState& state) const REQUIRES(mLock);
    bool mayWaitFor(const MemberState& mine, const MemberState& other) const REQUIRES(mLock);
    Turn turnOf(size_t member) const REQUIRES(mLock);

    mutable Mutex mLock;
    Condition mChanged;
    InputSegment mSegment GUARDED_BY(mLock);
    // Stretches of video samples that lie close together, in rising order.
    struct VideoRun {
        int64_t firstUs;
        int64_t lastUs;
    };
    std::vector<VideoRun> mVideoRuns GUARDED_BY(mLock);
    int64_t mPositionUs GUARDED_BY(mLock) = std::numeric_limits<int64_t>::min();
    std::map<size_t, Member> mMembers GUARDED_BY(mLock);
    size_t mNextMember GUARDED_BY(mLock) = 0;
};

}  // namespace qmmediaeditor
}  // namespace android
