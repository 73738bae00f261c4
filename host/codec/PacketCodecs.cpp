#include "host/codec/PacketCodecs.h"

#include <android/log.h>
#include <inttypes.h>
#include <media/stagefright/MediaErrors.h>
#include <pthread.h>

#include <string>
#include <utility>

#include "host/codec/CodecTable.h"
#include "host/codec/InputLimits.h"
#include "host/codec/TrackSource.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kDecoderTag[] = "Decoder";
constexpr char kEncoderTag[] = "Encoder";

// While one lives, the calling thread has this name, cut to the 15 characters that the kernel
// keeps. Threads that a library starts get the name of the thread that starts them.
class ThreadName {
public:
    explicit ThreadName(const std::string& name) {
        pthread_getname_np(pthread_self(), mBefore, sizeof(mBefore));
        pthread_setname_np(pthread_self(), name.substr(0, sizeof(mBefore) - 1).c_str());
    }
    ~ThreadName() { pthread_setname_np(pthread_self(), mBefore); }
    ThreadName(const ThreadName&) = delete;
    ThreadName& operator=(const ThreadName&) = delete;

private:
    char mBefore[16] = "";
};

// A decoder that reports more errors in a row while it is drained is treated as empty.
constexpr int kMaxErrorsInARow = 256;

// The parameters of a format that did not come from an extractor.
status_t parametersFromKeys(const AMessage& format, AVCodecContext* context) {
    format.findInt32("width", &context->width);
    format.findInt32("height", &context->height);
    format.findInt32("sample-rate", &context->sample_rate);
    int32_t channelCount = 0;
    if (format.findInt32("channel-count", &channelCount) && channelCount > 0) {
        av_channel_layout_default(&context->ch_layout, channelCount);
    }
    sp<ABuffer> csd;
    if (!format.findBuffer("csd-0", &csd) || csd == nullptr || csd->size() == 0) return OK;
    sp<ABuffer> more;
    format.findBuffer("csd-1", &more);
    const size_t moreBytes = more == nullptr ? 0 : more->size();
    const size_t bytes = csd->size() + moreBytes;
    context->extradata = static_cast<uint8_t*>(av_mallocz(bytes + AV_INPUT_BUFFER_PADDING_SIZE));
    if (context->extradata == nullptr) return NO_MEMORY;
    memcpy(context->extradata, csd->data(), csd->size());
    if (moreBytes > 0) memcpy(context->extradata + csd->size(), more->data(), moreBytes);
    context->extradata_size = static_cast<int>(bytes);
    return OK;
}

class PacketBuffer : public ABuffer {
public:
    explicit PacketBuffer(PacketPtr packet)
        : ABuffer(packet->data, static_cast<size_t>(packet->size)), mPacket(std::move(packet)) {}

private:
    const PacketPtr mPacket;
};

}  // namespace

PacketDecoder::PacketDecoder(HostObserver* observer)
    : mObserver(observer), mPacket(av_packet_alloc()) {}

PacketDecoder::~PacketDecoder() {
    if (mSkipped > 0) {
        __android_log_print(ANDROID_LOG_WARN, kDecoderTag,
                            "%s: %" PRId64 " damaged samples were skipped, %" PRId64
                            " frames were decoded",
                            mContext->codec->name, mSkipped, mDecoded);
    }
}

status_t PacketDecoder::prepare(const sp<AMessage>& format) {
    if (mPacket == nullptr) return NO_MEMORY;
    const sp<TrackSource> source = TrackSource::find(format);
    AString mime;
    format->findString("mime", &mime);
    const int id = source != nullptr ? source->parameters().codec_id : decoderIdOf(mime);
    const AVCodec* codec = decoderOf(id);
    if (codec == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kDecoderTag, "no decoder for %s", mime.c_str());
        return ERROR_UNSUPPORTED;
    }
    mContext.reset(avcodec_alloc_context3(codec));
    if (mContext == nullptr) return NO_MEMORY;
    if (source == nullptr) {
        const status_t status = parametersFromKeys(*format, mContext.get());
        if (status != OK) return status;
    } else if (avcodec_parameters_to_context(mContext.get(), &source->parameters()) < 0) {
        return ERROR_MALFORMED;
    }
    mContext->pkt_timebase = {1, 1000000};
    // The size may change in mid-stream.
    mContext->max_pixels = kMaxPixels;
    return OK;
}

status_t PacketDecoder::open() {
    const ThreadName name(std::string("dec-") + mContext->codec->name);
    const int error = avcodec_open2(mContext.get(), nullptr, nullptr);
    if (error < 0) {
        // The failure has removed the codec from the context.
        __android_log_print(ANDROID_LOG_ERROR, kDecoderTag, "%s cannot be opened: %d",
                            avcodec_get_name(mContext->codec_id), error);
        return ERROR_UNSUPPORTED;
    }
    __android_log_print(ANDROID_LOG_DEBUG, kDecoderTag, "decodes %s with %s",
                        av_get_media_type_string(mContext->codec->type), mContext->codec->name);
    if (mObserver != nullptr) mObserver->onDecoderOpened(isVideo(), mContext->codec->name);
    return OK;
}

