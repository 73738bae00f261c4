#include "host/codec/VideoEncoder.h"

#include <android/log.h>
#include <media/stagefright/MediaCodec.h>
#include <media/stagefright/MediaCodecConstants.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "host/codec/CodecTable.h"
#include "host/codec/InputLimits.h"
#include "host/codec/PacketChecksum.h"
#include "host/convert/FrameScaler.h"
#include "host/foundation/CpuCount.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavutil/dict.h>
#include <libavutil/opt.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "VideoEncoder";
// Frames that wait for the encoder: two for each of its threads keep them busy, and more would only
// cost memory.
constexpr size_t kMinInputCount = 4;
constexpr size_t kMaxInputCount = 8;
constexpr size_t kOutputCount = 16;
constexpr double kDefaultFrameRate = 30;
// Bits per pixel, where no bit rate is requested.
constexpr double kDefaultBitsPerPixel = 0.1;
// Every decoder supports this rate (ITU-T H.264, level 1). Inputs of still images request lower
// ones, which leave nothing for key frames.
constexpr int64_t kMinBitRate = 64000;
// The bit rate may exceed the requested one for a while, at most by this factor.
constexpr double kPeakOverMean = 1.5;
constexpr double kBufferSeconds = 2;
// Where the rate is held: the buffer is about as full in the end as in the beginning.
constexpr double kHeldBufferSeconds = 1;
constexpr double kHeldOccupancy = 0.6;
// The first frame is a key frame and needs more bits than those that refer to it.
constexpr double kFirstOccupancy = 0.9;
constexpr int kMicroseconds = 1000000;
constexpr int kMaxKeyFrameDistance = 10000;
// In rows. Prediction ends at the edges of a slice, so that lower ones need more bits.
constexpr int kMinSliceHeight = 128;

size_t inputCount(int threads) {
    return std::clamp(2 * static_cast<size_t>(threads), kMinInputCount, kMaxInputCount);
}

// Keeps a frame's memory unchanged while the encoder reads it: holds the input buffer, or the owner
// of the frame that the buffer refers to.
struct FrameMemory {
    std::shared_ptr<const void> lease;
    sp<RefBase> owner;
};

void releaseMemory(void* memory, uint8_t* /* data */) { delete static_cast<FrameMemory*>(memory); }

// The AVC encoder's parameter sets. As it works with timestamps, it states their resolution as the
// stream's tick rate, from which readers of the stream without its container take the frame rate;
// so the tick rate becomes that of the frames' fields (ITU-T H.264, E.2.1).
sp<ABuffer> avcParameterSets(const AVCodecContext& context) {
    AVBSFContext* allocated = nullptr;
    const AVBitStreamFilter* filter = av_bsf_get_by_name("h264_metadata");
    if (filter == nullptr) {
        // A build of libavcodec without it: the stream is valid without the frame rate.
        return ABuffer::CreateAsCopy(context.extradata,
                                     static_cast<size_t>(context.extradata_size));
    }
    if (av_bsf_alloc(filter, &allocated) < 0) return nullptr;
    const BitstreamFilterPtr rewriter(allocated);
    const AVRational fields = av_mul_q({2, 1}, context.framerate);
    if (avcodec_parameters_from_context(rewriter->par_in, &context) < 0 ||
        av_opt_set_q(rewriter->priv_data, "tick_rate", fields, 0) < 0 ||
        av_bsf_init(rewriter.get()) < 0) {
        return nullptr;
    }
    const AVCodecParameters& made = *rewriter->par_out;
    return ABuffer::CreateAsCopy(made.extradata, static_cast<size_t>(made.extradata_size));
}

}  // namespace

// Settings that the format requests.
struct VideoEncoder::Settings {
    explicit Settings(const AMessage& format) {
        int32_t colorFormat = COLOR_FormatYUV420Planar;
        format.findInt32("width", &width);
        format.findInt32("height", &height);
        format.findInt32("color-format", &colorFormat);
        format.findInt32("i-frame-interval", &keyFrameSeconds);
        format.findInt32("profile", &profileBit);
        format.findInt32("level", &levelBit);
        float rate = 0;
        int32_t wholeRate = 0;
        if (format.findInt32("frame-rate", &wholeRate)) rate = static_cast<float>(wholeRate);
        format.findFloat("frame-rate", &rate);
        frameRate = rate > 0 ? static_cast<double>(rate) : kDefaultFrameRate;
        int32_t bits = 0;
        format.findInt32("bitrate", &bits);
        bitRate = bits;
        if (bits <= 0) {
            bitRate = static_cast<int64_t>(static_cast<double>(width) * height * frameRate *
                                           kDefaultBitsPerPixel);
        }
        bitRate = std::max(bitRate, kMinBitRate);
        possible = width >= 2 && height >= 2 && width <= kMaxSide && height <= kMaxSide &&
                   colorFormat == COLOR_FormatYUV420Planar;
    }

