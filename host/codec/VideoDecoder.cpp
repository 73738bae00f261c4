#include "host/codec/VideoDecoder.h"

#include <android/log.h>
#include <inttypes.h>
#include <libyuv/planar_functions.h>
#include <media/stagefright/MediaCodecConstants.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/codec/InputLimits.h"
#include "host/convert/ColorTags.h"
#include "host/foundation/CpuCount.h"
#include "host/foundation/FrameAllocator.h"
#include "host/foundation/SharedFrames.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "VideoDecoder";

constexpr size_t kInputCount = 6;
// The component moves eleven frames at once. With few cores the encoder uses all of them while the
// decoder waits for room, so that more waiting frames cost only memory.
constexpr size_t kMinOutputCount = 4;
constexpr size_t kMaxOutputCount = 16;
constexpr size_t kMinInputBytes = 1024 * 1024;
// With one, the encoder waits for it where decoding takes half of the time.
constexpr int kMinDecoderThreads = 2;
constexpr int64_t kSecondUs = 1000000;
constexpr int kDefaultFrameRate = 30;
// Half of it, the stride of a chroma row, still suits every vector instruction.
constexpr int kStrideAlignment = 128;
// More frames than any decoder delays; older timestamps belong to lost frames.
constexpr size_t kMaxInside = 128;

size_t inputBytesOf(const AMessage& format, int width, int height) {
    int32_t largest = 0;
    if (format.findInt32("max-input-size", &largest) && largest > 0) {
        return static_cast<size_t>(largest);
    }
    return std::max(kMinInputBytes,
                    static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2);
}

size_t outputCount(int threads) {
    return std::clamp(2 * static_cast<size_t>(threads), kMinOutputCount, kMaxOutputCount);
}

// Measured with AVC on both sides. Slower presets do more, and then the decoder needs no more
// threads than with this one.
double encodingWork(const std::string& preset) {
    if (preset == "ultrafast") return 0.6;
    if (preset == "superfast") return 1;
    return 2.4;
}

void allowThreads(AVCodecContext* context, int threads) {
    context->thread_count = threads;
#if LIBAVCODEC_VERSION_MAJOR < 60
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    // Later versions always behave like this.
    context->thread_safe_callbacks = 1;
#pragma GCC diagnostic pop
#endif
}

FramePlanes planesOf(const AVFrame& frame) {
    FramePlanes planes;
    for (int i = 0; i < 3; ++i) planes.plane[i] = {frame.data[i], frame.linesize[i]};
    return planes;
}

int64_t durationOf(const AVFrame& frame) {
#if LIBAVUTIL_VERSION_MAJOR < 58
    return frame.pkt_duration;
#else
    return frame.duration;
#endif
}

void copyFrame(const AVFrame& from, const AVFrame& to) {
    for (int i = 0; i < 3; ++i) {
        const int shift = i == 0 ? 0 : 1;
        libyuv::CopyPlane(from.data[i], from.linesize[i], to.data[i], to.linesize[i],
                          AV_CEIL_RSHIFT(from.width, shift), AV_CEIL_RSHIFT(from.height, shift));
    }
}

// Decoders may read a little beyond the last plane.
constexpr size_t kReadBeyondBytes = 256;
// A quarter of it, a row of 4:1:1 chroma, still suits every vector instruction.
constexpr int kWidthAlignment = 256;

void releaseFrameMemory(void* bytes, uint8_t* data) {
    FrameAllocator::release(data, reinterpret_cast<size_t>(bytes));
}

AVBufferRef* allocateFrameMemory(size_t bytes) {
    auto* data = static_cast<uint8_t*>(FrameAllocator::allocate(bytes));
    if (data == nullptr) return nullptr;
    AVBufferRef* buffer =
        av_buffer_create(data, bytes, releaseFrameMemory, reinterpret_cast<void*>(bytes), 0);
    if (buffer == nullptr) FrameAllocator::release(data, bytes);
    return buffer;
}

class FrameBuffer : public ABuffer {
public:
    FrameBuffer(FramePtr frame, size_t bytes)
        : ABuffer(frame->data[0], bytes), mFrame(std::move(frame)) {}

protected:
    ~FrameBuffer() override { SharedFrames::remove(this); }

private:
    const FramePtr mFrame;
};

}  // namespace

