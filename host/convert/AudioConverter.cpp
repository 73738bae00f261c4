#include "host/convert/AudioConverter.h"

#include <android/log.h>
#include <errno.h>
#include <math.h>
#include <stdlib.h>

#include <algorithm>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "AudioConverter";

constexpr size_t kOutputSampleBytes = 2;

// 24-bit samples are packed in three bytes, the lowest first.
int32_t sampleOf24Bits(const unsigned char* bytes) {
    const uint32_t sample = static_cast<uint32_t>(bytes[0]) << 8 |
                            static_cast<uint32_t>(bytes[1]) << 16 |
                            static_cast<uint32_t>(bytes[2]) << 24;
    return static_cast<int32_t>(sample);
}

// A mix for channels without known places, such as the microphones of a recorder: the input
// channels are divided evenly among the output channels, each of which is the mean of its share. A
// row for each output channel.
std::vector<double> evenMix(int inChannels, int outChannels) {
    const auto columns = static_cast<size_t>(inChannels);
    const auto rows = static_cast<size_t>(outChannels);
    std::vector<double> matrix(columns * rows);
    for (size_t row = 0; row < rows; ++row) {
        const size_t first = row % columns;
        const size_t count = (columns - 1 - first) / rows + 1;
        for (size_t in = first; in < columns; in += rows) {
            matrix[row * columns + in] = 1 / static_cast<double>(count);
        }
    }
    return matrix;
}

}  // namespace

int AudioConverter::init(int inChannelCount, int inSampleRate, int inBitDepth, int outChannelCount,
                         int outSampleRate, int outBitDepth) {
    mResampler.reset();
    const bool knownDepths = (inBitDepth == 16 || inBitDepth == 24) && outBitDepth == 16;
    if (!knownDepths || inChannelCount < 1 || outChannelCount < 1 || inSampleRate < 1 ||
        outSampleRate < 1) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "no conversion from %d channels, %d Hz, %d bits to %d, %d, %d",
                            inChannelCount, inSampleRate, inBitDepth, outChannelCount,
                            outSampleRate, outBitDepth);
        return 0;
    }
    AVChannelLayout from = {};
    AVChannelLayout to = {};
    av_channel_layout_default(&from, inChannelCount);
    av_channel_layout_default(&to, outChannelCount);
    SwrContext* resampler = nullptr;
    const AVSampleFormat format = inBitDepth == 16 ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_S32;
    const int error = swr_alloc_set_opts2(&resampler, &to, AV_SAMPLE_FMT_S16, outSampleRate, &from,
                                          format, inSampleRate, 0, nullptr);
    mResampler.reset(resampler);
    // libswresample leaves out most channels of layouts with more.
    constexpr int kMaxMixedChannels = 8;
    const bool isKnown = from.order != AV_CHANNEL_ORDER_UNSPEC &&
                         to.order != AV_CHANNEL_ORDER_UNSPEC && inChannelCount <= kMaxMixedChannels;
    if (error == 0 && !isKnown && inChannelCount != outChannelCount) {
        swr_set_matrix(resampler, evenMix(inChannelCount, outChannelCount).data(), inChannelCount);
    }
    if (error < 0 || swr_init(resampler) < 0) {
        mResampler.reset();
        return 0;
    }
    mInChannelCount = inChannelCount;
    mInBitDepth = inBitDepth;
    mOutChannelCount = outChannelCount;
    return 1;
}

unsigned char* AudioConverter::allocateBuff(unsigned char* /* base */, int frames, float ratio) {
    if (mResampler == nullptr || frames < 0) return nullptr;
    // Samples inside the resampler are output with the next frames.
    const int made = std::max(swr_get_out_samples(mResampler.get(), frames), 0);
    const double expected = ceil(static_cast<double>(frames) * std::max(ratio, 0.0f));
    const size_t room = std::max(static_cast<size_t>(made), static_cast<size_t>(expected)) + 1;
    const size_t bytes = room * static_cast<size_t>(mOutChannelCount) * kOutputSampleBytes;
    return static_cast<unsigned char*>(malloc(bytes));
}

int AudioConverter::process(unsigned char* in, unsigned char* out, int frames) {
    if (mResampler == nullptr || in == nullptr || out == nullptr) return -EINVAL;
    if (frames < 1) return 0;
    const unsigned char* source = in;
    if (mInBitDepth == 24) {
        mUnpacked.resize(static_cast<size_t>(frames) * static_cast<size_t>(mInChannelCount));
        for (size_t i = 0; i < mUnpacked.size(); ++i) mUnpacked[i] = sampleOf24Bits(in + i * 3);
        source = reinterpret_cast<const unsigned char*>(mUnpacked.data());
    }
    const int room = swr_get_out_samples(mResampler.get(), frames);
    return room < 0 ? room : swr_convert(mResampler.get(), &out, room, &source, frames);
}

void AudioConverter::freeBuff(unsigned char* buffer) { free(buffer); }

}  // namespace qmmediaeditor
}  // namespace android
