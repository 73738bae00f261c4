#include "host/codec/PacketEncoder.h"

#include <android/log.h>
#include <media/stagefright/MediaErrors.h>

#include <utility>

#include "host/codec/CodecTypes.h"
#include "host/codec/ThreadName.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "Encoder";

class PacketBuffer : public ABuffer {
public:
    explicit PacketBuffer(PacketPtr packet)
        : ABuffer(packet->data, static_cast<size_t>(packet->size)), mPacket(std::move(packet)) {}

private:
    const PacketPtr mPacket;
};

}  // namespace

PacketEncoder::PacketEncoder() : mPacket(av_packet_alloc()) {}

PacketEncoder::~PacketEncoder() = default;

status_t PacketEncoder::prepare(const AString& mime) {
    if (mPacket == nullptr) return NO_MEMORY;
    const AVCodec* codec = encoderOf(mime);
    if (codec == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "no encoder for %s", mime.c_str());
        return ERROR_UNSUPPORTED;
    }
    mContext.reset(avcodec_alloc_context3(codec));
    if (mContext == nullptr) return NO_MEMORY;
    mContext->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return OK;
}

status_t PacketEncoder::open(AVDictionary* options) {
    const ThreadName name(std::string("enc-") + mContext->codec->name);
    const int error = avcodec_open2(mContext.get(), mContext->codec, &options);
    av_dict_free(&options);
    if (error < 0) {
        // The failure has taken the codec out of the context.
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s cannot be opened: %d",
                            avcodec_get_name(mContext->codec_id), error);
        return ERROR_UNSUPPORTED;
    }
    __android_log_print(ANDROID_LOG_DEBUG, kLogTag, "encodes %s with %s",
                        av_get_media_type_string(mContext->codec->type), mContext->codec->name);
    return OK;
}

sp<ABuffer> PacketEncoder::codecSpecificData() const {
    if (mContext->extradata == nullptr || mContext->extradata_size <= 0) return nullptr;
    return ABuffer::CreateAsCopy(mContext->extradata,
                                 static_cast<size_t>(mContext->extradata_size));
}

status_t PacketEncoder::send(AVFrame* frame) {
    const int error = avcodec_send_frame(mContext.get(), frame);
    if (error == 0) return OK;
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s refused a frame: %d", mContext->codec->name,
                        error);
    return UNKNOWN_ERROR;
}

PacketEncoder::Received PacketEncoder::receive() {
    const int error = avcodec_receive_packet(mContext.get(), mPacket.get());
    if (error == 0) return Received::kPacket;
    if (error == AVERROR(EAGAIN)) return Received::kNeedsInput;
    if (error == AVERROR_EOF) return Received::kEnd;
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s failed: %d", mContext->codec->name, error);
    return Received::kFailed;
}

sp<ABuffer> PacketEncoder::takePayload() {
    PacketPtr own(av_packet_alloc());
    if (own == nullptr) return nullptr;
    av_packet_move_ref(own.get(), mPacket.get());
    return new PacketBuffer(std::move(own));
}

}  // namespace qmmediaeditor
}  // namespace android
