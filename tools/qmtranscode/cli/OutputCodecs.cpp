#include <fmt/format.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

// Rising.
constexpr Size kH263Sizes[] = {{128, 96}, {176, 144}, {352, 288}, {704, 576}, {1408, 1152}};
// Frames have an even width and height.
constexpr int32_t kMaxMpeg4Side = kMpeg4MaxSide & ~1;

}  // namespace

const Choices<FileFormat>& fileFormats() {
    static const Choices<FileFormat> formats = {{"mp4", FileFormat::kMp4},
                                                {"3gp", FileFormat::k3gp}};
    return formats;
}

const Choices<VideoCodec>& videoCodecs() {
    static const Choices<VideoCodec> codecs = {
        {"avc", VideoCodec::kAvc}, {"h263", VideoCodec::kH263}, {"mpeg4", VideoCodec::kMpeg4}};
    return codecs;
}

const Choices<AudioCodec>& audioCodecs() {
    static const Choices<AudioCodec> codecs = {
        {"aac", AudioCodec::kAac}, {"amr-nb", AudioCodec::kAmrNb}, {"amr-wb", AudioCodec::kAmrWb}};
    return codecs;
}

int32_t nearestAacSampleRate(int32_t sampleRate) {
    const auto isNearer = [sampleRate](int a, int b) {
        return std::abs(sampleRate - a) < std::abs(sampleRate - b);
    };
    return *std::min_element(std::begin(kAacSampleRates), std::end(kAacSampleRates), isNearer);
}

int32_t amrSampleRate(AudioCodec codec) {
    return codec == AudioCodec::kAmrNb ? kAmrNbSampleRate : kAmrWbSampleRate;
}

int32_t amrBitrate(AudioCodec codec) { return codec == AudioCodec::kAmrNb ? 12200 : 23850; }

double avcBitsFactor(const std::string& mime) {
    // Measured by bench/quality, as the median of six recordings.
    static const std::pair<const char*, double> kFactors[] = {
        {"video/hevc", 2}, {"video/x-vnd.on2.vp9", 1.75}, {"video/av01", 3}};
    for (const auto& [codec, factor] : kFactors) {
        if (mime == codec) return factor;
    }
    return 1;
}

bool supportsSize(VideoCodec codec, const Size& size) {
    if (codec == VideoCodec::kMpeg4) {
        return std::max(size.width, size.height) <= kMaxMpeg4Side &&
               int64_t{size.width} * size.height <= kMpeg4MaxPixels;
    }
    if (codec != VideoCodec::kH263) return true;
    return std::any_of(std::begin(kH263Sizes), std::end(kH263Sizes), [&size](const Size& known) {
        return size.width == known.width && size.height == known.height;
    });
}

Size nearestSize(VideoCodec codec, const Size& size) {
    if (supportsSize(codec, size)) return size;
    if (codec == VideoCodec::kMpeg4) {
        const double pixels = static_cast<double>(size.width) * size.height;
        const double scale = std::min(1.0, std::sqrt(kMpeg4MaxPixels / pixels));
        const auto limit = [scale](int32_t side) {
            return std::min(kMaxMpeg4Side, static_cast<int32_t>(side * scale));
        };
        return fitInto({limit(size.width), limit(size.height)}, size);
    }
    Size nearest = kH263Sizes[0];
    for (const Size& known : kH263Sizes) {
        if (known.width <= size.width && known.height <= size.height) nearest = known;
    }
    return nearest;
}

Size fitInto(const Size& box, const Size& shape) {
    const double scale = std::min({1.0, static_cast<double>(box.width) / shape.width,
                                   static_cast<double>(box.height) / shape.height});
    // Without scaling, an odd row or column is cut off.
    if (scale == 1) return {std::max(2, shape.width & ~1), std::max(2, shape.height & ~1)};
    // Rounding the shorter side changes the aspect ratio, more for some sizes than for others.
    constexpr double kMaxDeviation = 0.005;
    constexpr int32_t kMaxLoss = 16;  // pixels of the longer side
    const bool isWide = shape.width >= shape.height;
    const int32_t from = isWide ? shape.width : shape.height;
    const double ratio = static_cast<double>(isWide ? shape.height : shape.width) / from;
    const int32_t maxShort = (isWide ? box.height : box.width) & ~1;
    const int32_t maxLong = std::min(from, isWide ? box.width : box.height) & ~1;
    const int32_t longest =
        std::min(2 * static_cast<int32_t>(std::lround(from * scale / 2)), maxLong);
    Size best{2, 2};
    double bestDeviation = std::numeric_limits<double>::max();
    for (int32_t side = longest; side >= std::max(2, longest - kMaxLoss); side -= 2) {
        const double exact = side * ratio;
        const int32_t other =
            std::clamp(2 * static_cast<int32_t>(std::lround(exact / 2)), 2, std::max(2, maxShort));
        const double deviation = std::abs(other / exact - 1);
        if (deviation >= bestDeviation) continue;
        bestDeviation = deviation;
        best = isWide ? Size{side, other} : Size{other, side};
        if (deviation <= kMaxDeviation) break;
    }
    return best;
}

std::string supportedSizesText(VideoCodec codec) {
    if (codec == VideoCodec::kMpeg4) {
        return fmt::format("MPEG-4 supports at most {0}x{0} and {1} pixels", kMaxMpeg4Side,
                           kMpeg4MaxPixels);
    }
    return "H.263 supports only 128x96, 176x144, 352x288, 704x576 and 1408x1152";
}

}  // namespace android::qmmediaeditor::cli
