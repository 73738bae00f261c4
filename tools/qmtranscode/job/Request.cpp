#include <fmt/format.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/report/Format.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

Size turned(const Size& size, bool turn) { return turn ? Size{size.height, size.width} : size; }

bool isSideways(const VideoTrack& video) { return video.rotation % 180 != 0; }

Size displayedSize(const VideoTrack& video) {
    return turned({video.width, video.height}, isSideways(video));
}

// Of --fit; turned for an upright input.
Size boxOf(const Options& options, const VideoTrack& video) {
    const Size displayed = displayedSize(video);
    const bool isUpright = displayed.height > displayed.width;
    return turned(*options.fit, isUpright && options.fit->width > options.fit->height);
}

// The frame size to encode, which is the one before the rotation of the file.
Size outputSize(const Options& options, const VideoTrack& video) {
    // An odd row or column is cut off, because 4:2:0 frames have even sizes.
    Size displayed = displayedSize(video);
    Size size{std::max(2, displayed.width & ~1), std::max(2, displayed.height & ~1)};
    if (options.fit) {
        const Size box = boxOf(options, video);
        size = fitInto(box, displayed);
        // H.263 changes the shape in any case, so that the box alone counts.
        if (options.videoCodec == VideoCodec::kH263) {
            size = {std::min(box.width, displayed.width), std::min(box.height, displayed.height)};
        }
    }
    size = turned(options.size.value_or(size), isSideways(video));
    return options.size ? size : nearestSize(options.videoCodec.value_or(VideoCodec::kAvc), size);
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
int32_t outputVideoBitrate(const Options& options, const MediaFile& media) {
    if (options.videoBitrate) return *options.videoBitrate;
    const Size size = outputSize(options, *media.video);
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

std::optional<Failure> setVideoKeys(const Options& options, const MediaFile& input,
                                    const sp<AMessage>& format) {
    const Size size = outputSize(options, *input.video);
    const VideoCodec codec = options.videoCodec.value_or(VideoCodec::kAvc);
    if (!supportsSize(codec, size)) {
        return Failure{kExitUnusable, options.input,
                       fmt::format("{}; the output would be {}x{}; choose another size with --size",
                                   supportedSizesText(codec), size.width, size.height),
                       "unsupported-size"};
    }
    const Size shown = turned(size, isSideways(*input.video));
    if (options.fit && (shown.width > boxOf(options, *input.video).width ||
                        shown.height > boxOf(options, *input.video).height)) {
        return Failure{kExitUnusable, options.input,
                       fmt::format("no frame of the output fits into {}x{}; {}", options.fit->width,
                                   options.fit->height, supportedSizesText(codec)),
                       "unsupported-size"};
    }
    constexpr int32_t kDefaultFrameRate = 30;
    const int32_t inputRate =
        input.video->frameRate > 0 ? input.video->frameRate : kDefaultFrameRate;
    format->setInt32("video-width", size.width);
    format->setInt32("video-height", size.height);
    format->setInt32("video-framerate",
                     options.frameRate.value_or(std::min(inputRate, kMaxFrameRate)));
    format->setInt32("video-bitrate", outputVideoBitrate(options, input));
    format->setInt32("video-encoder", static_cast<int32_t>(codec));
    return std::nullopt;
}

void setAudioKeys(const Options& options, const MediaFile& input, const sp<AMessage>& format) {
    const AudioTrack& audio = *input.audio;
    const AudioCodec codec = options.audioCodec.value_or(AudioCodec::kAac);
    const bool isAac = codec == AudioCodec::kAac;
    constexpr int32_t kDefaultSampleRate = 44100;
    constexpr int32_t kDefaultChannels = 2;
    const int32_t inputRate = audio.sampleRate > 0 ? audio.sampleRate : kDefaultSampleRate;
    const int32_t inputChannels = audio.channels > 0 ? audio.channels : kDefaultChannels;
    const int32_t sampleRate = isAac ? nearestAacSampleRate(inputRate) : amrSampleRate(codec);
    const int32_t channels =
        options.audioChannels.value_or(isAac ? std::min(inputChannels, kMaxAacChannels) : 1);
    format->setInt32("audio-encoder", static_cast<int32_t>(codec));
    format->setInt32("audio-samplerate", options.audioRate.value_or(sampleRate));
    format->setInt32("audio-channels", channels);
    format->setInt32("audio-bitspersample", 16);
    format->setInt32("audio-bitrate", outputAudioBitrate(options, audio, codec, channels));
}

// Whether the default codecs can have the frame size of the input's video, and the sample rate and
// the channels of its audio.
bool canKeepFormat(const MediaFile& input) {
    if (input.video && std::min(input.video->width, input.video->height) < kMinSide) return false;
    if (!input.audio) return true;
    const int32_t rate = input.audio->sampleRate;
    return (rate <= 0 || nearestAacSampleRate(rate) == rate) &&
           input.audio->channels <= kMaxAacChannels;
}

TrimPeriod makePeriod(int64_t startUs, int64_t endUs) {
    TrimPeriod period{};
    period.mStartUs = startUs;
    period.mEndUs = endUs;
    return period;
}

// The periods between the cuts.
std::vector<TrimPeriod> complementOf(const std::vector<TrimPeriod>& cuts, int64_t durationUs) {
    std::vector<TrimPeriod> kept;
    int64_t fromUs = 0;
    for (const TrimPeriod& cut : cuts) {
        if (cut.mStartUs > fromUs) kept.push_back(makePeriod(fromUs, cut.mStartUs));
        fromUs = cut.mEndUs;
    }
    if (fromUs < durationUs) kept.push_back(makePeriod(fromUs, kEndOfInputUs));
    return kept;
}

}  // namespace

FileFormat outputFileFormat(const Options& options) {
    const bool needs3gp = options.videoCodec == VideoCodec::kH263 ||
                          options.audioCodec.value_or(AudioCodec::kAac) != AudioCodec::kAac;
    return options.format.value_or(needs3gp ? FileFormat::k3gp : FileFormat::kMp4);
}

Result<KeptPeriods> makePeriods(const Options& options, const MediaFile& input) {
    // An estimate may be too short, and what is behind it must not be lost.
    const bool isKnown = input.durationUs() > 0 && !input.isDurationEstimated;
    const int64_t durationUs = isKnown ? input.durationUs() : kEndOfInputUs;
    for (const auto& [option, periods] :
         {std::pair("--trim", &options.periods), std::pair("--cut", &options.cuts)}) {
        for (const TrimPeriod& period : *periods) {
            if (period.mStartUs < durationUs) continue;
            return Failure{kExitUnusable, options.input,
                           fmt::format("{} {} starts after the end of the input at {}",
                                       options.list.value_or(option), periodText(period),
                                       secondsText(durationUs)),
                           "period-after-end"};
        }
    }
    KeptPeriods kept;
    kept.asked = options.cuts.empty() ? options.periods : complementOf(options.cuts, durationUs);
    kept.names = options.periodNames;
    if (options.keepChapters) {
        for (const Chapter& chapter : input.metadata.chapters) {
            if (chapter.startUs >= durationUs) break;
            kept.asked.push_back(makePeriod(chapter.startUs, chapter.endUs));
            kept.names.push_back(chapter.title);
        }
        if (kept.asked.empty()) {
            return Failure{kExitUnusable, options.input, "the file has no chapters", "no-chapters"};
        }
    }
    if (!options.cuts.empty() && kept.asked.empty()) {
        return Failure{kExitUnusable, options.input,
                       options.list.value_or("--cut") + " removes all of it", "nothing-kept"};
    }
    for (const TrimPeriod& period : kept.asked) {
        kept.actual.push_back(makePeriod(period.mStartUs, std::min(period.mEndUs, durationUs)));
    }
    return kept;
}

KeptPeriods partOf(const KeptPeriods& kept, size_t index) {
    KeptPeriods part{{kept.asked.at(index)}, {kept.actual.at(index)}, {}};
    if (index < kept.names.size()) part.names.push_back(kept.names[index]);
    return part;
}

int64_t outputLengthUs(const KeptPeriods& kept, const MediaFile& input) {
    const int64_t durationUs = input.durationUs();
    if (kept.actual.empty()) return durationUs;
    int64_t lengthUs = 0;
    for (const TrimPeriod& period : kept.actual) {
        const bool isOpen = period.mEndUs >= kEndOfInputUs;
        lengthUs += std::max<int64_t>((isOpen ? durationUs : period.mEndUs) - period.mStartUs, 0);
    }
    return lengthUs;
}

Result<sp<AMessage>> makeOutputFormat(const Options& options, const MediaFile& input) {
    if (!options.specifiesOutputFormat() && canKeepFormat(input)) return sp<AMessage>();
    return describeOutput(options, input);
}

Result<sp<AMessage>> describeOutput(const Options& options, const MediaFile& input) {
    const sp<AMessage> format = new AMessage(kOutputFormatWhat);
    format->setInt32("file-format", static_cast<int32_t>(outputFileFormat(options)));
    if (input.video) {
        if (auto failure = setVideoKeys(options, input, format)) return *failure;
    }
    if (input.audio) setAudioKeys(options, input, format);
    return format;
}

VideoRate videoRate(const Options& options, const MediaFile& input) {
    VideoRate rate;
    const VideoCodec codec = options.videoCodec.value_or(VideoCodec::kAvc);
    if (!input.video || codec != VideoCodec::kAvc) return rate;
    if (!options.quality && options.videoBitrate) return rate;
    rate.quality = options.quality.value_or(kDefaultQuality);
    if (options.videoBitrate) rate.maxBitrate = options.videoBitrate;
    if (options.quality) return rate;
    // A key frame each second needs this, also where the input has fewer.
    constexpr double kMinBitsPerPixel = 0.5;
    const Size size = outputSize(options, *input.video);
    const double max = outputVideoBitrate(options, input) * avcBitsFactor(input.video->mime);
    rate.maxBitrate = std::lround(std::min(
        std::max(max, static_cast<double>(area(size.width, size.height)) * kMinBitsPerPixel), 1e9));
    return rate;
}

std::optional<std::string> aspectRatioWarning(const Options& options, const MediaFile& input) {
    // Otherwise at most a row and a column are cut off, and --fit keeps the aspect ratio.
    const bool mayChange = options.size || options.videoCodec == VideoCodec::kH263;
    if (!input.video || !mayChange) return std::nullopt;
    const bool sideways = isSideways(*input.video);
    const Size before = displayedSize(*input.video);
    const Size after = turned(outputSize(options, *input.video), sideways);
    const double change = static_cast<double>(after.width) * before.height /
                          (static_cast<double>(after.height) * before.width);
    constexpr double kMaxChange = 1.01;
    if (std::max(change, 1 / change) <= kMaxChange) return std::nullopt;
    const std::string changed = fmt::format("{}x{} changes the aspect ratio of the {}x{} input",
                                            after.width, after.height, before.width, before.height);
    const std::string asked = options.size ? "--size " : "";
    if (options.videoCodec == VideoCodec::kH263) {
        return fmt::format("{}{}; {}", asked, changed, supportedSizesText(VideoCodec::kH263));
    }
    Options fitted = options;
    fitted.size.reset();
    fitted.fit = options.size;
    const Size kept = turned(outputSize(fitted, *input.video), sideways);
    return fmt::format("{}{}; --fit {}x{} would give {}x{}", asked, changed, after.width,
                       after.height, kept.width, kept.height);
}

}  // namespace android::qmmediaeditor::cli
