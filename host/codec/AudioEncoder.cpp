#include "host/codec/AudioEncoder.h"

#include <android/log.h>
#include <media/stagefright/MediaCodec.h>
#include <media/stagefright/MediaErrors.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/codec/PacketChecksum.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libswresample/swresample.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kLogTag[] = "AudioEncoder";
// Decoded audio arrives in buffers of 256 samples or more: these hold 0.17 s of it at 48 kHz.
constexpr size_t kInputCount = 32;
constexpr size_t kOutputCount = 64;
// A buffer of the decoder at the highest sample rate that it can be converted to.
constexpr size_t kMinInputBytes = 256 * 1024;
constexpr size_t kMaxInputBytes = 16 * 1024 * 1024;
constexpr int32_t kAacLowComplexity = 1;

// ISO/IEC 14496-3: an AAC frame has at most 6144 bits per channel.
constexpr int64_t kMaxAacFrameBits = 6144;
// Default bit rate at 48 kHz: transparent for nearly all material.
constexpr int64_t kGoodAacBitsPerChannel = 96000;

// A bit rate that no AAC frame can hold stands for a request without a bit rate.
int64_t aacBitRate(const CodecInfo& codec, int64_t requested, int sampleRate, int channelCount) {
    const int64_t max = kMaxAacFrameBits * sampleRate / codec.frameSamples * channelCount;
    if (requested > 0 && requested < max) return requested;
    return std::min(max, kGoodAacBitsPerChannel * channelCount * sampleRate / 48000);
}

// `rate`, or the next lower one that the codec has, or its lowest.
int supportedRate(const CodecInfo& codec, int rate) {
    for (const int supported : codec.limits.sampleRates) {
        if (supported <= rate) return supported;
    }
    return codec.limits.sampleRates.back();
}

}  // namespace

AudioEncoder::AudioEncoder(const HostOptions& options, std::shared_ptr<SessionTimeline> session)
    : mSession(std::move(session)),
      mObserver(mSession == nullptr ? nullptr : mSession->observer()),
      mGains(options.audioGains),
      mIsEncoding(options.encodesAudio),
      mFrame(av_frame_alloc()),
      mIsChecking(options.checksEncoding) {}

AudioEncoder::~AudioEncoder() = default;

status_t AudioEncoder::configure(const sp<AMessage>& format, CodecBuffers* buffers) {
    if (mFrame == nullptr) return NO_MEMORY;
    AString mime;
    if (!format->findString("mime", &mime)) return BAD_VALUE;
    status_t status = mEncoder.prepare(mime);
    if (status == OK) status = setParameters(*format);
    if (status == OK) status = openEncoder();
    if (status == OK) status = openConverter();
    if (status != OK) return status;

    const bool isAac = mEncoder.context()->codec_id == AV_CODEC_ID_AAC;
    if (isAac) {
        mCodecSpecificData = mEncoder.codecSpecificData();
        if (mCodecSpecificData == nullptr) return NO_MEMORY;
    }
    mFormat = new AMessage;
    mFormat->setString("mime", mime);
    mFormat->setInt32("sample-rate", mInSampleRate);
    mFormat->setInt32("channel-count", mChannelCount);
    if (mCodecSpecificData != nullptr) mFormat->setBuffer("csd-0", mCodecSpecificData);

    int32_t inputBytes = 0;
    format->findInt32("max-input-size", &inputBytes);
    buffers->inputCount = kInputCount;
    buffers->inputBytes =
        std::clamp(static_cast<size_t>(std::max(inputBytes, 0)), kMinInputBytes, kMaxInputBytes);
    buffers->outputCount = kOutputCount;
    if (mObserver != nullptr) {
        mObserver->onEncoderOpened(false, mEncoder.context()->codec->name, format);
    }
    if (mObserver != nullptr && mIsChecking && mIsEncoding) {
        mCheck = std::make_unique<EncodedAudioCheck>(mFormat, mEncoder.context()->sample_rate,
                                                     mObserver);
    }
    return OK;
}

