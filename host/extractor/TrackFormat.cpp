#include "host/extractor/TrackFormat.h"

#include <editorutils/MediaEditorDefs.h>
#include <math.h>
#include <media/stagefright/foundation/ABuffer.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "host/codec/CodecTable.h"
#include "host/codec/InputLimits.h"
#include "host/convert/ColorTags.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/dict.h>
#include <libavutil/display.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

struct Size {
    int width;
    int height;
};

// Keeps the height and scales the width to square pixels, as players do.
Size displaySize(AVFormatContext& context, AVStream& stream) {
    const Size coded = {stream.codecpar->width, stream.codecpar->height};
    const AVRational aspect = av_guess_sample_aspect_ratio(&context, &stream, nullptr);
    if (aspect.num <= 0 || aspect.den <= 0 || aspect.num == aspect.den) return coded;
    const int64_t halfWidth =
        av_rescale_rnd(coded.width, aspect.num, 2LL * aspect.den, AV_ROUND_NEAR_INF);
    if (halfWidth < 1) return coded;
    // Any size beyond the limit will be refused.
    return {static_cast<int>(std::min<int64_t>(halfWidth, INT32_MAX / 2) * 2), coded.height};
}

// Clockwise, in quarter turns: 0, 90, 180 or 270.
int rotationDegrees(const AVStream& stream) {
    size_t size = 0;
    const uint8_t* data = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    int32_t matrix[9];
    if (data == nullptr || size < sizeof(matrix)) return 0;
    memcpy(matrix, data, sizeof(matrix));
    const double counterclockwise = av_display_rotation_get(matrix);
    if (isnan(counterclockwise)) return 0;
    const int quarters = static_cast<int>(lround(-counterclockwise / 90));
    return ((quarters % 4) + 4) % 4 * 90;
}

bool isHdr(int transfer) {
    return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

// 0 when it is not known. Matroska has it in a tag.
int64_t bitRate(const AVStream& stream) {
    if (stream.codecpar->bit_rate > 0) return stream.codecpar->bit_rate;
    const AVDictionaryEntry* tag =
        av_dict_get(stream.metadata, "BPS", nullptr, AV_DICT_IGNORE_SUFFIX);
    return tag == nullptr ? 0 : strtoll(tag->value, nullptr, 10);
}

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr int kAvcSequenceParameterSet = 7;
constexpr int kAvcPps = 8;

// Reads a configuration record; after a read beyond the end, all further reads are empty.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : mData(data), mEnd(data + size) {}

    void skip(size_t count) { mData += std::min(count, remaining()); }
    unsigned get8() { return remaining() == 0 ? 0 : *mData++; }
    unsigned get16() {
        const unsigned high = get8();
        return high << 8 | get8();
    }
    // A parameter set with its 16-bit length.
    void appendUnit(Bytes* out) {
        const size_t size = get16();
        if (size == 0 || size > remaining()) {
            mData = mEnd;
            return;
        }
        out->insert(out->end(), std::begin(kStartCode), std::end(kStartCode));
        out->insert(out->end(), mData, mData + size);
        mData += size;
    }

private:
    size_t remaining() const { return static_cast<size_t>(mEnd - mData); }

    const uint8_t* mData;
    const uint8_t* const mEnd;
};

bool setBytes(const char* name, const uint8_t* data, size_t size, const sp<AMessage>& format) {
    if (size == 0) return true;
    const sp<ABuffer> copy = ABuffer::CreateAsCopy(data, size);
    if (copy == nullptr) return false;
    format->setBuffer(name, copy);
    return true;
}

bool isByteStream(const uint8_t* data, size_t size) {
    return size >= 4 && data[0] == 0 && data[1] == 0 &&
           (data[2] == 1 || (data[2] == 0 && data[3] == 1));
}

void splitRecord(const uint8_t* data, size_t size, Bytes* sps, Bytes* pps) {
    Reader reader(data, size);
    reader.skip(5);
    for (unsigned count = reader.get8() & 0x1F; count > 0; --count) reader.appendUnit(sps);
    for (unsigned count = reader.get8(); count > 0; --count) reader.appendUnit(pps);
}

void splitByteStream(const uint8_t* data, size_t size, Bytes* sps, Bytes* pps) {
    constexpr uint8_t kPrefix[] = {0, 0, 1};
    const uint8_t* const end = data + size;
    const uint8_t* unit = std::search(data, end, std::begin(kPrefix), std::end(kPrefix));
    while (unit != end) {
        unit += sizeof(kPrefix);
        const uint8_t* const next = std::search(unit, end, std::begin(kPrefix), std::end(kPrefix));
        const uint8_t* last = next;
        while (last > unit && last[-1] == 0) --last;
        const int type = last > unit ? *unit & 0x1F : 0;
        Bytes* const out = type == kAvcSequenceParameterSet ? sps : type == kAvcPps ? pps : nullptr;
        if (out != nullptr) {
            out->insert(out->end(), std::begin(kStartCode), std::end(kStartCode));
            out->insert(out->end(), unit, last);
        }
        unit = next;
    }
}

// Sets "csd-0" and "csd-1" from an AVC track's extradata, an AVCDecoderConfigurationRecord (ISO/IEC
// 14496-15) or a byte stream (ITU-T H.264, annex B): the sequence parameter sets in the first, the
// picture parameter sets in the second, each behind a start code. Sets nothing when there are none.
// This and the next one are false when memory is short.
bool setAvcConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format) {
    Bytes sps;
    Bytes pps;
    if (isByteStream(extradata, size)) {
        splitByteStream(extradata, size, &sps, &pps);
    } else {
        splitRecord(extradata, size, &sps, &pps);
    }
    return setBytes("csd-0", sps.data(), sps.size(), format) &&
           setBytes("csd-1", pps.data(), pps.size(), format);
}