bool PacketDecoder::isVideo() const { return mContext->codec_type == AVMEDIA_TYPE_VIDEO; }

status_t PacketDecoder::countSkipped(int error) {
    if (error == AVERROR(ENOMEM)) {
        const std::optional<std::string> reason = checkAllocation();
        if (!reason) return NO_MEMORY;
        if (mObserver != nullptr) mObserver->onRefused(*reason);
        return ERROR_UNSUPPORTED;
    }
    mSkipped++;
    if (mObserver != nullptr) mObserver->onPacketSkipped(isVideo());
    return OK;
}

status_t PacketDecoder::send(const CodecInput& input) {
    AVPacket* packet = mPacket.get();
    av_packet_unref(packet);
    const AVPacket* properties = input.info.properties.get();
    if (properties != nullptr && av_packet_copy_props(packet, properties) < 0) return NO_MEMORY;
    // libavcodec makes a padded copy of data that is not reference-counted.
    packet->data = const_cast<uint8_t*>(input.data);
    packet->size = static_cast<int>(input.size);
    if (properties == nullptr) packet->pts = input.timeUs;
    const int error = avcodec_send_packet(mContext.get(), packet);
    packet->data = nullptr;
    packet->size = 0;
    return error < 0 ? countSkipped(error) : OK;
}

status_t PacketDecoder::sendEnd() {
    const int error = avcodec_send_packet(mContext.get(), nullptr);
    return error < 0 ? countSkipped(error) : OK;
}

void PacketDecoder::flush() { avcodec_flush_buffers(mContext.get()); }

PacketDecoder::Received PacketDecoder::receive(AVFrame* frame) {
    for (int errors = 0; errors < kMaxErrorsInARow; ++errors) {
        const int error = avcodec_receive_frame(mContext.get(), frame);
        if (error == 0) {
            mDecoded++;
            if (frame->pts == AV_NOPTS_VALUE) frame->pts = frame->best_effort_timestamp;
            return Received::kFrame;
        }
        if (error == AVERROR(EAGAIN)) return Received::kNeedsInput;
        if (error == AVERROR_EOF) return Received::kEnd;
        const status_t status = countSkipped(error);
        if (status == ERROR_UNSUPPORTED) return Received::kRefused;
        if (status != OK) return Received::kFailed;
    }
    return Received::kEnd;
}

PacketEncoder::PacketEncoder() : mPacket(av_packet_alloc()) {}

PacketEncoder::~PacketEncoder() = default;

status_t PacketEncoder::prepare(const AString& mime) {
    if (mPacket == nullptr) return NO_MEMORY;
    mInfo = findEncodedCodec(mime.c_str());
    const AVCodec* codec = encoderOf(mime);
    if (codec == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kEncoderTag, "no encoder for %s", mime.c_str());
        return ERROR_UNSUPPORTED;
    }
    mContext.reset(avcodec_alloc_context3(codec));
    if (mContext == nullptr) return NO_MEMORY;
    mContext->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // Encoders describe their settings and their results, which FFmpeg prints on standard error
    // unless the process says otherwise.
    mContext->log_level_offset = AV_LOG_VERBOSE - AV_LOG_INFO;
    return OK;
}

status_t PacketEncoder::open(AVDictionary* options) {
    const ThreadName name(std::string("enc-") + mContext->codec->name);
    const int error = avcodec_open2(mContext.get(), mContext->codec, &options);
    av_dict_free(&options);
    if (error < 0) {
        // The failure has removed the codec from the context.
        __android_log_print(ANDROID_LOG_ERROR, kEncoderTag, "%s cannot be opened: %d",
                            avcodec_get_name(mContext->codec_id), error);
        return ERROR_UNSUPPORTED;
    }
    __android_log_print(ANDROID_LOG_DEBUG, kEncoderTag, "encodes %s with %s",
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
    __android_log_print(ANDROID_LOG_ERROR, kEncoderTag, "%s refused a frame: %d",
                        mContext->codec->name, error);
    return UNKNOWN_ERROR;
}

PacketEncoder::Received PacketEncoder::receive() {
    const int error = avcodec_receive_packet(mContext.get(), mPacket.get());
    if (error == 0) return Received::kPacket;
    if (error == AVERROR(EAGAIN)) return Received::kNeedsInput;
    if (error == AVERROR_EOF) return Received::kEnd;
    __android_log_print(ANDROID_LOG_ERROR, kEncoderTag, "%s failed: %d", mContext->codec->name,
                        error);
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
