// Encodes interleaved 16-bit samples to AAC LC, AMR-NB or AMR-WB.
//
// Timestamps follow from the first input's timestamp and the number of samples since. They include
// the encoder's delay: the first AAC packet of a track that begins at 0 has a negative timestamp.
#pragma once

#include <host/Host.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <vector>

#include "host/codec/CodecBackend.h"
#include "host/codec/EncodedAudioCheck.h"
#include "host/codec/PacketCodecs.h"
#include "host/codec/SessionTimeline.h"

namespace android {
namespace qmmediaeditor {

class AudioEncoder : public CodecBackend {
public:
    // `session` may be null.
    AudioEncoder(const HostOptions& options, std::shared_ptr<SessionTimeline> session);
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
    // Converts `frames` input frames into mFifo; null data drains the converter.
    status_t convert(const uint8_t* data, int frames);
    // Of an input sample with this number.
    double gainOf(int64_t sample) const;
    // The input with its gain.
    const int16_t* amplify(const int16_t* samples, size_t frames);
    status_t sendFrame();
    bool hasFrame() const;
    // Tells the observer of the encoder's packet, and adds it to the check.
    void reportPacket(int64_t firstSample);
    // Of a sample in the encoder's sample rate, in microseconds of the output.
    int64_t timeOf(int64_t samples) const;
    // Of the encoder's packet, in samples.
    int64_t packetStart();

    const std::shared_ptr<SessionTimeline> mSession;
    HostObserver* const mObserver;  // the session's; may be null
    const std::vector<float> mGains;
    const bool mIsEncoding;
    PacketEncoder mEncoder;
    const FramePtr mFrame;
    ResamplerPtr mConverter;
    AudioFifoPtr mFifo;
    sp<AMessage> mFormat;
    sp<ABuffer> mCodecSpecificData;  // until it has been output
    int mInSampleRate = 0;
    int mChannelCount = 0;

    bool mStarted = false;
    bool mFinished = false;
    bool mEndSent = false;
    int64_t mFirstTimeUs = 0;
    int64_t mTakenSamples = 0;
    std::vector<int16_t> mAmplified;
    int64_t mSentSamples = 0;
    std::optional<int64_t> mNextPacket;  // in samples
    int64_t mLastTimeUs = 0;
    const bool mIsChecking;
    // Null unless the options ask for it.
    std::unique_ptr<EncodedAudioCheck> mCheck;
};

}  // namespace qmmediaeditor
}  // namespace android
