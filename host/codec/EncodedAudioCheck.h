// Decodes what an audio encoder makes while it makes it, and compares its level and its position
// with the encoder's input: both mixed to one channel of about 4 kHz, in pieces of a second.
#pragma once

#include <host/Host.h>
#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <vector>

#include "host/codec/PacketCodecs.h"
#include "host/convert/FFmpegPointers.h"

namespace android {
namespace qmmediaeditor {

class EncodedAudioCheck {
public:
    // `format` is the encoder's output format, `sampleRate` the rate that it encodes, and
    // `observer` gets the results.
    EncodedAudioCheck(const sp<AMessage>& format, int sampleRate, HostObserver* observer);

    // The timestamp of the first sample, in microseconds; before any input.
    void begin(int64_t timeUs) { mFirstUs = timeUs; }
    void addInput(const AVFrame& frame);
    // A packet whose first sample has this number; the encoder's priming has negative ones.
    void addPacket(const AVPacket& packet, int64_t firstSample);
    void finish();

private:
    // One channel at the reduced rate. Positions count samples from the start of the audio.
    class Signal {
    public:
        // `factor` samples become one; the first one has the position `begin`.
        Signal(int factor, int64_t begin) : mFactor(factor), mBegin(begin), mNext(begin * factor) {}
        // A frame whose first sample, at the full rate, has this number.
        void add(const AVFrame& frame, int64_t firstSample);
        // Adds silence up to this position, if it ends before.
        void extendTo(int64_t position);
        int64_t end() const { return mBegin + static_cast<int64_t>(mSamples.size()); }
        // Of positions from the begin to the end.
        const float* at(int64_t position) const { return &mSamples[size_t(position - mBegin)]; }
        void dropBefore(int64_t position);

    private:
        void addSample(float sample);

        const int mFactor;
        int64_t mBegin;
        int64_t mNext;  // number of the next sample at the full rate
        std::vector<float> mSamples;
        float mSum = 0;  // of the sample that is not complete
        int mSummed = 0;
    };

    void receive();
    void compare(int64_t position, int64_t samples);
    void compareWholePieces();
    // By which the output is late; nothing without resemblance.
    std::optional<int64_t> offsetUs(int64_t position, size_t count) const;
    void fail(const std::string& reason);

    HostObserver* const mObserver;
    const int mSampleRate;
    const int mFactor;
    const int64_t mMaxOffset;  // in samples of the reduced rate
    PacketDecoder mDecoder;
    const FramePtr mDecoded;
    bool mHasFailed = false;
    bool mHasEnded = false;
    int64_t mFirstUs = 0;
    int64_t mInputSamples = 0;
    int64_t mCompared = 0;  // position up to which the audio was compared
    Signal mInput;
    Signal mOutput;
};

}  // namespace qmmediaeditor
}  // namespace android
