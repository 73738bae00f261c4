#include "host/convert/ZimgGraph.h"

#include <android/log.h>
#include <string.h>

#include <cmath>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "ZimgGraph";

// What zimg asks of addresses and strides.
constexpr uintptr_t kAlignment = 64;

constexpr uintptr_t alignUp(uintptr_t value) {
    return (value + kAlignment - 1) & ~(kAlignment - 1);
}

uint8_t* aligned(std::vector<uint8_t>& memory) {
    return reinterpret_cast<uint8_t*>(alignUp(reinterpret_cast<uintptr_t>(memory.data())));
}

int planeCount(const zimg_image_format& format) {
    return format.color_family == ZIMG_COLOR_GREY ? 1 : 3;
}

unsigned shiftOfColumns(const zimg_image_format& format, int plane) {
    return plane == 0 ? 0 : format.subsample_w;
}

unsigned shiftOfRows(const zimg_image_format& format, int plane) {
    return plane == 0 ? 0 : format.subsample_h;
}

size_t sampleBytes(const zimg_image_format& format) {
    switch (format.pixel_type) {
        case ZIMG_PIXEL_BYTE:
            return 1;
        case ZIMG_PIXEL_WORD:
        case ZIMG_PIXEL_HALF:
            return 2;
        case ZIMG_PIXEL_FLOAT:
            return 4;
    }
    return 4;
}

bool isAligned(const FramePlanes& planes, int count) {
    for (int i = 0; i < count; ++i) {
        const auto address = reinterpret_cast<uintptr_t>(planes.plane[i].data);
        const auto stride = static_cast<uintptr_t>(planes.plane[i].stride);
        if ((address | stride) % kAlignment != 0) return false;
    }
    return true;
}

// The part of a plane that belongs to some columns of the picture, in one of its groups of rows.
struct Span {
    int firstRow;
    int endRow;
    int left;
    int right;
};

Span spanOf(const zimg_image_format& format, int plane, unsigned row, unsigned left,
            unsigned right) {
    const unsigned columns = shiftOfColumns(format, plane);
    const unsigned rows = shiftOfRows(format, plane);
    const unsigned firstRow = row >> rows;
    const unsigned rowCount = (1u << format.subsample_h) >> rows;
    return {static_cast<int>(firstRow), static_cast<int>(firstRow + rowCount),
            static_cast<int>(left >> columns),
            static_cast<int>((right + (1u << columns) - 1) >> columns)};
}

}  // namespace

// What the callbacks need to know of the run that calls them.
struct ZimgGraph::Call {
    ZimgGraph& graph;
    const RowReader* reader;
    const FramePlanes& to;
};

std::unique_ptr<ZimgGraph> ZimgGraph::build(const zimg_image_format& from,
                                            const zimg_image_format& to, const Settings& settings) {
    zimg_graph_builder_params params;
    zimg_graph_builder_params_default(&params, ZIMG_API_VERSION);
    params.resample_filter = ZIMG_RESIZE_BICUBIC;
    params.resample_filter_uv = ZIMG_RESIZE_BICUBIC;
    params.dither_type = settings.dither;
    params.nominal_peak_luminance = settings.whiteNits;
    // Tables in place of exact powers: far faster, and finer than 8 bits.
    params.allow_approximate_gamma = 1;
    // By itself zimg asks for 32 bytes of alignment at most, and leaves the widest vectors unused.
    params.cpu_type = ZIMG_CPU_AUTO_64B;
    zimg_filter_graph* graph = zimg_filter_graph_build(&from, &to, &params);
    if (graph == nullptr) {
        char reason[256] = "";
        zimg_get_last_error(reason, sizeof(reason));
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "no conversion from %ux%u to %ux%u: %s",
                            from.width, from.height, to.width, to.height, reason);
        return nullptr;
    }
    return std::unique_ptr<ZimgGraph>(new ZimgGraph(graph, from, to));
}

ZimgGraph::ZimgGraph(zimg_filter_graph* graph, const zimg_image_format& from,
                     const zimg_image_format& to)
    : mGraph(graph), mFrom(from), mTo(to) {
    size_t scratchBytes = 0;
    zimg_filter_graph_get_tmp_size(graph, &scratchBytes);
    mScratch.resize(scratchBytes + kAlignment);
    unsigned rows = 0;
    zimg_filter_graph_get_input_buffering(graph, &rows);
    mFromWindow = makeWindow(from, rows);
    zimg_filter_graph_get_output_buffering(graph, &rows);
    mToWindow = makeWindow(to, rows);
}

ZimgGraph::~ZimgGraph() = default;

