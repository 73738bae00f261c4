// What one kind of codec does, without threads and buffers' bookkeeping: a HostMediaCodec owns one
// and feeds it.
//
// Order of use: configure, then produce and accept in turn, until produce says kEnd or the engine
// is destroyed. One thread at a time: configure comes from the caller's thread, everything else
// from the looper's.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <media/stagefright/foundation/AMessage.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <memory>

#include "host/codec/OutputSequencer.h"
#include "host/codec/TrackSource.h"
#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

// The buffers that an engine wants to have.
struct CodecBuffers {
    size_t inputCount = 0;
    size_t inputBytes = 0;
    // They are filled to the end. Others are as large as a sample can be, and mostly stay empty.
    bool inputsAreFrames = false;
    size_t outputCount = 0;
    // The client is told of the output format before the first output.
    bool announcesFormat = false;
};

struct CodecInput {
    const uint8_t* data = nullptr;
    size_t size = 0;  // bytes
    // As it was queued. A decoder goes by the note's properties where it has them.
    int64_t timeUs = 0;
    // The input buffer is taken again when the last copy of this is gone.
    std::shared_ptr<const void> lease;
    PacketInfo info;
};

struct CodecOutput {
    // Handed over; its range covers the payload.
    sp<ABuffer> buffer;
    int64_t timeUs = 0;
    uint32_t flags = 0;
    // Number of the time line that it belongs to.
    uint32_t segment = 0;
};

class CodecBackend {
public:
    enum class Step {
        kOutput,      // `output` is filled
        kFormat,      // outputFormat() is known, or new, from here on
        kNeedsInput,  // accept() or finish() must come first
        kEnd,         // the end of stream, and everything before it was produced
        kRefused,  // the input exceeds a limit, and the observer has been told; as kEnd otherwise
        kFailed,
    };

    virtual ~CodecBackend() = default;

    // An error when such a stream cannot be decoded or made.
    virtual status_t configure(const sp<AMessage>& format, CodecBuffers* buffers) = 0;

    // Null until it is known. It is known from configure() on where the track's format says enough.
    virtual sp<AMessage> outputFormat() const = 0;

    virtual Step produce(CodecOutput* output) = 0;
    // Only when produce() has said kNeedsInput. ERROR_UNSUPPORTED has the meaning of kRefused.
    virtual status_t accept(CodecInput input) = 0;
    // No input follows.
    virtual status_t finish() = 0;

    // In place of accept(), when no input waits and the reader has come to `positionUs`.
    virtual Step produceWithoutInput(const InputSegment& /* segment */, int64_t /* positionUs */,
                                     CodecOutput* /* output */) {
        return Step::kNeedsInput;
    }
    // Fills in what the other decoders of a run must know of what is inside the engine: earliestUs
    // and the silence.
    virtual OutputSequencer::MemberState memberState() const { return {}; }
};

}  // namespace qmmediaeditor
}  // namespace android
