#include "host/convert/FrameComparison.h"

#include <libyuv/scale.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>

#include "host/convert/FilterLibrary.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/frame.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kAreaSide = 8;
constexpr int kTileAreas = 8;

}  // namespace

ReducedFrame::ReducedFrame(const AVFrame& frame)
    : mWidth(std::max(frame.width / kAreaSide, 1)), mHeight(std::max(frame.height / kAreaSide, 1)) {
    for (size_t i = 0; i < 3; ++i) {
        mPlanes[i].resize(static_cast<size_t>(mWidth) * static_cast<size_t>(mHeight));
        const int shift = i == 0 ? 0 : 1;
        libyuv::ScalePlane(frame.data[i], frame.linesize[i], frame.width >> shift,
                           frame.height >> shift, mPlanes[i].data(), mWidth, mWidth, mHeight,
                           libyuv::kFilterBox);
    }
}

std::vector<double> ReducedFrame::differencesFrom(const ReducedFrame& other) const {
    const int columns = (mWidth + kTileAreas - 1) / kTileAreas;
    const int rows = (mHeight + kTileAreas - 1) / kTileAreas;
    std::vector<double> tiles(static_cast<size_t>(columns) * static_cast<size_t>(rows));
    for (size_t i = 0; i < 3; ++i) {
        std::vector<int> sums(tiles.size());
        for (int y = 0; y < mHeight; ++y) {
            const uint8_t* const row =
                &mPlanes[i][static_cast<size_t>(y) * static_cast<size_t>(mWidth)];
            const uint8_t* const others =
                &other.mPlanes[i][static_cast<size_t>(y) * static_cast<size_t>(mWidth)];
            int* const sum =
                &sums[static_cast<size_t>(y / kTileAreas) * static_cast<size_t>(columns)];
            for (int x = 0; x < mWidth; ++x) {
                const int difference = row[x] - others[x];
                sum[x / kTileAreas] += difference * difference;
            }
        }
        for (size_t tile = 0; tile < tiles.size(); ++tile) {
            const int column = static_cast<int>(tile) % columns;
            const int line = static_cast<int>(tile) / columns;
            const int width = std::min(kTileAreas, mWidth - column * kTileAreas);
            const int height = std::min(kTileAreas, mHeight - line * kTileAreas);
            tiles[tile] = std::max(tiles[tile], std::sqrt(sums[tile] / double(width * height)));
        }
    }
    return tiles;
}

// Two sources, the filter and a sink.
class FrameComparison::Graph {
public:
    ~Graph() { filterLibrary().freeGraph(&mGraph); }

    bool build(int width, int height) {
        mGraph = filterLibrary().allocGraph();
        if (mGraph == nullptr) return false;
        mGraph->nb_threads = 1;
        const std::string format = "video_size=" + std::to_string(width) + "x" +
                                   std::to_string(height) + ":pix_fmt=yuv420p" +
                                   ":time_base=1/1000000:pixel_aspect=1/1";
        AVFilterContext* filter = nullptr;
        return create("buffer", "output", format.c_str(), &mOutput) &&
               create("buffer", "input", format.c_str(), &mInput) &&
               create("ssim", "ssim", nullptr, &filter) &&
               create("buffersink", "sink", nullptr, &mSink) &&
               filterLibrary().link(mInput, 0, filter, 0) >= 0 &&
               filterLibrary().link(mOutput, 0, filter, 1) >= 0 &&
               filterLibrary().link(filter, 0, mSink, 0) >= 0 &&
               filterLibrary().configure(mGraph, nullptr) >= 0;
    }

    bool send(AVFrame* input, AVFrame* output, int64_t number) {
        input->pts = output->pts = number;
        return filterLibrary().addFrame(mInput, input, 0) >= 0 &&
               filterLibrary().addFrame(mOutput, output, 0) >= 0;
    }
    bool receive(AVFrame* frame) { return filterLibrary().getFrame(mSink, frame) >= 0; }

private:
    bool create(const char* kind, const char* name, const char* options, AVFilterContext** filter) {
        const AVFilter* const found = filterLibrary().getByName(kind);
        return found != nullptr &&
               filterLibrary().createFilter(filter, found, name, options, nullptr, mGraph) >= 0;
    }

    AVFilterGraph* mGraph = nullptr;
    AVFilterContext* mOutput = nullptr;
    AVFilterContext* mInput = nullptr;
    AVFilterContext* mSink = nullptr;
};

FrameComparison::FrameComparison(int width, int height) {
    if (std::min(width, height) < kMinComparedSide) {
        mFailure = "frames of less than 16x16 pixels have no SSIM";
        return;
    }
    if (!filterLibrary().isLoaded) {
        mFailure = filterLibrary().failure;
        return;
    }
    mGraph = std::make_unique<Graph>();
    if (mGraph->build(width, height)) return;
    mFailure = std::string(kFilterLibrary) + " has no ssim filter for these frames";
    mGraph.reset();
}

FrameComparison::~FrameComparison() = default;

std::optional<double> FrameComparison::ssim(FramePtr input, const AVFrame& output) {
    if (mGraph == nullptr) return std::nullopt;
    const FramePtr compared(av_frame_alloc());
    const FramePtr other(av_frame_clone(&output));
    if (compared == nullptr || other == nullptr ||
        !mGraph->send(input.get(), other.get(), mCount++) || !mGraph->receive(compared.get())) {
        return std::nullopt;
    }
    const AVDictionaryEntry* const entry =
        av_dict_get(compared->metadata, "lavfi.ssim.All", nullptr, 0);
    if (entry == nullptr) return std::nullopt;
    return atof(entry->value);
}

}  // namespace qmmediaeditor
}  // namespace android
