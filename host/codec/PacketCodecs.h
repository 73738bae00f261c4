// One of FFmpeg's decoders, with what pictures and sound have in common. One thread at a time.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <media/stagefright/foundation/AMessage.h>
#include <media/stagefright/foundation/AString.h>
#include <stdint.h>
#include <utils/Errors.h>

#include "host/Host.h"
#include "host/codec/CodecBackend.h"
#include "host/codec/CodecTable.h"
#include "host/convert/FFmpegPointers.h"

struct AVDictionary;

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
    bool isVideo() const;
    status_t countSkipped(int error);

    HostObserver* const mObserver;
    CodecContextPtr mContext;
    const PacketPtr mPacket;
    int64_t mSkipped = 0;
    int64_t mDecoded = 0;
};

// One of FFmpeg's encoders, with what pictures and sound have in common. One thread at a time.
class PacketEncoder {
public:
    PacketEncoder();
    ~PacketEncoder();

    // Makes the context; its fields may then be set before open().
    status_t prepare(const AString& mime);
    AVCodecContext* context() const { return mContext.get(); }
    const CodecInfo& info() const { return *mInfo; }
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
    const CodecInfo* mInfo = nullptr;
    CodecContextPtr mContext;
    const PacketPtr mPacket;
};

}  // namespace qmmediaeditor
}  // namespace android
