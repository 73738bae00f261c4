#include <fmt/format.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <stdlib.h>

#include <algorithm>
#include <iterator>

namespace android::qmmediaeditor::cli {

namespace {

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

bool supportsSize(VideoCodec codec, const Size& size) {
    if (codec == VideoCodec::kMpeg4) return std::max(size.width, size.height) <= kMaxMpeg4Side;
    if (codec != VideoCodec::kH263) return true;
    return std::any_of(std::begin(kH263Sizes), std::end(kH263Sizes), [&size](const Size& known) {
        return size.width == known.width && size.height == known.height;
    });
}

std::string supportedSizesText(VideoCodec codec) {
    if (codec == VideoCodec::kMpeg4) {
        return fmt::format("MPEG-4 supports at most {0}x{0}", kMaxMpeg4Side);
    }
    return "H.263 supports only 128x96, 176x144, 352x288, 704x576 and 1408x1152";
}

}  // namespace android::qmmediaeditor::cli