VideoDecoder::VideoDecoder(const HostOptions& options, std::shared_ptr<SessionTimeline> session)
    : mSession(std::move(session)),
      mThreads(codecThreads(options.threads)),
      mRequestedSize(options.frameSize),
      mEncodingWork(encodingWork(options.avcPreset)),
      mDeinterlaces(options.deinterlace),
      mFrame(av_frame_alloc()),
      mDeinterlacer(mThreads),
      mDecoder(mSession == nullptr ? nullptr : mSession->observer()) {}

VideoDecoder::~VideoDecoder() {
    if (mUnconverted > 0) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "%" PRId64 " frames of an unsupported pixel format were dropped",
                            mUnconverted);
    }
}

status_t VideoDecoder::configure(const sp<AMessage>& format, CodecBuffers* buffers) {
    if (mFrame == nullptr) return NO_MEMORY;
    status_t status = mDecoder.prepare(format);
    if (status != OK) return status;
    AVCodecContext* context = mDecoder.context();
    if (context->pix_fmt != AV_PIX_FMT_NONE && !VideoFrameConverter::canConvert(context->pix_fmt)) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "pixel format %d cannot be converted",
                            context->pix_fmt);
        return ERROR_UNSUPPORTED;
    }
    if (context->codec_id == AV_CODEC_ID_GIF || context->codec_id == AV_CODEC_ID_APNG) {
        mConverter.blendAlpha();
    }
    context->opaque = this;
    context->get_buffer2 = getBuffer;
    allowThreads(context, threadsFor(*context));
    // Opening the decoder may change the size.
    const int codedWidth = context->width;
    const int codedHeight = context->height;
    status = mDecoder.open();
    if (status != OK) return status;

    mWidth = codedWidth;
    mHeight = codedHeight;
    format->findInt32("width", &mWidth);
    format->findInt32("height", &mHeight);
    format->findInt32("frame-rate", &mFrameRate);
    mSource = TrackSource::find(format);
    if (mSession != nullptr && mSource != nullptr && mSource->frameRate()) {
        mSession->setFrameRate(*mSource->frameRate());
    }
    float averageFrameRate = 0;
    if (mSession != nullptr && format->findFloat("average-frame-rate", &averageFrameRate)) {
        mSession->setAverageFrameRate(static_cast<double>(averageFrameRate));
    }
    if (mWidth > 0 && mHeight > 0) setLayout({mWidth, mHeight});

    buffers->inputCount = kInputCount;
    buffers->inputBytes = inputBytesOf(*format, std::max(mWidth, 0), std::max(mHeight, 0));
    buffers->outputCount = outputCount(mThreads);
    buffers->announcesFormat = true;
    return OK;
}

// Decoder and encoder share the cores, and each thread of the decoder holds frames. So it gets its
// share of the work in threads, and where there are more than two one more, because frames differ.
// Decoders other than AVC's take longer, and frames in other formats are converted as well.
int VideoDecoder::threadsFor(const AVCodecContext& context) const {
    if (context.codec_id != AV_CODEC_ID_H264 || context.pix_fmt != AV_PIX_FMT_YUV420P) {
        return mThreads;
    }
    const auto pixels = static_cast<double>(pixelsOf({context.width, context.height}));
    double encodedPixels = pixels;
    if (mRequestedSize) {
        encodedPixels = std::min(encodedPixels, static_cast<double>(pixelsOf(*mRequestedSize)));
    }
    const double share = pixels / (pixels + encodedPixels * mEncodingWork);
    const int threads = static_cast<int>(std::ceil(share * mThreads)) + (mThreads > 2 ? 1 : 0);
    return std::clamp(threads, std::min(kMinDecoderThreads, mThreads), mThreads);
}

// Decoders write whole blocks, which need more room than the visible frame.
FrameLayout VideoDecoder::layoutOf(const FrameSize& size) {
    int alignedWidth = size.width;
    int alignedHeight = size.height;
    int unused[AV_NUM_DATA_POINTERS] = {};
    avcodec_align_dimensions2(mDecoder.context(), &alignedWidth, &alignedHeight, unused);
    FrameLayout layout;
    layout.width = size.width;
    layout.height = size.height;
    layout.stride = FFALIGN(alignedWidth, kStrideAlignment);
    layout.sliceHeight = FFALIGN(alignedHeight, 2);
    return layout;
}

