#include "host/codec/CodecTable.h"

#include <sstream>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

std::string namesOf(const std::vector<InputFormat>& formats) {
    std::string names;
    for (const InputFormat& format : formats) {
        if (!names.empty()) names += ',';
        names += format.implementations;
    }
    return names;
}

std::vector<const AVCodec*> findDecoders() {
    std::vector<const AVCodec*> decoders;
    std::istringstream names(decoderNames());
    for (std::string name; std::getline(names, name, ',');) {
        const AVCodec* decoder = avcodec_find_decoder_by_name(name.c_str());
        if (decoder != nullptr) decoders.push_back(decoder);
    }
    return decoders;
}

}  // namespace

const std::vector<InputFormat>& inputContainers() {
    static const std::vector<InputFormat> containers = {
        {"MP4", "mov"},        {"MOV", "mov"},      {"3GP", "mov"},  {"Matroska", "matroska"},
        {"WebM", "webm"},      {"AVI", "avi"},      {"FLV", "flv"},  {"ASF", "asf"},
        {"MPEG-TS", "mpegts"}, {"MPEG-PS", "mpeg"}, {"Ogg", "ogg"},  {"WAV", "wav"},
        {"Wave64", "w64"},     {"AIFF", "aiff"},    {"CAF", "caf"},  {"AU", "au"},
        {"FLAC", "flac"},      {"MP3", "mp3"},      {"ADTS", "aac"}, {"AC-3", "ac3"},
        {"E-AC-3", "eac3"},    {"AMR", "amr"},
    };
    return containers;
}

const std::vector<InputFormat>& inputVideoCodecs() {
    // All of them are libavcodec's own, except for AV1: its own decoder needs special hardware.
    static const std::vector<InputFormat> codecs = {
        {"AVC", "h264"},
        {"HEVC", "hevc"},
        {"VP8", "vp8"},
        {"VP9", "vp9"},
        {"AV1", "libdav1d"},
        {"MPEG-4", "mpeg4"},
        {"H.263", "h263,h263p"},
        {"MPEG-1", "mpeg1video"},
        {"MPEG-2", "mpeg2video"},
        {"VC-1", "vc1"},
        {"WMV", "wmv1,wmv2,wmv3"},
        {"MS-MPEG-4", "msmpeg4v1,msmpeg4v2,msmpeg4"},
        {"Sorenson Spark", "flv"},
        {"VP6", "vp6,vp6f"},
        {"Theora", "theora"},
        {"Motion JPEG", "mjpeg"},
        {"ProRes", "prores"},
        {"DNxHD", "dnxhd"},
        {"DV", "dvvideo"},
        {"FFV1", "ffv1"},
        {"HuffYUV", "huffyuv,ffvhuff"},
        {"PNG", "png"},
        {"QuickTime Animation", "qtrle"},
        {"uncompressed", "rawvideo"},
    };
    return codecs;
}

const std::vector<InputFormat>& inputAudioCodecs() {
    static const std::vector<InputFormat> codecs = {
        {"AAC", "aac,aac_latm"},
        {"MP1", "mp1"},
        {"MP2", "mp2"},
        {"MP3", "mp3float"},
        {"Opus", "opus"},
        {"Vorbis", "vorbis"},
        {"FLAC", "flac"},
        {"ALAC", "alac"},
        {"AC-3", "ac3"},
        {"E-AC-3", "eac3"},
        {"DTS", "dca"},
        {"TrueHD", "truehd"},
        {"AMR-NB", "amrnb"},
        {"AMR-WB", "amrwb"},
        {"WMA", "wmav1,wmav2,wmapro"},
        {"Speex", "speex"},
        {"Nellymoser", "nellymoser"},
        {"ADPCM", "adpcm_ms,adpcm_ima_wav,adpcm_ima_qt,adpcm_swf"},
        {"PCM",
         "pcm_alaw,pcm_mulaw,pcm_u8,pcm_s8,pcm_s16le,pcm_s16be,pcm_s24le,pcm_s24be,pcm_s32le,"
         "pcm_s32be,pcm_f32le,pcm_f32be,pcm_f64le,pcm_f64be,pcm_bluray,pcm_dvd"},
    };
    return codecs;
}

const std::string& demuxerNames() {
    static const std::string names = namesOf(inputContainers());
    return names;
}

const std::string& decoderNames() {
    static const std::string names =
        namesOf(inputVideoCodecs()) + "," + namesOf(inputAudioCodecs());
    return names;
}

const AVCodec* decoderOf(int codecId) {
    static const std::vector<const AVCodec*> decoders = findDecoders();
    for (const AVCodec* decoder : decoders) {
        if (decoder->id == codecId) return decoder;
    }
    return nullptr;
}

}  // namespace qmmediaeditor
}  // namespace android
