#include <qmtranscode/cli/OutputCodecs.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/report/Format.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

std::string sizeText(const Size& size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

// The picture size to encode. What is asked for is the picture as it is displayed; what is encoded
// is turned by the file's rotation.
Size outputSize(const Options& options, const VideoTrack& video) {
    // An odd row or column is left out: 4:2:0 pictures have none.
    if (!options.size) return {std::max(2, video.width & ~1), std::max(2, video.height & ~1)};
    const bool turned = video.rotation % 180 != 0;
    return turned ? Size{options.size->height, options.size->width} : *options.size;
}

int64_t area(int32_t width, int32_t height) { return int64_t{width} * height; }

// The input's bit rate: what its track tells, else what its file size amounts to, within what a
// session would take of itself.
int32_t inputVideoBitrate(const MediaFile& media) {
    if (media.video->bitrate > 0) return media.video->bitrate;
    constexpr int64_t kHighDefinitionPixels = 1280 * 720;
    const bool large = area(media.video->width, media.video->height) > kHighDefinitionPixels;
    const int64_t most = large ? 17000000 : 12000000;
    const int64_t seconds = media.durationUs() / 1000000;
    const int64_t estimate = seconds > 0 ? media.sizeBytes / seconds * 8 : most;
    return static_cast<int32_t>(std::clamp<int64_t>(estimate, 1, most));
}

// A smaller picture gets a share of the input's bit rate by its number of pixels.
int32_t outputVideoBitrate(const Options& options, const MediaFile& media, const Size& size) {
    if (options.videoBitrate) return *options.videoBitrate;
    constexpr int64_t kLowest = 64000;
    const int64_t before = area(media.video->width, media.video->height);
    const int64_t after = area(size.width, size.height);
    const int64_t bitrate = inputVideoBitrate(media);
    if (after >= before) return static_cast<int32_t>(bitrate);
    return static_cast<int32_t>(
        std::max(std::min(bitrate, kLowest),
                 static_cast<int64_t>(static_cast<double>(bitrate) * static_cast<double>(after) /
                                      static_cast<double>(before))));
}

int32_t outputAudioBitrate(const Options& options, const AudioTrack& audio, AudioCodec codec,
                           int32_t channels) {
    if (options.audioBitrate) return *options.audioBitrate;
    if (codec != AudioCodec::kAac) return amrBitrate(codec);
    constexpr int32_t kUsualPerChannel = 64000;
    // Uncompressed and lossless inputs tell rates that AAC has no use for.
    constexpr int32_t kMostPerChannel = 160000;
    if (audio.bitrate <= 0) return kUsualPerChannel * channels;
    return std::min(audio.bitrate, kMostPerChannel * channels);
}

std::optional<Failure> setVideoKeys(const Options& options, const MediaFile& input,
                                    const sp<AMessage>& format) {
    const Size size = outputSize(options, *input.video);
    const VideoCodec codec = options.videoCodec.value_or(VideoCodec::kAvc);
    if (!supportsSize(codec, size)) {
        return Failure{kExitUnusable, options.input,
                       supportedSizesText(codec) + ", and this would be " + sizeText(size) +
                           "; --size would change it"};
    }
    constexpr int32_t kUsualFrameRate = 30;
    constexpr int32_t kHighestFrameRate = 240;
    const int32_t inputRate = input.video->frameRate > 0 ? input.video->frameRate : kUsualFrameRate;
    format->setInt32("video-width", size.width);
    format->setInt32("video-height", size.height);
    format->setInt32("video-framerate",
                     options.frameRate.value_or(std::min(inputRate, kHighestFrameRate)));
    format->setInt32("video-bitrate", outputVideoBitrate(options, input, size));
    format->setInt32("video-encoder", static_cast<int32_t>(codec));
    return std::nullopt;
}

std::optional<Failure> setAudioKeys(const Options& options, const MediaFile& input,
                                    const sp<AMessage>& format) {
    const AudioTrack& audio = *input.audio;
    const AudioCodec codec = options.audioCodec.value_or(AudioCodec::kAac);
    const bool isAac = codec == AudioCodec::kAac;
    constexpr int32_t kUsualSampleRate = 44100;
    constexpr int32_t kUsualChannels = 2;
    const int32_t inputRate = audio.sampleRate > 0 ? audio.sampleRate : kUsualSampleRate;
    const int32_t inputChannels = audio.channels > 0 ? audio.channels : kUsualChannels;
    const int32_t sampleRate = isAac ? nearestAacSampleRate(inputRate) : amrSampleRate(codec);
    const int32_t channels = options.audioChannels.value_or(isAac ? inputChannels : 1);
    if (channels > kMaxAacChannels) {
        return Failure{kExitUnusable, options.input,
                       "AAC has no form for " + std::to_string(channels) +
                           " channels here; --audio-channels 2 would work"};
    }
    format->setInt32("audio-encoder", static_cast<int32_t>(codec));
    format->setInt32("audio-samplerate", options.audioRate.value_or(sampleRate));
    format->setInt32("audio-channels", channels);
    format->setInt32("audio-bitspersample", 16);
    format->setInt32("audio-bitrate", outputAudioBitrate(options, audio, codec, channels));
    return std::nullopt;
}

// Without a message the sound goes out as it came in.
std::optional<Failure> checkSoundAsItIs(const Options& options, const MediaFile& input) {
    const std::optional<AudioTrack>& audio = input.audio;
    if (!audio) return std::nullopt;
    const int32_t sampleRate = nearestAacSampleRate(audio->sampleRate);
    if (audio->sampleRate > 0 && sampleRate != audio->sampleRate) {
        return Failure{kExitUnusable, options.input,
                       "AAC does not have its sound's " + std::to_string(audio->sampleRate) +
                           " Hz; --audio-rate " + std::to_string(sampleRate) + " would work"};
    }
    if (audio->channels > kMaxAacChannels) {
        return Failure{kExitUnusable, options.input,
                       "AAC has no form for its sound's " + std::to_string(audio->channels) +
                           " channels here; --audio-channels 2 would work"};
    }
    return std::nullopt;
}

}  // namespace