void VideoDecoder::setLayout(const FrameSize& decoded) {
    FrameLayout layout = layoutOf(decoded);
    {
        Mutex::Autolock lock(mPoolLock);
        mPool = std::make_shared<FramePool>(layout);
    }
    if (mRequestedSize && pixelsOf(*mRequestedSize) < pixelsOf(decoded)) {
        layout = layoutOf(*mRequestedSize);
        mScaledPool = std::make_unique<FramePool>(layout);
    }
    mFormat = new AMessage;
    mFormat->setString("mime", MEDIA_MIMETYPE_VIDEO_RAW);
    mFormat->setInt32("width", layout.stride);
    mFormat->setInt32("height", layout.sliceHeight);
    mFormat->setRect("crop", 0, 0, layout.width - 1, layout.height - 1);
    mFormat->setInt32("stride", layout.stride);
    mFormat->setInt32("slice-height", layout.sliceHeight);
    mFormat->setInt32("color-format", COLOR_FormatYUV420Planar);
    if (mFrameRate > 0) mFormat->setInt32("frame-rate", mFrameRate);
}

std::shared_ptr<FramePool> VideoDecoder::pool() {
    Mutex::Autolock lock(mPoolLock);
    return mPool;
}

int VideoDecoder::getBuffer(AVCodecContext* context, AVFrame* frame, int flags) {
    auto* self = static_cast<VideoDecoder*>(context->opaque);
    const int result = self->allocate(context, frame, flags);
    // Decoders may go on without the frame and not report it.
    if (result == AVERROR(ENOMEM)) self->mLacksMemory = true;
    return result;
}

int VideoDecoder::allocate(AVCodecContext* context, AVFrame* frame, int flags) {
    if ((context->codec->capabilities & AV_CODEC_CAP_DR1) == 0) {
        return avcodec_default_get_buffer2(context, frame, flags);
    }
    const std::shared_ptr<FramePool> pool = this->pool();
    if (pool != nullptr && decodesInto(*pool, context, *frame)) {
        return pool->attach(frame) ? 0 : AVERROR(ENOMEM);
    }
    return attachPlanes(context, frame) ? 0 : avcodec_default_get_buffer2(context, frame, flags);
}

bool VideoDecoder::decodesInto(const FramePool& pool, AVCodecContext* context,
                               const AVFrame& frame) {
    if (frame.format != AV_PIX_FMT_YUV420P) return false;
    int width = frame.width;
    int height = frame.height;
    int alignment[AV_NUM_DATA_POINTERS] = {};
    avcodec_align_dimensions2(context, &width, &height, alignment);
    return width <= pool.layout().stride && height <= pool.layout().sliceHeight;
}

status_t VideoDecoder::accept(CodecInput input) {
    if (input.info.segment.number != mSegment) {
        mDecoder.flush();
        mDeinterlacer.restart();
        mInside.clear();
        mHasTime = false;
        mSegment = input.info.segment.number;
    }
    const AVPacket* properties = input.info.properties.get();
    const bool stated = properties != nullptr && properties->pts != AV_NOPTS_VALUE;
    mInside.insert(stated ? properties->pts : input.timeUs);
    if (mInside.size() > kMaxInside) mInside.erase(mInside.begin());
    return mDecoder.send(input);
}

status_t VideoDecoder::finish() { return mDecoder.sendEnd(); }

OutputSequencer::MemberState VideoDecoder::memberState() const {
    OutputSequencer::MemberState state;
    if (!mInside.empty()) state.earliestUs = *mInside.begin();
    return state;
}

CodecBackend::Step VideoDecoder::produce(CodecOutput* output) {
    for (;;) {
        if (mFrame->buf[0] == nullptr) {
            switch (nextFrame()) {
                case PacketDecoder::Received::kFrame:
                    break;
                case PacketDecoder::Received::kNeedsInput:
                    return Step::kNeedsInput;
                case PacketDecoder::Received::kFailed:
                    return Step::kFailed;
                case PacketDecoder::Received::kRefused:
                    return Step::kRefused;
                case PacketDecoder::Received::kEnd:
                    mInside.clear();
                    if (mSession != nullptr && mSource != nullptr) {
                        const TrackSource::Extent extent = mSource->extent();
                        mSession->endVideo(extent.continuesAtUs, extent.endUs);
                    }
                    output->timeUs = mLastTimeUs;
                    output->segment = mSegment;
                    return Step::kEnd;
            }
        }
        if (mFormat == nullptr) {
            // The frame waits until the format has been output.
            setLayout({mFrame->width, mFrame->height});
            return Step::kFormat;
        }
        mLastTimeUs = timeOf(*mFrame);
        mHasTime = true;
        mInside.erase(mInside.begin(), mInside.upper_bound(mLastTimeUs));
        if (mLastTimeUs < 0) {
            // An edit list starts after this frame, which was needed to decode later ones.
            av_frame_unref(mFrame.get());
            continue;
        }
        const bool taken = workingFrame(&output->buffer);
        output->timeUs = mLastTimeUs;
        output->segment = mSegment;
        const int64_t durationUs = durationOf(*mFrame);
        av_frame_unref(mFrame.get());
        if (!taken) return Step::kFailed;
        if (output->buffer != nullptr) {
            if (mSession != nullptr) mSession->addFrame(mLastTimeUs, durationUs);
            reportInterlaced();
            return Step::kOutput;
        }
        mUnconverted++;
    }
}

