#include "host/codec/AudioDecoder.h"

#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <string.h>

#include <algorithm>
#include <limits>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

// When the video frames of an input are far apart, the decoder holds the audio between two of them.
constexpr size_t kInputCount = 128;
constexpr size_t kOutputCount = 32;
constexpr size_t kDefaultInputBytes = 64 * 1024;
constexpr int64_t kChunkFrames = 1024;
// Short, so that a cut that was not announced falls close to the requested time.
constexpr int64_t kShortChunkFrames = 256;
// A smaller difference is the container's rounding: the samples are treated as adjacent.
constexpr int64_t kJitterUs = 20000;
// Audio that is missing for longer before the reader's position is a gap; less may still be inside
// the decoder.
constexpr int64_t kGapUs = 100000;
// A timestamp this far behind the end of the track is damaged.
constexpr int64_t kBeyondEndUs = 10000000;
// Two frames of AAC at 8 kHz.
constexpr int64_t kMaxPaddingUs = 256000;

// The default layout of a number of channels.
AVChannelLayout plainLayout(int channelCount) {
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, channelCount);
    return layout;
}

}  // namespace

AudioDecoder::AudioDecoder(const std::optional<std::vector<int64_t>>& cutTimesUs,
                           HostObserver* observer)
    : mCutTimesUs(cutTimesUs.value_or(std::vector<int64_t>())),
      mObserver(observer),
      mChunkFrames(cutTimesUs ? kChunkFrames : kShortChunkFrames),
      mDecoder(observer),
      mFrame(av_frame_alloc()) {}

AudioDecoder::~AudioDecoder() = default;

status_t AudioDecoder::configure(const sp<AMessage>& format, CodecBuffers* buffers) {
    if (mFrame == nullptr) return NO_MEMORY;
    status_t status = mDecoder.prepare(format);
    if (status != OK) return status;
    // Frame threads would hold back samples that the other tracks wait for.
    mDecoder.context()->thread_count = 1;
    status = mDecoder.open();
    if (status != OK) return status;

    int32_t sampleRate = 0;
    int32_t channelCount = 0;
    format->findInt32("sample-rate", &sampleRate);
    format->findInt32("channel-count", &channelCount);
    if (sampleRate > 0 && channelCount > 0) setFormat(sampleRate, channelCount);
    format->findInt64("durationUs", &mTrackEndUs);
    mSource = TrackSource::find(format);
    if (mSource != nullptr) mTrackEndUs += mSource->delayUs();

    int32_t maxInputBytes = 0;
    format->findInt32("max-input-size", &maxInputBytes);
    buffers->inputCount = kInputCount;
    buffers->inputBytes =
        maxInputBytes > 0 ? static_cast<size_t>(maxInputBytes) : kDefaultInputBytes;
    buffers->outputCount = kOutputCount;
    buffers->announcesFormat = true;
    return OK;
}

void AudioDecoder::setFormat(int sampleRate, int channelCount) {
    mSampleRate = sampleRate;
    mChannelCount = channelCount;
    mFormat = new AMessage;
    mFormat->setString("mime", MEDIA_MIMETYPE_AUDIO_RAW);
    mFormat->setInt32("sample-rate", sampleRate);
    mFormat->setInt32("channel-count", channelCount);
    mFormat->setInt32("bits-per-sample", 16);
}

int64_t AudioDecoder::frameAt(int64_t timeUs) const {
    return av_rescale(timeUs - mSegment.startUs, mSampleRate, 1000000);
}

int64_t AudioDecoder::timeAt(int64_t frame) const {
    return mSegment.startUs + av_rescale(frame, 1000000, mSampleRate);
}

int64_t AudioDecoder::silenceDueUs() const {
    // One sample more, so that due silence has at least one sample.
    return mInGap ? timeAt(mNextFrame + 1) : timeAt(mNextFrame) + kGapUs;
}

int64_t AudioDecoder::pcmFrames() const {
    if (mChannelCount == 0) return 0;
    return static_cast<int64_t>(mPcm.size() - mPcmUsed) / mChannelCount;
}

int64_t AudioDecoder::framesToCut() const {
    const auto cut = std::upper_bound(mCutTimesUs.begin(), mCutTimesUs.end(), timeAt(mNextFrame));
    if (cut == mCutTimesUs.end()) return std::numeric_limits<int64_t>::max();
    int64_t frame = frameAt(*cut);
    if (timeAt(frame) < *cut) ++frame;
    return std::max<int64_t>(frame - mNextFrame, 1);
}

