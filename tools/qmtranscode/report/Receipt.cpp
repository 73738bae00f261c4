#include <fmt/format.h>
#include <qmtranscode/cli/Console.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Receipt.h>
#include <qmtranscode/report/RunObject.h>

#include <algorithm>
#include <utility>

namespace android::qmmediaeditor::cli {

namespace {

// The output of a period, in times of the input.
struct PeriodResult {
    TrimPeriod asked;
    std::string name;
    // The end of the input, if the period reaches beyond it.
    std::optional<int64_t> inputEndUs;
    int64_t framesOut = 0;
    int64_t dropped = 0;
    std::optional<TrimPeriod> video;  // timestamps of the first and the last frame
    std::optional<TrimPeriod> audio;  // from its start to its end
    std::optional<int64_t> skewUs;
};

// Replaces a number that is null by its mark.
void markNumber(const std::string& key, char mark, std::string* json) {
    const std::string placeholder = fmt::format("\"{}\": null", key);
    const size_t at = json->find(placeholder);
    if (at == std::string::npos) return;
    json->replace(at, placeholder.size(), fmt::format("\"{}\": {}", key, mark));
}

int64_t bitrateOf(const TrackSamples& samples) {
    const int64_t lengthUs = samples.endUs - samples.firstUs;
    if (lengthUs <= 0) return 0;
    return static_cast<int64_t>(static_cast<double>(samples.bytes) * 8 / secondsOf(lengthUs));
}

// The average frame rate.
double rateOf(const TrackSamples& samples) {
    if (samples.count < 2) return 0;
    const auto [first, last] = std::minmax_element(samples.timesUs.begin(), samples.timesUs.end());
    return static_cast<double>(samples.count - 1) / std::max(secondsOf(*last - *first), 1e-6);
}

int64_t skippedPackets(const Receipt& receipt) {
    return receipt.video.skippedPackets + receipt.audio.skippedPackets;
}

PeriodResult resultOf(const Receipt& receipt, size_t index) {
    // The file rounds timestamps to its timescale, by much less than the distance of two frames.
    constexpr int64_t kRoundingUs = 1000;
    const PeriodStatistics& statistics = receipt.statistics.periods[index];
    const OutputContents& contents = *receipt.contents;
    const bool isWholeInput = receipt.asked.empty();
    PeriodResult result;
    result.asked = isWholeInput ? TrimPeriod{0, contents.media.durationUs()} : receipt.asked[index];
    if (index < receipt.names.size()) result.name = receipt.names[index];
    const bool isOpen = result.asked.mEndUs >= kEndOfInputUs;
    if (isOpen) {
        result.asked.mEndUs = receipt.inputUs;
    } else if (!isWholeInput && receipt.inputUs > 0 && result.asked.mEndUs > receipt.inputUs) {
        result.inputEndUs = receipt.inputUs;
    }
    result.dropped = statistics.dropped;
    const int64_t offsetUs = result.asked.mStartUs - statistics.startUs;
    static const std::vector<int64_t> kNoFrames;
    for (int64_t timeUs : contents.video ? contents.video->timesUs : kNoFrames) {
        if (timeUs + kRoundingUs < statistics.startUs) continue;
        if (!isWholeInput && timeUs + kRoundingUs >= statistics.endUs) continue;
        ++result.framesOut;
        if (!result.video) result.video = {timeUs + offsetUs, timeUs + offsetUs};
        result.video->mEndUs = std::max(result.video->mEndUs, timeUs + offsetUs);
    }
    if (statistics.audioStartUs) {
        result.audio = {*statistics.audioStartUs + offsetUs, statistics.audioEndUs + offsetUs};
        if (result.video) result.skewUs = statistics.skewUs;
    }
    // The end of an input whose duration is not known.
    if (isOpen && receipt.inputUs == 0) {
        if (result.video) result.asked.mEndUs = result.video->mEndUs;
        if (result.audio) {
            result.asked.mEndUs = std::max(result.asked.mEndUs, result.audio->mEndUs);
        }
    }
    return result;
}

std::vector<PeriodResult> resultsOf(const Receipt& receipt) {
    std::vector<PeriodResult> results;
    for (size_t i = 0; i < receipt.statistics.periods.size(); ++i) {
        results.push_back(resultOf(receipt, i));
    }
    return results;
}

Json tracksOf(const Receipt& receipt) {
    const OutputContents& contents = *receipt.contents;
    Json tracks = Json::array();
    if (contents.video) {
        const VideoTrack& video = *contents.media.video;
        tracks.push_back({{"kind", "video"},
                          {"codec", codecName(video.mime)},
                          {"decoder", receipt.video.decoder},
                          {"encoder", receipt.video.encoder},
                          {"width", video.width},
                          {"height", video.height},
                          {"input_width", receipt.inputVideo->width},
                          {"input_height", receipt.inputVideo->height},
                          {"rotation", video.rotation},
                          {"quality", nullptr},
                          {"fps", rateOf(*contents.video)},
                          {"frames", contents.video->count},
                          {"interlaced_frames", receipt.video.interlacedFrames},
                          {"deinterlaced_frames", receipt.video.deinterlacedFrames},
                          {"bytes", contents.video->bytes},
                          {"bitrate", bitrateOf(*contents.video)},
                          {"seconds", secondsOf(contents.video->endUs - contents.video->firstUs)}});
        if (receipt.quality) tracks.back()["quality"] = *receipt.quality;
    }
    if (contents.audio) {
        const AudioTrack& audio = *contents.media.audio;
        tracks.push_back({{"kind", "audio"},
                          {"codec", codecName(audio.mime)},
                          {"decoder", receipt.audio.decoder},
                          {"encoder", receipt.audio.encoder},
                          {"sample_rate", audio.sampleRate},
                          {"channels", audio.channels},
                          {"input_sample_rate", receipt.inputAudio->sampleRate},
                          {"input_channels", receipt.inputAudio->channels},
                          {"frames", contents.audio->count},
                          {"bytes", contents.audio->bytes},
                          {"bitrate", bitrateOf(*contents.audio)},
                          {"seconds", secondsOf(contents.audio->endUs - contents.audio->firstUs)}});
        if (receipt.inputLoudness) {
            tracks.back()["input_loudness"] = *receipt.inputLoudness;
            tracks.back()["loudness"] = *receipt.loudness;
        }
    }
    return tracks;
}

Json spanOf(const std::optional<TrimPeriod>& span) {
    if (!span) return nullptr;
    return {{"first", secondsOf(span->mStartUs)}, {"last", secondsOf(span->mEndUs)}};
}

Json periodsOf(const Receipt& receipt) {
    Json periods = Json::array();
    for (const PeriodResult& result : resultsOf(receipt)) {
        Json period = {{"asked", spanOf(result.asked)},
                       {"input_ends", nullptr},
                       {"video", spanOf(result.video)},
                       {"audio", spanOf(result.audio)},
                       {"frames_in", result.framesOut + result.dropped},
                       {"frames_out", result.framesOut},
                       {"frames_dropped", result.dropped},
                       {"audio_skew_ms", nullptr}};
        if (!result.name.empty()) period["name"] = result.name;
        if (result.inputEndUs) period["input_ends"] = secondsOf(*result.inputEndUs);
        if (result.skewUs) period["audio_skew_ms"] = static_cast<double>(*result.skewUs) / 1e3;
        periods.push_back(std::move(period));
    }
    return periods;
}

Json verificationOf(const PeriodVerification& period) {
    Json json = {{"ssim_mean", nullptr},
                 {"ssim_worst", nullptr},
                 {"ssim_worst_at", nullptr},
                 {"audio_level_db", nullptr},
                 {"audio_offset_ms", nullptr}};
    if (period.ssim) {
        json["ssim_mean"] = period.ssim->mean;
        json["ssim_worst"] = period.ssim->worst;
        json["ssim_worst_at"] = secondsOf(period.ssim->worstAtUs);
    }
    if (period.levelDb) json["audio_level_db"] = *period.levelDb;
    if (period.offsetUs) json["audio_offset_ms"] = static_cast<double>(*period.offsetUs) / 1e3;
    return json;
}

Json verificationOf(const Verification& verification) {
    Json json = verificationOf(verification.whole);
    json["periods"] = Json::array();
    for (const PeriodVerification& period : verification.periods) {
        json["periods"].push_back(verificationOf(period));
    }
    return json;
}

// A line with its name in a column of its own.
template <typename... Values>
std::string row(const char* name, fmt::format_string<Values...> format, Values&&... values) {
    return fmt::format("  {:<8} {}\n", name, fmt::format(format, std::forward<Values>(values)...));
}

std::string interlacingRows(const TrackCodecs& video) {
    const int64_t kept = video.interlacedFrames - video.deinterlacedFrames;
    std::string rows;
    if (video.deinterlacedFrames > 0) rows += row("", "{} deinterlaced", video.deinterlacedFrames);
    if (kept > 0) rows += row("", "{} interlaced, not deinterlaced", kept);
    return rows;
}

// The value, and the input's where that is another one.
std::string changed(const std::string& value, const std::string& input) {
    return value == input ? value : value + " from " + input;
}

std::string sizeText(const VideoTrack& video) {
    const bool isSideways = video.rotation % 180 != 0;
    return fmt::format("{}x{}", isSideways ? video.height : video.width,
                       isSideways ? video.width : video.height);
}

std::string videoRows(const VideoTrack& video, const Receipt& receipt) {
    const TrackSamples& samples = *receipt.contents->video;
    const std::string size = changed(sizeText(video), sizeText(*receipt.inputVideo));
    const std::string bitrate = bitrateText(bitrateOf(samples));
    return row("video", "{} {}, {:.4g} fps", codecName(video.mime), size, rateOf(samples)) +
           row("", "{} frames, {} dropped", samples.count, receipt.statistics.dropped()) +
           interlacingRows(receipt.video) +
           (receipt.quality ? row("", "{}, quality {}", bitrate, *receipt.quality)
                            : row("", "{}", bitrate));
}

std::string channelsText(const AudioTrack& audio) {
    return fmt::format("{} channel{}", audio.channels, audio.channels == 1 ? "" : "s");
}

std::string audioRows(const AudioTrack& audio, const Receipt& receipt) {
    const auto rateText = [](const AudioTrack& track) {
        return fmt::format("{} Hz", track.sampleRate);
    };
    return row("audio", "{} {}, {}", codecName(audio.mime),
               changed(rateText(audio), rateText(*receipt.inputAudio)),
               changed(channelsText(audio), channelsText(*receipt.inputAudio))) +
           row("", "{}", bitrateText(bitrateOf(*receipt.contents->audio))) +
           (receipt.inputLoudness
                ? row("", "{:.1f} LUFS from {:.1f} LUFS", *receipt.loudness, *receipt.inputLoudness)
                : "");
}

std::string metadataRows(const MetadataReport& metadata) {
    std::string rows;
    const char* name = "metadata";
    for (const auto& [field, value] : metadata.kept) {
        rows += row(name, "{} {}", field, console::printable(value));
        name = "";
    }
    name = "dropped";
    for (const auto& [field, reason] : metadata.dropped) {
        rows += row(name, "{}: {}", console::printable(field), reason);
        name = "";
    }
    return rows;
}

std::string verificationRows(const PeriodVerification& result) {
    std::string rows;
    const char* name = "verified";
    if (result.ssim) {
        rows += row(name, "SSIM {:.4f}, at worst {:.4f} at {:.3f} s", result.ssim->mean,
                    result.ssim->worst, secondsOf(result.ssim->worstAtUs));
        name = "";
    }
    if (result.levelDb) rows += row(name, "audio {:+.1f} dB", *result.levelDb);
    return rows;
}

std::string spanText(const TrimPeriod& span) {
    return fmt::format("{:.3f}-{:.3f} s", secondsOf(span.mStartUs), secondsOf(span.mEndUs));
}

std::string periodRows(const PeriodResult& result) {
    std::string rows = row("period", "{} asked", spanText(result.asked));
    if (!result.name.empty()) rows += row("", "{}", console::printable(result.name));
    if (result.inputEndUs) {
        rows += row("", "the input ends at {:.3f} s", secondsOf(*result.inputEndUs));
    }
    if (result.video) rows += row("", "{} video", spanText(*result.video));
    if (result.audio) rows += row("", "{} audio", spanText(*result.audio));
    if (result.skewUs) {
        rows += row("", "audio {:.1f} ms {}", std::abs(static_cast<double>(*result.skewUs)) / 1e3,
                    *result.skewUs < 0 ? "early" : "late");
    }
    return rows;
}

}  // namespace

std::string toJson(const Receipt& receipt) {
    const OutputContents& contents = *receipt.contents;
    const int64_t lengthUs = contents.media.durationUs();
    const int64_t validUs = receipt.isComplete ? lengthUs : contents.commonEndUs();
    Json json = {{"valid_up_to", secondsOf(validUs)},
                 {"input", receipt.input},
                 {"output", receipt.output},
                 {"bytes", contents.media.sizeBytes},
                 {"tracks", tracksOf(receipt)},
                 {"periods", periodsOf(receipt)},
                 {"threads", receipt.threads},
                 {"damaged_samples", skippedPackets(receipt)},
                 {"metadata", toJson(receipt.metadata)},
                 {"uuid_data", nullptr}};
    if (receipt.verification) json["verification"] = verificationOf(*receipt.verification);
    if (!receipt.because.empty()) json["because"] = receipt.because;
    if (receipt.runs) json["runs"] = *receipt.runs;
    if (!contents.media.uuidData.empty()) {
        json["uuid_data"] = {{"bytes", contents.media.uuidData.size()},
                             {"sha256", sha256(contents.media.uuidData)}};
    }
    if (receipt.sections > 0) json["sections"] = receipt.sections;
    json["seconds"] = receipt.wallSeconds;
    json["speed"] = secondsOf(lengthUs) / std::max(receipt.wallSeconds, 1e-6);
    json["cpu_seconds"] = nullptr;
    json["peak_memory_bytes"] = nullptr;
    std::string text = dumpJson(json);
    markNumber("cpu_seconds", kCpuJsonMark, &text);
    markNumber("peak_memory_bytes", kMemoryJsonMark, &text);
    return text;
}

std::string toText(const Receipt& receipt) {
    const OutputContents& contents = *receipt.contents;
    const int64_t lengthUs = contents.media.durationUs();
    std::string text =
        console::printable(receipt.output) + (receipt.isComplete ? ": complete\n" : ": stopped\n");
    text += row("length", "{}, {}", secondsText(lengthUs), bytesText(contents.media.sizeBytes));
    if (contents.video) text += videoRows(*contents.media.video, receipt);
    if (contents.audio) text += audioRows(*contents.media.audio, receipt);
    if (!receipt.asked.empty()) {
        for (const PeriodResult& result : resultsOf(receipt)) text += periodRows(result);
    }
    const char* name = "because";
    for (const std::string& reason : receipt.because) {
        text += row(name, "{}", reason);
        name = "";
    }
    if (receipt.runs) text += row("runs", "{}", *receipt.runs);
    if (skippedPackets(receipt) > 0) {
        text += row("damaged", "{} packets were skipped", skippedPackets(receipt));
    }
    if (!contents.media.uuidData.empty()) {
        text += row("uuid", "{} bytes", contents.media.uuidData.size()) +
                row("", "sha256 {}", sha256(contents.media.uuidData));
    }
    text += metadataRows(receipt.metadata);
    if (receipt.verification) text += verificationRows(receipt.verification->whole);
    return text +
           row("took", "{:.2f} s, {:.1f} x real time", receipt.wallSeconds,
               secondsOf(lengthUs) / std::max(receipt.wallSeconds, 1e-6)) +
           row("", "{} s CPU, {} memory", char{kCpuTextMark}, char{kMemoryTextMark});
}

}  // namespace android::qmmediaeditor::cli
