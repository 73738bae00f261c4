// One conversion between two picture formats, done by zimg. Private to host/convert and its tests:
// zimg's types are part of it. One thread at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <zimg.h>

#include <functional>
#include <memory>
#include <vector>

namespace android {
namespace qmmediaeditor {

struct FramePlane {
    uint8_t* data = nullptr;
    ptrdiff_t stride = 0;  // bytes
};

// Up to three planes: Y, U, V or R, G, B.
struct FramePlanes {
    FramePlane plane[3];
};

class ZimgGraph {
public:
    struct Settings {
        zimg_dither_type_e dither = ZIMG_DITHER_NONE;
        // Nits that stand for 1.0 where a conversion goes through linear light.
        double whiteNits = 100;
    };

    // Null when zimg cannot do it; the reason is logged.
    static std::unique_ptr<ZimgGraph> build(const zimg_image_format& from,
                                            const zimg_image_format& to, const Settings& settings);
    ~ZimgGraph();

    // Puts the samples of `plane` in `row`, from column `left` up to `right`, to `line`, which is
    // where column `left` belongs. Rows and columns are the plane's own.
    typedef std::function<void(int plane, int row, int left, int right, uint8_t* line)> RowReader;

    bool process(const FramePlanes& from, const FramePlanes& to);
    // For sources that zimg cannot read where they lie.
    bool process(const RowReader& from, const FramePlanes& to);

private:
    // A few rows in the alignment that zimg asks for.
    struct Window {
        std::vector<uint8_t> memory;
        zimg_image_buffer rows;
    };
    struct FreeGraph {
        void operator()(zimg_filter_graph* graph) const { zimg_filter_graph_free(graph); }
    };

    ZimgGraph(zimg_filter_graph* graph, const zimg_image_format& from, const zimg_image_format& to);

    static Window makeWindow(const zimg_image_format& format, unsigned rows);
    static int readRows(void* call, unsigned row, unsigned left, unsigned right);
    static int writeRows(void* call, unsigned row, unsigned left, unsigned right);

    struct Call;
    bool run(const FramePlanes* from, const RowReader* reader, const FramePlanes& to);

    const std::unique_ptr<zimg_filter_graph, FreeGraph> mGraph;
    const zimg_image_format mFrom;
    const zimg_image_format mTo;
    std::vector<uint8_t> mScratch;
    Window mFromWindow;
    Window mToWindow;
};

}  // namespace qmmediaeditor
}  // namespace android
