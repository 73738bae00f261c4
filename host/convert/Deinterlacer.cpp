#include "host/convert/Deinterlacer.h"

#include <algorithm>
#include <utility>

#include "host/convert/FilterLibrary.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

// With more threads, bwdif takes no less time, because they wait for each other.
constexpr int kMaxThreads = 4;
// The filter reads several rows above and below, also of subsampled planes.
constexpr int kMinSide = 16;

int64_t* durationOf(AVFrame* frame) {
#if LIBAVUTIL_VERSION_MAJOR < 58
    return &frame->pkt_duration;
#else
    return &frame->duration;
#endif
}

}  // namespace

bool isInterlaced(const AVFrame& frame) {
#ifdef AV_FRAME_FLAG_INTERLACED
    return (frame.flags & AV_FRAME_FLAG_INTERLACED) != 0;
#else
    return frame.interlaced_frame != 0;
#endif
}

// Source, filter and sink for frames of one size and pixel format.
class Deinterlacer::Graph {
public:
    Graph(const AVFrame& frame, int threads)
        : mWidth(frame.width), mHeight(frame.height), mFormat(frame.format), mThreads(threads) {}
    ~Graph() { filterLibrary().freeGraph(&mGraph); }
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    bool fits(const AVFrame& frame) const {
        return frame.width == mWidth && frame.height == mHeight && frame.format == mFormat;
    }

    // These are 0 or libavfilter's errors.
    int build() {
        mGraph = filterLibrary().allocGraph();
        if (mGraph == nullptr) return AVERROR(ENOMEM);
        mGraph->nb_threads = mThreads;
        const std::string format = "video_size=" + std::to_string(mWidth) + "x" +
                                   std::to_string(mHeight) + ":pix_fmt=" + std::to_string(mFormat) +
                                   ":time_base=1/1000000:pixel_aspect=1/1";
        AVFilterContext* filter = nullptr;
        int error = create("buffer", format.c_str(), &mSource);
        // Field order is each frame's own.
        if (error >= 0) {
            error = create("bwdif", "mode=send_frame:parity=auto:deint=interlaced", &filter);
        }
        if (error >= 0) error = create("buffersink", nullptr, &mSink);
        if (error >= 0) error = filterLibrary().link(mSource, 0, filter, 0);
        if (error >= 0) error = filterLibrary().link(filter, 0, mSink, 0);
        // A pixel format that bwdif lacks is converted by libavfilter to the nearest one, which has
        // the same subsampling, so that no fields are mixed.
        return error < 0 ? error : filterLibrary().configure(mGraph, nullptr);
    }

    // Null is the end.
    int send(AVFrame* frame) { return filterLibrary().addFrame(mSource, frame, 0); }
    int receive(AVFrame* frame) { return filterLibrary().getFrame(mSink, frame); }

private:
    int create(const char* name, const char* options, AVFilterContext** filter) {
        const AVFilter* const kind = filterLibrary().getByName(name);
        if (kind == nullptr) return AVERROR_FILTER_NOT_FOUND;
        return filterLibrary().createFilter(filter, kind, name, options, nullptr, mGraph);
    }

    const int mWidth;
    const int mHeight;
    const int mFormat;
    const int mThreads;
    AVFilterGraph* mGraph = nullptr;
    AVFilterContext* mSource = nullptr;
    AVFilterContext* mSink = nullptr;
};

Deinterlacer::Deinterlacer(int threads) : mThreads(std::clamp(threads, 1, kMaxThreads)) {}

Deinterlacer::~Deinterlacer() = default;

bool Deinterlacer::needs(const AVFrame& frame) const {
    if (mFailure) return false;
    if (mGraph != nullptr) return true;
    return isInterlaced(frame) && std::min(frame.width, frame.height) >= kMinSide;
}

status_t Deinterlacer::add(AVFrame* frame) {
    if (mGraph != nullptr && !mGraph->fits(*frame)) {
        if (const status_t status = finish(); status != OK) return status;
    }
    if (mGraph == nullptr && needs(*frame)) {
        if (!filterLibrary().isLoaded) {
            mFailure = filterLibrary().failure;
        } else {
            auto graph = std::make_unique<Graph>(*frame, mThreads);
            const int error = graph->build();
            if (error == AVERROR(ENOMEM)) return NO_MEMORY;
            if (error < 0) {
                mFailure = std::string(kFilterLibrary) + " has no bwdif filter for these frames";
            } else {
                mGraph = std::move(graph);
            }
        }
    }
    if (mGraph == nullptr) {
        Output unchanged;
        unchanged.frame.reset(av_frame_alloc());
        if (unchanged.frame == nullptr) return NO_MEMORY;
        av_frame_move_ref(unchanged.frame.get(), frame);
        mReady.push_back(std::move(unchanged));
        return OK;
    }
    mInside.push_back({frame->pts, *durationOf(frame), isInterlaced(*frame)});
    const int error = mGraph->send(frame);
    if (error < 0) return error == AVERROR(ENOMEM) ? NO_MEMORY : UNKNOWN_ERROR;
    return receive();
}

status_t Deinterlacer::finish() {
    if (mGraph == nullptr) return OK;
    const int error = mGraph->send(nullptr);
    if (error < 0) return error == AVERROR(ENOMEM) ? NO_MEMORY : UNKNOWN_ERROR;
    const status_t status = receive();
    mGraph.reset();
    // A frame that the filter kept would shift the timestamps of all others.
    return status == OK && !mInside.empty() ? UNKNOWN_ERROR : status;
}

status_t Deinterlacer::receive() {
    for (;;) {
        Output output;
        output.frame.reset(av_frame_alloc());
        if (output.frame == nullptr) return NO_MEMORY;
        const int error = mGraph->receive(output.frame.get());
        if (error == AVERROR(EAGAIN) || error == AVERROR_EOF) return OK;
        if (error == AVERROR(ENOMEM)) return NO_MEMORY;
        if (error < 0 || mInside.empty()) return UNKNOWN_ERROR;
        const Inside& frame = mInside.front();
        output.frame->pts = frame.pts;
        *durationOf(output.frame.get()) = frame.duration;
        output.wasDeinterlaced = frame.isInterlaced;
        mInside.pop_front();
        mReady.push_back(std::move(output));
    }
}

void Deinterlacer::restart() {
    mGraph.reset();
    mInside.clear();
    mReady.clear();
}

Deinterlacer::Output Deinterlacer::take() {
    if (mReady.empty()) return {};
    Output output = std::move(mReady.front());
    mReady.pop_front();
    return output;
}

}  // namespace qmmediaeditor
}  // namespace android