    int keyFrameDistance() const {
        // With a variable frame rate, only timestamps determine when a key frame is due.
        if (keyFrameSeconds < 0 || variableRate) return kMaxKeyFrameDistance;
        const double frames = keyFrameSeconds * frameRate;
        return static_cast<int>(std::clamp(frames, 1.0, double{kMaxKeyFrameDistance}));
    }

    bool possible = false;
    bool variableRate = false;
    int32_t width = 0;
    int32_t height = 0;
    int32_t keyFrameSeconds = 1;
    int32_t profileBit = 0;
    int32_t levelBit = 0;
    double frameRate = 0;  // frames per second
    int64_t bitRate = 0;   // bits per second
};

VideoEncoder::VideoEncoder(const HostOptions& options, std::shared_ptr<SessionTimeline> session)
    : mOptions(options),
      mThreads(codecThreads(options.threads)),
      mSession(std::move(session)),
      mFrame(av_frame_alloc()),
      mLast{-1, -1},
      mAskedKeyFrameUs(options.keyFrameUs) {}

VideoEncoder::~VideoEncoder() = default;

status_t VideoEncoder::configure(const sp<AMessage>& format, CodecBuffers* buffers) {
    if (mFrame == nullptr) return NO_MEMORY;
    AString mime;
    if (!format->findString("mime", &mime)) return BAD_VALUE;
    Settings settings(*format);
    // Level and bits per frame follow from the average frame rate, not from the shortest distance.
    const double average = mSession == nullptr ? 0 : mSession->averageFrameRate();
    if (average > 0) {
        settings.frameRate = std::min(settings.frameRate, average);
        settings.variableRate = true;
    }
    mKeyFrameIntervalUs = int64_t{std::max(settings.keyFrameSeconds, 0)} * kMicroseconds;
    const CodecInfo* codec = findEncodedCodec(mime.c_str());
    // The MPEG-4 encoder writes beyond its tables at a larger size.
    const bool tooLarge = codec != nullptr && codec->limits.maxSide > 0 &&
                          std::max(settings.width, settings.height) > codec->limits.maxSide;
    if (!settings.possible || tooLarge) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "no encoder supports this format: %s",
                            format->debugString().c_str());
        return ERROR_UNSUPPORTED;
    }
    mWidth = settings.width;
    mHeight = settings.height;
    const size_t chromaBytes =
        static_cast<size_t>((mWidth + 1) / 2) * static_cast<size_t>((mHeight + 1) / 2);
    const size_t frameBytes =
        static_cast<size_t>(mWidth) * static_cast<size_t>(mHeight) + 2 * chromaBytes;

    status_t status = mEncoder.prepare(mime);
    if (status != OK) return status;
    setParameters(settings);
    AVDictionary* options = nullptr;
    if (mEncoder.context()->codec_id == AV_CODEC_ID_H264) {
        if (!setAvcOptions(settings, &options)) {
            av_dict_free(&options);
            return NO_MEMORY;
        }
    }
    status = mEncoder.open(options);
    if (status != OK) return status;

    const AVCodecContext& context = *mEncoder.context();
    mCodecSpecificData = context.codec_id == AV_CODEC_ID_H264 ? avcParameterSets(context)
                                                              : mEncoder.codecSpecificData();
    if (mCodecSpecificData == nullptr && context.extradata_size > 0) return NO_MEMORY;
    mFormat = new AMessage;
    mFormat->setString("mime", mime);
    mFormat->setInt32("width", mWidth & ~1);
    mFormat->setInt32("height", mHeight & ~1);
    if (mCodecSpecificData != nullptr) mFormat->setBuffer("csd-0", mCodecSpecificData);

    buffers->inputCount = inputCount(mThreads);
    buffers->inputBytes = frameBytes;
    buffers->inputsAreFrames = true;
    buffers->outputCount = kOutputCount;
    if (mSession != nullptr && mSession->observer() != nullptr) {
        mSession->observer()->onEncoderOpened(true, mEncoder.context()->codec->name, format);
        if (mOptions.checksEncoding) {
            mCheck = std::make_unique<EncodedVideoCheck>(mFormat, mThreads, mSession->observer());
        }
    }
    return OK;
}

