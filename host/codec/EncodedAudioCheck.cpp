#include "host/codec/EncodedAudioCheck.h"

#include <stdlib.h>

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/samplefmt.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kReducedRate = 4000;
constexpr double kMaxOffsetSeconds = 0.15;
constexpr int64_t kMicroseconds = 1000000;
// Root mean square of full scale below which audio counts as silence.
constexpr double kSilence = 0.001;
// Below it, two signals have no resemblance.
constexpr double kMinCorrelation = 0.8;
// Periodic audio resembles itself at many offsets. The smallest one counts of those whose
// correlation differs from the best by no more than the coding noise explains.
constexpr double kMinUncertainty = 0.005;
// In samples of the reduced rate. Too little audio resembles everything.
constexpr int64_t kMinPiece = kReducedRate / 10;

double sampleOf(const AVFrame& frame, int channel, int index) {
    const int channels = frame.ch_layout.nb_channels;
    const bool isPlanar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame.format)) != 0;
    const uint8_t* const data = frame.extended_data[isPlanar ? channel : 0];
    const int at = isPlanar ? index : index * channels + channel;
    switch (av_get_packed_sample_fmt(static_cast<AVSampleFormat>(frame.format))) {
        case AV_SAMPLE_FMT_FLT:
            return static_cast<double>(
                static_cast<const float*>(static_cast<const void*>(data))[at]);
        case AV_SAMPLE_FMT_S16:
            return static_cast<const int16_t*>(static_cast<const void*>(data))[at] / 32768.0;
        default:
            return 0;
    }
}

// Eight sums, so that the compiler can use vectors.
double product(const float* a, const float* b, size_t count) {
    constexpr size_t kLanes = 8;
    float sums[kLanes] = {};
    size_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        for (size_t lane = 0; lane < kLanes; ++lane) sums[lane] += a[i + lane] * b[i + lane];
    }
    double sum = 0;
    for (; i < count; ++i) sum += static_cast<double>(a[i] * b[i]);
    for (const float lane : sums) sum += static_cast<double>(lane);
    return sum;
}

}  // namespace

void EncodedAudioCheck::Signal::addSample(float sample) {
    ++mNext;
    mSum += sample;
    if (++mSummed < mFactor) return;
    mSamples.push_back(mSum / static_cast<float>(mFactor));
    mSum = 0;
    mSummed = 0;
}

void EncodedAudioCheck::Signal::add(const AVFrame& frame, int64_t firstSample) {
    while (mNext < firstSample) addSample(0);
    const int channels = frame.ch_layout.nb_channels;
    for (auto i = static_cast<int>(mNext - firstSample); i < frame.nb_samples; ++i) {
        double sample = 0;
        for (int channel = 0; channel < channels; ++channel) {
            sample += sampleOf(frame, channel, i);
        }
        addSample(static_cast<float>(sample / channels));
    }
}

void EncodedAudioCheck::Signal::extendTo(int64_t position) {
    while (end() < position) addSample(0);
}

void EncodedAudioCheck::Signal::dropBefore(int64_t position) {
    const int64_t count =
        std::clamp<int64_t>(position - mBegin, 0, static_cast<int64_t>(mSamples.size()));
    mSamples.erase(mSamples.begin(), mSamples.begin() + static_cast<ptrdiff_t>(count));
    mBegin += count;
}

EncodedAudioCheck::EncodedAudioCheck(const sp<AMessage>& format, int sampleRate,
                                     HostObserver* observer)
    : mObserver(observer),
      mSampleRate(sampleRate),
      mFactor(std::max(sampleRate / kReducedRate, 1)),
      mMaxOffset(std::lround(kMaxOffsetSeconds * sampleRate / mFactor)),
      mDecoder(nullptr),
      mDecoded(av_frame_alloc()),
      mInput(mFactor, 0),
      mOutput(mFactor, -mMaxOffset) {
    if (mDecoded == nullptr || mDecoder.prepare(format) != OK) {
        fail("there is no decoder for the audio");
        return;
    }
    mDecoder.context()->err_recognition = AV_EF_EXPLODE;
    if (mDecoder.open() != OK) fail("the decoder for the audio cannot be opened");
}

