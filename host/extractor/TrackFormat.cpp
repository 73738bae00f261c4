#include "host/extractor/TrackFormat.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "host/extractor/CodecConfig.h"
#include "host/extractor/MediaTypes.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
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

// Keeps the height and brings the width to square pixels, as players do.
Size displaySize(AVFormatContext& context, AVStream& stream) {
    const Size coded = {stream.codecpar->width, stream.codecpar->height};
    const AVRational aspect = av_guess_sample_aspect_ratio(&context, &stream, nullptr);
    if (aspect.num <= 0 || aspect.den <= 0 || aspect.num == aspect.den) return coded;
    const int64_t halfWidth =
        av_rescale_rnd(coded.width, aspect.num, 2LL * aspect.den, AV_ROUND_NEAR_INF);
    if (halfWidth < 1) return coded;
    // Beyond the limit, any size will be refused.
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

bool isHdr(AVColorTransferCharacteristic transfer) {
    return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

// 0 when it is not known. Matroska leaves it to a tag.
int64_t bitRate(const AVStream& stream) {
    if (stream.codecpar->bit_rate > 0) return stream.codecpar->bit_rate;
    const AVDictionaryEntry* tag =
        av_dict_get(stream.metadata, "BPS", nullptr, AV_DICT_IGNORE_SUFFIX);
    return tag == nullptr ? 0 : strtoll(tag->value, nullptr, 10);
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
            return setPlainConfig(parameters.extradata, size, format);
        default:
            return true;
    }
}

void setVideoKeys(AVFormatContext& context, AVStream& stream, const TrackProperties& facts,
                  const sp<AMessage>& format) {
    const Size size = displaySize(context, stream);
    format->setInt32("width", size.width);
    format->setInt32("height", size.height);
    format->setInt32("frame-rate", facts.frameRate);
    if (facts.averageFrameRate > 0) {
        format->setFloat("average-frame-rate", static_cast<float>(facts.averageFrameRate));
    }
    if (const int degrees = rotationDegrees(stream); degrees != 0) {
        format->setInt32("rotation-degrees", degrees);
    }
    if (isHdr(stream.codecpar->color_trc)) format->setInt32("android._is-hdr", 1);
}

}  // namespace

sp<AMessage> makeTrackFormat(AVFormatContext& context, AVStream& stream,
                             const TrackProperties& facts) {
    const AVCodecParameters& parameters = *stream.codecpar;
    sp<AMessage> format = new AMessage;
    format->setString("mime", mimeOfStream(stream));
    format->setInt64("durationUs", facts.durationUs);
    if (!isDecodable(stream)) return format;

    format->setInt32("max-input-size", facts.maxSampleBytes);
    if (const int64_t rate = bitRate(stream); rate > 0) {
        format->setInt32("bitrate", static_cast<int32_t>(std::min<int64_t>(rate, INT32_MAX)));
    }
    if (!setCodecConfig(parameters, format)) return nullptr;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        setVideoKeys(context, stream, facts, format);
    } else {
        format->setInt32("sample-rate", parameters.sample_rate);
        format->setInt32("channel-count", parameters.ch_layout.nb_channels);
        format->setInt32("bits-per-sample", 16);
    }
    return format;
}

}  // namespace qmmediaeditor
}  // namespace android
