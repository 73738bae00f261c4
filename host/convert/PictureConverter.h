// Brings decoded pictures of any kind to the working picture: 8-bit 4:2:0 planar, BT.709, limited
// range, in a given size. Alpha is dropped; interlaced pictures keep their fields. One thread at a
// time.
#pragma once

#include <memory>

#include "host/convert/PictureGraph.h"

struct AVFrame;

namespace android {
namespace qmmediaeditor {

class PictureConverter {
public:
    PictureConverter();
    ~PictureConverter();

    // `pixelFormat` is an AVPixelFormat.
    static bool canConvert(int pixelFormat);
    // True when the frame needs no conversion but the choice of planes.
    static bool isWorkingPicture(const AVFrame& frame, int width, int height);

    // `to` has room for a picture of `width` x `height`, rounded up to even numbers. False when the
    // frame cannot be converted.
    bool convert(const AVFrame& frame, const PicturePlanes& to, int width, int height);

private:
    struct Source;

    bool prepare(const Source& source, int width, int height);

    // What mGraph was built for.
    std::unique_ptr<Source> mSource;
    int mWidth = 0;
    int mHeight = 0;
    std::unique_ptr<PictureGraph> mGraph;
};

}  // namespace qmmediaeditor
}  // namespace android
