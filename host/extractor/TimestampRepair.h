// Repair of timestamps: discontinuities, presentation timestamps that the container lacks, and
// rounding.
//
// One thread at a time.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "host/codec/FrameRate.h"
#include "host/convert/FFmpegPointers.h"

struct AVCodecParserContext;

namespace android {
namespace qmmediaeditor {

// Discontinuities of broadcasts and of joined recordings. The tracks of a file share them, and each
// track is read by itself: the reader that first reaches a discontinuity determines its offset, so
// that audio and video stay in sync behind it.
class TimestampDiscontinuities {
public:
    // The offset to add to the timestamps of stream `stream` from byte `position` on, where the
    // timestamp is `timeUs` and `expectedUs` was expected.
    int64_t offsetUs(int stream, int64_t position, int64_t timeUs, int64_t expectedUs);
    // The known offset at `position`, for a reader after a seek.
    int64_t offsetUsAt(int64_t position) const;

    // True when timestamps go back, or forward with fewer bytes in between than so much time would
    // need.
    static bool isDiscontinuity(int64_t stepUs, int64_t stepBytes);

private:
    // Offsets by position; for each stream those that its reader found first.
    typedef std::map<int64_t, int64_t> Offsets;

    std::map<int, Offsets> mOffsets;
};

// Presentation timestamps of AVC and HEVC in a container with decoding timestamps only, such as
// AVI.
//
// The picture order counts (ITU-T H.264 8.2.1, H.265 8.3.1) say where each frame is shown within
// its coded video sequence.
class PocTimestamps {
public:
    // `frameTicks` is the duration of a frame in the packets' time base; 0 where packets are frames
    // and their timestamps show it.
    explicit PocTimestamps(const AVCodecParameters& parameters, int64_t frameTicks = 0);
    ~PocTimestamps();

    // The presentation timestamp of the next packet in decoding order, in the packet's time base.
    // AV_NOPTS_VALUE when it is unknown: another codec, or a packet without a decoding timestamp.
    int64_t presentationTime(const AVPacket& packet);

    // The next packet follows a seek.
    void restart();

    bool isForThisCodec() const { return mParser != nullptr; }
    // The last packet was one of two fields of a frame.
    bool isField() const;
    // The packet was the last one, and all frames behind it are shown after it.
    bool isAtSequenceStart(const AVPacket& packet) const;

private:
    struct ParserDeleter {
        void operator()(AVCodecParserContext* parser) const;
    };

    std::unique_ptr<AVCodecParserContext, ParserDeleter> mParser;
    CodecContextPtr mCodec;
    // Difference of the order counts of two successive frames.
    int mStep = 1;
    const bool mMeasuresInterval;
    // Duration of a frame; where it is measured, the shortest distance of decoding timestamps, and
    // 0 before it is known.
    int64_t mInterval;
    int64_t mLastDecodingTime;
    // Decoding timestamp of the frame with order count 0; AV_NOPTS_VALUE before the first one.
    int64_t mSequenceStart;
};

// The frame rate of a video track, from the timestamps of its frames.
//
// A container that counts in milliseconds has timestamps 33 and 34 ms apart for 30 frames per
// second, and the component drops a frame that is a little too early for the announced rate. So the
// timestamps of constant-rate video are restored to their values before the container rounded them.
class ConstantFrameRate {
public:
    // `tickUs` is the container's resolution, `firstUs` the track's first timestamp; microseconds.
    ConstantFrameRate(FrameRate rate, int64_t tickUs, int64_t firstUs);

    const FrameRate& rate() const { return mRate; }

    // The timestamp at this rate that is nearest to `timeUs`, when the difference can be the
    // container's rounding. Otherwise the stream has a break: `timeUs`, which is the new anchor.
    // The first anchor is the track's first timestamp, so that a frame gets the same timestamp
    // wherever reading starts. The anchor follows a slow drift.
    int64_t snap(int64_t timeUs);

private:
    FrameRate mRate;
    int64_t mToleranceUs;
    int64_t mAnchorUs;
    bool mHasFollowed = false;
};

struct FrameRateEstimate {
    // Frames per second, rounded up, so that no two frames are closer than 1000000 / rate.
    int rate = 0;
    // For a constant rate.
    std::optional<ConstantFrameRate> constantRate;
};

// Presentation timestamps of frames, in any order.
struct FrameTimestamps {
    std::vector<int64_t> timesUs;
    // All frames of the track, rather than its first ones.
    bool complete = false;
};

// `tickUs` is the container's resolution; `likely` are rates that the container names, if it does.
// With fewer than two timestamps the rate is the first of these, or 30.
FrameRateEstimate estimateFrameRate(FrameTimestamps times, int64_t tickUs,
                                    const std::vector<FrameRate>& likely);

}  // namespace qmmediaeditor
}  // namespace android
