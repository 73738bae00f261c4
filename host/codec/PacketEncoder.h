// One of FFmpeg's encoders, with what pictures and sound have in common. One thread at a time.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <media/stagefright/foundation/AString.h>
#include <utils/Errors.h>

#include "host/convert/FFmpegPointers.h"

struct AVDictionary;

namespace android {
namespace qmmediaeditor {

class PacketEncoder {
public:
    PacketEncoder();
    ~PacketEncoder();

    // Makes the context; its fields may then be set before open().
    status_t prepare(const AString& mime);
    AVCodecContext* context() const { return mContext.get(); }
    // Takes the options over.
    status_t open(AVDictionary* options);

    // Null when the encoder has none, and when memory is short.
    sp<ABuffer> codecSpecificData() const;

    // A null frame is the end.
    status_t send(AVFrame* frame);

    enum class Received { kPacket, kNeedsInput, kEnd, kFailed };
    Received receive();
    // The packet that was received, and its payload, which is handed over.
    const AVPacket& packet() const { return *mPacket; }
    sp<ABuffer> takePayload();

private:
    CodecContextPtr mContext;
    const PacketPtr mPacket;
};

}  // namespace qmmediaeditor
}  // namespace android
