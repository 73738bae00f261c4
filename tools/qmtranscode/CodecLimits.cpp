#include <qmtranscode/CodecLimits.h>
#include <stdlib.h>

namespace android::qmmediaeditor::cli {

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

bool isH263Size(const Size& size) {
    constexpr Size kSizes[] = {{128, 96}, {176, 144}, {352, 288}, {704, 576}, {1408, 1152}};
    for (const Size& known : kSizes) {
        if (size.width == known.width && size.height == known.height) return true;
    }
    return false;
}

}  // namespace android::qmmediaeditor::cli
