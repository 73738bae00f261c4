#include "host/convert/FrameScaler.h"

#include <android/log.h>
#include <libyuv/planar_functions.h>
#include <media/stagefright/MediaCodecConstants.h>
#include <utils/Mutex.h>

#include <map>
#include <utility>
#include <vector>

#include "host/convert/PlaneScaler.h"
#include "host/foundation/FrameAllocator.h"
#include "host/foundation/SharedFrames.h"

namespace android {
namespace qmmediaeditor {

namespace {

// Memory that frames are scaled into: an encoder input, or other memory into which scaling has
// failed.
struct Target {
    bool isEncoderInput = false;
    Scaled scaled;
};

// Never destroyed: a codec's thread may outlive everything else.
struct Targets {
    Mutex lock;
    std::map<const unsigned char*, Target> all GUARDED_BY(lock);
};

Targets& targets() {
    static auto* const instance = new Targets;
    return *instance;
}

class EncoderInput : public ABuffer {
public:
    explicit EncoderInput(const sp<ABuffer>& memory)
        : ABuffer(memory->base(), memory->capacity()), mMemory(memory) {
        Mutex::Autolock lock(targets().lock);
        targets().all[base()].isEncoderInput = true;
    }

protected:
    ~EncoderInput() override {
        Target dropped;
        Mutex::Autolock lock(targets().lock);
        std::swap(dropped, targets().all[base()]);
        targets().all.erase(base());
    }

private:
    const sp<ABuffer> mMemory;
};

constexpr char kLogTag[] = "FrameScaler";

int halfUp(int size) { return (size + 1) / 2; }

bool isColorFormat(int format) {
    return format == COLOR_FormatYUV420Planar || format == COLOR_FormatYUV420SemiPlanar;
}

bool makesSense(const ScaleRequest& request) {
    return request.src != nullptr && request.dst != nullptr && request.srcWidth >= 1 &&
           request.srcHeight >= 1 && request.dstWidth >= 1 && request.dstHeight >= 1 &&
           request.srcStride >= request.srcWidth && request.srcSliceHeight >= request.srcHeight &&
           isColorFormat(request.srcColorFormat) && isColorFormat(request.dstColorFormat);
}

// The source's planes; semi-planar chroma is split into `split`.
FramePlanes sourcePlanes(const ScaleRequest& request, std::vector<uint8_t>* split) {
    auto* luma = const_cast<uint8_t*>(request.src);
    uint8_t* chroma = luma + static_cast<ptrdiff_t>(request.srcStride) * request.srcSliceHeight;
    const FrameSize size = chromaOf({request.srcWidth, request.srcHeight});
    FramePlanes planes;
    planes.plane[0] = {luma, request.srcStride};
    if (request.srcColorFormat == COLOR_FormatYUV420Planar) {
        const int stride = halfUp(request.srcStride);
        planes.plane[1] = {chroma, stride};
        planes.plane[2] = {chroma + static_cast<ptrdiff_t>(stride) * halfUp(request.srcSliceHeight),
                           stride};
        return planes;
    }
    split->resize(pixelsOf(size) * 2);
    planes.plane[1] = {split->data(), size.width};
    planes.plane[2] = {split->data() + pixelsOf(size), size.width};
    libyuv::SplitUVPlane(chroma, request.srcStride, planes.plane[1].data, size.width,
                         planes.plane[2].data, size.width, size.width, size.height);
    return planes;
}

FramePlanes targetPlanes(const ScaleRequest& request, std::vector<uint8_t>* split) {
    const FrameSize size = {request.dstWidth, request.dstHeight};
    const FrameSize chroma = chromaOf(size);
    uint8_t* first = request.dst + pixelsOf(size);
    if (request.dstColorFormat == COLOR_FormatYUV420SemiPlanar) {
        split->resize(pixelsOf(chroma) * 2);
        first = split->data();
    }
    FramePlanes planes;
    planes.plane[0] = {request.dst, size.width};
    planes.plane[1] = {first, chroma.width};
    planes.plane[2] = {first + pixelsOf(chroma), chroma.width};
    return planes;
}

void copyPlanes(const FrameSize& size, const FramePlanes& from, const FramePlanes& to) {
    for (int i = 0; i < 3; ++i) {
        const FrameSize plane = i == 0 ? size : chromaOf(size);
        libyuv::CopyPlane(from.plane[i].data, static_cast<int>(from.plane[i].stride),
                          to.plane[i].data, static_cast<int>(to.plane[i].stride), plane.width,
                          plane.height);
    }
}

// The frame that the encoder can read in place of a copy; an empty result when there is none.
Scaled referenceTo(const ScaleRequest& request) {
    Scaled reference;
    const bool isCopy = request.srcWidth == request.dstWidth &&
                        request.srcHeight == request.dstHeight &&
                        request.srcColorFormat == COLOR_FormatYUV420Planar &&
                        request.dstColorFormat == COLOR_FormatYUV420Planar;
    if (!isCopy) return reference;
    const FrameSize whole = {request.srcStride, request.srcSliceHeight};
    reference.owner =
        SharedFrames::find(request.src, pixelsOf(whole) + 2 * pixelsOf(chromaOf(whole)));
    if (reference.owner != nullptr) reference.planes = sourcePlanes(request, nullptr);
    return reference;
}

// Stores the source's frame for takeScaled(), instead of a copy. False when a copy is needed: the
// target is not an encoder input, or the frame is to be scaled or not in SharedFrames.
bool passReference(const ScaleRequest& request) {
    Scaled reference = referenceTo(request);
    Scaled before;
    Mutex::Autolock lock(targets().lock);
    const auto target = targets().all.find(request.dst);
    if (target == targets().all.end() || !target->second.isEncoderInput) return false;
    before = std::exchange(target->second.scaled, std::move(reference));
    return target->second.scaled.owner != nullptr;
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
    if (passReference(request)) return true;
    thread_local PlaneScaler scaler;
    thread_local std::vector<uint8_t> sourceChroma;
    thread_local std::vector<uint8_t> targetChroma;

    const FrameSize from = {request.srcWidth, request.srcHeight};
    const FrameSize to = {request.dstWidth, request.dstHeight};
    const FramePlanes source = sourcePlanes(request, &sourceChroma);
    const FramePlanes target = targetPlanes(request, &targetChroma);
    if (from == to) {
        copyPlanes(from, source, target);
    } else if (!scaler.scale(from, source, to, target)) {
        return false;
    }
    if (request.dstColorFormat == COLOR_FormatYUV420SemiPlanar) {
        const FrameSize chroma = chromaOf(to);
        libyuv::MergeUVPlane(target.plane[1].data, chroma.width, target.plane[2].data, chroma.width,
                             request.dst + pixelsOf(to), chroma.width * 2, chroma.width,
                             chroma.height);
    }
    return true;
}

}  // namespace

void scaleFrame(const ScaleRequest& request) {
    if (scaleInto(request)) return;
    Mutex::Autolock lock(targets().lock);
    targets().all[request.dst].scaled.failed = true;
}

sp<ABuffer> makeEncoderInput(size_t bytes) {
    const sp<ABuffer> memory = FrameAllocator::makeBuffer(bytes);
    return memory == nullptr ? nullptr : new EncoderInput(memory);
}

Scaled takeScaled(const unsigned char* target) {
    Mutex::Autolock lock(targets().lock);
    const auto found = targets().all.find(target);
    if (found == targets().all.end()) return {};
    Scaled scaled = std::exchange(found->second.scaled, {});
    if (!found->second.isEncoderInput) targets().all.erase(found);
    return scaled;
}

}  // namespace qmmediaeditor
}  // namespace android
