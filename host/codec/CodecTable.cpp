#include "host/codec/CodecTable.h"

#include <media/stagefright/MediaCodecConstants.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <strings.h>

#include <cmath>
#include <iterator>
#include <sstream>

#include "host/codec/OutputLimits.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

template <typename Row>
std::string joined(const std::vector<Row>& rows, const char* Row::*names) {
    std::string list;
    for (const Row& row : rows) {
        if (!list.empty()) list += ',';
        list += row.*names;
    }
    return list;
}

struct Decoder {
    const AVCodec* codec;
    const CodecInfo* info;
};

std::vector<Decoder> findDecoders() {
    std::vector<Decoder> decoders;
    for (const auto* codecs : {&inputVideoCodecs(), &inputAudioCodecs()}) {
        for (const CodecInfo& info : *codecs) {
            std::istringstream names(info.decoders);
            for (std::string name; std::getline(names, name, ',');) {
                const AVCodec* codec = avcodec_find_decoder_by_name(name.c_str());
                if (codec != nullptr) decoders.push_back({codec, &info});
            }
        }
    }
    return decoders;
}

const std::vector<Decoder>& decoders() {
    static const std::vector<Decoder> found = findDecoders();
    return found;
}

const Decoder* findDecoder(int codecId) {
    for (const Decoder& decoder : decoders()) {
        if (decoder.codec->id == codecId) return &decoder;
    }
    return nullptr;
}

// Written codecs have more columns than the others.
CodecInfo written(CodecInfo info, const char* encoder, const char* sampleEntry, bool only3gp,
                  int frameSamples, EncoderLimits limits) {
    info.encoder = encoder;
    info.sampleEntry = sampleEntry;
    info.only3gp = only3gp;
    info.frameSamples = frameSamples;
    info.limits = std::move(limits);
    return info;
}

struct AvcLevel {
    int32_t bit;
    int idc;
    int64_t maxMacroblocksPerSecond;
    int64_t maxMacroblocks;
    int64_t maxBitRate;  // bits per second, Baseline and Main profile
};

constexpr AvcLevel kAvcLevels[] = {
    {AVCLevel1, 10, 1485, 99, 64000},           {AVCLevel11, 11, 3000, 396, 192000},
    {AVCLevel12, 12, 6000, 396, 384000},        {AVCLevel13, 13, 11880, 396, 768000},
    {AVCLevel2, 20, 11880, 396, 2000000},       {AVCLevel21, 21, 19800, 792, 4000000},
    {AVCLevel22, 22, 20250, 1620, 4000000},     {AVCLevel3, 30, 40500, 1620, 10000000},
    {AVCLevel31, 31, 108000, 3600, 14000000},   {AVCLevel32, 32, 216000, 5120, 20000000},
    {AVCLevel4, 40, 245760, 8192, 20000000},    {AVCLevel41, 41, 245760, 8192, 50000000},
    {AVCLevel42, 42, 522240, 8704, 50000000},   {AVCLevel5, 50, 589824, 22080, 135000000},
    {AVCLevel51, 51, 983040, 36864, 240000000}, {AVCLevel52, 52, 2073600, 36864, 240000000},
};

// Limits of MPEG-4 and H.263, in rising order.
struct Level {
    int number;
    int64_t maxMacroblocksPerSecond;
    int64_t maxMacroblocks;
    int64_t maxBitRate;  // bits per second
};

constexpr Level kMpeg4Levels[] = {
    {1, 1485, 99, 64000},      {2, 5940, 396, 128000},    {3, 11880, 396, 384000},
    {4, 36000, 1200, 4000000}, {5, 40500, 1620, 8000000}, {6, 108000, 3600, 12000000},
};

constexpr Level kH263Levels[] = {
    {10, 1485, 99, 64000},       {20, 5940, 396, 128000},   {30, 11880, 396, 384000},
    {40, 11880, 396, 2048000},   {50, 19800, 396, 4096000}, {60, 39600, 810, 8192000},
    {70, 81000, 1620, 16384000},
};