void VideoEncoder::setParameters(const Settings& settings) {
    AVCodecContext* context = mEncoder.context();
    context->width = settings.width & ~1;
    context->height = settings.height & ~1;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    context->sample_aspect_ratio = {1, 1};
    context->color_range = AVCOL_RANGE_MPEG;
    context->color_primaries = AVCOL_PRI_BT709;
    context->color_trc = AVCOL_TRC_BT709;
    context->colorspace = AVCOL_SPC_BT709;
    context->chroma_sample_location = AVCHROMA_LOC_LEFT;
    context->max_b_frames = 0;
    context->gop_size = settings.keyFrameDistance();
    setBitRate(settings);
    const FrameRate rate = frameRateOf(settings);
    context->framerate = {static_cast<int>(rate.numerator), static_cast<int>(rate.denominator)};
    context->thread_count = mThreads;
    context->time_base = {1, kMicroseconds};
    if (context->codec_id == AV_CODEC_ID_MPEG4 || context->codec_id == AV_CODEC_ID_H263) {
        // These two and their rate control count in frames. MPEG-4 has 16 bits for either number.
        av_reduce(&context->framerate.num, &context->framerate.den, context->framerate.num,
                  context->framerate.den, UINT16_MAX);
        context->time_base = av_inv_q(context->framerate);
    }
    if (context->codec_id == AV_CODEC_ID_MPEG4) context->level = mpeg4LevelFor(demandOf(settings));
}

void VideoEncoder::setBitRate(const Settings& settings) {
    AVCodecContext* context = mEncoder.context();
    int64_t mean = settings.bitRate;
    const bool isHeld =
        !hasConstantQuality() && mOptions.holdsAvcBitrate && context->codec_id == AV_CODEC_ID_H264;
    if (hasConstantQuality()) {
        if (!mOptions.avcMaxBitrate) return;
        mean = std::max(*mOptions.avcMaxBitrate, kMinBitRate);
        context->rc_max_rate = mean;
    } else {
        context->bit_rate = mean;
        const double peakOverMean = isHeld ? 1 : kPeakOverMean;
        context->rc_max_rate = static_cast<int64_t>(static_cast<double>(mean) * peakOverMean);
    }
    double bufferBits = static_cast<double>(mean) * (isHeld ? kHeldBufferSeconds : kBufferSeconds);
    const double keyFrameBits = static_cast<double>(settings.width) * settings.height;
    if (!isHeld) bufferBits = std::max(bufferBits, keyFrameBits);
    context->rc_buffer_size = static_cast<int>(std::min(bufferBits, double{INT32_MAX}));
    context->rc_initial_buffer_occupancy =
        static_cast<int>(context->rc_buffer_size * (isHeld ? kHeldOccupancy : kFirstOccupancy));
}

bool VideoEncoder::hasConstantQuality() const {
    return mOptions.avcQuality && mEncoder.context()->codec_id == AV_CODEC_ID_H264;
}

VideoDemand VideoEncoder::demandOf(const Settings& settings) const {
    return {settings.width, settings.height, settings.frameRate, mEncoder.context()->rc_max_rate};
}

std::optional<FrameRate> VideoEncoder::inputRate(const Settings& settings) const {
    const std::optional<FrameRate> input =
        mSession == nullptr ? std::nullopt : mSession->frameRate();
    return input && input->value() <= settings.frameRate ? input : std::nullopt;
}

FrameRate VideoEncoder::frameRateOf(const Settings& settings) const {
    if (const std::optional<FrameRate> input = inputRate(settings)) return *input;
    const AVRational requested = av_d2q(settings.frameRate, 100000);
    return {requested.num, requested.den};
}

bool VideoEncoder::setAvcOptions(const Settings& settings, AVDictionary** options) const {
    const AVCodecContext& context = *mEncoder.context();
    bool set = av_dict_set(options, "preset", mOptions.avcPreset.c_str(), 0) >= 0;
    // A requested key frame must be an IDR frame, which can be sought.
    set = set && av_dict_set(options, "forced-idr", "1", 0) >= 0;
    // With a thread for each frame, the rate control looks at how far the other threads are, and
    // the output is different each time. Slices do so only where a single frame would exceed the
    // buffer of the max bit rate. Some of x264's functions for newer processors round differently.
    const int slices = std::clamp(context.height / kMinSliceHeight, 1, mThreads);
    std::string parameters = "cpu-independent=1:sliced-threads=1:threads=" + std::to_string(slices);
    // The stream then says that its frame rate is constant.
    if (inputRate(settings)) parameters += ":force-cfr=1";
    // With constant quality, x264 must not change the quantizer within a frame before the buffer of
    // the max bit rate requires it.
    if (hasConstantQuality()) parameters += ":ratetol=1000";
    set = set && av_dict_set(options, "x264-params", parameters.c_str(), 0) >= 0;
    if (hasConstantQuality()) {
        set = set && av_dict_set_int(options, "crf", *mOptions.avcQuality, 0) >= 0;
    }
    const char* profile = avcProfileName(settings.profileBit);
    if (profile != nullptr) set = set && av_dict_set(options, "profile", profile, 0) >= 0;
    mEncoder.context()->level = FF_LEVEL_UNKNOWN;
    if (const int level = avcLevelFor(settings.levelBit, demandOf(settings)); level != 0) {
        mEncoder.context()->level = level;
    }
    return set;
}