PacketDecoder::Received VideoDecoder::nextFrame() {
    for (;;) {
        if (Deinterlacer::Output ready = mDeinterlacer.take(); ready.frame != nullptr) {
            av_frame_move_ref(mFrame.get(), ready.frame.get());
            mWasDeinterlaced = ready.wasDeinterlaced;
            mWasInterlaced = ready.wasDeinterlaced || isInterlaced(*mFrame);
            return PacketDecoder::Received::kFrame;
        }
        const PacketDecoder::Received received = mDecoder.receive(mFrame.get());
        if (mLacksMemory) return PacketDecoder::Received::kFailed;
        if (received == PacketDecoder::Received::kEnd && mDeinterlacer.hasFrames()) {
            const status_t status = mDeinterlacer.finish();
            if (status != OK) return deinterlacingFailed(status);
            continue;
        }
        if (received != PacketDecoder::Received::kFrame) return received;
        replaceUnknownTags(mFrame.get());
        // libavcodec's HEVC decoder marks single fields, each of which is a frame of its own.
        const bool marksFields = mDecoder.context()->codec_id == AV_CODEC_ID_HEVC;
        mWasInterlaced = !marksFields && isInterlaced(*mFrame);
        mWasDeinterlaced = false;
        if (!mDeinterlaces || marksFields || !mDeinterlacer.needs(*mFrame)) return received;
        if (const status_t status = mDeinterlacer.add(mFrame.get()); status != OK) {
            return deinterlacingFailed(status);
        }
    }
}

PacketDecoder::Received VideoDecoder::deinterlacingFailed(status_t status) {
    const auto reason = status == NO_MEMORY ? checkAllocation() : std::nullopt;
    if (!reason) return PacketDecoder::Received::kFailed;
    if (mSession != nullptr && mSession->observer() != nullptr) {
        mSession->observer()->onRefused(*reason);
    }
    return PacketDecoder::Received::kRefused;
}

void VideoDecoder::reportInterlaced() {
    HostObserver* const observer = mSession == nullptr ? nullptr : mSession->observer();
    if (mDeinterlacer.failure() && !mReportedFailure) {
        mReportedFailure = true;
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "interlaced frames are not changed: %s",
                            mDeinterlacer.failure()->c_str());
        if (observer != nullptr) observer->onDeinterlacingFailed(*mDeinterlacer.failure());
    }
    if (!mWasInterlaced || observer == nullptr || !mSession->keeps(mLastTimeUs)) return;
    observer->onInterlacedFrame(mWasDeinterlaced);
}

// The last frames of a stream may have no timestamp, because no packet follows that would output
// them.
int64_t VideoDecoder::timeOf(const AVFrame& frame) const {
    if (frame.pts != AV_NOPTS_VALUE) return frame.pts;
    if (mHasTime)
        return mLastTimeUs + kSecondUs / (mFrameRate > 0 ? mFrameRate : kDefaultFrameRate);
    return mInside.empty() ? mLastTimeUs : *mInside.begin();
}

bool VideoDecoder::workingFrame(sp<ABuffer>* buffer) {
    const std::shared_ptr<FramePool> pool = this->pool();
    const FrameLayout& layout = pool->layout();
    const bool asItIs = VideoFrameConverter::isWorkingFrame(*mFrame, layout.width, layout.height);
    if (mSession != nullptr && mSession->isCut(mLastTimeUs) &&
        VideoFrameConverter::canConvert(mFrame->format)) {
        const FramePool& outputs = mScaledPool == nullptr ? *pool : *mScaledPool;
        FramePtr unused(av_frame_alloc());
        if (unused == nullptr || !outputs.attach(unused.get())) return false;
        *buffer = outputs.wrap(unused.get());
        return *buffer != nullptr;
    }
    if (asItIs && mScaledPool != nullptr) return scaledFrame(*mFrame, buffer);
    if (asItIs && pool->fits(*mFrame)) {
        *buffer = pool->wrap(mFrame.get());
        return *buffer != nullptr;
    }
    FramePtr copy(av_frame_alloc());
    if (copy == nullptr || !pool->attach(copy.get())) return false;
    if (asItIs) {
        copyFrame(*mFrame, *copy);
    } else if (!mConverter.convert(*mFrame, planesOf(*copy), layout.width, layout.height)) {
        // A frame of an unsupported pixel format is skipped; a lack of memory is a failure.
        return !VideoFrameConverter::canConvert(mFrame->format);
    }
    if (mScaledPool != nullptr) return scaledFrame(*copy, buffer);
    *buffer = pool->wrap(copy.get());
    return *buffer != nullptr;
}

