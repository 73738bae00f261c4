#include <fmt/format.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/report/Format.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

// The frame size to encode: --size is the size as displayed, after the rotation of the file.
Size outputSize(const Options& options, const VideoTrack& video) {
    // An odd row or column is cut off, because 4:2:0 frames have even sizes.
    if (!options.size) return {std::max(2, video.width & ~1), std::max(2, video.height & ~1)};
    const bool isSideways = video.rotation % 180 != 0;
    return isSideways ? Size{options.size->height, options.size->width} : *options.size;
}

int64_t area(int32_t width, int32_t height) { return int64_t{width} * height; }

// The bit rate of the input's track, else an estimate from the file size, limited like the
// session's own default.
int32_t inputVideoBitrate(const MediaFile& media) {
    if (media.video->bitrate > 0) return media.video->bitrate;
    constexpr int64_t kHighDefinitionPixels = 1280 * 720;
    const bool isLarge = area(media.video->width, media.video->height) > kHighDefinitionPixels;
    const int64_t max = isLarge ? 17000000 : 12000000;
    const int64_t seconds = media.durationUs() / 1000000;
    const int64_t estimate = seconds > 0 ? media.sizeBytes / seconds * 8 : max;
    return static_cast<int32_t>(std::clamp<int64_t>(estimate, 1, max));
}

// When the frame size gets smaller, the input's bit rate is reduced in proportion to the number of
// pixels.
int32_t outputVideoBitrate(const Options& options, const MediaFile& media, const Size& size) {
    if (options.videoBitrate) return *options.videoBitrate;
    constexpr int64_t kMinBitrate = 64000;
    const int64_t before = area(media.video->width, media.video->height);
    const int64_t after = area(size.width, size.height);
    const int64_t bitrate = inputVideoBitrate(media);
    if (after >= before) return static_cast<int32_t>(bitrate);
    return static_cast<int32_t>(
        std::max(std::min(bitrate, kMinBitrate),
                 static_cast<int64_t>(static_cast<double>(bitrate) * static_cast<double>(after) /
                                      static_cast<double>(before))));
}

int32_t outputAudioBitrate(const Options& options, const AudioTrack& audio, AudioCodec codec,
                           int32_t channels) {
    if (options.audioBitrate) return *options.audioBitrate;
    if (codec != AudioCodec::kAac) return amrBitrate(codec);
    constexpr int32_t kDefaultPerChannel = 64000;
    // Uncompressed and lossless inputs have bit rates that AAC does not need.
    constexpr int32_t kMaxPerChannel = 160000;
    if (audio.bitrate <= 0) return kDefaultPerChannel * channels;
    return std::min(audio.bitrate, kMaxPerChannel * channels);
}

Failure tooManyChannels(const Options& options, int32_t channels) {
    return {kExitUnusable, options.input,
            fmt::format("AAC supports at most {} channels; the input has {}; --audio-channels 2 "
                        "would work",
                        kMaxAacChannels, channels)};
}

std::optional<Failure> setVideoKeys(const Options& options, const MediaFile& input,
                                    const sp<AMessage>& format) {
    const Size size = outputSize(options, *input.video);
    const VideoCodec codec = options.videoCodec.value_or(VideoCodec::kAvc);
    if (!supportsSize(codec, size)) {
        return Failure{kExitUnusable, options.input,
                       fmt::format("{}; the output would be {}x{}; choose another size with --size",
                                   supportedSizesText(codec), size.width, size.height)};
    }
    constexpr int32_t kDefaultFrameRate = 30;
    constexpr int32_t kMaxFrameRate = 240;
    const int32_t inputRate =
        input.video->frameRate > 0 ? input.video->frameRate : kDefaultFrameRate;
    format->setInt32("video-width", size.width);
    format->setInt32("video-height", size.height);
    format->setInt32("video-framerate",
                     options.frameRate.value_or(std::min(inputRate, kMaxFrameRate)));
    format->setInt32("video-bitrate", outputVideoBitrate(options, input, size));
    format->setInt32("video-encoder", static_cast<int32_t>(codec));
    return std::nullopt;
}

