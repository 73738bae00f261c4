#include "host/convert/FrameScaler.h"

#include <android/log.h>
#include <libyuv/planar_functions.h>
#include <media/stagefright/MediaCodecConstants.h>
#include <utils/Mutex.h>

#include <memory>
#include <set>
#include <vector>

#include "host/convert/ZimgGraph.h"

namespace android {
namespace qmmediaeditor {

namespace {

Mutex gFailedTargetsLock;
std::set<const unsigned char*> gFailedTargets GUARDED_BY(gFailedTargetsLock);

constexpr char kLogTag[] = "FrameScaler";

int halfUp(int size) { return (size + 1) / 2; }

struct Size {
    int width;
    int height;

    bool operator==(const Size& other) const {
        return width == other.width && height == other.height;
    }
    Size chroma() const { return {halfUp(width), halfUp(height)}; }
    size_t pixels() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
};

bool isColorFormat(int format) {
    return format == COLOR_FormatYUV420Planar || format == COLOR_FormatYUV420SemiPlanar;
}

bool makesSense(const ScaleRequest& request) {
    return request.src != nullptr && request.dst != nullptr && request.srcWidth >= 1 &&
           request.srcHeight >= 1 && request.dstWidth >= 1 && request.dstHeight >= 1 &&
           request.srcStride >= request.srcWidth && request.srcSliceHeight >= request.srcHeight &&
           isColorFormat(request.srcColorFormat) && isColorFormat(request.dstColorFormat);
}

zimg_image_format planeFormat(const Size& size) {
    zimg_image_format format;
    zimg_image_format_default(&format, ZIMG_API_VERSION);
    format.width = static_cast<unsigned>(size.width);
    format.height = static_cast<unsigned>(size.height);
    format.pixel_type = ZIMG_PIXEL_BYTE;
    format.color_family = ZIMG_COLOR_GREY;
    format.pixel_range = ZIMG_RANGE_LIMITED;
    return format;
}

// One filter for luma and one for both chroma planes. Each plane is scaled by itself, because with
// odd sizes the planes do not have the same ratio.
class PlaneScaler {
public:
    bool scale(const Size& from, const FramePlanes& source, const Size& to,
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

private:
    bool prepare(const Size& from, const Size& to) {
        if (mLuma != nullptr && from == mFrom && to == mTo) return true;
        mFrom = from;
        mTo = to;
        mLuma = ZimgGraph::build(planeFormat(from), planeFormat(to), {});
        // Chroma samples are located on every second luma column, beginning with the first, and
        // between the rows.
        const double columns = static_cast<double>(from.width) / to.width;
        const double rows = static_cast<double>(from.height) / to.height;
        zimg_image_format chroma = planeFormat(from.chroma());
        chroma.active_region.left = 0.25 * (1 - columns);
        chroma.active_region.top = 0;
        chroma.active_region.width = columns * to.chroma().width;
        chroma.active_region.height = rows * to.chroma().height;
        mChroma = ZimgGraph::build(chroma, planeFormat(to.chroma()), {});
        if (mLuma != nullptr && mChroma != nullptr) return true;
        mLuma.reset();
        return false;
    }

    Size mFrom = {0, 0};
    Size mTo = {0, 0};
    std::unique_ptr<ZimgGraph> mLuma;
    std::unique_ptr<ZimgGraph> mChroma;
};

// The source's planes; semi-planar chroma is split into `split`.
FramePlanes sourcePlanes(const ScaleRequest& request, std::vector<uint8_t>* split) {
    auto* luma = const_cast<uint8_t*>(request.src);
    uint8_t* chroma = luma + static_cast<ptrdiff_t>(request.srcStride) * request.srcSliceHeight;
    const Size size = Size{request.srcWidth, request.srcHeight}.chroma();
    FramePlanes planes;
    planes.plane[0] = {luma, request.srcStride};
    if (request.srcColorFormat == COLOR_FormatYUV420Planar) {
        const int stride = halfUp(request.srcStride);
        planes.plane[1] = {chroma, stride};
        planes.plane[2] = {chroma + static_cast<ptrdiff_t>(stride) * halfUp(request.srcSliceHeight),
                           stride};
        return planes;
    }
    split->resize(size.pixels() * 2);
    planes.plane[1] = {split->data(), size.width};
    planes.plane[2] = {split->data() + size.pixels(), size.width};
    libyuv::SplitUVPlane(chroma, request.srcStride, planes.plane[1].data, size.width,
                         planes.plane[2].data, size.width, size.width, size.height);
    return planes;
}

FramePlanes targetPlanes(const ScaleRequest& request, std::vector<uint8_t>* split) {
    const Size size = {request.dstWidth, request.dstHeight};
    const Size chroma = size.chroma();
    uint8_t* first = request.dst + size.pixels();
    if (request.dstColorFormat == COLOR_FormatYUV420SemiPlanar) {
        split->resize(chroma.pixels() * 2);
        first = split->data();
    }
    FramePlanes planes;
    planes.plane[0] = {request.dst, size.width};
    planes.plane[1] = {first, chroma.width};
    planes.plane[2] = {first + chroma.pixels(), chroma.width};
    return planes;
}

void copyPlanes(const Size& size, const FramePlanes& from, const FramePlanes& to) {
    for (int i = 0; i < 3; ++i) {
        const Size plane = i == 0 ? size : size.chroma();
        libyuv::CopyPlane(from.plane[i].data, static_cast<int>(from.plane[i].stride),
                          to.plane[i].data, static_cast<int>(to.plane[i].stride), plane.width,
                          plane.height);
    }
}

bool scaleInto(const ScaleRequest& request) {
    if (!makesSense(request)) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "cannot scale %dx%d (stride %d, %d rows, format %d) to %dx%d "
                            "(format %d)",
                            request.srcWidth, request.srcHeight, request.srcStride,
                            request.srcSliceHeight, request.srcColorFormat, request.dstWidth,
                            request.dstHeight, request.dstColorFormat);
        return false;
    }
    thread_local PlaneScaler scaler;
    thread_local std::vector<uint8_t> sourceChroma;
    thread_local std::vector<uint8_t> targetChroma;

    const Size from = {request.srcWidth, request.srcHeight};
    const Size to = {request.dstWidth, request.dstHeight};
    const FramePlanes source = sourcePlanes(request, &sourceChroma);
    const FramePlanes target = targetPlanes(request, &targetChroma);
    if (from == to) {
        copyPlanes(from, source, target);
    } else if (!scaler.scale(from, source, to, target)) {
        return false;
    }
    if (request.dstColorFormat == COLOR_FormatYUV420SemiPlanar) {
        const Size chroma = to.chroma();
        libyuv::MergeUVPlane(target.plane[1].data, chroma.width, target.plane[2].data, chroma.width,
                             request.dst + to.pixels(), chroma.width * 2, chroma.width,
                             chroma.height);
    }
    return true;
}

}  // namespace

void scaleFrame(const ScaleRequest& request) {
    if (scaleInto(request)) return;
    Mutex::Autolock lock(gFailedTargetsLock);
    gFailedTargets.insert(request.dst);
}

bool takeScaleFailure(const unsigned char* frame) {
    Mutex::Autolock lock(gFailedTargetsLock);
    return gFailedTargets.erase(frame) > 0;
}

}  // namespace qmmediaeditor
}  // namespace android
