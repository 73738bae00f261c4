#include "host/codec/PacketDecoder.h"

#include <android/log.h>
#include <inttypes.h>
#include <media/stagefright/MediaErrors.h>

#include "host/codec/CodecTable.h"
#include "host/codec/CodecTypes.h"
#include "host/codec/InputLimits.h"
#include "host/codec/ThreadName.h"
#include "host/codec/TrackSource.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "Decoder";

// A decoder that reports more errors than this in a row while it is drained has nothing left.
constexpr int kMaxErrorsInARow = 256;

// What a format says that did not come from an extractor.
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

}  // namespace

PacketDecoder::PacketDecoder(HostObserver* observer)
    : mObserver(observer), mPacket(av_packet_alloc()) {}

PacketDecoder::~PacketDecoder() {
    if (mDamaged > 0) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "%s: %" PRId64 " damaged samples were skipped, %" PRId64
                            " frames were decoded",
                            mContext->codec->name, mDamaged, mDecoded);
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
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "no decoder for %s", mime.c_str());
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
        // The failure has taken the codec out of the context.
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s cannot be opened: %d",
                            avcodec_get_name(mContext->codec_id), error);
        return ERROR_UNSUPPORTED;
    }
    __android_log_print(ANDROID_LOG_DEBUG, kLogTag, "decodes %s with %s",
                        av_get_media_type_string(mContext->codec->type), mContext->codec->name);
    return OK;
}

status_t PacketDecoder::countSkipped(int error) {
    if (error == AVERROR(ENOMEM)) {
        const std::optional<std::string> reason = checkAllocation();
        if (!reason) return NO_MEMORY;
        if (mObserver != nullptr) mObserver->onRefused(*reason);
        return ERROR_UNSUPPORTED;
    }
    mDamaged++;
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

}  // namespace qmmediaeditor
}  // namespace android