// Sets "csd-0" from an HEVC track's extradata: all parameter sets, each behind a start code.
bool setHevcConfig(const uint8_t* extradata, size_t size, const sp<AMessage>& format) {
    if (isByteStream(extradata, size)) return setBytes("csd-0", extradata, size, format);
    Bytes units;
    Reader reader(extradata, size);
    reader.skip(22);
    for (unsigned arrays = reader.get8(); arrays > 0; --arrays) {
        reader.skip(1);
        for (unsigned count = reader.get16(); count > 0; --count) reader.appendUnit(&units);
    }
    return setBytes("csd-0", units.data(), units.size(), format);
}

// False when memory is short.
bool setCodecConfig(const AVCodecParameters& parameters, const sp<AMessage>& format) {
    if (parameters.extradata == nullptr || parameters.extradata_size <= 0) return true;
    const auto size = static_cast<size_t>(parameters.extradata_size);
    switch (parameters.codec_id) {
        case AV_CODEC_ID_H264:
            return setAvcConfig(parameters.extradata, size, format);
        case AV_CODEC_ID_HEVC:
            return setHevcConfig(parameters.extradata, size, format);
        case AV_CODEC_ID_AAC:
        case AV_CODEC_ID_MPEG4:
            return setBytes("csd-0", parameters.extradata, size, format);
        default:
            return true;
    }
}

// Whether decoded frames are what encoders get: 8 bit, 4:2:0, of standard dynamic range, and with
// square pixels.
bool hasOutputFrames(AVFormatContext& context, AVStream& stream) {
    const AVCodecParameters& parameters = *stream.codecpar;
    const AVRational aspect = av_guess_sample_aspect_ratio(&context, &stream, nullptr);
    return parameters.format == AV_PIX_FMT_YUV420P && !isHdr(tagValue(parameters.color_trc)) &&
           (aspect.num == 0 || aspect.num == aspect.den);
}

void setVideoKeys(AVFormatContext& context, AVStream& stream, const TrackProperties& properties,
                  const sp<AMessage>& format) {
    const Size size = displaySize(context, stream);
    format->setInt32("width", size.width);
    format->setInt32("height", size.height);
    format->setInt32("frame-rate", properties.frameRate);
    if (properties.constantRate.numerator > 0) {
        format->setInt64("frame-rate-numerator", properties.constantRate.numerator);
        format->setInt64("frame-rate-denominator", properties.constantRate.denominator);
    }
    if (properties.averageFrameRate > 0) {
        format->setFloat("average-frame-rate", static_cast<float>(properties.averageFrameRate));
    }
    if (const int degrees = rotationDegrees(stream); degrees != 0) {
        format->setInt32("rotation-degrees", degrees);
    }
    const AVCodecParameters& parameters = *stream.codecpar;
    if (isHdr(tagValue(parameters.color_trc))) format->setInt32("android._is-hdr", 1);
    if (parameters.field_order > AV_FIELD_PROGRESSIVE) format->setInt32("is-interlaced", 1);
    if (hasOutputFrames(context, stream)) format->setInt32("has-output-frames", 1);
}

bool isEncrypted(const AVStream& stream) {
    return av_stream_get_side_data(&stream, AV_PKT_DATA_ENCRYPTION_INIT_INFO, nullptr) != nullptr;
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

sp<AMessage> makeTrackFormat(AVFormatContext& context, AVStream& stream,
                             const TrackProperties& properties) {
    const AVCodecParameters& parameters = *stream.codecpar;
    sp<AMessage> format = new AMessage;
    format->setString("mime", mimeOfStream(stream));
    format->setInt64("durationUs", properties.durationUs);
    if (!isDecodable(stream)) return format;

    format->setInt32("max-input-size", properties.maxSampleBytes);
    if (const int64_t rate = bitRate(stream); rate > 0) {
        format->setInt32("bitrate", static_cast<int32_t>(std::min<int64_t>(rate, INT32_MAX)));
    }
    if (!setCodecConfig(parameters, format)) return nullptr;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        setVideoKeys(context, stream, properties, format);
    } else {
        format->setInt32("sample-rate", parameters.sample_rate);
        format->setInt32("channel-count", parameters.ch_layout.nb_channels);
        format->setInt32("bits-per-sample", 16);
    }
    return format;
}

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
    const char* mime = mimeOfCodec(codec);
    switch (stream.codecpar->codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            if (isCoverArt(stream)) return imageMime(codec);
            if (!isDecodable(stream)) return MEDIAEDITOR_MIMETYPE_VIDEO_NOTSUPPORTED;
            return mime == nullptr ? "video/x-unknown" : mime;
        case AVMEDIA_TYPE_AUDIO:
            if (!isDecodable(stream)) return MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED;
            return mime == nullptr ? "audio/x-unknown" : mime;
        case AVMEDIA_TYPE_SUBTITLE:
            return "text/x-unknown";
        default:
            return "application/octet-stream";
    }
}

const char* mimeOfContainer(const AVFormatContext& context) {
    for (const ContainerInfo& container : inputContainers()) {
        if (av_match_name(container.demuxer, context.iformat->name) != 0) return container.mime;
    }
    return "application/octet-stream";
}

}  // namespace qmmediaeditor
}  // namespace android
