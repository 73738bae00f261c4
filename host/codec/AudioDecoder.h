// Decodes sound into working sound: interleaved 16-bit samples without gaps, in short buffers.
//
// The bytes tell the time: what comes out at byte N belongs to time N of the time line. A hole (a
// late start, lost packets) is filled with silence and an overlap is dropped. Rate and channels
// stay what they were at the start.
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
    // No buffer goes across one of the times in `cutTimesUs`, which rise. When there may be others,
    // all buffers are short. `observer`, which may be null, hears why an input is refused, and
    // outlives the decoder.
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
    // Says where the samples in mPcm belong.
    void place(int64_t startFrame);
    // Silence comes next, unless that is too much: then mRefused is set.
    void addSilence(int64_t frames);
    Step produceChunk(CodecOutput* output);

    // The reader being past this time, what is missing is a hole.
    int64_t silenceDueUs() const;
    int64_t frameAt(int64_t timeUs) const;
    int64_t timeAt(int64_t frame) const;
    int64_t pcmFrames() const;
    // To the next cut; many, when none follows.
    int64_t framesToCut() const;

    const std::vector<int64_t> mCutTimesUs;
    HostObserver* const mObserver;
    const int64_t mChunkFrames;  // of a buffer, at the most
    PacketDecoder mDecoder;
    const FramePtr mFrame;
    ResamplerPtr mResampler;
    std::string mResamplerInput;  // what mResampler was made for

    sp<AMessage> mFormat;
    int mSampleRate = 0;
    int mChannelCount = 0;
    int64_t mTrackEndUs = 0;
    sp<TrackSource> mSource;  // null for a format that no extractor made
    SilenceBudget mSilenceBudget;
    bool mRefused = false;

    InputSegment mSegment;
    // Of what comes out next, in sample frames since the start of the time line.
    int64_t mNextFrame = 0;
    int64_t mSilenceFrames = 0;
    // No sound has come yet on this time line.
    bool mAtStart = true;
    // The last that came out was silence, for want of input.
    bool mInGap = false;
    std::vector<int16_t> mPcm;
    size_t mPcmUsed = 0;  // samples
};

}  // namespace qmmediaeditor
}  // namespace android
