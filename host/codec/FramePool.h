// Memory for working pictures: the three planes of an I420 picture in one piece, as the platform's
// buffers have them. It is recycled together with that of the copies that wait for the encoder, as
// there are many of these when there are few of the decoder's. Any thread.
#pragma once

#include <media/stagefright/foundation/ABuffer.h>
#include <stddef.h>
#include <stdint.h>

#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

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

}  // namespace qmmediaeditor
}  // namespace android
