// Converts decoded frames of any format to the working frame: 8-bit 4:2:0 planar, BT.709, limited
// range, in a given size. Alpha is dropped, unless it is blended; interlaced frames keep their
// fields. One thread at a time.
#pragma once

#include <stdint.h>

#include <memory>
#include <vector>

#include "host/convert/HdrConverter.h"
#include "host/convert/ToneMapper.h"
#include "host/convert/ZimgGraph.h"

struct AVFrame;

namespace android {
namespace qmmediaeditor {

class VideoFrameConverter {
public:
    VideoFrameConverter();
    ~VideoFrameConverter();

    // `pixelFormat` is an AVPixelFormat.
    static bool canConvert(int pixelFormat);
    // True when the frame needs no conversion beyond the choice of planes.
    static bool isWorkingFrame(const AVFrame& frame, int width, int height);

    // Frames of packed RGB or grey with alpha, and of a palette, are shown on black, as animated
    // images are. In video, their alpha is often undefined.
    void blendAlpha() { mBlendsAlpha = true; }

    // `to` has room for a frame of `width` x `height`, rounded up to even numbers. False when the
    // frame cannot be converted.
    bool convert(const AVFrame& frame, const FramePlanes& to, int width, int height);

private:
    struct Source;

    bool prepare(const Source& source, int width, int height);
    // HDR takes three steps: to linear light, through the tone mapper, to the working frame.
    bool prepareToneMapping(const zimg_image_format& from, const zimg_image_format& to);
    bool read(const AVFrame& frame, ZimgGraph* graph, const FramePlanes& to);
    bool mapTones(const FramePlanes& to);

    bool mBlendsAlpha = false;
    // The input and output that the graphs were built for.
    std::unique_ptr<Source> mSource;
    int mWidth = 0;
    int mHeight = 0;
    std::unique_ptr<ZimgGraph> mGraph;

    // For HDR: mHdr for the formats that HdrConverter takes, the members below for the others.
    std::unique_ptr<HdrConverter> mHdr;
    std::unique_ptr<ZimgGraph> mToLinear;
    std::unique_ptr<ToneMapper> mToneMapper;
    std::vector<float> mLinear;  // R, G and B planes in the size of the output
    std::vector<uint16_t> mCoded;
};

}  // namespace qmmediaeditor
}  // namespace android
