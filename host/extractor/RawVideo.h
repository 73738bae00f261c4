// Timestamps and seek points of raw video streams: files of AVC, HEVC or MPEG video without a
// container. Private to the extractor.
//
// Such a file states neither timestamps nor positions, only a frame rate. Decoding timestamps are
// counted from the start of the file, so a position can be used only with the timestamp that was
// counted there.
#pragma once

#include <stdint.h>

#include <memory>
#include <optional>
#include <vector>

#include "host/convert/FFmpegPointers.h"
#include "host/io/DescriptorFile.h"

namespace android {
namespace qmmediaeditor {

// Counts decoding timestamps. One thread at a time.
class RawVideoTimestamps {
public:
    // `frameTicks` is the duration of a packet that states none.
    explicit RawVideoTimestamps(int64_t frameTicks) : mFrameTicks(frameTicks) {}

    // The next packet has this decoding timestamp.
    void restart(int64_t dts) { mNextDts = dts; }
    // Sets the decoding timestamp of the next packet and removes a presentation timestamp, which
    // libavformat cannot know. A field has half of a frame's duration.
    void stamp(AVPacket* packet);
    int64_t nextDts() const { return mNextDts; }

private:
    const int64_t mFrameTicks;
    int64_t mNextDts = 0;
};

// Of one file. Not changed after it was made.
class RawVideoIndex {
public:
    struct SeekPoint {
        int64_t dts;
        int64_t position;  // in bytes
    };
    struct Made {
        std::shared_ptr<const RawVideoIndex> index;  // null unless status is OK
        status_t status;                             // ERROR_IO or NO_MEMORY otherwise
    };

    // Reads the whole file, without decoding.
    static Made make(const std::shared_ptr<const DescriptorFile>& file);

    // Duration of a frame in the stream's time base.
    int64_t frameTicks() const { return mFrameTicks; }
    int64_t durationTicks() const { return mDurationTicks; }
    // Decoding timestamps of the first frames.
    const std::vector<int64_t>& firstTimes() const { return mFirstTimes; }
    // A place from which every frame that is shown at `time` or later can be decoded. Nothing when
    // that is the start of the file.
    std::optional<SeekPoint> seekPointBefore(int64_t time) const;

private:
    RawVideoIndex() = default;

    int64_t mFrameTicks = 0;
    int64_t mDurationTicks = 0;
    std::vector<int64_t> mFirstTimes;
    std::vector<SeekPoint> mKeyFrames;  // rising
};

}  // namespace qmmediaeditor
}  // namespace android