// libavcodec requires rising timestamps; an input that repeats one or goes back gets the next
// possible one.
VideoEncoder::Timestamp VideoEncoder::timestampOf(int64_t timeUs) {
    const int64_t laterUs = std::max(timeUs, mLast.timeUs + 1);
    const int64_t pts = av_rescale_q(laterUs, {1, kMicroseconds}, mEncoder.context()->time_base);
    mLast = {std::max(pts, mLast.pts + 1), laterUs};
    mPending.push_back(mLast);
    return mLast;
}

int64_t VideoEncoder::timeOf(int64_t pts) {
    while (!mPending.empty() && mPending.front().pts < pts) mPending.pop_front();
    if (mPending.empty() || mPending.front().pts != pts) {
        return av_rescale_q(pts, mEncoder.context()->time_base, {1, kMicroseconds});
    }
    const int64_t timeUs = mPending.front().timeUs;
    mPending.pop_front();
    return timeUs;
}

// The encoder's own interval is not enough, because it counts frames: they do not measure time
// where frames are missing and at a variable rate. It begins again at each key frame, also at one
// that the encoder inserts where the scene changes.
bool VideoEncoder::isKeyFrameDue(int64_t timeUs) {
    // Timestamps are rounded to microseconds.
    constexpr int64_t kRoundingUs = 2;
    const bool isAsked = mAskedKeyFrameUs && timeUs >= *mAskedKeyFrameUs;
    if (isAsked) mAskedKeyFrameUs.reset();
    if (mKeyFrameIntervalUs == 0) return isAsked;
    if (!isAsked && mIntervalStartUs &&
        timeUs + kRoundingUs < *mIntervalStartUs + mKeyFrameIntervalUs) {
        ++mIntervalFrames;
        return false;
    }
    const bool isDue = isAsked || mIntervalFrames < mEncoder.context()->gop_size;
    mIntervalStartUs = timeUs;
    mIntervalFrames = 1;
    return isDue;
}

// A whole frame without padding, at the start of an input buffer.
FramePlanes VideoEncoder::inputPlanes(uint8_t* data) const {
    const ptrdiff_t chromaStride = (mWidth + 1) / 2;
    FramePlanes planes;
    planes.plane[0] = {data, mWidth};
    planes.plane[1] = {data + ptrdiff_t{mWidth} * mHeight, chromaStride};
    planes.plane[2] = {planes.plane[1].data + chromaStride * ((mHeight + 1) / 2), chromaStride};
    return planes;
}

