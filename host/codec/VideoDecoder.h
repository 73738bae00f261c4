// Decodes pictures into working pictures. Where the stream already has the right kind, libavcodec
// decodes straight into the memory that goes out; everything else is converted into such memory.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <memory>
#include <set>

#include "host/codec/CodecBackend.h"
#include "host/codec/PacketCodecs.h"
#include "host/codec/SessionTimeline.h"
#include "host/codec/TrackSource.h"
#include "host/convert/FFmpegPointers.h"
#include "host/convert/VideoFrameConverter.h"
#include "host/foundation/FrameAllocator.h"

struct AVCodecContext;
struct AVFrame;

namespace android {
namespace qmmediaeditor {

// Memory for working pictures: the three planes of an I420 picture in one piece, as the platform's
// buffers have them. It is recycled together with that of the copies that wait for the encoder, as
// there are many of these when there are few of the decoder's. Any thread.
struct FrameLayout {
    int width = 0;  // visible
    int height = 0;
    int stride = 0;       // bytes of a luma row; a chroma row has half of it
    int sliceHeight = 0;  // rows of the luma plane; a chroma plane has half of it

    size_t bytes() const {
        return static_cast<size_t>(stride) * static_cast<size_t>(sliceHeight) * 3 / 2;
    }
};

// Gives a frame that is to be converted memory for planes of its own format, as libavcodec wants
// them. False for formats that libavcodec had better allocate by itself. For get_buffer2.
bool attachPlanes(AVCodecContext* context, AVFrame* frame);

class FramePool {
public:
    explicit FramePool(const FrameLayout& layout) : mLayout(layout) {}

    const FrameLayout& layout() const { return mLayout; }

    // Gives the frame memory of the pool, and its planes' addresses. False when memory is short.
    bool attach(AVFrame* frame) const;
    // True when the frame's planes lie as in the layout, wherever they came from.
    bool fits(const AVFrame& frame) const;
    // The frame as a buffer that covers the layout; takes the frame's reference over.
    sp<ABuffer> wrap(AVFrame* frame) const;

private:
    const FrameLayout mLayout;
};

class VideoDecoder : public CodecBackend {
public:
    // `session` may be null; `threads` as in HostOptions.
    explicit VideoDecoder(std::shared_ptr<SessionTimeline> session, int threads = 0);
    ~VideoDecoder() override;

    status_t configure(const sp<AMessage>& format, CodecBuffers* buffers) override;
    sp<AMessage> outputFormat() const override { return mFormat; }
    Step produce(CodecOutput* output) override;
    status_t accept(CodecInput input) override;
    status_t finish() override;
    OutputSequencer::MemberState memberState() const override;

private:
    // Fixes the layout of everything that goes out.
    void setLayout(int width, int height);
    // libavcodec's get_buffer2; called on its threads, too.
    static int getBuffer(AVCodecContext* context, AVFrame* frame, int flags);
    static bool decodesInto(const FramePool& pool, AVCodecContext* context, const AVFrame& frame);
    std::shared_ptr<FramePool> pool();
    int64_t timeOf(const AVFrame& frame) const;
    // Leaves `buffer` null for a frame that cannot be converted. False when memory is short.
    bool workingFrame(sp<ABuffer>* buffer);

    const std::shared_ptr<SessionTimeline> mSession;
    const int mThreads;
    const FrameAllocator::Keep mKeepMemory;
    const FramePtr mFrame;
    VideoFrameConverter mConverter;

    Mutex mPoolLock;
    std::shared_ptr<FramePool> mPool GUARDED_BY(mPoolLock);  // set once, on the looper's thread
    sp<TrackSource> mSource;  // null for a format that no extractor made
    sp<AMessage> mFormat;
    int mWidth = 0;  // of what goes out, when the format says it
    int mHeight = 0;
    int mFrameRate = 0;

    uint32_t mSegment = 0;
    bool mHasTime = false;  // a picture of the time line has come out
    int64_t mLastTimeUs = 0;
    // Presentation times of what libavcodec has and has not given back.
    std::multiset<int64_t> mInside;
    int64_t mUnconverted = 0;

    // Its threads use the members above: it is the first to go.
    PacketDecoder mDecoder;
};

}  // namespace qmmediaeditor
}  // namespace android