void EncodedAudioCheck::fail(const std::string& reason) {
    if (!mHasFailed) mObserver->onCheckFailed(reason);
    mHasFailed = true;
}

void EncodedAudioCheck::addInput(const AVFrame& frame) {
    if (mHasFailed) return;
    mInput.add(frame, mInputSamples);
    mInputSamples += frame.nb_samples;
}

void EncodedAudioCheck::addPacket(const AVPacket& packet, int64_t firstSample) {
    if (mHasFailed) return;
    CodecInput sample;
    sample.data = packet.data;
    sample.size = static_cast<size_t>(packet.size);
    // The decoder passes it on as it is.
    sample.timeUs = firstSample;
    if (mDecoder.send(sample) != OK) return fail("not enough memory");
    receive();
}

void EncodedAudioCheck::receive() {
    while (mDecoder.receive(mDecoded.get()) == PacketDecoder::Received::kFrame) {
        mOutput.add(*mDecoded, mDecoded->pts);
        av_frame_unref(mDecoded.get());
    }
    compareWholePieces();
}

void EncodedAudioCheck::compareWholePieces() {
    const int64_t piece = mSampleRate / mFactor;
    while (mInput.end() >= mCompared + piece && mOutput.end() >= mCompared + piece + mMaxOffset) {
        compare(mCompared, piece);
        mCompared += piece;
        mInput.dropBefore(mCompared);
        mOutput.dropBefore(mCompared - mMaxOffset);
    }
}

void EncodedAudioCheck::finish() {
    if (mHasFailed || mDecoder.sendEnd() != OK) return;
    receive();
    mOutput.extendTo(mInput.end() + mMaxOffset);
    mHasEnded = true;
    compareWholePieces();
    const int64_t left = mInput.end() - mCompared;
    if (left >= kMinPiece) compare(mCompared, left);
}

void EncodedAudioCheck::compare(int64_t position, int64_t samples) {
    const auto count = static_cast<size_t>(samples);
    const double energy = product(mInput.at(position), mInput.at(position), count);
    AudioCheck result;
    result.timeUs = mFirstUs + position * mFactor * kMicroseconds / mSampleRate;
    result.durationUs = samples * mFactor * kMicroseconds / mSampleRate;
    result.inputPower = energy / static_cast<double>(samples);
    result.outputPower =
        product(mOutput.at(position), mOutput.at(position), count) / static_cast<double>(samples);
    if (result.inputPower < kSilence * kSilence) return mObserver->onAudioChecked(result);
    // Where the audio ends, silence follows, and codecs distort what is in front of it.
    const int64_t until = mHasEnded ? mInput.end() - mMaxOffset : position + samples;
    const int64_t compared = std::min(until - position, samples);
    if (compared >= kMinPiece) result.offsetUs = offsetUs(position, static_cast<size_t>(compared));
    mObserver->onAudioChecked(result);
}

std::optional<int64_t> EncodedAudioCheck::offsetUs(int64_t position, size_t count) const {
    const float* const input = mInput.at(position);
    const double energy = product(input, input, count);
    std::vector<double> correlations;
    for (int64_t offset = -mMaxOffset; offset <= mMaxOffset; ++offset) {
        const float* const output = mOutput.at(position + offset);
        const double norm = std::sqrt(energy * product(output, output, count));
        const double sum = product(input, output, count);
        correlations.push_back(norm > 0 ? sum / norm : 0);
    }
    const double best = *std::max_element(correlations.begin(), correlations.end());
    const double enough = best - std::max(kMinUncertainty, 3 * (1 - best));
    for (int64_t size = 0; best >= kMinCorrelation && size <= mMaxOffset; ++size) {
        for (const int64_t offset : {-size, size}) {
            if (correlations[static_cast<size_t>(offset + mMaxOffset)] < enough) continue;
            return offset * mFactor * kMicroseconds / mSampleRate;
        }
    }
    return std::nullopt;
}

}  // namespace qmmediaeditor
}  // namespace android
