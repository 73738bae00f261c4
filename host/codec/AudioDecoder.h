// Decodes audio to the working format: interleaved 16-bit PCM without gaps, in short buffers.
//
// The timestamp of an output follows from the number of samples before it in the segment. A gap (a
// late start, lost packets) is filled with silence, and an overlap is dropped. Sample rate and
// channels stay those of the start.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "host/codec/CodecBackend.h"
#include "host/codec/InputLimits.h"
#include "host/codec/PacketCodecs.h"

namespace android {
namespace qmmediaeditor {

class AudioDecoder : public CodecBackend {
public:
    // No buffer extends across one of `cutTimesUs`, which rise. Without this list all buffers are
    // short. `observer`, which may be null, is told why an input is refused; it outlives the
    // decoder.
    AudioDecoder(const std::optional<std::vector<int64_t>>& cutTimesUs, HostObserver* observer);
    ~AudioDecoder() override;

    status_t configure(const sp<AMessage>& format, CodecBuffers* buffers) override;
    sp<AMessage> outputFormat() const override { return mFormat; }
    Step produce(CodecOutput* output) override;
    status_t accept(CodecInput input) override;
    status_t finish() override;
    Step produceWithoutInput(const InputSegment& segment, int64_t positionUs,
                             CodecOutput* output) override;
    OutputSequencer::MemberState memberState() const override;

private:
    void setFormat(int sampleRate, int channelCount);
    void enter(const InputSegment& segment);
    // Each false when memory is short.
    bool takeFrame();
    bool prepareResampler();
    bool resample(const AVFrame* frame);
    // Puts the samples in mPcm at this sample frame of the segment.
    void place(int64_t startFrame);
    // Removes from mPcm what follows the end of the track.
    void dropPadding();
    // Silence that is due when the reader has reached `positionUs`, in sample frames.
    int64_t framesMissing(int64_t positionUs) const;
    int64_t framesMissingAtEnd() const;
    // Adds silence to the output; sets mRefused instead when it exceeds the limit.
    void addSilence(int64_t frames);
    Step produceChunk(CodecOutput* output);

    // When the reader is past this time, missing audio is a gap.
    int64_t silenceDueUs() const;
    int64_t frameAt(int64_t timeUs) const;
    int64_t timeAt(int64_t frame) const;
    int64_t pcmFrames() const;
    // Up to the next cut; INT64_MAX when none follows.
    int64_t framesToCut() const;

    const std::vector<int64_t> mCutTimesUs;
    HostObserver* const mObserver;
    const int64_t mChunkFrames;  // maximum of a buffer
    PacketDecoder mDecoder;
    const FramePtr mFrame;
    ResamplerPtr mResampler;
    std::string mResamplerInput;  // input format of mResampler

    sp<AMessage> mFormat;
    int mSampleRate = 0;
    int mChannelCount = 0;
    int64_t mTrackEndUs = 0;
    sp<TrackSource> mSource;  // null for a format that no extractor made
    SilenceBudget mSilenceBudget;
    bool mRefused = false;

    InputSegment mSegment;
    // Position of the next output, in sample frames since the start of the segment.
    int64_t mNextFrame = 0;
    int64_t mSilenceFrames = 0;
    // No audio has been decoded yet in this segment.
    bool mAtStart = true;
    // The last output was silence for missing input.
    bool mInGap = false;
    std::vector<int16_t> mPcm;
    size_t mPcmUsed = 0;  // samples
};

}  // namespace qmmediaeditor
}  // namespace android
