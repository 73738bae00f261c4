// How much two frames of one size differ: their structural similarity, by libavfilter's ssim, and
// the differences of small areas, which show what a mean over the whole frame hides.
//
// One thread at a time.
#pragma once

#include <stdint.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

// Frames with a shorter side have no structural similarity: it is computed on areas of 8x8, also of
// the subsampled planes.
constexpr int kMinComparedSide = 16;

// The means of a frame's areas: 8x8 pixels of luma, 4x4 of chroma.
class ReducedFrame {
public:
    // An 8-bit 4:2:0 frame.
    explicit ReducedFrame(const AVFrame& frame);

    // Root mean squares of the differences, in each of the tiles of 8x8 areas; of the plane that
    // differs most. Both frames have one size.
    std::vector<double> differencesFrom(const ReducedFrame& other) const;

private:
    int mWidth;
    int mHeight;
    std::array<std::vector<uint8_t>, 3> mPlanes;
};

class FrameComparison {
public:
    FrameComparison(int width, int height);
    ~FrameComparison();

    // Why frames cannot be compared.
    const std::optional<std::string>& failure() const { return mFailure; }
    // From -1 to 1, 1 for equal frames, as libavfilter's "All" of the three planes. Nothing when it
    // cannot be measured. Both frames are 8-bit 4:2:0 and reference-counted.
    std::optional<double> ssim(FramePtr input, const AVFrame& output);

private:
    class Graph;

    std::optional<std::string> mFailure;
    std::unique_ptr<Graph> mGraph;
    int64_t mCount = 0;
};

}  // namespace qmmediaeditor
}  // namespace android
