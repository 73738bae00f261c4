// One pass over an input file with libavformat. Private to the extractor: FFmpeg's types are part
// of it.
//
// Not locked: one thread at a time. Several demuxers may read one file, each with its own position.
#pragma once

#include <stdint.h>

#include <memory>

#include "host/convert/FFmpegPointers.h"
#include "host/extractor/AvioFile.h"

namespace android {
namespace qmmediaeditor {

class Demuxer {
public:
    enum class ProbeDepth {
        kHeader,
        kSamples,        // only the header; timestamps are those of the samples, without edit lists
        kStreams,        // the header and the first packets of each stream
        kHeaderIfEnough  // as kHeader where headerIsEnough(), else as kStreams
    };

    struct Opened {
        std::unique_ptr<Demuxer> demuxer;  // null unless status is OK
        // ERROR_UNSUPPORTED for a container that is not listed, and for a file that exceeds a
        // limit. ERROR_IO when the file cannot be read, NO_MEMORY when memory is short.
        status_t status;
    };
    static Opened open(const std::shared_ptr<const DescriptorFile>& file, ProbeDepth depth);
    ~Demuxer();

    AVFormatContext& context() { return *mContext; }

    // The family of ISO base media files: MP4, MOV, 3GP.
    bool isIsoFile() const;
    bool isMatroska() const;
    // The header alone names every stream, and every packet has its timestamps, so that the first
    // packets need not be probed.
    bool headerIsEnough() const;
    // The container has only the number of a frame in decoding order; the timestamps that
    // libavformat derives from it are late by the codec's reorder delay.
    bool hasOnlyFrameNumbers() const;
    // A stream of AVC, HEVC or MPEG video without a container.
    bool isRawVideo() const;
    // A format that also holds single images.
    bool isAnimation() const;
    // Timestamps may have discontinuities.
    bool mayHaveDiscontinuities() const;
    // The container's index lists the video frames, and is used for audio as well.
    bool indexIsOfVideo() const;

    static constexpr int kAnyStream = -1;
    // Reads the next packet of stream `index`, skipping others and damaged ones. OK,
    // ERROR_END_OF_STREAM, ERROR_IO when the file cannot be read, or NO_MEMORY.
    status_t readPacket(int index, AVPacket* packet);
    // A timestamp of stream `index` in microseconds, clamped so that sums with damaged ones cannot
    // overflow.
    int64_t toUs(int index, int64_t time) const;

    // Makes libavformat skip every other stream, without reading it where possible.
    void keepOnly(int index);

private:
    Demuxer();
    status_t openInput(const std::shared_ptr<const DescriptorFile>& file, ProbeDepth depth);
    status_t readStreams();
    status_t checkLimits() const;
    // The status for libavformat's `error`.
    status_t reasonOf(int error) const;

    // The context refers to it and is destroyed first.
    std::unique_ptr<AvioFile> mIo;
    InputFormatPtr mContext;
};

}  // namespace qmmediaeditor
}  // namespace android
