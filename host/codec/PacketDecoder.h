// One of FFmpeg's decoders, with what pictures and sound have in common. One thread at a time.
#pragma once

#include <media/stagefright/foundation/AMessage.h>
#include <stdint.h>
#include <utils/Errors.h>

#include "host/Host.h"
#include "host/codec/CodecBackend.h"
#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

class PacketDecoder {
public:
    // `observer`, which may be null, hears why memory was refused, and outlives the decoder.
    explicit PacketDecoder(HostObserver* observer);
    ~PacketDecoder();

    // Makes the context for the track that `format` describes; options may then be set before
    // open().
    status_t prepare(const sp<AMessage>& format);
    AVCodecContext* context() { return mContext.get(); }
    status_t open();

    // A damaged sample is skipped and counted. ERROR_UNSUPPORTED when the sample takes more memory
    // than the limit allows, NO_MEMORY when memory is short.
    status_t send(const CodecInput& input);
    status_t sendEnd();
    // What is inside is dropped: the next sample belongs to another stretch of the input.
    void flush();

    enum class Received { kFrame, kNeedsInput, kEnd, kRefused, kFailed };
    // The frame's pts is in microseconds.
    Received receive(AVFrame* frame);

private:
    status_t countSkipped(int error);

    HostObserver* const mObserver;
    CodecContextPtr mContext;
    const PacketPtr mPacket;
    int64_t mDamaged = 0;
    int64_t mDecoded = 0;
};

}  // namespace qmmediaeditor
}  // namespace android