struct Macroblocks {
    explicit Macroblocks(const VideoDemand& demand)
        : columns((demand.width + 15) / 16), rows((demand.height + 15) / 16) {}

    int64_t count() const { return columns * rows; }

    int64_t columns;
    int64_t rows;
};

template <typename AnyLevel>
bool allowsRates(const AnyLevel& level, const VideoDemand& demand) {
    const int64_t macroblocks = Macroblocks(demand).count();
    return macroblocks <= level.maxMacroblocks && demand.maxBitRate <= level.maxBitRate &&
           static_cast<double>(macroblocks) * demand.frameRate <=
               static_cast<double>(level.maxMacroblocksPerSecond);
}

bool allows(const AvcLevel& level, const VideoDemand& demand) {
    const Macroblocks macroblocks(demand);
    // No side may be longer than eight times the square root of the largest frame.
    const auto longestSide =
        static_cast<int64_t>(std::sqrt(static_cast<double>(level.maxMacroblocks) * 8));
    return allowsRates(level, demand) && macroblocks.columns <= longestSide &&
           macroblocks.rows <= longestSide;
}

template <size_t N>
int lowestLevel(const Level (&levels)[N], const VideoDemand& demand) {
    for (const Level& level : levels) {
        if (allowsRates(level, demand)) return level.number;
    }
    return levels[N - 1].number;
}

}  // namespace

const std::vector<ContainerInfo>& inputContainers() {
    static const std::vector<ContainerInfo> containers = {
        {"MP4", "mov", MEDIA_MIMETYPE_CONTAINER_MPEG4},
        {"MOV", "mov", MEDIA_MIMETYPE_CONTAINER_MPEG4},
        {"3GP", "mov", MEDIA_MIMETYPE_CONTAINER_MPEG4},
        {"Matroska", "matroska", "video/x-matroska"},
        {"WebM", "webm", "video/x-matroska"},
        {"AVI", "avi", "video/avi"},
        {"FLV", "flv", "video/x-flv"},
        {"ASF", "asf", "video/x-ms-asf"},
        {"MPEG-TS", "mpegts", "video/mp2ts"},
        {"MPEG-PS", "mpeg", "video/mp2p"},
        {"MXF", "mxf", "application/mxf"},
        {"DV", "dv", "video/x-dv"},
        {"raw AVC", "h264", MEDIA_MIMETYPE_VIDEO_AVC},
        {"raw HEVC", "hevc", MEDIA_MIMETYPE_VIDEO_HEVC},
        {"raw MPEG-1", "mpegvideo", MEDIA_MIMETYPE_VIDEO_MPEG2},
        {"raw MPEG-2", "mpegvideo", MEDIA_MIMETYPE_VIDEO_MPEG2},
        {"raw MPEG-4", "m4v", MEDIA_MIMETYPE_VIDEO_MPEG4},
        {"animated GIF", "gif", "image/gif"},
        {"APNG", "apng", "image/apng"},
        {"Ogg", "ogg", "application/ogg"},
        {"WAV", "wav", "audio/x-wav"},
        {"RF64", "wav", "audio/x-wav"},
        {"Wave64", "w64", "audio/x-w64"},
        {"AIFF", "aiff", "audio/x-aiff"},
        {"CAF", "caf", "audio/x-caf"},
        {"AU", "au", "audio/basic"},
        {"FLAC", "flac", "audio/flac"},
        {"WavPack", "wv", "audio/x-wavpack"},
        {"TTA", "tta", "audio/x-tta"},
        {"MP3", "mp3", "audio/mpeg"},
        {"ADTS", "aac", "audio/aac-adts"},
        {"AC-3", "ac3", "audio/ac3"},
        {"E-AC-3", "eac3", "audio/eac3"},
        {"DTS", "dts", "audio/vnd.dts"},
        {"AMR", "amr", "audio/amr"},
    };
    return containers;
}

