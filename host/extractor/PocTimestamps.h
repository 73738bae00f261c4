// Presentation times for AVC and HEVC in a container that states decoding times alone, such as AVI.
//
// The pictures' own order counts (ITU-T H.264 8.2.1, H.265 8.3.1) say where each is shown within
// its coded video sequence. One thread at a time.
#pragma once

#include <stdint.h>

#include <memory>

#include "host/convert/FFmpegPointers.h"

struct AVCodecParserContext;

namespace android {
namespace qmmediaeditor {

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

}  // namespace qmmediaeditor
}  // namespace android
