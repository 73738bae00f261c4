#include "host/convert/PlaneScaler.h"

namespace android {
namespace qmmediaeditor {

namespace {

zimg_image_format planeFormat(const FrameSize& size) {
    zimg_image_format format;
    zimg_image_format_default(&format, ZIMG_API_VERSION);
    format.width = static_cast<unsigned>(size.width);
    format.height = static_cast<unsigned>(size.height);
    format.pixel_type = ZIMG_PIXEL_BYTE;
    format.color_family = ZIMG_COLOR_GREY;
    format.pixel_range = ZIMG_RANGE_LIMITED;
    return format;
}

}  // namespace

bool PlaneScaler::scale(const FrameSize& from, const FramePlanes& source, const FrameSize& to,
                        const FramePlanes& target) {
    if (!prepare(from, to)) return false;
    for (int i = 0; i < 3; ++i) {
        FramePlanes in;
        FramePlanes out;
        in.plane[0] = source.plane[i];
        out.plane[0] = target.plane[i];
        if (!(i == 0 ? mLuma : mChroma)->process(in, out)) return false;
    }
    return true;
}

bool PlaneScaler::prepare(const FrameSize& from, const FrameSize& to) {
    if (mLuma != nullptr && from == mFrom && to == mTo) return true;
    mFrom = from;
    mTo = to;
    mLuma = ZimgGraph::build(planeFormat(from), planeFormat(to), {});
    // Chroma samples are located on every second luma column, beginning with the first, and
    // between the rows.
    const double columns = static_cast<double>(from.width) / to.width;
    const double rows = static_cast<double>(from.height) / to.height;
    zimg_image_format chroma = planeFormat(chromaOf(from));
    chroma.active_region.left = 0.25 * (1 - columns);
    chroma.active_region.top = 0;
    chroma.active_region.width = columns * chromaOf(to).width;
    chroma.active_region.height = rows * chromaOf(to).height;
    mChroma = ZimgGraph::build(chroma, planeFormat(chromaOf(to)), {});
    if (mLuma != nullptr && mChroma != nullptr) return true;
    mLuma.reset();
    return false;
}

}  // namespace qmmediaeditor
}  // namespace android