ZimgGraph::Window ZimgGraph::makeWindow(const zimg_image_format& format, unsigned rows) {
    Window window;
    window.rows.version = ZIMG_API_VERSION;
    const unsigned mask = zimg_select_buffer_mask(rows);
    // A mask without bounds stands for the whole picture.
    const size_t lumaRows = mask == ZIMG_BUFFER_MAX ? format.height : size_t{mask} + 1;
    const size_t stride = alignUp(format.width * sampleBytes(format));
    const auto planes = static_cast<size_t>(planeCount(format));
    window.memory.resize(stride * lumaRows * planes + kAlignment);
    uint8_t* memory = aligned(window.memory);
    for (size_t i = 0; i < planes; ++i) {
        window.rows.plane[i].data = memory + i * stride * lumaRows;
        window.rows.plane[i].stride = static_cast<ptrdiff_t>(stride);
        const unsigned shift = shiftOfRows(format, static_cast<int>(i));
        window.rows.plane[i].mask = mask == ZIMG_BUFFER_MAX ? mask : mask >> shift;
    }
    return window;
}

int ZimgGraph::readRows(void* user, unsigned row, unsigned left, unsigned right) {
    const Call& call = *static_cast<Call*>(user);
    const zimg_image_format& format = call.graph.mFrom;
    const size_t bytes = sampleBytes(format);
    for (int plane = 0; plane < planeCount(format); ++plane) {
        const auto& window = call.graph.mFromWindow.rows.plane[plane];
        const Span span = spanOf(format, plane, row, left, right);
        for (int y = span.firstRow; y < span.endRow; ++y) {
            uint8_t* line =
                static_cast<uint8_t*>(window.data) +
                static_cast<ptrdiff_t>(static_cast<unsigned>(y) & window.mask) * window.stride;
            (*call.reader)(plane, y, span.left, span.right,
                           line + static_cast<size_t>(span.left) * bytes);
        }
    }
    return 0;
}

int ZimgGraph::writeRows(void* user, unsigned row, unsigned left, unsigned right) {
    const Call& call = *static_cast<Call*>(user);
    const zimg_image_format& format = call.graph.mTo;
    const size_t bytes = sampleBytes(format);
    for (int plane = 0; plane < planeCount(format); ++plane) {
        const auto& window = call.graph.mToWindow.rows.plane[plane];
        const FramePlane& to = call.to.plane[plane];
        const Span span = spanOf(format, plane, row, left, right);
        const size_t offset = static_cast<size_t>(span.left) * bytes;
        const size_t length = static_cast<size_t>(span.right - span.left) * bytes;
        for (int y = span.firstRow; y < span.endRow; ++y) {
            const uint8_t* line =
                static_cast<const uint8_t*>(window.data) +
                static_cast<ptrdiff_t>(static_cast<unsigned>(y) & window.mask) * window.stride;
            memcpy(to.data + y * to.stride + offset, line + offset, length);
        }
    }
    return 0;
}

bool ZimgGraph::process(const FramePlanes& from, const FramePlanes& to) {
    if (isAligned(from, planeCount(mFrom))) return run(&from, nullptr, to);
    const RowReader copy = [this, &from](int plane, int row, int left, int right, uint8_t* line) {
        const size_t bytes = sampleBytes(mFrom);
        const FramePlane& source = from.plane[plane];
        memcpy(line, source.data + row * source.stride + static_cast<size_t>(left) * bytes,
               static_cast<size_t>(right - left) * bytes);
    };
    return run(nullptr, &copy, to);
}

bool ZimgGraph::process(const RowReader& from, const FramePlanes& to) {
    return run(nullptr, &from, to);
}

bool ZimgGraph::run(const FramePlanes* from, const RowReader* reader, const FramePlanes& to) {
    zimg_image_buffer_const source;
    source.version = ZIMG_API_VERSION;
    zimg_image_buffer target = mToWindow.rows;
    const bool inPlace = isAligned(to, planeCount(mTo));
    for (int i = 0; i < planeCount(mFrom); ++i) {
        const auto& window = mFromWindow.rows.plane[i];
        source.plane[i] = {window.data, window.stride, window.mask};
        if (from != nullptr) {
            source.plane[i] = {from->plane[i].data, from->plane[i].stride, ZIMG_BUFFER_MAX};
        }
    }
    for (int i = 0; inPlace && i < planeCount(mTo); ++i) {
        target.plane[i] = {to.plane[i].data, to.plane[i].stride, ZIMG_BUFFER_MAX};
    }
    Call call = {*this, reader, to};
    return zimg_filter_graph_process(mGraph.get(), &source, &target, aligned(mScratch),
                                     reader == nullptr ? nullptr : readRows, &call,
                                     inPlace ? nullptr : writeRows, &call) == ZIMG_ERROR_SUCCESS;
}

}  // namespace qmmediaeditor
}  // namespace android
