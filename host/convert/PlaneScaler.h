// Scales planar 4:2:0 frames, each plane by itself: with odd sizes the planes differ in ratio.
// Bicubic, no dither. Private to the host, because zimg's types are part of it. One thread at a
// time.
#pragma once

#include <host/Host.h>
#include <stddef.h>

#include <memory>

#include "host/convert/ZimgGraph.h"

namespace android {
namespace qmmediaeditor {

inline bool operator==(const FrameSize& a, const FrameSize& b) {
    return a.width == b.width && a.height == b.height;
}

inline FrameSize chromaOf(const FrameSize& size) {
    return {(size.width + 1) / 2, (size.height + 1) / 2};
}

inline size_t pixelsOf(const FrameSize& size) {
    return static_cast<size_t>(size.width) * static_cast<size_t>(size.height);
}

class PlaneScaler {
public:
    // Keeps the filters of the last pair of sizes. False for sizes that zimg refuses, or when
    // memory is short.
    bool scale(const FrameSize& from, const FramePlanes& source, const FrameSize& to,
               const FramePlanes& target);

private:
    bool prepare(const FrameSize& from, const FrameSize& to);

    FrameSize mFrom;
    FrameSize mTo;
    std::unique_ptr<ZimgGraph> mLuma;
    std::unique_ptr<ZimgGraph> mChroma;
};

}  // namespace qmmediaeditor
}  // namespace android