const std::vector<CodecInfo>& inputVideoCodecs() {
    // All decoders are libavcodec's own, except for AV1: its own decoder needs special hardware.
    static const std::vector<CodecInfo> codecs = {
        written({"AVC", MEDIA_MIMETYPE_VIDEO_AVC, "h264"}, "libx264", "avc1", false, 0, {}),
        {"HEVC", MEDIA_MIMETYPE_VIDEO_HEVC, "hevc"},
        {"VP8", MEDIA_MIMETYPE_VIDEO_VP8, "vp8"},
        {"VP9", MEDIA_MIMETYPE_VIDEO_VP9, "vp9"},
        {"AV1", MEDIA_MIMETYPE_VIDEO_AV1, "libdav1d"},
        written({"MPEG-4", MEDIA_MIMETYPE_VIDEO_MPEG4, "mpeg4"}, "mpeg4", "mp4v", false, 0,
                {kMpeg4MaxSide, {}, 0}),
        written({"H.263", MEDIA_MIMETYPE_VIDEO_H263, "h263,h263p"}, "h263", "s263", true, 0, {}),
        {"MPEG-1", MEDIA_MIMETYPE_VIDEO_MPEG2, "mpeg1video"},
        {"MPEG-2", MEDIA_MIMETYPE_VIDEO_MPEG2, "mpeg2video"},
        {"VC-1", "video/x-ms-wmv", "vc1"},
        {"WMV", "video/x-ms-wmv", "wmv1,wmv2,wmv3"},
        {"MS-MPEG-4", nullptr, "msmpeg4v1,msmpeg4v2,msmpeg4"},
        {"Sorenson Spark", nullptr, "flv"},
        {"VP6", nullptr, "vp6,vp6f"},
        {"Theora", nullptr, "theora"},
        {"Motion JPEG", "video/mjpeg", "mjpeg"},
        {"ProRes", "video/prores", "prores"},
        {"DNxHD", nullptr, "dnxhd"},
        {"DV", nullptr, "dvvideo"},
        {"FFV1", nullptr, "ffv1"},
        {"HuffYUV", nullptr, "huffyuv,ffvhuff"},
        {"PNG", nullptr, "png"},
        {"APNG", nullptr, "apng"},
        {"GIF", nullptr, "gif"},
        {"QuickTime Animation", nullptr, "qtrle"},
        {"uncompressed", MEDIA_MIMETYPE_VIDEO_RAW, "rawvideo"},
    };
    return codecs;
}

const std::vector<CodecInfo>& inputAudioCodecs() {
    static const std::vector<CodecInfo> codecs = {
        written({"AAC", MEDIA_MIMETYPE_AUDIO_AAC, "aac,aac_latm"}, "aac", "mp4a", false, 1024,
                {0, {std::begin(kAacSampleRates), std::end(kAacSampleRates)}, kAacMaxChannels}),
        {"MP1", MEDIA_MIMETYPE_AUDIO_MPEG, "mp1"},
        {"MP2", MEDIA_MIMETYPE_AUDIO_MPEG, "mp2"},
        {"MP3", MEDIA_MIMETYPE_AUDIO_MPEG, "mp3float"},
        {"Opus", MEDIA_MIMETYPE_AUDIO_OPUS, "opus"},
        {"Vorbis", MEDIA_MIMETYPE_AUDIO_VORBIS, "vorbis"},
        {"FLAC", MEDIA_MIMETYPE_AUDIO_FLAC, "flac"},
        {"ALAC", "audio/alac", "alac"},
        {"WavPack", nullptr, "wavpack"},
        {"TTA", nullptr, "tta"},
        {"AC-3", MEDIA_MIMETYPE_AUDIO_AC3, "ac3"},
        {"E-AC-3", MEDIA_MIMETYPE_AUDIO_EAC3, "eac3"},
        {"DTS", "audio/vnd.dts", "dca"},
        {"TrueHD", nullptr, "truehd"},
        written({"AMR-NB", MEDIA_MIMETYPE_AUDIO_AMR_NB, "amrnb"}, "libopencore_amrnb", "samr", true,
                160, {0, {kAmrNbSampleRate}, 1}),
        written({"AMR-WB", MEDIA_MIMETYPE_AUDIO_AMR_WB, "amrwb"}, "libvo_amrwbenc", "sawb", true,
                320, {0, {kAmrWbSampleRate}, 1}),
        {"WMA", "audio/x-ms-wma", "wmav1,wmav2,wmapro"},
        {"Speex", nullptr, "speex"},
        {"Nellymoser", nullptr, "nellymoser"},
        {"ADPCM", nullptr, "adpcm_ms,adpcm_ima_wav,adpcm_ima_qt,adpcm_swf"},
        {"PCM", MEDIA_MIMETYPE_AUDIO_RAW,
         "pcm_alaw,pcm_mulaw,pcm_u8,pcm_s8,pcm_s16le,pcm_s16be,pcm_s24le,pcm_s24be,pcm_s32le,"
         "pcm_s32be,pcm_f32le,pcm_f32be,pcm_f64le,pcm_f64be,pcm_bluray,pcm_dvd"},
    };
    return codecs;
}

