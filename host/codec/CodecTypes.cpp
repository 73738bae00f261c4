#include "host/codec/CodecTypes.h"

#include <media/stagefright/foundation/MediaDefs.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

struct CodecType {
    const char* mime;
    AVCodecID id;
    const char* encoder;  // null when nothing here makes this type
};

const CodecType* find(const AString& mime) {
    static const CodecType types[] = {
        {MEDIA_MIMETYPE_VIDEO_AVC, AV_CODEC_ID_H264, "libx264"},
        {MEDIA_MIMETYPE_VIDEO_HEVC, AV_CODEC_ID_HEVC, nullptr},
        {MEDIA_MIMETYPE_VIDEO_MPEG4, AV_CODEC_ID_MPEG4, "mpeg4"},
        {MEDIA_MIMETYPE_VIDEO_H263, AV_CODEC_ID_H263, "h263"},
        {MEDIA_MIMETYPE_VIDEO_VP8, AV_CODEC_ID_VP8, "libvpx"},
        {MEDIA_MIMETYPE_VIDEO_VP9, AV_CODEC_ID_VP9, nullptr},
        {MEDIA_MIMETYPE_AUDIO_AAC, AV_CODEC_ID_AAC, "aac"},
        {MEDIA_MIMETYPE_AUDIO_AMR_NB, AV_CODEC_ID_AMR_NB, "libopencore_amrnb"},
        {MEDIA_MIMETYPE_AUDIO_AMR_WB, AV_CODEC_ID_AMR_WB, "libvo_amrwbenc"},
        {MEDIA_MIMETYPE_AUDIO_MPEG, AV_CODEC_ID_MP3, nullptr},
        {MEDIA_MIMETYPE_AUDIO_FLAC, AV_CODEC_ID_FLAC, nullptr},
        {MEDIA_MIMETYPE_AUDIO_AC3, AV_CODEC_ID_AC3, nullptr},
        {MEDIA_MIMETYPE_AUDIO_EAC3, AV_CODEC_ID_EAC3, nullptr},
    };
    for (const CodecType& type : types) {
        if (mime.equalsIgnoreCase(type.mime)) return &type;
    }
    return nullptr;
}

}  // namespace

int decoderIdOf(const AString& mime) {
    const CodecType* type = find(mime);
    return type == nullptr ? AV_CODEC_ID_NONE : type->id;
}

const AVCodec* encoderOf(const AString& mime) {
    const CodecType* type = find(mime);
    if (type == nullptr || type->encoder == nullptr) return nullptr;
    return avcodec_find_encoder_by_name(type->encoder);
}

}  // namespace qmmediaeditor
}  // namespace android
