#include "host/convert/VideoFrameConverter.h"

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

// Without a statement in the stream, standard definition is BT.601 and larger sizes are BT.709.
AVColorSpace matrixOf(const AVFrame& frame) {
    if (frame.colorspace == AVCOL_SPC_BT2020_CL) return AVCOL_SPC_BT2020_NCL;
    if (frame.colorspace != AVCOL_SPC_UNSPECIFIED) return frame.colorspace;
    return frame.width >= 1280 || frame.height > 576 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
}

bool isHdrTransfer(int transfer) {
    return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

bool isHdr(const AVFrame& frame) { return isHdrTransfer(frame.color_trc); }

bool isWideGamut(const AVFrame& frame) { return frame.color_primaries == AVCOL_PRI_BT2020; }

// True for planes of one component each in native byte order, which zimg can read.
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

// For frames that isPlanar() is true for, except grey ones.
FramePlanes planesOf(const AVFrame& frame, const AVPixFmtDescriptor& format) {
    FramePlanes planes;
    for (int i = 0; i < 3; ++i) {
        const int plane = format.comp[i].plane;
        planes.plane[i] = {frame.data[plane], frame.linesize[plane]};
    }
    return planes;
}

int evenUp(int size) { return size + (size & 1); }

// Three planes in one block, each of an even size.
template <typename Sample>
FramePlanes planesOf(std::vector<Sample>& samples, int width, int height) {
    const size_t rowSamples = static_cast<size_t>(evenUp(width));
    const size_t planeSamples = rowSamples * static_cast<size_t>(evenUp(height));
    FramePlanes planes;
    for (size_t i = 0; i < 3; ++i) {
        planes.plane[i] = {reinterpret_cast<uint8_t*>(samples.data() + i * planeSamples),
                           static_cast<ptrdiff_t>(rowSamples * sizeof(Sample))};
    }
    return planes;
}

zimg_chroma_location_e chromaLocationOf(const AVFrame& frame) {
    if (frame.chroma_location == AVCHROMA_LOC_UNSPECIFIED) return ZIMG_CHROMA_LEFT;
    // zimg counts from 0, FFmpeg from 1 after "unspecified".
    return static_cast<zimg_chroma_location_e>(frame.chroma_location - 1);
}

// Reads the rows of one frame; the last row or column is repeated where the size is odd.
class FrameRows {
public:
    FrameRows(const AVFrame& frame, const AVPixFmtDescriptor& format, bool blendsAlpha)
        : mFrame(frame),
          mFormat(format),
          mPlanar(isPlanar(format)),
          mBlendsAlpha(blendsAlpha && (format.flags & AV_PIX_FMT_FLAG_ALPHA) != 0) {}

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
                   static_cast<size_t>(right - left) * static_cast<size_t>(bytes));
            return;
        }
        if ((mFormat.flags & AV_PIX_FMT_FLAG_PAL) != 0) {
            return readPalette(component, row, left, right, line);
        }
        readSamples(component, row, left, right, &mSamples);
        if (mBlendsAlpha) blend(row, left, right);
        const int depth = mFormat.comp[component].depth;
        for (size_t x = 0; x < mSamples.size(); ++x) {
            store(widen(mSamples[x], depth), static_cast<int>(x), bytes, line);
        }
    }

    void readSamples(int component, int row, int left, int right,
                     std::vector<uint16_t>* samples) const {
        samples->resize(static_cast<size_t>(right - left));
        av_read_image_line2(samples->data(), const_cast<const uint8_t**>(mFrame.data),
                            mFrame.linesize, &mFormat, left, row, component, right - left, 0,
                            sizeof(uint16_t));
    }

    // Alpha is the last component.
    void blend(int row, int left, int right) {
        const int component = mFormat.nb_components - 1;
        readSamples(component, row, left, right, &mAlpha);
        const uint32_t opaque = (1U << mFormat.comp[component].depth) - 1;
        for (size_t x = 0; x < mSamples.size(); ++x) {
            mSamples[x] = static_cast<uint16_t>(mSamples[x] * uint32_t{mAlpha[x]} / opaque);
        }
    }

    // A palette has 32-bit entries of A, R, G, B from the highest byte down.
    void readPalette(int component, int row, int left, int right, uint8_t* line) const {
        const uint8_t* indexes = mFrame.data[0] + row * mFrame.linesize[0];
        for (int x = left; x < right; ++x) {
            uint32_t color = 0;
            memcpy(&color, mFrame.data[1] + size_t{4} * indexes[x], sizeof(color));
            const uint32_t value = (color >> (16 - 8 * component)) & 0xFF;
            const uint32_t alpha = mBlendsAlpha ? color >> 24 : 0xFF;
            line[x - left] = static_cast<uint8_t>(value * alpha / 0xFF);
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
    const bool mBlendsAlpha;
    std::vector<uint16_t> mSamples;
    std::vector<uint16_t> mAlpha;
};

}  // namespace

// The properties of a frame that determine its conversion.
struct VideoFrameConverter::Source {
    int pixelFormat;
    int width;
    int height;
    int matrix;
    bool fullRange;
    bool light;    // the conversion uses linear light
    int transfer;  // 0 otherwise
    int chromaLocation;

    bool operator==(const Source& other) const {
        return pixelFormat == other.pixelFormat && width == other.width && height == other.height &&
               matrix == other.matrix && fullRange == other.fullRange && light == other.light &&
               transfer == other.transfer && chromaLocation == other.chromaLocation;
    }
};

VideoFrameConverter::VideoFrameConverter() = default;

VideoFrameConverter::~VideoFrameConverter() = default;

