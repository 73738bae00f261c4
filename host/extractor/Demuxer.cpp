#include "host/extractor/Demuxer.h"

#include <errno.h>
#include <media/stagefright/MediaErrors.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/codec/CodecTable.h"
#include "host/codec/InputLimits.h"
#include "host/extractor/TrackFormat.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/dict.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kIoBufferBytes = 64 * 1024;
constexpr int64_t kDefaultProbeBytes = 1 << 20;
constexpr int64_t kMaxProbeBytes = 64 << 20;
// This number of damaged places in a row is treated as the end.
constexpr int kMaxReadErrors = 64;

// Bounds the memory for opening. Up to this number, a refusal can name the number of streams.
constexpr int kMaxOpenedStreams = 1000;

constexpr int64_t kMaxTimeUs = INT64_C(1) << 60;

// A probe that ends inside an ID3 tag has not seen the audio behind it.
int64_t probeSizeBytes(const DescriptorFile& file) {
    uint8_t header[10];
    if (!file.readFully(0, header, sizeof(header)) || memcmp(header, "ID3", 3) != 0) {
        return kDefaultProbeBytes;
    }
    int64_t tagBytes = 0;
    for (int i = 6; i < 10; ++i) tagBytes = (tagBytes << 7) | (header[i] & 0x7F);
    return std::min(kDefaultProbeBytes + tagBytes, kMaxProbeBytes);
}

// A file that refers to other files would make this process open them.
int refuseToOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
    return AVERROR(EACCES);
}

}  // namespace

Demuxer::Demuxer() = default;
Demuxer::~Demuxer() = default;

Demuxer::Opened Demuxer::open(const std::shared_ptr<const DescriptorFile>& file, ProbeDepth depth) {
    std::unique_ptr<Demuxer> demuxer(new Demuxer);
    status_t status = demuxer->openInput(file, depth);
    const bool isEnough =
        depth == ProbeDepth::kHeader || depth == ProbeDepth::kSamples ||
        (depth == ProbeDepth::kHeaderIfEnough && status == OK && demuxer->headerIsEnough());
    if (status == OK && !isEnough) {
        status = demuxer->readStreams();
    }
    if (status != OK) return {nullptr, status};
    return {std::move(demuxer), OK};
}

status_t Demuxer::readStreams() {
    // Decoders parse the first packets.
    std::vector<AVDictionary*> options(mContext->nb_streams, nullptr);
    for (AVDictionary*& each : options) av_dict_set_int(&each, "max_pixels", kMaxPixels, 0);
    const int result = avformat_find_stream_info(mContext.get(), options.data());
    for (AVDictionary*& each : options) av_dict_free(&each);
    // Demuxers resume behind a failed read, so that the result alone is not enough.
    if (result < 0 || mIo->file().status() != OK) return reasonOf(result);
    return checkLimits();
}

status_t Demuxer::checkLimits() const {
    std::optional<std::string> reason = checkStreams(mContext->nb_streams);
    for (unsigned i = 0; i < mContext->nb_streams && !reason; ++i) {
        const AVStream& stream = *mContext->streams[i];
        const AVCodecParameters& parameters = *stream.codecpar;
        if (parameters.codec_type != AVMEDIA_TYPE_VIDEO || !isDecodable(stream)) continue;
        reason = checkSize("video", parameters.width, parameters.height);
    }
    if (!reason) return OK;
    mIo->file().refuse(*reason);
    return ERROR_UNSUPPORTED;
}

status_t Demuxer::reasonOf(int error) const {
    if (mIo->file().status() != OK) return ERROR_IO;
    if (error != AVERROR(ENOMEM)) return ERROR_UNSUPPORTED;
    const std::optional<std::string> reason = checkAllocation();
    if (!reason) return NO_MEMORY;
    // libavformat also reports too many streams as a lack of memory.
    mIo->file().refuse("the file has more than " + std::to_string(kMaxOpenedStreams) +
                       " streams, or " + *reason);
    return ERROR_UNSUPPORTED;
}

