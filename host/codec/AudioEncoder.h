// Encodes interleaved 16-bit samples to AAC LC, AMR-NB or AMR-WB.
//
// Times follow from the first input's time and the number of samples since. The encoder's delay is
// in them: the first AAC packet of a track that begins at 0 has a time before 0.
#pragma once

#include <stdint.h>

#include "host/Host.h"
#include "host/codec/CodecBackend.h"
#include "host/codec/PacketCodecs.h"

namespace android {
namespace qmmediaeditor {

class AudioEncoder : public CodecBackend {
public:
    // `observer` may be null.
    explicit AudioEncoder(HostObserver* observer);
    ~AudioEncoder() override;

    status_t configure(const sp<AMessage>& format, CodecBuffers* buffers) override;
    sp<AMessage> outputFormat() const override { return mFormat; }
    Step produce(CodecOutput* output) override;
    status_t accept(CodecInput input) override;
    status_t finish() override;

private:
    status_t setParameters(const AMessage& format);
    status_t openEncoder();
    status_t openConverter();
    // Moves what the converter makes of `frames` input frames into mFifo; null data drains it.
    status_t convert(const uint8_t* data, int frames);
    status_t sendFrame();
    bool hasFrame() const;

    HostObserver* const mObserver;
    PacketEncoder mEncoder;
    const FramePtr mFrame;
    ResamplerPtr mConverter;
    AudioFifoPtr mFifo;
    sp<AMessage> mFormat;
    sp<ABuffer> mCodecSpecificData;  // until it is out
    int mInSampleRate = 0;
    int mChannelCount = 0;

    bool mStarted = false;
    bool mFinished = false;
    bool mEndSent = false;
    int64_t mFirstTimeUs = 0;
    int64_t mSentSamples = 0;
    int64_t mLastTimeUs = 0;
};

}  // namespace qmmediaeditor
}  // namespace android