bool VideoFrameConverter::canConvert(int pixelFormat) {
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(pixelFormat));
    if (format == nullptr || strncmp(format->name, "xyz", 3) == 0) return false;
    constexpr uint64_t kRefused = AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_BAYER |
                                  AV_PIX_FMT_FLAG_FLOAT | AV_PIX_FMT_FLAG_BITSTREAM;
    return (format->flags & kRefused) == 0 && format->comp[0].depth <= 16;
}

bool VideoFrameConverter::isWorkingFrame(const AVFrame& frame, int width, int height) {
    if (frame.format != AV_PIX_FMT_YUV420P && frame.format != AV_PIX_FMT_YUVA420P) return false;
    return frame.width == width && frame.height == height && !isHdr(frame) && !isWideGamut(frame) &&
           frame.color_range != AVCOL_RANGE_JPEG && matrixOf(frame) == AVCOL_SPC_BT709;
}

bool VideoFrameConverter::convert(const AVFrame& frame, const FramePlanes& to, int width,
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
                           light,
                           light ? frame.color_trc : 0,
                           chromaLocationOf(frame)};
    if (!prepare(source, width, height)) return false;

    if (mHdr != nullptr) {
        mHdr->convert(planesOf(frame, format), to);
        return true;
    }
    if (mToLinear == nullptr) return read(frame, mGraph.get(), to);
    return read(frame, mToLinear.get(), planesOf(mLinear, width, height)) && mapTones(to);
}

bool VideoFrameConverter::read(const AVFrame& frame, ZimgGraph* graph, const FramePlanes& to) {
    const AVPixFmtDescriptor& format =
        *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    const bool even = ((frame.width | frame.height) & 1) == 0;
    if (even && isPlanar(format) && !isGrey(format)) {
        return graph->process(planesOf(frame, format), to);
    }
    FrameRows rows(frame, format, mBlendsAlpha);
    return graph->process([&rows](int component, int row, int left, int right,
                                  uint8_t* line) { rows.read(component, row, left, right, line); },
                          to);
}

bool VideoFrameConverter::mapTones(const FramePlanes& to) {
    const int width = evenUp(mWidth);
    const int height = evenUp(mHeight);
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    for (int y = 0; y < height; ++y) {
        const size_t first = static_cast<size_t>(y) * static_cast<size_t>(width);
        const float* linear[3];
        uint16_t* coded[3];
        for (size_t i = 0; i < 3; ++i) {
            linear[i] = mLinear.data() + i * pixels + first;
            coded[i] = mCoded.data() + i * pixels + first;
        }
        mToneMapper->mapRow(linear, width, coded);
    }
    return mGraph->process(planesOf(mCoded, mWidth, mHeight), to);
}

bool VideoFrameConverter::prepareToneMapping(const zimg_image_format& from,
                                             const zimg_image_format& to) {
    zimg_image_format linear = to;
    linear.pixel_type = ZIMG_PIXEL_FLOAT;
    linear.depth = 32;
    linear.color_family = ZIMG_COLOR_RGB;
    linear.subsample_w = linear.subsample_h = 0;
    linear.matrix_coefficients = ZIMG_MATRIX_RGB;
    linear.pixel_range = ZIMG_RANGE_FULL;
    linear.transfer_characteristics = ZIMG_TRANSFER_LINEAR;
    zimg_image_format coded = linear;
    coded.pixel_type = ZIMG_PIXEL_WORD;
    coded.depth = 16;
    coded.transfer_characteristics = ZIMG_TRANSFER_BT709;

    const size_t samples = size_t{to.width} * to.height * 3;
    mLinear.resize(samples);
    mCoded.resize(samples);
    mToneMapper = std::make_unique<ToneMapper>();
    mToLinear = ZimgGraph::build(from, linear, {ZIMG_DITHER_NONE, ToneMapper::kWhiteNits});
    mGraph = ZimgGraph::build(coded, to, {ZIMG_DITHER_ORDERED});
    return mToLinear != nullptr && mGraph != nullptr;
}

bool VideoFrameConverter::prepare(const Source& source, int width, int height) {
    if (mSource != nullptr && *mSource == source && mWidth == width && mHeight == height) {
        return mHdr != nullptr || mGraph != nullptr;
    }
    mSource = std::make_unique<Source>(source);
    mHdr.reset();
    mToLinear.reset();
    mGraph.reset();
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
    // Where the output gets an extra column or row to be even, the source's region is extended in
    // proportion.
    from.active_region.width = static_cast<double>(source.width) * evenUp(width) / width;
    from.active_region.height = static_cast<double>(source.height) * evenUp(height) / height;

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

    if (source.light) {
        from.transfer_characteristics = static_cast<zimg_transfer_characteristics_e>(
            source.transfer == AVCOL_TRC_UNSPECIFIED ? AVCOL_TRC_BT709 : source.transfer);
        from.color_primaries = ZIMG_PRIMARIES_BT2020;
        to.transfer_characteristics = ZIMG_TRANSFER_BT709;
        to.color_primaries = ZIMG_PRIMARIES_BT709;
    }
    const bool sameEvenSize =
        source.width == width && source.height == height && width % 2 == 0 && height % 2 == 0;
    if (isHdrTransfer(source.transfer) && source.pixelFormat == AV_PIX_FMT_YUV420P10 &&
        source.matrix == AVCOL_SPC_BT2020_NCL && sameEvenSize) {
        mHdr = std::make_unique<HdrConverter>(from);
        return true;
    }
    if (isHdrTransfer(source.transfer)) return prepareToneMapping(from, to);
    mGraph = ZimgGraph::build(from, to, {depth > 8 ? ZIMG_DITHER_ORDERED : ZIMG_DITHER_NONE});
    return mGraph != nullptr;
}

}  // namespace qmmediaeditor
}  // namespace android
