#include <fmt/format.h>
#include <qmtranscode/job/EncodingVerifier.h>
#include <qmtranscode/report/Format.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

using Packets = std::vector<EncodingChecks::Packet>;

// The file rounds timestamps to its timescale.
constexpr int64_t kRoundingUs = 1000;
// In mean squares. Coding noise is louder than silence.
constexpr double kSilentPower = 1e-6;
constexpr double kLoudPower = 1e-4;
// AMR, which models a voice, changes the level of other audio by up to 12 dB.
constexpr double kMaxLevelDb = 20;
constexpr int64_t kMaxOffsetUs = 20000;

double decibels(double power, double reference) { return 10 * std::log10(power / reference); }

// The packets at the start that only fill the decoder are not read again.
size_t unreadPackets(const Packets& encoded, const TrackSamples& written) {
    return encoded.size() - std::min(encoded.size(), written.checksums.size());
}

std::optional<std::string> compareData(const char* track, const Packets& encoded,
                                       const std::optional<TrackSamples>& written) {
    const size_t count = written ? written->checksums.size() : 0;
    const size_t unread = written ? unreadPackets(encoded, *written) : encoded.size();
    constexpr size_t kMaxPriming = 4;
    if (count > encoded.size() || unread > kMaxPriming) {
        return fmt::format("the file has {} packets of {} instead of {}", count, track,
                           encoded.size());
    }
    for (size_t i = 0; i < count; ++i) {
        if (written->checksums[i] == encoded[i + unread].checksum) continue;
        return fmt::format("the {} at {:.3f} s is not what was encoded", track,
                           secondsOf(written->timesUs[i]));
    }
    return std::nullopt;
}

// By how much the file delays the audio relative to the video.
int64_t fileOffsetUs(const EncodingChecks& checks, const OutputContents& output) {
    if (!output.video || !output.audio || checks.videoPackets.empty()) return 0;
    const size_t unread = unreadPackets(checks.audioPackets, *output.audio);
    const int64_t encodedUs =
        checks.audioPackets[unread].timeUs - checks.videoPackets.front().timeUs;
    return output.audio->timesUs.front() - output.video->timesUs.front() - encodedUs;
}

std::optional<std::string> checkAudio(const AudioCheck& audio, int64_t offsetUs) {
    const double at = secondsOf(audio.timeUs);
    if (std::llabs(offsetUs) > kMaxOffsetUs) {
        return fmt::format("the audio at {:.3f} s is {:.0f} ms {}", at,
                           static_cast<double>(std::llabs(offsetUs)) / 1e3,
                           offsetUs < 0 ? "early" : "late");
    }
    const bool isSilent = audio.inputPower < kSilentPower;
    if (isSilent && audio.outputPower > kLoudPower) {
        return fmt::format("the audio at {:.3f} s is not silent", at);
    }
    if (audio.inputPower < kLoudPower) return std::nullopt;
    const double levelDb = decibels(std::max(audio.outputPower, 1e-12), audio.inputPower);
    if (std::abs(levelDb) <= kMaxLevelDb) return std::nullopt;
    return fmt::format("the audio at {:.3f} s is {:.1f} dB too {}", at, std::abs(levelDb),
                       levelDb < 0 ? "quiet" : "loud");
}

// The measurements from `startUs` to `endUs`.
PeriodVerification measure(const EncodingChecks& checks, int64_t offsetUs, int64_t startUs,
                           int64_t endUs) {
    PeriodVerification result;
    double sum = 0;
    int64_t count = 0;
    for (const FrameCheck& frame : checks.frames) {
        if (frame.timeUs + kRoundingUs < startUs || frame.timeUs + kRoundingUs >= endUs) continue;
        if (!frame.ssim) continue;
        if (!result.ssim) result.ssim = {0, std::numeric_limits<double>::max(), 0};
        if (*frame.ssim < result.ssim->worst) {
            result.ssim->worst = *frame.ssim;
            result.ssim->worstAtUs = frame.timeUs;
        }
        sum += *frame.ssim;
        result.ssim->mean = sum / static_cast<double>(++count);
    }
    double input = 0;
    double output = 0;
    double seconds = 0;
    for (const AudioCheck& audio : checks.audio) {
        if (audio.timeUs >= endUs || audio.timeUs + audio.durationUs <= startUs) continue;
        input += audio.inputPower * secondsOf(audio.durationUs);
        output += audio.outputPower * secondsOf(audio.durationUs);
        seconds += secondsOf(audio.durationUs);
        if (!audio.offsetUs) continue;
        const int64_t totalUs = *audio.offsetUs + offsetUs;
        if (!result.offsetUs || std::llabs(totalUs) > std::llabs(*result.offsetUs)) {
            result.offsetUs = totalUs;
        }
    }
    if (input > kSilentPower * seconds && output > 0) result.levelDb = decibels(output, input);
    return result;
}

}  // namespace

std::variant<Verification, std::string> verifyEncoding(const EncodingChecks& checks,
                                                       const RunStatistics& statistics,
                                                       const OutputContents& output) {
    if (checks.failure) return *checks.failure;
    for (const FrameCheck& frame : checks.frames) {
        if (!frame.isWrong) continue;
        return fmt::format(frame.ssim ? "the frame at {:.3f} s is not the one that was encoded"
                                      : "the frame at {:.3f} s cannot be decoded",
                           secondsOf(frame.timeUs));
    }
    if (checks.frames.size() != checks.videoPackets.size()) {
        return fmt::format("{} of {} frames could be decoded", checks.frames.size(),
                           checks.videoPackets.size());
    }
    if (auto fault = compareData("video", checks.videoPackets, output.video)) return *fault;
    if (auto fault = compareData("audio", checks.audioPackets, output.audio)) return *fault;
    const int64_t offsetUs = fileOffsetUs(checks, output);
    for (const AudioCheck& audio : checks.audio) {
        if (auto fault = checkAudio(audio, audio.offsetUs.value_or(0) + offsetUs)) return *fault;
    }
    constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
    Verification result;
    result.whole = measure(checks, offsetUs, 0, kNever);
    for (size_t i = 0; i < statistics.periods.size(); ++i) {
        const bool isLast = i + 1 == statistics.periods.size();
        result.periods.push_back(measure(checks, offsetUs, statistics.periods[i].startUs,
                                         isLast ? kNever : statistics.periods[i + 1].startUs));
    }
    return result;
}

}  // namespace android::qmmediaeditor::cli