FileFormat outputFileFormat(const Options& options) {
    const bool needs3gp = options.videoCodec == VideoCodec::kH263 ||
                          options.audioCodec.value_or(AudioCodec::kAac) != AudioCodec::kAac;
    return options.format.value_or(needs3gp ? FileFormat::k3gp : FileFormat::kMp4);
}

std::optional<Failure> makePeriods(const Options& options, const MediaFile& input,
                                   std::vector<TrimPeriod>* periods) {
    const int64_t durationUs = input.durationUs();
    for (TrimPeriod period : options.periods) {
        if (durationUs > 0 && period.mStartUs >= durationUs) {
            return Failure{kExitUnusable, options.input,
                           "--trim " + periodText(period) + " begins after its end at " +
                               secondsText(durationUs)};
        }
        if (durationUs > 0) period.mEndUs = std::min(period.mEndUs, durationUs);
        periods->push_back(period);
    }
    return std::nullopt;
}

std::optional<Failure> makeOutputFormat(const Options& options, const MediaFile& input,
                                        sp<AMessage>* format) {
    format->clear();
    if (!options.specifiesOutputFormat()) return checkSoundAsItIs(options, input);
    const sp<AMessage> message = new AMessage(kOutputFormatWhat);
    message->setInt32("file-format", static_cast<int32_t>(outputFileFormat(options)));
    if (input.video) {
        if (auto failure = setVideoKeys(options, input, message)) return failure;
    }
    if (input.audio) {
        if (auto failure = setAudioKeys(options, input, message)) return failure;
    }
    *format = message;
    return std::nullopt;
}

}  // namespace android::qmmediaeditor::cli