void AudioDecoder::enter(const InputSegment& segment) {
    mDecoder.flush();
    mResampler.reset();
    mResamplerInput.clear();
    mSegment = segment;
    mNextFrame = 0;
    mSilenceFrames = 0;
    mSilenceBudget.beginSegment();
    mAtStart = true;
    mInGap = false;
    mPcm.clear();
    mPcmUsed = 0;
}

status_t AudioDecoder::accept(CodecInput input) {
    if (input.info.segment.number != mSegment.number) enter(input.info.segment);
    return mDecoder.send(input);
}

status_t AudioDecoder::finish() { return mDecoder.sendEnd(); }

CodecBackend::Step AudioDecoder::produce(CodecOutput* output) {
    for (;;) {
        if (mSilenceFrames > 0 || pcmFrames() > 0) return produceChunk(output);
        switch (mDecoder.receive(mFrame.get())) {
            case PacketDecoder::Received::kFrame:
                break;
            case PacketDecoder::Received::kNeedsInput:
                return Step::kNeedsInput;
            case PacketDecoder::Received::kFailed:
                return Step::kFailed;
            case PacketDecoder::Received::kRefused:
                return Step::kRefused;
            case PacketDecoder::Received::kEnd:
                if (const int64_t missing = framesMissingAtEnd(); missing > 0) {
                    addSilence(missing);
                    if (mRefused) return Step::kRefused;
                    mInGap = true;
                    continue;
                }
                output->timeUs = mSampleRate > 0 ? timeAt(mNextFrame) : 0;
                output->segment = mSegment.number;
                return Step::kEnd;
        }
        const bool first = mFormat == nullptr;
        if (first) setFormat(mFrame->sample_rate, mFrame->ch_layout.nb_channels);
        const bool taken = takeFrame();
        av_frame_unref(mFrame.get());
        if (mRefused) return Step::kRefused;
        if (!taken) return Step::kFailed;
        if (first) return Step::kFormat;
    }
}

int64_t AudioDecoder::framesMissing(int64_t positionUs) const {
    if (mFormat == nullptr) return 0;
    const int64_t untilUs = std::min(positionUs, mTrackEndUs);
    // Before the first sample of a segment, the position is not yet known.
    return silenceDueUs() >= untilUs ? 0 : frameAt(untilUs) - mNextFrame;
}

// The end of stream may overtake the last silence: a decoder with input is not asked for it.
int64_t AudioDecoder::framesMissingAtEnd() const {
    if (mSource == nullptr) return 0;
    const OutputSequencer& sequencer = *mSource->sequencer();
    return sequencer.segment().number == mSegment.number ? framesMissing(sequencer.position()) : 0;
}

CodecBackend::Step AudioDecoder::produceWithoutInput(const InputSegment& segment,
                                                     int64_t positionUs, CodecOutput* output) {
    if (segment.number != mSegment.number) enter(segment);
    const int64_t missing = framesMissing(positionUs);
    if (missing <= 0) return Step::kNeedsInput;
    addSilence(missing);
    if (mRefused) return Step::kRefused;
    mInGap = true;
    return produceChunk(output);
}

OutputSequencer::MemberState AudioDecoder::memberState() const {
    OutputSequencer::MemberState state;
    if (mFormat == nullptr) return state;
    if (mSilenceFrames > 0 || pcmFrames() > 0) state.earliestUs = timeAt(mNextFrame);
    state.silenceDueUs = silenceDueUs();
    state.silenceUntilUs = mTrackEndUs;
    return state;
}

CodecBackend::Step AudioDecoder::produceChunk(CodecOutput* output) {
    const bool silent = mSilenceFrames > 0;
    const int64_t frames =
        std::min({mChunkFrames, silent ? mSilenceFrames : pcmFrames(), framesToCut()});
    const size_t samples = static_cast<size_t>(frames) * static_cast<size_t>(mChannelCount);
    output->buffer = new ABuffer(samples * sizeof(int16_t));
    if (output->buffer->capacity() == 0) return Step::kFailed;
    output->timeUs = timeAt(mNextFrame);
    output->segment = mSegment.number;
    if (silent) {
        memset(output->buffer->base(), 0, samples * sizeof(int16_t));
        mSilenceFrames -= frames;
    } else {
        memcpy(output->buffer->base(), mPcm.data() + mPcmUsed, samples * sizeof(int16_t));
        mPcmUsed += samples;
    }
    mNextFrame += frames;
    return Step::kOutput;
}

bool AudioDecoder::takeFrame() {
    if (mFrame->nb_samples <= 0 || mFrame->ch_layout.nb_channels <= 0) return true;
    if (!prepareResampler()) return false;
    const bool timed = mFrame->pts != AV_NOPTS_VALUE;
    const bool damaged = mTrackEndUs > 0 && mFrame->pts > mTrackEndUs + kBeyondEndUs;
    int64_t startFrame = mNextFrame;
    if (timed && !damaged) {
        startFrame = frameAt(mFrame->pts) - swr_get_delay(mResampler.get(), mSampleRate);
    }
    if (!resample(mFrame.get())) return false;
    place(startFrame);
    return true;
}

