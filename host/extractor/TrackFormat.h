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

// The message with the keys of docs/messages.md ("A track"), except "language" and "track-source".
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
