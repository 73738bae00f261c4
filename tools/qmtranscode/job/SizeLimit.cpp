#include <fmt/format.h>
#include <qmtranscode/job/Request.h>
#include <qmtranscode/job/SizeLimit.h>
#include <qmtranscode/report/Format.h>

#include <algorithm>
#include <cmath>

namespace android::qmmediaeditor::cli {

namespace {

// Of the limit, because an encoder does not meet its rate exactly.
constexpr double kUsedShare = 0.98;

}  // namespace

SizeLimit::SizeLimit(const Options& options, const MediaFile& input, int64_t lengthUs,
                     const sp<AMessage>& format)
    : mInput(options.input),
      mMaxBytes(static_cast<double>(options.maxBytes.value_or(0))),
      mSeconds(std::max(secondsOf(lengthUs), 0.1)) {
    const auto number = [&format](const char* key) {
        int32_t value = 0;
        format->findInt32(key, &value);
        return double{static_cast<double>(value)};
    };
    // As measured: the boxes of an output, and the entries of a sample in its tables.
    constexpr double kFileBytes = 1500;
    constexpr double kSampleBytes = 12;
    constexpr double kAudioFrameSamples = 1024;
    const double framesPerSecond =
        input.video ? std::min(number("video-framerate"), input.video->averageFrameRate) : 0;
    const double packetsPerSecond =
        input.audio ? number("audio-samplerate") / kAudioFrameSamples : 0;
    mTableBytes = kFileBytes + kSampleBytes * mSeconds * (framesPerSecond + packetsPerSecond);
    // At less, x264's coarsest quantizer does not help any more, even for simple frames.
    constexpr double kMinBitsPerPixel = 0.002;
    mMinVideoBitrate =
        kMinBitsPerPixel * framesPerSecond * number("video-width") * number("video-height");
    if (input.audio) mAudioRate = number("audio-bitrate");
    const bool canLowerAudio =
        input.audio && options.audioCodec.value_or(AudioCodec::kAac) == AudioCodec::kAac;
    if (canLowerAudio) {
        // Where there is little room, the audio gets a quarter of it, but no less than speech
        // needs.
        constexpr double kAudioShare = 0.25;
        constexpr double kMinPerChannel = 24000;
        const double room = (mMaxBytes * kUsedShare - mTableBytes) * 8 / mSeconds;
        const double share = input.video ? kAudioShare : 1;
        const double least = std::min(mAudioRate, kMinPerChannel * number("audio-channels"));
        mAudioRate = std::clamp(room * share, least, mAudioRate);
        mAudioBitrate = static_cast<int32_t>(mAudioRate);
    }
    if (input.video) {
        mVideoBitrate = (mMaxBytes * kUsedShare - otherBytes()) * 8 / mSeconds;
    }
}

double SizeLimit::otherBytes() const { return mTableBytes + mAudioRate * mSeconds / 8; }

std::optional<Failure> SizeLimit::check() const {
    const double leastBytes = (otherBytes() + mMinVideoBitrate * mSeconds / 8) / kUsedShare;
    if (leastBytes <= mMaxBytes) return std::nullopt;
    constexpr double kUnit = 1000;
    return Failure{
        kExitUnusable, mInput,
        fmt::format("--max-bytes is too low for {:.1f} s; {}k might work, or less with a "
                    "smaller frame size (--fit) or a shorter period (--trim)",
                    mSeconds, std::ceil(leastBytes / kUnit)),
        "max-bytes-too-low"};
}

void SizeLimit::apply(Options* options) const {
    constexpr double kMaxBitrate = 1e9;
    if (mVideoBitrate > 0) {
        options->videoBitrate = static_cast<int32_t>(std::min(mVideoBitrate, kMaxBitrate));
    }
    if (mAudioBitrate) options->audioBitrate = mAudioBitrate;
}

bool SizeLimit::isShort() const {
    // In longer ones, x264's average comes out within a few percent.
    constexpr double kShortSeconds = 20;
    return mSeconds < kShortSeconds;
}

bool SizeLimit::correct(int64_t bytes, int64_t lengthUs) {
    const auto actual = static_cast<double>(bytes);
    const double wanted = mMaxBytes * kUsedShare;
    // The length may have been an estimate.
    if (lengthUs > 0) mSeconds = secondsOf(lengthUs);
    if (mVideoBitrate <= 0) {
        if (actual <= mMaxBytes || !mAudioBitrate) return false;
        constexpr double kMinBitrate = 8000;
        mAudioRate = std::max(mAudioRate * wanted / actual, kMinBitrate);
        mAudioBitrate = static_cast<int32_t>(mAudioRate);
        return true;
    }
    const double other = otherBytes();
    mRuns.push_back({mVideoBitrate, std::max(actual - other, 1.0)});
    const double videoBytes = wanted - other;
    if (actual <= mMaxBytes) {
        // The encoder's first guess is too low for some short clips. Where it needs much less than
        // it may have, the video needs no more.
        constexpr double kMinUse = 0.6;
        constexpr double kMinOfRate = 0.5;
        const double rate = (actual - other) * 8 / mSeconds;
        if (mRuns.size() > 1 || actual >= mMaxBytes * kMinUse ||
            rate < mVideoBitrate * kMinOfRate) {
            return false;
        }
    }
    mVideoBitrate = predictBitrate(videoBytes);
    return true;
}

double SizeLimit::predictBitrate(double videoBytes) const {
    // Sizes grow more slowly than bit rates, roughly as this power of them.
    double power = videoBytes < mRuns.back().videoBytes ? 0.8 : 1;
    if (mRuns.size() > 1) {
        const auto [first, second] = std::pair(mRuns[0], mRuns[1]);
        constexpr double kMinPower = 0.3;
        power = std::clamp(std::log(first.videoBytes / second.videoBytes) /
                               std::log(first.bitrate / second.bitrate),
                           kMinPower, 1.5);
        // The last run must not be larger again.
        constexpr double kMargin = 0.98;
        videoBytes *= kMargin;
    }
    constexpr double kMinFactor = 0.05;
    constexpr double kMinBitrate = 1000;
    const double factor = std::pow(videoBytes / mRuns.back().videoBytes, 1 / power);
    return std::max(mRuns.back().bitrate * std::max(factor, kMinFactor), kMinBitrate);
}

}  // namespace android::qmmediaeditor::cli
