#include "host/extractor/PocTimestamps.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

// An AVC frame counts for its two fields.
constexpr int kAvcStep = 2;

}  // namespace

void PocTimestamps::ParserDeleter::operator()(AVCodecParserContext* parser) const {
    av_parser_close(parser);
}

PocTimestamps::PocTimestamps(const AVCodecParameters& parameters)
    : mLastDecodingTime(AV_NOPTS_VALUE), mSequenceStart(AV_NOPTS_VALUE) {
    const bool isAvc = parameters.codec_id == AV_CODEC_ID_H264;
    if (!isAvc && parameters.codec_id != AV_CODEC_ID_HEVC) return;
    mCodec.reset(avcodec_alloc_context3(nullptr));
    if (mCodec == nullptr || avcodec_parameters_to_context(mCodec.get(), &parameters) < 0) return;
    mParser.reset(av_parser_init(parameters.codec_id));
    if (mParser == nullptr) return;
    mParser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    mStep = isAvc ? kAvcStep : 1;
}

PocTimestamps::~PocTimestamps() = default;

int64_t PocTimestamps::presentationTime(const AVPacket& packet) {
    if (mParser == nullptr || packet.dts == AV_NOPTS_VALUE) return AV_NOPTS_VALUE;
    const int64_t distance =
        mLastDecodingTime == AV_NOPTS_VALUE ? 0 : packet.dts - mLastDecodingTime;
    if (distance > 0 && (mInterval == 0 || distance < mInterval)) mInterval = distance;
    mLastDecodingTime = packet.dts;

    uint8_t* unit = nullptr;
    int unitBytes = 0;
    av_parser_parse2(mParser.get(), mCodec.get(), &unit, &unitBytes, packet.data, packet.size,
                     packet.pts, packet.dts, packet.pos);
    const int count = mParser->output_picture_number;
    // A closed group begins with the picture that is shown first.
    if (count == 0 && (packet.flags & AV_PKT_FLAG_KEY) != 0) mSequenceStart = packet.dts;
    if (mSequenceStart == AV_NOPTS_VALUE) return AV_NOPTS_VALUE;
    return mSequenceStart + count / mStep * mInterval;
}

void PocTimestamps::restart() { mLastDecodingTime = mSequenceStart = AV_NOPTS_VALUE; }

}  // namespace qmmediaeditor
}  // namespace android