status_t VideoEncoder::accept(CodecInput input) {
    Scaled scaled = takeScaled(input.data);
    if (scaled.failed) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "a frame could not be scaled");
        return NO_MEMORY;
    }
    // The size that the caller computes lacks the half samples of a frame with an odd size; the
    // buffer has them.
    const size_t minBytes = static_cast<size_t>(mWidth) * static_cast<size_t>(mHeight) * 3 / 2;
    if (input.size < minBytes) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "a frame of %zu bytes is too short",
                            input.size);
        return OK;
    }
    AVFrame* frame = mFrame.get();
    av_frame_unref(frame);
    const AVCodecContext& context = *mEncoder.context();
    frame->format = context.pix_fmt;
    frame->width = context.width;
    frame->height = context.height;
    frame->color_range = context.color_range;
    frame->color_primaries = context.color_primaries;
    frame->color_trc = context.color_trc;
    frame->colorspace = context.colorspace;
    frame->chroma_location = context.chroma_sample_location;
    frame->sample_aspect_ratio = context.sample_aspect_ratio;
    const FramePlanes planes =
        scaled.owner != nullptr ? scaled.planes : inputPlanes(const_cast<uint8_t*>(input.data));
    for (int i = 0; i < 3; ++i) {
        frame->data[i] = planes.plane[i].data;
        frame->linesize[i] = static_cast<int>(planes.plane[i].stride);
    }
    const Timestamp timestamp = timestampOf(input.timeUs);
    frame->pts = timestamp.pts;
    frame->pict_type = isKeyFrameDue(timestamp.timeUs) ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;

    auto* memory = new FrameMemory;
    const sp<RefBase> owner = scaled.owner;
    memory->owner = std::move(scaled.owner);
    // The buffer is free again at once when the frame lies elsewhere.
    if (memory->owner == nullptr) memory->lease = std::move(input.lease);
    const size_t bytes = static_cast<size_t>(
        frame->data[2] + frame->linesize[2] * ptrdiff_t{(mHeight + 1) / 2} - frame->data[0]);
    frame->buf[0] =
        av_buffer_create(frame->data[0], bytes, releaseMemory, memory, AV_BUFFER_FLAG_READONLY);
    if (frame->buf[0] == nullptr) {
        delete memory;
        return NO_MEMORY;
    }
    if (mCheck != nullptr && !addToCheck(*frame, owner, timestamp.timeUs)) return NO_MEMORY;
    const status_t status = mEncoder.send(frame);
    av_frame_unref(frame);
    if (status == OK && mSession != nullptr && mSession->observer() != nullptr) {
        mSession->observer()->onFrameEncoded(timestamp.timeUs);
    }
    return status;
}

// An input buffer must become free when the encoder has read it, so that its frame is copied; other
// frames are kept by their owner.
bool VideoEncoder::addToCheck(const AVFrame& frame, sp<RefBase> owner, int64_t timeUs) {
    const size_t bytes = frame.buf[0]->size;
    uint8_t* data = frame.data[0];
    if (owner == nullptr) {
        const sp<ABuffer> copy = FrameAllocator::makeBuffer(bytes);
        if (copy == nullptr || copy->data() == nullptr) return false;
        data = copy->data();
        memcpy(data, frame.data[0], bytes);
        owner = copy;
    }
    FramePtr own(av_frame_alloc());
    if (own == nullptr) return false;
    own->format = frame.format;
    own->width = frame.width;
    own->height = frame.height;
    for (int i = 0; i < 3; ++i) {
        own->data[i] = data + (frame.data[i] - frame.data[0]);
        own->linesize[i] = frame.linesize[i];
    }
    auto memory = std::make_unique<FrameMemory>();
    memory->owner = std::move(owner);
    own->buf[0] = av_buffer_create(data, bytes, releaseMemory, memory.get(), 0);
    if (own->buf[0] == nullptr) return false;
    static_cast<void>(memory.release());
    mCheck->addInput(std::move(own), timeUs);
    return true;
}

status_t VideoEncoder::finish() { return mEncoder.send(nullptr); }

CodecBackend::Step VideoEncoder::produce(CodecOutput* output) {
    if (mCodecSpecificData != nullptr) {
        output->buffer = mCodecSpecificData;
        output->flags = MediaCodec::BUFFER_FLAG_CODECCONFIG;
        mCodecSpecificData.clear();
        return Step::kOutput;
    }
    switch (mEncoder.receive()) {
        case PacketEncoder::Received::kPacket:
            break;
        case PacketEncoder::Received::kNeedsInput:
            return Step::kNeedsInput;
        case PacketEncoder::Received::kEnd:
            if (mCheck != nullptr) mCheck->finish();
            output->timeUs = std::max<int64_t>(mLast.timeUs, 0);
            return Step::kEnd;
        case PacketEncoder::Received::kFailed:
            return Step::kFailed;
    }
    const AVPacket& packet = mEncoder.packet();
    output->timeUs = timeOf(packet.pts);
    if (mCheck != nullptr) {
        const bool isAvc = mEncoder.context()->codec_id == AV_CODEC_ID_H264;
        const PacketForm form = isAvc ? PacketForm::kStartCodes : PacketForm::kWhole;
        mSession->observer()->onPacketEncoded(
            true, output->timeUs,
            packetChecksum(packet.data, static_cast<size_t>(packet.size), form));
        mCheck->addPacket(packet, output->timeUs);
    }
    if ((packet.flags & AV_PKT_FLAG_KEY) != 0) output->flags = MediaCodec::BUFFER_FLAG_SYNCFRAME;
    output->buffer = mEncoder.takePayload();
    return output->buffer == nullptr ? Step::kFailed : Step::kOutput;
}

}  // namespace qmmediaeditor
}  // namespace android
