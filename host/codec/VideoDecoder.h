// Decodes video to working frames. Where the stream already has their format, libavcodec decodes
// straight into the output's memory; other frames are converted into it. Frames larger than the
// encoder needs are scaled here, while the processor's cache still has them, so that the frames
// that wait for the encoder are small.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Mutex.h>

#include <atomic>
#include <memory>
#include <optional>
#include <set>

#include "host/codec/CodecBackend.h"
#include "host/codec/PacketCodecs.h"
#include "host/codec/SessionTimeline.h"
#include "host/codec/TrackSource.h"
#include "host/convert/Deinterlacer.h"
#include "host/convert/FFmpegPointers.h"
#include "host/convert/PlaneScaler.h"
#include "host/convert/VideoFrameConverter.h"
#include "host/foundation/FrameAllocator.h"

struct AVCodecContext;
struct AVFrame;

namespace android {
namespace qmmediaeditor {

// Layout of the working frames' memory: the three planes of an I420 frame in one block, as in the
// platform's buffers.
struct FrameLayout {
    int width = 0;  // visible
    int height = 0;
    int stride = 0;       // bytes of a luma row; a chroma row has half of it
    int sliceHeight = 0;  // rows of the luma plane; a chroma plane has half of it

    size_t bytes() const {
        return static_cast<size_t>(stride) * static_cast<size_t>(sliceHeight) * 3 / 2;
    }
};

// For get_buffer2: allocates the planes of a frame that is to be converted, in its own format.
// False for formats that libavcodec should allocate by itself.
bool attachPlanes(AVCodecContext* context, AVFrame* frame);

class FramePool {
public:
    explicit FramePool(const FrameLayout& layout) : mLayout(layout) {}

    const FrameLayout& layout() const { return mLayout; }

    // Sets the frame's memory and the addresses of its planes. False when memory is short.
    bool attach(AVFrame* frame) const;
    // True when the frame's planes have this layout, no matter what allocated them.
    bool fits(const AVFrame& frame) const;
    // The frame as a buffer of the layout's size; takes over the frame's reference.
    sp<ABuffer> wrap(AVFrame* frame) const;

private:
    const FrameLayout mLayout;
};

class VideoDecoder : public CodecBackend {
public:
    // `session` may be null; `threads`, `outputSize` and `deinterlaces` as in HostOptions.
    explicit VideoDecoder(std::shared_ptr<SessionTimeline> session, int threads = 0,
                          const std::optional<FrameSize>& outputSize = std::nullopt,
                          bool deinterlaces = true);
    ~VideoDecoder() override;

    status_t configure(const sp<AMessage>& format, CodecBuffers* buffers) override;
    sp<AMessage> outputFormat() const override { return mFormat; }
    Step produce(CodecOutput* output) override;
    status_t accept(CodecInput input) override;
    status_t finish() override;
    OutputSequencer::MemberState memberState() const override;

private:
    FrameLayout layoutOf(const FrameSize& size);
    // Sets the layout of all outputs.
    void setLayout(const FrameSize& decoded);
    // libavcodec's get_buffer2; also called on its threads.
    static int getBuffer(AVCodecContext* context, AVFrame* frame, int flags);
    int allocate(AVCodecContext* context, AVFrame* frame, int flags);
    static bool decodesInto(const FramePool& pool, AVCodecContext* context, const AVFrame& frame);
    std::shared_ptr<FramePool> pool();
    // Sets mFrame to the next frame, deinterlaced where that is needed.
    PacketDecoder::Received nextFrame();
    PacketDecoder::Received deinterlacingFailed(status_t status);
    void reportInterlaced();
    int64_t timeOf(const AVFrame& frame) const;
    // Leaves `buffer` null for a frame that cannot be converted. False when memory is short.
    bool workingFrame(sp<ABuffer>* buffer);
    bool scaledFrame(const AVFrame& frame, sp<ABuffer>* buffer);

    const std::shared_ptr<SessionTimeline> mSession;
    const int mThreads;
    const std::optional<FrameSize> mRequestedSize;
    const bool mDeinterlaces;
    const FrameAllocator::Keep mKeepMemory;
    const FramePtr mFrame;
    Deinterlacer mDeinterlacer;
    // Of mFrame.
    bool mWasInterlaced = false;
    bool mWasDeinterlaced = false;
    bool mReportedFailure = false;
    VideoFrameConverter mConverter;
    PlaneScaler mScaler;

    Mutex mPoolLock;
    std::shared_ptr<FramePool> mPool GUARDED_BY(mPoolLock);  // set once, on the looper's thread
    // Of the output, where it is smaller than the decoded frames.
    std::unique_ptr<FramePool> mScaledPool;
    sp<TrackSource> mSource;  // null for a format that no extractor made
    sp<AMessage> mFormat;
    int mWidth = 0;  // of the visible frame, when the format has it
    int mHeight = 0;
    int mFrameRate = 0;

    uint32_t mSegment = 0;
    // Written by the codec's threads, read by the looper's.
    std::atomic<bool> mLacksMemory{false};
    bool mHasTime = false;  // a frame of the segment has been output
    int64_t mLastTimeUs = 0;
    // Presentation timestamps of the packets that libavcodec has not yet returned as frames.
    std::multiset<int64_t> mInside;
    int64_t mUnconverted = 0;

    // Destroyed first, because its threads use the members above.
    PacketDecoder mDecoder;
};

}  // namespace qmmediaeditor
}  // namespace android
