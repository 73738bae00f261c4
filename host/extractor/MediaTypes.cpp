#include "host/extractor/MediaTypes.h"

#include <editorutils/MediaEditorDefs.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include "host/codec/CodecTable.h"
#include "host/codec/InputLimits.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

bool isEncrypted(const AVStream& stream) {
    return av_stream_get_side_data(&stream, AV_PKT_DATA_ENCRYPTION_INIT_INFO, nullptr) != nullptr;
}

const char* videoMime(AVCodecID codec) {
    switch (codec) {
        case AV_CODEC_ID_H264:
            return MEDIA_MIMETYPE_VIDEO_AVC;
        case AV_CODEC_ID_HEVC:
            return MEDIA_MIMETYPE_VIDEO_HEVC;
        case AV_CODEC_ID_MPEG4:
            return MEDIA_MIMETYPE_VIDEO_MPEG4;
        case AV_CODEC_ID_H263:
        case AV_CODEC_ID_H263P:
            return MEDIA_MIMETYPE_VIDEO_H263;
        case AV_CODEC_ID_MPEG1VIDEO:
        case AV_CODEC_ID_MPEG2VIDEO:
            return MEDIA_MIMETYPE_VIDEO_MPEG2;
        case AV_CODEC_ID_VP8:
            return MEDIA_MIMETYPE_VIDEO_VP8;
        case AV_CODEC_ID_VP9:
            return MEDIA_MIMETYPE_VIDEO_VP9;
        case AV_CODEC_ID_AV1:
            return MEDIA_MIMETYPE_VIDEO_AV1;
        case AV_CODEC_ID_RAWVIDEO:
            return MEDIA_MIMETYPE_VIDEO_RAW;
        case AV_CODEC_ID_WMV1:
        case AV_CODEC_ID_WMV2:
        case AV_CODEC_ID_WMV3:
        case AV_CODEC_ID_VC1:
            return "video/x-ms-wmv";
        case AV_CODEC_ID_MJPEG:
            return "video/mjpeg";
        case AV_CODEC_ID_PRORES:
            return "video/prores";
        default:
            return "video/x-unknown";
    }
}

const char* audioMime(AVCodecID codec) {
    if (av_get_exact_bits_per_sample(codec) > 0 && codec < AV_CODEC_ID_ADPCM_IMA_QT) {
        return MEDIA_MIMETYPE_AUDIO_RAW;
    }
    switch (codec) {
        case AV_CODEC_ID_AAC:
        case AV_CODEC_ID_AAC_LATM:
            return MEDIA_MIMETYPE_AUDIO_AAC;
        case AV_CODEC_ID_MP1:
        case AV_CODEC_ID_MP2:
        case AV_CODEC_ID_MP3:
            return MEDIA_MIMETYPE_AUDIO_MPEG;
        case AV_CODEC_ID_AMR_NB:
            return MEDIA_MIMETYPE_AUDIO_AMR_NB;
        case AV_CODEC_ID_AMR_WB:
            return MEDIA_MIMETYPE_AUDIO_AMR_WB;
        case AV_CODEC_ID_VORBIS:
            return MEDIA_MIMETYPE_AUDIO_VORBIS;
        case AV_CODEC_ID_OPUS:
            return MEDIA_MIMETYPE_AUDIO_OPUS;
        case AV_CODEC_ID_FLAC:
            return MEDIA_MIMETYPE_AUDIO_FLAC;
        case AV_CODEC_ID_AC3:
            return MEDIA_MIMETYPE_AUDIO_AC3;
        case AV_CODEC_ID_EAC3:
            return MEDIA_MIMETYPE_AUDIO_EAC3;
        case AV_CODEC_ID_WMAV1:
        case AV_CODEC_ID_WMAV2:
        case AV_CODEC_ID_WMAPRO:
            return "audio/x-ms-wma";
        case AV_CODEC_ID_ALAC:
            return "audio/alac";
        case AV_CODEC_ID_DTS:
            return "audio/vnd.dts";
        default:
            return "audio/x-unknown";
    }
}

const char* imageMime(AVCodecID codec) {
    switch (codec) {
        case AV_CODEC_ID_MJPEG:
            return "image/jpeg";
        case AV_CODEC_ID_PNG:
            return "image/png";
        default:
            return "image/x-unknown";
    }
}

}  // namespace

bool isCoverArt(const AVStream& stream) {
    return (stream.disposition & (AV_DISPOSITION_ATTACHED_PIC | AV_DISPOSITION_TIMED_THUMBNAILS)) !=
           0;
}

bool isDecodable(const AVStream& stream) {
    const AVCodecParameters& parameters = *stream.codecpar;
    if (isCoverArt(stream) || isEncrypted(stream)) return false;
    if (decoderOf(parameters.codec_id) == nullptr) return false;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        return parameters.width > 0 && parameters.height > 0;
    }
    return parameters.codec_type == AVMEDIA_TYPE_AUDIO && parameters.sample_rate > 0 &&
           parameters.ch_layout.nb_channels > 0 &&
           !checkAudio(parameters.sample_rate, parameters.ch_layout.nb_channels);
}

const char* mimeOfStream(const AVStream& stream) {
    const AVCodecID codec = stream.codecpar->codec_id;
    switch (stream.codecpar->codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            if (isCoverArt(stream)) return imageMime(codec);
            return isDecodable(stream) ? videoMime(codec) : MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED;
        case AVMEDIA_TYPE_AUDIO:
            return isDecodable(stream) ? audioMime(codec) : MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED;
        case AVMEDIA_TYPE_SUBTITLE:
            return "text/x-unknown";
        default:
            return "application/octet-stream";
    }
}

const char* mimeOfContainer(const AVFormatContext& context) {
    static constexpr struct {
        const char* format;
        const char* mime;
    } kTypes[] = {
        {"matroska", "video/x-matroska"},
        {"mpegts", "video/mp2ts"},
        {"mpeg", "video/mp2p"},
        {"avi", "video/avi"},
        {"flv", "video/x-flv"},
        {"asf", "video/x-ms-asf"},
        {"ogg", "application/ogg"},
        {"wav", "audio/x-wav"},
        {"w64", "audio/x-w64"},
        {"flac", "audio/flac"},
        {"mp3", "audio/mpeg"},
        {"aac", "audio/aac-adts"},
        {"amr", "audio/amr"},
        {"aiff", "audio/x-aiff"},
        {"caf", "audio/x-caf"},
        {"au", "audio/basic"},
        {"ac3", "audio/ac3"},
        {"eac3", "audio/eac3"},
    };
    if (av_match_name("mov", context.iformat->name) != 0) return MEDIA_MIMETYPE_CONTAINER_MPEG4;
    for (const auto& type : kTypes) {
        if (av_match_name(type.format, context.iformat->name) != 0) return type.mime;
    }
    return "application/octet-stream";
}

}  // namespace qmmediaeditor
}  // namespace android
