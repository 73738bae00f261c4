#include "host/convert/PictureConverter.h"

#include <string.h>

#include <algorithm>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

bool isRgb(const AVPixFmtDescriptor& format) {
    return (format.flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
}

bool isGrey(const AVPixFmtDescriptor& format) { return format.nb_components < 3 && !isRgb(format); }

bool isFullRange(const AVFrame& frame, const AVPixFmtDescriptor& format) {
    if (frame.color_range != AVCOL_RANGE_UNSPECIFIED) return frame.color_range == AVCOL_RANGE_JPEG;
    return isRgb(format) || isGrey(format) || strncmp(format.name, "yuvj", 4) == 0;
}

// Where a stream says nothing, standard definition is BT.601 and anything larger BT.709.
AVColorSpace matrixOf(const AVFrame& frame) {
    if (frame.colorspace == AVCOL_SPC_BT2020_CL) return AVCOL_SPC_BT2020_NCL;
    if (frame.colorspace != AVCOL_SPC_UNSPECIFIED) return frame.colorspace;
    return frame.width >= 1280 || frame.height > 576 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
}

bool isHdr(const AVFrame& frame) {
    return frame.color_trc == AVCOL_TRC_SMPTE2084 || frame.color_trc == AVCOL_TRC_ARIB_STD_B67;
}

bool isWideGamut(const AVFrame& frame) { return frame.color_primaries == AVCOL_PRI_BT2020; }

// Planes of plain samples in the machine's byte order, one component each, as zimg reads them.
bool isPlanar(const AVPixFmtDescriptor& format) {
    if ((format.flags & (AV_PIX_FMT_FLAG_BE | AV_PIX_FMT_FLAG_PAL)) != 0) return false;
    if ((format.flags & AV_PIX_FMT_FLAG_PLANAR) == 0 && !isGrey(format)) return false;
    for (int i = 0; i < (isGrey(format) ? 1 : 3); ++i) {
        const AVComponentDescriptor& component = format.comp[i];
        const int bytes = component.depth > 8 ? 2 : 1;
        if (component.step != bytes || component.offset != 0 || component.shift != 0) return false;
    }
    return true;
}

int evenUp(int size) { return size + (size & 1); }

zimg_chroma_location_e chromaLocationOf(const AVFrame& frame) {
    if (frame.chroma_location == AVCHROMA_LOC_UNSPECIFIED) return ZIMG_CHROMA_LEFT;
    // zimg counts from 0, FFmpeg from 1 after "unspecified".
    return static_cast<zimg_chroma_location_e>(frame.chroma_location - 1);
}

// Reads the rows of one frame, with a last row or column repeated where the size is odd.
class FrameRows {
public:
    FrameRows(const AVFrame& frame, const AVPixFmtDescriptor& format)
        : mFrame(frame), mFormat(format), mPlanar(isPlanar(format)) {}

    void read(int component, int row, int left, int right, uint8_t* line) {
        const bool chroma = component > 0 && !isRgb(mFormat);
        const int width =
            chroma ? AV_CEIL_RSHIFT(mFrame.width, mFormat.log2_chroma_w) : mFrame.width;
        const int height =
            chroma ? AV_CEIL_RSHIFT(mFrame.height, mFormat.log2_chroma_h) : mFrame.height;
        const int bytes = mFormat.comp[0].depth > 8 ? 2 : 1;
        if (chroma && isGrey(mFormat)) return fillNeutral(right - left, bytes, line);
        const int end = std::min(right, width);
        readInside(component, std::min(row, height - 1), left, end, bytes, line);
        for (int x = end; x < right; ++x) {
            memcpy(line + (x - left) * bytes, line + (end - 1 - left) * bytes,
                   static_cast<size_t>(bytes));
        }
    }

private:
    void fillNeutral(int count, int bytes, uint8_t* line) const {
        const auto neutral = static_cast<uint16_t>(1 << (mFormat.comp[0].depth - 1));
        for (int x = 0; x < count; ++x) store(neutral, x, bytes, line);
    }

    void readInside(int component, int row, int left, int right, int bytes, uint8_t* line) {
        if (mPlanar) {
            const int plane = mFormat.comp[component].plane;
            memcpy(line, mFrame.data[plane] + row * mFrame.linesize[plane] + left * bytes,
                   static_cast<size_t>((right - left) * bytes));
            return;
        }
        const bool palette = (mFormat.flags & AV_PIX_FMT_FLAG_PAL) != 0;
        // A palette's entries lie in memory as B, G, R, A.
        const int wanted = palette ? 2 - component : component;
        mSamples.resize(static_cast<size_t>(right - left));
        av_read_image_line2(mSamples.data(), const_cast<const uint8_t**>(mFrame.data),
                            mFrame.linesize, &mFormat, left, row, wanted, right - left,
                            palette ? 1 : 0, sizeof(uint16_t));
        const int depth = palette ? 8 : mFormat.comp[component].depth;
        for (size_t x = 0; x < mSamples.size(); ++x) {
            store(widen(mSamples[x], depth), static_cast<int>(x), bytes, line);
        }
    }

    // Components of fewer than 8 bits become 8-bit ones.
    static uint16_t widen(uint16_t sample, int depth) {
        if (depth >= 8) return sample;
        return static_cast<uint16_t>(sample * 255 / ((1 << depth) - 1));
    }

    static void store(uint16_t sample, int x, int bytes, uint8_t* line) {
        if (bytes == 2) {
            memcpy(line + x * 2, &sample, sizeof(sample));
        } else {
            line[x] = static_cast<uint8_t>(sample);
        }
    }

    const AVFrame& mFrame;
    const AVPixFmtDescriptor& mFormat;
    const bool mPlanar;
    std::vector<uint16_t> mSamples;
};

}  // namespace