// `frame` is a working frame of the decoded size.
bool VideoDecoder::scaledFrame(const AVFrame& frame, sp<ABuffer>* buffer) {
    const FrameLayout from = pool()->layout();
    const FrameLayout& to = mScaledPool->layout();
    FramePtr scaled(av_frame_alloc());
    if (scaled == nullptr || !mScaledPool->attach(scaled.get())) return false;
    if (!mScaler.scale({from.width, from.height}, planesOf(frame), {to.width, to.height},
                       planesOf(*scaled))) {
        return false;
    }
    *buffer = mScaledPool->wrap(scaled.get());
    return *buffer != nullptr;
}

bool attachPlanes(AVCodecContext* context, AVFrame* frame) {
    const auto format = static_cast<AVPixelFormat>(frame->format);
    const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(format);
    constexpr uint64_t kOwnKinds = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_HWACCEL;
    if (description == nullptr || (description->flags & kOwnKinds) != 0) return false;
    int width = frame->width;
    int height = frame->height;
    int alignment[AV_NUM_DATA_POINTERS] = {};
    avcodec_align_dimensions2(context, &width, &height, alignment);
    width = FFALIGN(width, kWidthAlignment);
    ptrdiff_t strides[4] = {};
    size_t sizes[4] = {};
    if (av_image_fill_linesizes(frame->linesize, format, width) < 0) return false;
    std::copy(frame->linesize, frame->linesize + 4, strides);
    if (av_image_fill_plane_sizes(sizes, format, height, strides) < 0) return false;
    size_t bytes = kReadBeyondBytes;
    for (const size_t size : sizes) bytes += FFALIGN(size, FrameAllocator::kAlignment);
    frame->buf[0] = allocateFrameMemory(bytes);
    if (frame->buf[0] == nullptr) return false;
    uint8_t* plane = frame->buf[0]->data;
    for (int i = 0; i < 4; ++i) {
        frame->data[i] = sizes[i] > 0 ? plane : nullptr;
        plane += FFALIGN(sizes[i], FrameAllocator::kAlignment);
    }
    frame->extended_data = frame->data;
    return true;
}

bool FramePool::attach(AVFrame* frame) const {
    AVBufferRef* memory = allocateFrameMemory(mLayout.bytes() + kReadBeyondBytes);
    if (memory == nullptr) return false;
    const ptrdiff_t lumaBytes = static_cast<ptrdiff_t>(mLayout.stride) * mLayout.sliceHeight;
    frame->buf[0] = memory;
    frame->data[0] = memory->data;
    frame->data[1] = frame->data[0] + lumaBytes;
    frame->data[2] = frame->data[1] + lumaBytes / 4;
    frame->linesize[0] = mLayout.stride;
    frame->linesize[1] = frame->linesize[2] = mLayout.stride / 2;
    frame->extended_data = frame->data;
    return true;
}

bool FramePool::fits(const AVFrame& frame) const {
    if (frame.buf[0] == nullptr || frame.buf[0]->size < mLayout.bytes()) return false;
    const ptrdiff_t lumaBytes = static_cast<ptrdiff_t>(mLayout.stride) * mLayout.sliceHeight;
    return frame.data[0] == frame.buf[0]->data && frame.linesize[0] == mLayout.stride &&
           frame.linesize[1] == mLayout.stride / 2 && frame.linesize[2] == mLayout.stride / 2 &&
           frame.data[1] == frame.data[0] + lumaBytes &&
           frame.data[2] == frame.data[1] + lumaBytes / 4;
}

sp<ABuffer> FramePool::wrap(AVFrame* frame) const {
    FramePtr own(av_frame_alloc());
    if (own == nullptr) return nullptr;
    av_frame_move_ref(own.get(), frame);
    const sp<ABuffer> buffer = new FrameBuffer(std::move(own), mLayout.bytes());
    SharedFrames::add(buffer->base(), mLayout.bytes(), buffer);
    return buffer;
}

}  // namespace qmmediaeditor
}  // namespace android
