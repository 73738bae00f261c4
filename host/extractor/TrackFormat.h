// The platform's format message of a track. Any thread.
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <stdint.h>

#include "host/codec/FrameRate.h"

struct AVFormatContext;
struct AVStream;

namespace android {
namespace qmmediaeditor {

// Properties of a track that the stream's header does not have.
struct TrackProperties {
    int64_t durationUs = 0;
    int32_t maxSampleBytes = 0;
    // Video: frames per second, rounded up; for a variable rate that of the closest frames.
    int frameRate = 0;
    FrameRate constantRate;  // 0 unless it is constant
    // Video of a variable rate: frames per second on average, 0 when not known.
    double averageFrameRate = 0;
};

// "mime", "durationUs", "max-input-size", and of what is known: "bitrate", the codec-specific data,
// and
//   video: "width" and "height" with square pixels, "frame-rate", "average-frame-rate" (float;
//   where the rate varies), "frame-rate-numerator" and "frame-rate-denominator" (int64; where it is
//   constant), "rotation-degrees" (clockwise, when not 0),
//          "android._is-hdr" (1 for PQ and HLG);
//   audio: "sample-rate", "channel-count", "bits-per-sample" (of the decoded audio: 16).
// Null when memory is short.
sp<AMessage> makeTrackFormat(AVFormatContext& context, AVStream& stream,
                             const TrackProperties& properties);

// The platform's MIME types of streams and containers. "audio/…" or "video/…" for a track that can
// be decoded here; the unsupported type of its kind for one that cannot; "image/…" for cover art;
// another type for everything else.
const char* mimeOfStream(const AVStream& stream);
const char* mimeOfContainer(const AVFormatContext& context);

// An image without a timestamp, such as cover art.
bool isCoverArt(const AVStream& stream);

// An audio or video track that can be decoded here.
bool isDecodable(const AVStream& stream);

}  // namespace qmmediaeditor
}  // namespace android
