// Where the clock of a broadcast or of joined recordings jumps, and by how much.
//
// The tracks of a file share one clock, and each is read by itself: whoever comes to a jump first
// decides, so that sound and picture stay together behind it. One thread at a time.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "host/convert/FFmpegPointers.h"

struct AVCodecParserContext;

namespace android {
namespace qmmediaeditor {

class TimestampDiscontinuities {
public:
    // The offset to add to the timestamps of stream `stream` from byte `position` on, where its
    // clock shows `timeUs` and `expectedUs` would follow from what came before.
    int64_t offsetUs(int stream, int64_t position, int64_t timeUs, int64_t expectedUs);
    // What is known of `position`, for a reader that comes there by a seek.
    int64_t offsetUsAt(int64_t position) const;

    // True when a track's clock does not go on: it goes back, or leaps without as many bytes as so
    // much time would need.
    static bool isDiscontinuity(int64_t stepUs, int64_t stepBytes);

private:
    // Offsets by position; for each stream those that its reader found first.
    typedef std::map<int64_t, int64_t> Offsets;

    std::map<int, Offsets> mOffsets;
};

// Presentation times for AVC and HEVC in a container that states decoding times alone, such as AVI.
//
// The pictures' own order counts (ITU-T H.264 8.2.1, H.265 8.3.1) say where each is shown within
// its coded video sequence. One thread at a time.
class PocTimestamps {
public:
    explicit PocTimestamps(const AVCodecParameters& parameters);
    ~PocTimestamps();

    // The time of the next packet in decoding order, in the packet's own unit. AV_NOPTS_VALUE when
    // it cannot be told: another codec, or a packet without a decoding time.
    int64_t presentationTime(const AVPacket& packet);

    // The next packet follows a seek.
    void restart();

private:
    struct ParserDeleter {
        void operator()(AVCodecParserContext* parser) const;
    };

    std::unique_ptr<AVCodecParserContext, ParserDeleter> mParser;
    CodecContextPtr mCodec;
    // How far the count goes on from one picture to the next.
    int mStep = 1;
    // The shortest distance of decoding times, which is that of two pictures; 0 before it is known.
    int64_t mInterval = 0;
    int64_t mLastDecodingTime;
    // Decoding time of the picture whose order count is 0; AV_NOPTS_VALUE before there was one.
    int64_t mSequenceStart;
};

// The rate of a video track, from the times of its frames.
//
// A container that counts in milliseconds gives the frames of 30 a second times 33 and 34 ms apart,
// and a frame that comes a moment too early for the announced rate is dropped further on. So times
// of constant-rate video are put back where they were before the container rounded them.
// Frames a second, as a fraction.
struct FrameRate {
    int64_t numerator = 0;
    int64_t denominator = 1;
};

class ConstantFrameRate {
public:
    // `tickUs` is the container's resolution, microseconds.
    ConstantFrameRate(FrameRate rate, int64_t tickUs);

    // The grid's time nearest to `timeUs`, when what lies between them can be the container's
    // rounding. Else the stream has a break there: `timeUs`, where the grid begins anew. It begins
    // at the first time it is given, and follows a slow drift.
    int64_t snap(int64_t timeUs);

private:
    FrameRate mRate;
    int64_t mToleranceUs;
    std::optional<int64_t> mAnchorUs;
};

struct FrameRateEstimate {
    // Frames per second, rounded up, so that no two frames are closer than 1000000 / rate.
    int rate = 0;
    // For a constant rate.
    std::optional<ConstantFrameRate> constantRate;
};

// Presentation times of frames, in any order.
struct FrameTimestamps {
    std::vector<int64_t> timesUs;
    // Of all frames of the track, rather than of its first ones.
    bool complete = false;
};

// `tickUs` is the container's resolution; `likely` are rates that the container names, if it does.
// With fewer than two times the first of these decides, or 30.
FrameRateEstimate estimateFrameRate(FrameTimestamps times, int64_t tickUs,
                                    const std::vector<FrameRate>& likely);

}  // namespace qmmediaeditor
}  // namespace android
