// State of one session that its decoders, encoders and writer share directly, because the component
// passes on only timestamps.
//
// Any thread may call any operation.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <optional>
#include <vector>

#include "host/Host.h"
#include "host/codec/FrameRate.h"
#include "host/codec/RecordingMetadata.h"

namespace android {
namespace qmmediaeditor {

class SessionTimeline {
public:
    explicit SessionTimeline(const HostOptions& options);

    HostObserver* observer() const { return mObserver; }

    // The video's timestamps are written in microseconds.
    bool isPart() const { return mIsPart; }

    // Locked by itself.
    SessionMetadata& metadata() { return mMetadata; }

    // For the video decoder: the input's frame rate, where it is constant.
    void setFrameRate(const FrameRate& rate);
    std::optional<FrameRate> frameRate() const;
    // For the video decoder. Frames per second of the input on average, 0 when not known; the
    // "frame-rate" key of a variable-rate track is higher, since it bounds the distance of frames.
    void setAverageFrameRate(double rate);
    double averageFrameRate() const;

    // For the video decoder: a frame with this time of the input lies outside of the periods, so
    // that the session drops it. False when they are not known.
    bool isCut(int64_t timeUs) const;
    // For the video decoder: a frame of the input is shown at `timeUs` for `durationUs`, or for an
    // unknown time when that is 0.
    void addFrame(int64_t timeUs, int64_t durationUs);
    // The frame at `timeUs` is in a period. True when the periods are not known.
    bool keeps(int64_t timeUs) const;
    // For the video decoder at the end of stream: frames of the track follow at `continuesAtUs` or
    // later, and it ends at `endUs`, if that is known.
    void endVideo(int64_t continuesAtUs, std::optional<int64_t> endUs);
    // When the last frame of the period that holds `outputTimeUs` ends, in time of the output.
    // Nothing when that is unknown.
    std::optional<int64_t> videoEndUs(int64_t outputTimeUs) const;

    // For the audio encoder, before it ends: when its last sample ends, in time of the output.
    void endAudio(int64_t endUs);
    std::optional<int64_t> audioEndUs() const;

    // For the encoders: one exists, and its client has taken its end of stream. The encoders of a
    // session that was stopped never end.
    void encoderStarted(bool isVideo);
    void encoderEnded(bool isVideo);
    // Whether every sample of this track has reached the writer.
    bool isComplete(bool isVideo) const;

    // For a decoder that cannot go on: frames or audio of the input are missing from here on.
    void reportLoss();
    // For the writer: the output may be valid, but it is not whole.
    bool hasLoss() const;

private:
    struct Period {
        int64_t startUs;
        int64_t endUs;
        int64_t outputUs;  // its start in the output
        // Of its latest frame; the end is clipped to the period's.
        std::optional<int64_t> frameUs;
        std::optional<int64_t> frameEndUs;
    };
    enum class Encoder { kNone, kStarted, kEnded };

    HostObserver* const mObserver;
    const bool mIsPart;
    SessionMetadata mMetadata;
    mutable Mutex mLock;
    std::vector<Period> mPeriods GUARDED_BY(mLock);  // empty when they are not known
    bool mHasLoss GUARDED_BY(mLock) = false;
    std::optional<FrameRate> mFrameRate GUARDED_BY(mLock);
    double mAverageFrameRate GUARDED_BY(mLock) = 0;
    std::optional<int64_t> mAudioEndUs GUARDED_BY(mLock);
    int64_t mContinuesAtUs GUARDED_BY(mLock) = INT64_MIN;
    std::optional<int64_t> mVideoEndUs GUARDED_BY(mLock);  // in time of the input
    Encoder mEncoders[2] GUARDED_BY(mLock) = {Encoder::kNone, Encoder::kNone};  // audio, video
};

}  // namespace qmmediaeditor
}  // namespace android