// All of a frame that decides how it is converted.
struct PictureConverter::Source {
    int pixelFormat;
    int width;
    int height;
    int matrix;
    bool fullRange;
    int transfer;   // 0 where it plays no part
    int primaries;  // likewise
    int chromaLocation;

    bool operator==(const Source& other) const {
        return pixelFormat == other.pixelFormat && width == other.width && height == other.height &&
               matrix == other.matrix && fullRange == other.fullRange &&
               transfer == other.transfer && primaries == other.primaries &&
               chromaLocation == other.chromaLocation;
    }
};

PictureConverter::PictureConverter() = default;

PictureConverter::~PictureConverter() = default;

bool PictureConverter::canConvert(int pixelFormat) {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(pixelFormat));
    if (format == nullptr || strncmp(format->name, "xyz", 3) == 0) return false;
    constexpr uint64_t kRefused = AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_BAYER |
                                  AV_PIX_FMT_FLAG_FLOAT | AV_PIX_FMT_FLAG_BITSTREAM;
    return (format->flags & kRefused) == 0 && format->comp[0].depth <= 16;
}

bool PictureConverter::isWorkingPicture(const AVFrame& frame, int width, int height) {
    if (frame.format != AV_PIX_FMT_YUV420P && frame.format != AV_PIX_FMT_YUVA420P) return false;
    return frame.width == width && frame.height == height && !isHdr(frame) && !isWideGamut(frame) &&
           frame.color_range != AVCOL_RANGE_JPEG && matrixOf(frame) == AVCOL_SPC_BT709;
}

bool PictureConverter::convert(const AVFrame& frame, const PicturePlanes& to, int width,
                               int height) {
    if (!canConvert(frame.format)) return false;
    const AVPixFmtDescriptor& format =
        *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    const bool light = isHdr(frame) || isWideGamut(frame);
    const Source source = {frame.format,
                           frame.width,
                           frame.height,
                           isRgb(format) ? AVCOL_SPC_RGB : matrixOf(frame),
                           isFullRange(frame, format),
                           light ? frame.color_trc : 0,
                           light ? frame.color_primaries : 0,
                           chromaLocationOf(frame)};
    if (!prepare(source, width, height)) return false;

    FrameRows rows(frame, format);
    const bool even = ((frame.width | frame.height) & 1) == 0;
    if (even && isPlanar(format) && !isGrey(format)) {
        PicturePlanes from;
        for (int i = 0; i < 3; ++i) {
            const int plane = format.comp[i].plane;
            from.plane[i] = {frame.data[plane], frame.linesize[plane]};
        }
        return mGraph->process(from, to);
    }
    return mGraph->process([&rows](int component, int row, int left, int right,
                                   uint8_t* line) { rows.read(component, row, left, right, line); },
                           to);
}

bool PictureConverter::prepare(const Source& source, int width, int height) {
    if (mSource != nullptr && *mSource == source && mWidth == width && mHeight == height) {
        return mGraph != nullptr;
    }
    mSource = std::make_unique<Source>(source);
    mWidth = width;
    mHeight = height;

    const AVPixFmtDescriptor& format =
        *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(source.pixelFormat));
    const int depth = std::max(format.comp[0].depth, 8);
    zimg_image_format from;
    zimg_image_format_default(&from, ZIMG_API_VERSION);
    from.width = static_cast<unsigned>(evenUp(source.width));
    from.height = static_cast<unsigned>(evenUp(source.height));
    from.pixel_type = depth > 8 ? ZIMG_PIXEL_WORD : ZIMG_PIXEL_BYTE;
    from.depth = static_cast<unsigned>(depth);
    from.color_family = isRgb(format) ? ZIMG_COLOR_RGB : ZIMG_COLOR_YUV;
    from.subsample_w = isRgb(format) ? 0 : format.log2_chroma_w;
    from.subsample_h = isRgb(format) ? 0 : format.log2_chroma_h;
    from.matrix_coefficients = static_cast<zimg_matrix_coefficients_e>(source.matrix);
    from.pixel_range = source.fullRange ? ZIMG_RANGE_FULL : ZIMG_RANGE_LIMITED;
    from.chroma_location = static_cast<zimg_chroma_location_e>(source.chromaLocation);
    from.active_region.width = source.width;
    from.active_region.height = source.height;

    zimg_image_format to;
    zimg_image_format_default(&to, ZIMG_API_VERSION);
    to.width = static_cast<unsigned>(evenUp(width));
    to.height = static_cast<unsigned>(evenUp(height));
    to.pixel_type = ZIMG_PIXEL_BYTE;
    to.depth = 8;
    to.color_family = ZIMG_COLOR_YUV;
    to.subsample_w = 1;
    to.subsample_h = 1;
    to.matrix_coefficients = ZIMG_MATRIX_BT709;
    to.pixel_range = ZIMG_RANGE_LIMITED;
    to.chroma_location = ZIMG_CHROMA_LEFT;

    if (source.primaries != 0) {
        from.transfer_characteristics = static_cast<zimg_transfer_characteristics_e>(
            source.transfer == AVCOL_TRC_UNSPECIFIED ? AVCOL_TRC_BT709 : source.transfer);
        from.color_primaries = ZIMG_PRIMARIES_BT2020;
        to.transfer_characteristics = ZIMG_TRANSFER_BT709;
        to.color_primaries = ZIMG_PRIMARIES_BT709;
    }
    mGraph = PictureGraph::build(from, to, depth > 8 ? ZIMG_DITHER_ORDERED : ZIMG_DITHER_NONE);
    return mGraph != nullptr;
}

}  // namespace qmmediaeditor
}  // namespace android