std::optional<Failure> setAudioKeys(const Options& options, const MediaFile& input,
                                    const sp<AMessage>& format) {
    const AudioTrack& audio = *input.audio;
    const AudioCodec codec = options.audioCodec.value_or(AudioCodec::kAac);
    const bool isAac = codec == AudioCodec::kAac;
    constexpr int32_t kDefaultSampleRate = 44100;
    constexpr int32_t kDefaultChannels = 2;
    const int32_t inputRate = audio.sampleRate > 0 ? audio.sampleRate : kDefaultSampleRate;
    const int32_t inputChannels = audio.channels > 0 ? audio.channels : kDefaultChannels;
    const int32_t sampleRate = isAac ? nearestAacSampleRate(inputRate) : amrSampleRate(codec);
    const int32_t channels = options.audioChannels.value_or(isAac ? inputChannels : 1);
    if (channels > kMaxAacChannels) return tooManyChannels(options, channels);
    format->setInt32("audio-encoder", static_cast<int32_t>(codec));
    format->setInt32("audio-samplerate", options.audioRate.value_or(sampleRate));
    format->setInt32("audio-channels", channels);
    format->setInt32("audio-bitspersample", 16);
    format->setInt32("audio-bitrate", outputAudioBitrate(options, audio, codec, channels));
    return std::nullopt;
}

// Without an output-format message, the audio keeps its sample rate and channels.
std::optional<Failure> checkUnchangedAudio(const Options& options, const MediaFile& input) {
    if (!input.audio) return std::nullopt;
    const int32_t inputRate = input.audio->sampleRate;
    const int32_t nearest = nearestAacSampleRate(inputRate);
    if (inputRate > 0 && nearest != inputRate) {
        const std::string supported =
            inputRate > kMaxAacSampleRate
                ? fmt::format("AAC supports at most {} Hz; the input has {} Hz", kMaxAacSampleRate,
                              inputRate)
                : fmt::format("AAC does not support the input's sample rate of {} Hz", inputRate);
        return Failure{kExitUnusable, options.input,
                       fmt::format("{}; --audio-rate {} would work", supported, nearest)};
    }
    if (input.audio->channels > kMaxAacChannels) {
        return tooManyChannels(options, input.audio->channels);
    }
    return std::nullopt;
}

}  // namespace

FileFormat outputFileFormat(const Options& options) {
    const bool needs3gp = options.videoCodec == VideoCodec::kH263 ||
                          options.audioCodec.value_or(AudioCodec::kAac) != AudioCodec::kAac;
    return options.format.value_or(needs3gp ? FileFormat::k3gp : FileFormat::kMp4);
}

Result<std::vector<TrimPeriod>> makePeriods(const Options& options, const MediaFile& input) {
    const int64_t durationUs = input.durationUs();
    std::vector<TrimPeriod> periods;
    for (TrimPeriod period : options.periods) {
        if (durationUs > 0 && period.mStartUs >= durationUs) {
            return Failure{kExitUnusable, options.input,
                           fmt::format("--trim {} starts after the end of the input at {}",
                                       periodText(period), secondsText(durationUs))};
        }
        if (durationUs > 0) period.mEndUs = std::min(period.mEndUs, durationUs);
        periods.push_back(period);
    }
    return periods;
}

Result<sp<AMessage>> makeOutputFormat(const Options& options, const MediaFile& input) {
    if (!options.specifiesOutputFormat()) {
        if (auto failure = checkUnchangedAudio(options, input)) return *failure;
        return sp<AMessage>();
    }
    const sp<AMessage> format = new AMessage(kOutputFormatWhat);
    format->setInt32("file-format", static_cast<int32_t>(outputFileFormat(options)));
    if (input.video) {
        if (auto failure = setVideoKeys(options, input, format)) return *failure;
    }
    if (input.audio) {
        if (auto failure = setAudioKeys(options, input, format)) return *failure;
    }
    return format;
}

}  // namespace android::qmmediaeditor::cli