status_t Demuxer::openInput(const std::shared_ptr<const DescriptorFile>& file, ProbeDepth depth) {
    mIo = AvioFile::forReading(file, kIoBufferBytes);
    AVFormatContext* context = avformat_alloc_context();
    if (mIo == nullptr || context == nullptr) {
        avformat_free_context(context);
        return NO_MEMORY;
    }
    context->pb = mIo->context();
    context->io_open = refuseToOpen;
    context->max_streams = kMaxOpenedStreams;
    context->format_probesize = static_cast<int>(probeSizeBytes(*file));
    AVDictionary* options = nullptr;
    if (av_dict_set(&options, "format_whitelist", demuxerNames().c_str(), 0) < 0 ||
        av_dict_set(&options, "codec_whitelist", decoderNames().c_str(), 0) < 0 ||
        (depth == ProbeDepth::kSamples && av_dict_set(&options, "ignore_editlist", "1", 0) < 0)) {
        av_dict_free(&options);
        avformat_free_context(context);
        return NO_MEMORY;
    }
    // Frees the context when it fails.
    const int result = avformat_open_input(&context, "", nullptr, &options);
    av_dict_free(&options);
    if (result < 0) return reasonOf(result);
    mContext.reset(context);
    if (file->status() != OK) return ERROR_IO;
    if (context->probe_score <= AVPROBE_SCORE_RETRY) return ERROR_UNSUPPORTED;
    return checkLimits();
}

bool Demuxer::isIsoFile() const { return av_match_name("mov", mContext->iformat->name) != 0; }

bool Demuxer::isMatroska() const { return av_match_name("matroska", mContext->iformat->name) != 0; }

bool Demuxer::headerIsEnough() const { return isIsoFile() || isMatroska(); }

bool Demuxer::hasOnlyFrameNumbers() const {
    return av_match_name("avi", mContext->iformat->name) != 0;
}

bool Demuxer::isRawVideo() const {
    return av_match_name(mContext->iformat->name, "h264,hevc,mpegvideo,m4v") != 0;
}

bool Demuxer::isAnimation() const {
    return av_match_name(mContext->iformat->name, "gif,apng") != 0;
}

bool Demuxer::mayHaveDiscontinuities() const {
    return (mContext->iformat->flags & AVFMT_TS_DISCONT) != 0;
}

bool Demuxer::indexIsOfVideo() const {
    return av_match_name(mContext->iformat->name, "matroska,webm,flv,asf") != 0;
}

status_t Demuxer::readPacket(int index, AVPacket* packet) {
    status_t status = ERROR_END_OF_STREAM;
    for (int errors = 0; errors < kMaxReadErrors;) {
        av_packet_unref(packet);
        const int result = av_read_frame(mContext.get(), packet);
        // Also after a success: the packet may lack its end, or follow unreadable bytes.
        if (mIo->file().status() != OK) {
            status = ERROR_IO;
            break;
        }
        if (result == AVERROR_EOF) break;
        if (result == AVERROR(ENOMEM)) {
            if (const auto reason = checkAllocation()) mIo->file().refuse(*reason);
            status = NO_MEMORY;
            break;
        }
        if (result < 0) {
            ++errors;
            continue;
        }
        const bool wanted = index == kAnyStream || packet->stream_index == index;
        if (wanted && packet->size > 0) return OK;
    }
    av_packet_unref(packet);
    return status;
}

int64_t Demuxer::toUs(int index, int64_t time) const {
    const int64_t us = av_rescale_q(time, mContext->streams[index]->time_base, {1, 1000000});
    return std::clamp(us, -kMaxTimeUs, kMaxTimeUs);
}

void Demuxer::keepOnly(int index) {
    for (unsigned i = 0; i < mContext->nb_streams; ++i) {
        mContext->streams[i]->discard =
            static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
}

}  // namespace qmmediaeditor
}  // namespace android
