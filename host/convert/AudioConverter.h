// Converts interleaved PCM with libswresample. What QmMediaAudioConverter.h promises holds here.
#pragma once

#include <Platform.h>
#include <stdint.h>

#include <vector>

#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

class AudioConverter : public AudioConverterBackend {
public:
    int init(int inChannelCount, int inSampleRate, int inBitDepth, int outChannelCount,
             int outSampleRate, int outBitDepth) override;
    unsigned char* allocateBuff(unsigned char* base, int frames, float ratio) override;
    int process(unsigned char* in, unsigned char* out, int frames) override;
    void freeBuff(unsigned char* buffer) override;

private:
    ResamplerPtr mResampler;
    int mInChannelCount = 0;
    int mInBitDepth = 0;
    int mOutChannelCount = 0;
    std::vector<int32_t> mUnpacked;  // 24-bit input, as 32-bit samples
};

}  // namespace qmmediaeditor
}  // namespace android