bool AudioDecoder::prepareResampler() {
    char layout[128] = "";
    av_channel_layout_describe(&mFrame->ch_layout, layout, sizeof(layout));
    const std::string input = std::string(layout) + " " + std::to_string(mFrame->format) + " " +
                              std::to_string(mFrame->sample_rate);
    if (mResampler != nullptr && input == mResamplerInput) return true;

    AVChannelLayout to = plainLayout(mChannelCount);
    const bool named = mFrame->ch_layout.order != AV_CHANNEL_ORDER_UNSPEC;
    AVChannelLayout from = named ? mFrame->ch_layout : plainLayout(mFrame->ch_layout.nb_channels);
    SwrContext* resampler = nullptr;
    const int error = swr_alloc_set_opts2(&resampler, &to, AV_SAMPLE_FMT_S16, mSampleRate, &from,
                                          static_cast<AVSampleFormat>(mFrame->format),
                                          mFrame->sample_rate, 0, nullptr);
    mResampler.reset(resampler);
    if (error < 0 || swr_init(resampler) < 0) {
        if (error == 0 && mObserver != nullptr) {
            mObserver->onRefused("audio with the channels \"" + std::string(layout) +
                                 "\" cannot be converted");
        }
        return false;
    }
    mResamplerInput = input;
    return true;
}

bool AudioDecoder::resample(const AVFrame* frame) {
    const int room = swr_get_out_samples(mResampler.get(), frame->nb_samples);
    if (room < 0) return false;
    const auto channels = static_cast<size_t>(mChannelCount);
    mPcm.resize(static_cast<size_t>(room) * channels);
    mPcmUsed = 0;
    auto* out = reinterpret_cast<uint8_t*>(mPcm.data());
    const int made =
        swr_convert(mResampler.get(), &out, room, const_cast<const uint8_t**>(frame->extended_data),
                    frame->nb_samples);
    if (made < 0) return false;
    mPcm.resize(static_cast<size_t>(made) * channels);
    return true;
}

// Only the part of the silence before the end of the period counts.
void AudioDecoder::addSilence(int64_t frames) {
    const int64_t endUs = timeAt(mNextFrame + std::min(frames, framesToCut()));
    const int64_t videoUs =
        mSource == nullptr ? INT64_MIN : mSource->sequencer()->videoBefore(endUs);
    const std::optional<std::string> reason =
        mSilenceBudget.addSilence(timeAt(mNextFrame), endUs, videoUs);
    mRefused = reason.has_value();
    if (!mRefused) {
        mSilenceFrames = frames;
    } else if (mObserver != nullptr) {
        mObserver->onRefused(*reason);
    }
}

// An encoder fills its last packet up; the container says where the audio ends in it.
void AudioDecoder::dropPadding() {
    const std::optional<int64_t> endUs =
        mSource == nullptr ? std::nullopt : mSource->extent().endUs;
    if (!endUs) return;
    const int64_t excess = mNextFrame + mSilenceFrames + pcmFrames() - frameAt(*endUs);
    // More than a packet holds is not padding: the container is wrong.
    if (excess <= 0 || excess > av_rescale(kMaxPaddingUs, mSampleRate, 1000000)) return;
    const int64_t kept = std::max<int64_t>(pcmFrames() - excess, 0);
    mPcm.resize(mPcmUsed + static_cast<size_t>(kept * mChannelCount));
}

void AudioDecoder::place(int64_t startFrame) {
    const int64_t gap = startFrame - mNextFrame;
    // The first audio of a segment is put at its exact timestamp. So is the first audio after a
    // gap, because the gap was filled up to an arbitrary position of the reader.
    const bool adjoins = !mAtStart && !mInGap;
    const int64_t jitter = adjoins ? av_rescale(kJitterUs, mSampleRate, 1000000) : 0;
    if (gap > jitter) {
        addSilence(gap);
    } else if (gap < -jitter) {
        const int64_t dropped = std::min(-gap, pcmFrames());
        mPcmUsed += static_cast<size_t>(dropped) * static_cast<size_t>(mChannelCount);
    }
    dropPadding();
    mSilenceBudget.addAudio(av_rescale(pcmFrames(), 1000000, mSampleRate));
    mInGap = false;
    if (pcmFrames() > 0) mAtStart = false;
}

}  // namespace qmmediaeditor
}  // namespace android
