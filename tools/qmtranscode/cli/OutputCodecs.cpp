#include <qmtranscode/cli/OutputCodecs.h>
#include <stdlib.h>

namespace android::qmmediaeditor::cli {

namespace {

constexpr Size kH263Sizes[] = {{128, 96}, {176, 144}, {352, 288}, {704, 576}, {1408, 1152}};
// The largest even number of 13 bits.
constexpr int32_t kMostMpeg4Pixels = 8190;

}  // namespace

int32_t aacSampleRate(int32_t sampleRate) {
    constexpr int32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                  22050, 16000, 12000, 11025, 8000,  7350};
    int32_t nearest = kRates[0];
    for (int32_t rate : kRates) {
        if (std::abs(sampleRate - rate) < std::abs(sampleRate - nearest)) nearest = rate;
    }
    return nearest;
}

int32_t amrSampleRate(AudioCodec codec) { return codec == AudioCodec::kAmrNb ? 8000 : 16000; }

int32_t amrBitrate(AudioCodec codec) { return codec == AudioCodec::kAmrNb ? 12200 : 23850; }

bool hasSize(VideoCodec codec, const Size& size) {
    if (codec == VideoCodec::kMpeg4) {
        return size.width <= kMostMpeg4Pixels && size.height <= kMostMpeg4Pixels;
    }
    if (codec != VideoCodec::kH263) return true;
    for (const Size& known : kH263Sizes) {
        if (size.width == known.width && size.height == known.height) return true;
    }
    return false;
}

std::string sizesOf(VideoCodec codec) {
    if (codec == VideoCodec::kMpeg4) {
        return "MPEG-4 has at most " + std::to_string(kMostMpeg4Pixels) +
               " pixels in a row or column";
    }
    return "H.263 has only 128x96, 176x144, 352x288, 704x576 and 1408x1152";
}

}  // namespace android::qmmediaeditor::cli
