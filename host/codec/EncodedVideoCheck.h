// Decodes what a video encoder makes while it makes it, and compares each frame with the encoder's
// input. It keeps the frames that are inside the encoder and the decoder, and no others.
//
// The encoder's quantizer limits how far a decoded frame can be from its input, so that a frame
// beyond this limit is another frame, or damaged. A frame with a wrong timestamp is closer to the
// input before or after it.
#pragma once

#include <host/Host.h>
#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <memory>
#include <optional>

#include "host/codec/PacketCodecs.h"
#include "host/convert/FFmpegPointers.h"
#include "host/convert/FrameComparison.h"

namespace android {
namespace qmmediaeditor {

class EncodedVideoCheck {
public:
    // `format` is the encoder's output format, and `observer` gets the results.
    EncodedVideoCheck(const sp<AMessage>& format, int threads, HostObserver* observer);

    // In the order of the timestamps, which are microseconds.
    void addInput(FramePtr frame, int64_t timeUs);
    // The packet of the frame with this timestamp, before it is handed over.
    void addPacket(const AVPacket& packet, int64_t timeUs);
    void finish();

private:
    struct Input {
        FramePtr frame;
        int64_t timeUs;
        ReducedFrame reduced;
        double step = 0;  // of the quantizer, in sample values; 0 if unknown
    };
    // A frame that was compared with its input, and is still to be compared with the next one.
    struct Compared {
        FrameCheck result;
        ReducedFrame input;
        ReducedFrame output;
        std::vector<double> differences;
        double step;
    };

    void receive();
    void compare(const AVFrame& output);
    void report();
    void fail(const std::string& reason);

    HostObserver* const mObserver;
    PacketDecoder mDecoder;
    const FramePtr mDecoded;
    bool mHasFailed = false;
    std::unique_ptr<FrameComparison> mComparison;
    std::deque<Input> mInputs;
    std::optional<Compared> mLast;
};

}  // namespace qmmediaeditor
}  // namespace android
