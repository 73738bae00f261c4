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
        kHeader,   // what the container's header says of its streams
        kStreams,  // and what the first packets of each stream add to it
    };

    struct Opened {
        std::unique_ptr<Demuxer> demuxer;  // null unless status is OK
        // ERROR_UNSUPPORTED for what is none of the listed containers, and for a file that is
        // refused because it exceeds a limit. ERROR_IO when the file cannot be read, NO_MEMORY when
        // memory is short.
        status_t status;
    };
    static Opened open(const std::shared_ptr<const DescriptorFile>& file, ProbeDepth study);
    ~Demuxer();

    AVFormatContext& context() { return *mContext; }

    // The family of ISO base media files: MP4, MOV, 3GP.
    bool isIsoFile() const;
    bool isMatroska() const;
    // The header alone names every stream and every packet has its times, so that
    // ProbeDepth::kHeader will do.
    bool headerIsEnough() const;
    // The container gives a picture's place in decoding order and nothing else; what libavformat
    // makes of it is late by what the codec reorders.
    bool hasOnlyFrameNumbers() const;
    // The container's clock may start anew anywhere.
    bool mayHaveDiscontinuities() const;
    // What index the container has is that of its pictures, for sound as well.
    bool indexIsOfVideo() const;

    static constexpr int kAnyStream = -1;
    // Reads the next packet of stream `index`, passing over others and over damaged ones. OK,
    // ERROR_END_OF_STREAM, ERROR_IO when the file cannot be read, or NO_MEMORY.
    status_t readPacket(int index, AVPacket* packet);
    // A time of stream `index` in microseconds. Damaged ones are kept within bounds that leave room
    // to reckon with them.
    int64_t toUs(int index, int64_t time) const;

    // Has libavformat pass over every other stream, without reading it where that can be.
    void keepOnly(int index);

private:
    Demuxer();
    status_t openInput(const std::shared_ptr<const DescriptorFile>& file);
    status_t readStreams();
    status_t checkLimits() const;
    // Why libavformat has failed with `error`.
    status_t reasonOf(int error) const;

    // The context refers to it and is destroyed first.
    std::unique_ptr<AvioFile> mIo;
    InputFormatPtr mContext;
};

}  // namespace qmmediaeditor
}  // namespace android