status_t AudioEncoder::setParameters(const AMessage& format) {
    AVCodecContext* context = mEncoder.context();
    int32_t bitRate = 0;
    int32_t profile = kAacLowComplexity;
    format.findInt32("channel-count", &mChannelCount);
    format.findInt32("sample-rate", &mInSampleRate);
    format.findInt32("bitrate", &bitRate);
    format.findInt32("aac-profile", &profile);
    if (mChannelCount < 1 || mInSampleRate < 1) return BAD_VALUE;

    const CodecInfo& codec = mEncoder.info();
    context->sample_rate = supportedRate(codec, mInSampleRate);
    context->time_base = {1, context->sample_rate};
    context->sample_fmt = context->codec->sample_fmts[0];
    av_channel_layout_default(&context->ch_layout, mChannelCount);
    if (context->codec_id == AV_CODEC_ID_AAC) {
        if (profile != kAacLowComplexity) {
            __android_log_print(ANDROID_LOG_ERROR, kLogTag, "no encoder for AAC object type %d",
                                profile);
            return ERROR_UNSUPPORTED;
        }
        context->profile = FF_PROFILE_AAC_LOW;
        context->bit_rate = aacBitRate(codec, bitRate, context->sample_rate, mChannelCount);
        return OK;
    }
    if (mInSampleRate != context->sample_rate || mChannelCount > codec.limits.maxChannels) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s supports only %d channel of %d Hz",
                            codec.name, codec.limits.maxChannels, context->sample_rate);
        return ERROR_UNSUPPORTED;
    }
    if (bitRate > 0) context->bit_rate = bitRate;
    return OK;
}

status_t AudioEncoder::openEncoder() {
    AVDictionary* options = nullptr;
    if (mEncoder.context()->codec_id == AV_CODEC_ID_AAC) {
        // Noise substitution takes tones for noise at low bit rates, and weakens them.
        if (av_dict_set(&options, "aac_pns", "0", 0) < 0) return NO_MEMORY;
    }
    return mEncoder.open(options);
}

status_t AudioEncoder::openConverter() {
    AVCodecContext* context = mEncoder.context();
    AVChannelLayout from = {};
    av_channel_layout_default(&from, mChannelCount);
    SwrContext* converter = nullptr;
    const int error = swr_alloc_set_opts2(&converter, &context->ch_layout, context->sample_fmt,
                                          context->sample_rate, &from, AV_SAMPLE_FMT_S16,
                                          mInSampleRate, 0, nullptr);
    mConverter.reset(converter);
    if (error < 0 || swr_init(converter) < 0) return ERROR_UNSUPPORTED;
    mFifo.reset(av_audio_fifo_alloc(context->sample_fmt, mChannelCount, context->frame_size * 4));
    return mFifo == nullptr ? NO_MEMORY : OK;
}

status_t AudioEncoder::convert(const uint8_t* data, int frames) {
    AVCodecContext* context = mEncoder.context();
    const int room = swr_get_out_samples(mConverter.get(), frames);
    if (room <= 0) return OK;
    uint8_t* planes[AV_NUM_DATA_POINTERS] = {};
    if (av_samples_alloc(planes, nullptr, mChannelCount, room, context->sample_fmt, 0) < 0) {
        return NO_MEMORY;
    }
    const int made =
        swr_convert(mConverter.get(), planes, room, data == nullptr ? nullptr : &data, frames);
    const int stored =
        made < 0 ? made : av_audio_fifo_write(mFifo.get(), reinterpret_cast<void**>(planes), made);
    av_freep(&planes[0]);
    return stored < 0 ? NO_MEMORY : OK;
}

status_t AudioEncoder::accept(CodecInput input) {
    if (!mStarted) {
        mStarted = true;
        mFirstTimeUs = input.timeUs;
        if (mCheck != nullptr) mCheck->begin(mFirstTimeUs);
    }
    const size_t frameBytes = sizeof(int16_t) * static_cast<size_t>(mChannelCount);
    const size_t frames = input.size / frameBytes;
    const auto* samples = static_cast<const int16_t*>(static_cast<const void*>(input.data));
    if (mObserver != nullptr) {
        mObserver->onAudio(samples, static_cast<int64_t>(frames), mChannelCount, mInSampleRate);
    }
    if (!mIsEncoding) return OK;
    if (!mGains.empty()) samples = amplify(samples, frames);
    const status_t status =
        convert(reinterpret_cast<const uint8_t*>(samples), static_cast<int>(frames));
    mTakenSamples += static_cast<int64_t>(frames);
    if (status == OK && mObserver != nullptr) {
        mObserver->onAudioEncoded(static_cast<int64_t>(frames), mInSampleRate);
    }
    return status;
}

double AudioEncoder::gainOf(int64_t sample) const {
    const double stepSamples = static_cast<double>(mInSampleRate) * kAudioGainStepUs / 1e6;
    const double step = std::max(static_cast<double>(sample) / stepSamples - 0.5, 0.0);
    const size_t last = mGains.size() - 1;
    if (step >= static_cast<double>(last)) return static_cast<double>(mGains[last]);
    const auto before = static_cast<size_t>(step);
    const double part = step - static_cast<double>(before);
    return static_cast<double>(mGains[before]) * (1 - part) +
           static_cast<double>(mGains[before + 1]) * part;
}