const std::string& demuxerNames() {
    static const std::string names = joined(inputContainers(), &ContainerInfo::demuxer);
    return names;
}

const std::string& decoderNames() {
    static const std::string names = joined(inputVideoCodecs(), &CodecInfo::decoders) + "," +
                                     joined(inputAudioCodecs(), &CodecInfo::decoders);
    return names;
}

const AVCodec* decoderOf(int codecId) {
    const Decoder* decoder = findDecoder(codecId);
    return decoder == nullptr ? nullptr : decoder->codec;
}

const char* mimeOfCodec(int codecId) {
    const Decoder* decoder = findDecoder(codecId);
    return decoder == nullptr ? nullptr : decoder->info->mime;
}

int decoderIdOf(const AString& mime) {
    // The keys of a format do not name the sample format of raw data.
    if (mime.equalsIgnoreCase(MEDIA_MIMETYPE_AUDIO_RAW) ||
        mime.equalsIgnoreCase(MEDIA_MIMETYPE_VIDEO_RAW)) {
        return AV_CODEC_ID_NONE;
    }
    // Of the codecs that share a MIME type, the latest is the most common one; of the decoders of a
    // codec, the first.
    const CodecInfo* found = nullptr;
    int codecId = AV_CODEC_ID_NONE;
    for (const Decoder& decoder : decoders()) {
        if (decoder.info == found || decoder.info->mime == nullptr) continue;
        if (!mime.equalsIgnoreCase(decoder.info->mime)) continue;
        found = decoder.info;
        codecId = decoder.codec->id;
    }
    return codecId;
}

const CodecInfo* findEncodedCodec(const char* mime) {
    for (const auto* codecs : {&inputVideoCodecs(), &inputAudioCodecs()}) {
        for (const CodecInfo& codec : *codecs) {
            if (codec.encoder != nullptr && strcasecmp(codec.mime, mime) == 0) return &codec;
        }
    }
    return nullptr;
}

const AVCodec* encoderOf(const AString& mime) {
    const CodecInfo* codec = findEncodedCodec(mime.c_str());
    return codec == nullptr ? nullptr : avcodec_find_encoder_by_name(codec->encoder);
}

const char* avcProfileName(int32_t profileBit) {
    switch (profileBit) {
        case AVCProfileBaseline:
            return "baseline";
        case AVCProfileMain:
            return "main";
        case AVCProfileHigh:
            return "high";
        default:
            return nullptr;
    }
}

int avcLevelFor(int32_t levelBit, const VideoDemand& demand) {
    for (const AvcLevel& level : kAvcLevels) {
        if (level.bit == levelBit) return allows(level, demand) ? level.idc : 0;
    }
    return 0;
}

int mpeg4LevelFor(const VideoDemand& demand) { return lowestLevel(kMpeg4Levels, demand); }

int h263LevelFor(const VideoDemand& demand) { return lowestLevel(kH263Levels, demand); }

}  // namespace qmmediaeditor
}  // namespace android
