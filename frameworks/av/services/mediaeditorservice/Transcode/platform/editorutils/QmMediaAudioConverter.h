// Converts interleaved PCM: channel count, sample rate and bit depth. One thread at a time.
#pragma once

#include <utils/RefBase.h>

namespace android {
namespace qmmediaeditor {

class AudioConverterBackend;

class QmMediaAudioConverter : public RefBase {
public:
    QmMediaAudioConverter();

    // Rates in Hz, depths in bits (16 or 24 in; the output is always 16). Non-zero on success.
    int init(int inChannelCount, int inSampleRate, int inBitDepth, int outChannelCount,
             int outSampleRate, int outBitDepth);

    // A buffer large enough for what process() makes of `frames` input frames; `ratio` is the
    // output rate over the input rate. `base` is null. Null when memory is short. To be freed with
    // freeBuff().
    unsigned char* allocateBuff(unsigned char* base, int frames, float ratio);

    // Converts `frames` frames of `in` and returns the number of frames in `out`, which are
    // interleaved 16-bit samples: 0 while they stay inside the converter. Negative on failure.
    int process(unsigned char* in, unsigned char* out, int frames);

    void freeBuff(unsigned char* buffer);

protected:
    ~QmMediaAudioConverter() override;

private:
    const sp<AudioConverterBackend> mBackend;
};

}  // namespace qmmediaeditor
}  // namespace android