const int16_t* AudioEncoder::amplify(const int16_t* samples, size_t frames) {
    const auto channels = static_cast<size_t>(mChannelCount);
    mAmplified.resize(frames * channels);
    for (size_t i = 0; i < frames; ++i) {
        const double gain = gainOf(mTakenSamples + static_cast<int64_t>(i));
        for (size_t at = i * channels; at < (i + 1) * channels; ++at) {
            mAmplified[at] =
                static_cast<int16_t>(std::clamp(std::lround(samples[at] * gain), -32768L, 32767L));
        }
    }
    return mAmplified.data();
}

status_t AudioEncoder::finish() {
    mFinished = true;
    return mInSampleRate == mEncoder.context()->sample_rate ? OK : convert(nullptr, 0);
}

bool AudioEncoder::hasFrame() const {
    const int samples = av_audio_fifo_size(mFifo.get());
    return samples > 0 && (mFinished || samples >= mEncoder.context()->frame_size);
}

status_t AudioEncoder::sendFrame() {
    AVCodecContext* context = mEncoder.context();
    AVFrame* frame = mFrame.get();
    av_frame_unref(frame);
    frame->nb_samples = std::min(context->frame_size, av_audio_fifo_size(mFifo.get()));
    frame->format = context->sample_fmt;
    frame->sample_rate = context->sample_rate;
    if (av_channel_layout_copy(&frame->ch_layout, &context->ch_layout) < 0 ||
        av_frame_get_buffer(frame, 0) < 0) {
        return NO_MEMORY;
    }
    av_audio_fifo_read(mFifo.get(), reinterpret_cast<void**>(frame->extended_data),
                       frame->nb_samples);
    frame->pts = mSentSamples;
    mSentSamples += frame->nb_samples;
    if (mCheck != nullptr) mCheck->addInput(*frame);
    return mEncoder.send(frame);
}

int64_t AudioEncoder::timeOf(int64_t samples) const {
    return mFirstTimeUs + av_rescale(samples, 1000000, mEncoder.context()->sample_rate);
}

// The AMR encoders lose the timestamp of audio that is shorter than a frame.
int64_t AudioEncoder::packetStart() {
    const AVCodecContext& context = *mEncoder.context();
    int64_t start = mEncoder.packet().pts;
    if (start == AV_NOPTS_VALUE) start = mNextPacket.value_or(-context.initial_padding);
    mNextPacket = start + context.frame_size;
    return start;
}

void AudioEncoder::reportPacket(int64_t firstSample) {
    const AVPacket& packet = mEncoder.packet();
    const uint64_t checksum =
        packetChecksum(packet.data, static_cast<size_t>(packet.size), PacketForm::kWhole);
    mObserver->onPacketEncoded(false, timeOf(firstSample), checksum);
    if (mCheck != nullptr) mCheck->addPacket(packet, firstSample);
}

CodecBackend::Step AudioEncoder::produce(CodecOutput* output) {
    if (mCodecSpecificData != nullptr) {
        output->buffer = mCodecSpecificData;
        output->flags = MediaCodec::BUFFER_FLAG_CODECCONFIG;
        mCodecSpecificData.clear();
        return Step::kOutput;
    }
    for (;;) {
        switch (mEncoder.receive()) {
            case PacketEncoder::Received::kPacket: {
                const int64_t firstSample = packetStart();
                mLastTimeUs = timeOf(firstSample);
                if (mIsChecking && mObserver != nullptr) reportPacket(firstSample);
                output->buffer = mEncoder.takePayload();
                output->timeUs = mLastTimeUs;
                output->flags = MediaCodec::BUFFER_FLAG_SYNCFRAME;
                return output->buffer == nullptr ? Step::kFailed : Step::kOutput;
            }
            case PacketEncoder::Received::kEnd:
                if (mCheck != nullptr) mCheck->finish();
                if (mSession != nullptr) mSession->endAudio(timeOf(mSentSamples));
                output->timeUs = mLastTimeUs;
                return Step::kEnd;
            case PacketEncoder::Received::kFailed:
                return Step::kFailed;
            case PacketEncoder::Received::kNeedsInput:
                break;
        }
        status_t status = OK;
        if (hasFrame()) {
            status = sendFrame();
        } else if (mFinished && !mEndSent) {
            mEndSent = true;
            status = mEncoder.send(nullptr);
        } else {
            return Step::kNeedsInput;
        }
        if (status != OK) return Step::kFailed;
    }
}

}  // namespace qmmediaeditor
}  // namespace android
