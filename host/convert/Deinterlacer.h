// Turns interlaced frames into progressive ones with libavfilter's bwdif: one frame for the two
// fields of each.
//
// libavfilter and its dependencies take about 50 ms and 20 MB to load. So they are loaded when the
// first interlaced frame arrives, once per process, and never unloaded. One thread at a time.
#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

// The frame consists of two fields.
bool isInterlaced(const AVFrame& frame);

class Deinterlacer {
public:
    // `threads` may work on one frame at once.
    explicit Deinterlacer(int threads);
    ~Deinterlacer();

    // The frame has to be added: it is interlaced, or the ones before it were added. A frame
    // depends on both of its neighbours; progressive ones come out as they are.
    bool needs(const AVFrame& frame) const;
    // Takes the frame's content over. NO_MEMORY, or UNKNOWN_ERROR when libavfilter fails. Without
    // libavfilter the frame comes out unchanged.
    status_t add(AVFrame* frame);
    // No frame follows: what is inside comes out. As add().
    status_t finish();
    // Drops what is inside. The next frame has no predecessor.
    void restart();

    struct Output {
        FramePtr frame;  // null when another frame has to be added first
        bool wasDeinterlaced = false;
    };
    // As many frames come out as were added, in the same order, with their timestamps and
    // durations.
    Output take();

    // Frames were added that have not come out.
    bool hasFrames() const { return !mInside.empty() || !mReady.empty(); }
    // Why frames come out unchanged, if they do.
    const std::optional<std::string>& failure() const { return mFailure; }

private:
    class Graph;
    struct Inside {
        int64_t pts;
        int64_t duration;
        bool isInterlaced;
    };

    status_t receive();

    const int mThreads;
    std::unique_ptr<Graph> mGraph;  // null until the first interlaced frame
    std::deque<Inside> mInside;     // in the graph
    std::deque<Output> mReady;
    std::optional<std::string> mFailure;
};

}  // namespace qmmediaeditor
}  // namespace android
