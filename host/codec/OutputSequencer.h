// Keeps the outputs of one extractor's decoders in timestamp order.
//
// Trimming has one position for all tracks, and the first decoded frame at or past a period's end
// advances it. So decoded frames must be delivered in timestamp order across the tracks: a decoder
// delivers its head, the earliest frame it has, only when no other decoder can still deliver an
// earlier one. Another decoder can do so when it has an earlier head (the caller must dequeue that
// first), when it is busy, or when the reader has not yet reached the head's timestamp. A wait for
// the reader could last for ever, because the reader may be waiting for an input buffer of the very
// decoder that waits. So a decoder whose input is full does not wait for the reader.
//
// Any thread may call any operation. A decoder may hold its own lock while it calls: the sequencer
// calls nothing but the wake functions, and these only post work.
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

// A part of the input that is read without a seek.
struct InputSegment {
    uint32_t number = 0;
    // Start of the decoded audio: earlier audio is dropped, and a later start is filled with
    // silence.
    int64_t startUs = 0;
};

class OutputSequencer : public RefBase {
public:
    static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

    // For the extractor, once in each seek (also the first one, to 0), before samples are
    // announced. `startUs` is the seek's target. Decoders drop the outputs of earlier segments.
    void beginSegment(int64_t startUs);
    // No later sample of any track is shown before `timeUs`.
    void advancePosition(int64_t timeUs);
    // For the extractor: the next video sample is shown at `timeUs` or later.
    void addVideo(int64_t timeUs);

    InputSegment segment() const;
    int64_t position() const;
    // The timestamp of the last video sample at or before `timeUs`; `timeUs` itself between two
    // samples that are at most SilenceBudget::kMaxFrameDistanceUs apart. INT64_MIN before the first
    // one.
    int64_t videoBefore(int64_t timeUs) const;

    // The state of a decoder, as far as the others need it.
    struct MemberState {
        bool hasHead = false;
        // It has queued input, or is busy.
        bool working = false;
        // No further input follows.
        bool inputEnded = false;
        // No input slot is free, so that the reader may be waiting for one.
        bool inputFull = false;
        // The timestamp of the head, or the earliest that its input can result in; kNever when it
        // has none.
        int64_t earliestUs = kNever;
        // When the reader has passed silenceDueUs, the decoder outputs silence, at most up to
        // silenceUntilUs. kNever for video.
        int64_t silenceDueUs = kNever;
        int64_t silenceUntilUs = kNever;
    };

    // From start to stop, or to the end of stream, a decoder is a member. `wake` is called when the
    // reader has passed a gap that the decoder has to fill.
    size_t join(std::function<void()> wake);
    void leave(size_t member);
    // True when the decoder has to fill a gap now.
    bool publish(size_t member, const MemberState& state);

    enum class Turn { kYes, kOtherFirst, kTimedOut, kHeadGone };

    // Waits until it is known whether `member` may deliver its head.
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
    // Ranges of video samples that are close together, in rising order.
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
