#include "host/codec/FramePool.h"

#include <algorithm>
#include <utility>

#include "host/foundation/FrameAllocator.h"

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

// Decoders may read, and not use, a little beyond the last plane.
constexpr size_t kReadBeyondBytes = 256;
// A quarter of it, a row of the most subsampled chroma, still suits every vector instruction.
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

private:
    const FramePtr mFrame;
};

}  // namespace

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
    return new FrameBuffer(std::move(own), mLayout.bytes());
}

}  // namespace qmmediaeditor
}  // namespace android
