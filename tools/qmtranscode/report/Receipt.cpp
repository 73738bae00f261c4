#include <qmtranscode/cli/Console.h>
#include <qmtranscode/cli/Values.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/Receipt.h>
#include <stdio.h>

#include <algorithm>

namespace android::qmmediaeditor::cli {

namespace {

// What came out of a period, in times of the input.
struct PeriodResult {
    TrimPeriod asked;
    // Where the input ends, if more was asked for.
    std::optional<int64_t> inputEndUs;
    int64_t framesOut = 0;
    int64_t dropped = 0;
    std::optional<TrimPeriod> pictures;  // from the first picture to the last one
    std::optional<TrimPeriod> sound;     // from where it begins to where it ends
    std::optional<int64_t> skewUs;
};

// In the order of kUsageMarks.
constexpr char kCpuTextMark = 1;
constexpr char kMemoryTextMark = 2;
constexpr char kCpuJsonMark = 3;
constexpr char kMemoryJsonMark = 4;

// A number that only the mark stands for.
void markNumber(const std::string& key, char mark, std::string* json) {
    const std::string placeholder = "\"" + key + "\": null";
    const size_t at = json->find(placeholder);
    if (at != std::string::npos) {
        json->replace(at, placeholder.size(), "\"" + key + "\": " + mark);
    }
}

int64_t bitrateOf(const TrackSamples& samples) {
    const int64_t lengthUs = samples.endUs - samples.firstUs;
    if (lengthUs <= 0) return 0;
    return static_cast<int64_t>(static_cast<double>(samples.bytes) * 8 / secondsOf(lengthUs));
}

// Pictures a second, as they come on average.
double rateOf(const TrackSamples& samples) {
    if (samples.count < 2) return 0;
    const auto [first, last] = std::minmax_element(samples.timesUs.begin(), samples.timesUs.end());
    return static_cast<double>(samples.count - 1) / std::max(secondsOf(*last - *first), 1e-6);
}

std::vector<PeriodResult> resultsOf(const Receipt& receipt) {
    // The file rounds times to its own clock, much less than the distance of two pictures.
    constexpr int64_t kClockUs = 1000;
    std::vector<PeriodResult> results;
    for (size_t i = 0; i < receipt.counts.periods.size(); ++i) {
        const PeriodCounts& counts = receipt.counts.periods[i];
        PeriodResult result;
        const bool whole = receipt.asked.empty();
        result.asked =
            whole ? TrimPeriod{0, receipt.written->media.durationUs()} : receipt.asked[i];
        if (!whole && receipt.inputUs > 0 && result.asked.mEndUs > receipt.inputUs) {
            result.inputEndUs = receipt.inputUs;
        }
        result.dropped = counts.dropped;
        const int64_t shiftUs = result.asked.mStartUs - counts.beginUs;
        if (receipt.written->video) {
            for (int64_t timeUs : receipt.written->video->timesUs) {
                if (timeUs + kClockUs < counts.beginUs) continue;
                if (!whole && timeUs + kClockUs >= counts.endUs) continue;
                ++result.framesOut;
                if (!result.pictures) result.pictures = {timeUs + shiftUs, timeUs + shiftUs};
                result.pictures->mEndUs = std::max(result.pictures->mEndUs, timeUs + shiftUs);
            }
        }
        if (counts.soundBeginUs) {
            result.sound = {*counts.soundBeginUs + shiftUs, counts.soundEndUs + shiftUs};
            if (result.pictures) result.skewUs = counts.skewUs;
        }
        results.push_back(result);
    }
    return results;
}

Json tracksOf(const WrittenFile& written, const RunCounts& counts) {
    Json tracks = Json::array();
    if (written.video) {
        const VideoTrack& video = *written.media.video;
        tracks.push_back({{"kind", "video"},
                          {"codec", codecName(video.mime)},
                          {"decoder", counts.videoDecoder},
                          {"encoder", counts.videoEncoder},
                          {"width", video.width},
                          {"height", video.height},
                          {"rotation", video.rotation},
                          {"fps", rateOf(*written.video)},
                          {"frames", written.video->count},
                          {"bytes", written.video->bytes},
                          {"bitrate", bitrateOf(*written.video)},
                          {"seconds", secondsOf(written.video->endUs - written.video->firstUs)}});
    }
    if (written.audio) {
        const AudioTrack& audio = *written.media.audio;
        tracks.push_back({{"kind", "audio"},
                          {"codec", codecName(audio.mime)},
                          {"decoder", counts.audioDecoder},
                          {"encoder", counts.audioEncoder},
                          {"sample_rate", audio.sampleRate},
                          {"channels", audio.channels},
                          {"frames", written.audio->count},
                          {"bytes", written.audio->bytes},
                          {"bitrate", bitrateOf(*written.audio)},
                          {"seconds", secondsOf(written.audio->endUs - written.audio->firstUs)}});
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
                       {"pictures", spanOf(result.pictures)},
                       {"sound", spanOf(result.sound)},
                       {"frames_in", result.framesOut + result.dropped},
                       {"frames_out", result.framesOut},
                       {"frames_dropped", result.dropped},
                       {"sound_skew_ms", nullptr}};
        if (result.inputEndUs) period["input_ends"] = secondsOf(*result.inputEndUs);
        if (result.skewUs) period["sound_skew_ms"] = static_cast<double>(*result.skewUs) / 1e3;
        periods.push_back(std::move(period));
    }
    return periods;
}

template <typename... Values>
std::string row(const char* name, const char* format, Values... values) {
    char text[200];
    snprintf(text, sizeof(text), format, values...);
    char line[240];
    snprintf(line, sizeof(line), "  %-8s %s\n", name, text);
    return line;
}

std::string videoRows(const VideoTrack& video, const Receipt& receipt) {
    const TrackSamples& samples = *receipt.written->video;
    const std::string codec = codecName(video.mime);
    return row("video", "%s %dx%d, %.4g fps", codec.c_str(), video.width, video.height,
               rateOf(samples)) +
           row("", "%lld frames, %lld dropped", static_cast<long long>(samples.count),
               static_cast<long long>(receipt.counts.dropped())) +
           row("", "%s", bitrateText(bitrateOf(samples)).c_str());
}

std::string audioRows(const AudioTrack& audio, const TrackSamples& samples) {
    return row("audio", "%s %d Hz, %d channel%s", codecName(audio.mime).c_str(), audio.sampleRate,
               audio.channels, audio.channels == 1 ? "" : "s") +
           row("", "%s", bitrateText(bitrateOf(samples)).c_str());
}

std::string spanText(const TrimPeriod& span) {
    char text[48];
    snprintf(text, sizeof(text), "%.3f-%.3f s", secondsOf(span.mStartUs), secondsOf(span.mEndUs));
    return text;
}

std::string periodRows(const PeriodResult& result) {
    std::string rows = row("period", "%s asked", spanText(result.asked).c_str());
    if (result.inputEndUs) {
        rows += row("", "the input ends at %.3f s", secondsOf(*result.inputEndUs));
    }
    if (result.pictures) rows += row("", "%s pictures", spanText(*result.pictures).c_str());
    if (result.sound) rows += row("", "%s sound", spanText(*result.sound).c_str());
    if (result.skewUs) {
        rows += row("", "sound %.1f ms %s", std::abs(static_cast<double>(*result.skewUs)) / 1e3,
                    *result.skewUs < 0 ? "early" : "late");
    }
    return rows;
}

}  // namespace

Usage usageOf(const rusage& usage) {
    const auto cpuSeconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {cpuSeconds(usage.ru_utime) + cpuSeconds(usage.ru_stime),
            static_cast<int64_t>(usage.ru_maxrss) * 1024};
}

std::string usageText(const Usage& usage, char mark) {
    char text[48];
    switch (mark) {
        case kCpuTextMark:
            snprintf(text, sizeof(text), "%.2f", usage.cpuSeconds);
            return text;
        case kMemoryTextMark:
            return bytesText(usage.peakBytes);
        case kCpuJsonMark:
            snprintf(text, sizeof(text), "%.6f", usage.cpuSeconds);
            return text;
        case kMemoryJsonMark:
            return std::to_string(usage.peakBytes);
        default:
            return "";
    }
}

std::string toJson(const Receipt& receipt) {
    if (!receipt.written) return emptyReceipt(receipt.input, receipt.output);
    const WrittenFile& written = *receipt.written;
    const int64_t lengthUs = written.media.durationUs();
    const int64_t validUs = receipt.complete ? lengthUs : commonEndUs(written);
    Json json = {{"status", receipt.complete ? "complete" : "stopped"},
                 {"valid_up_to", secondsOf(validUs)},
                 {"input", receipt.input},
                 {"output", receipt.output},
                 {"bytes", written.media.sizeBytes},
                 {"tracks", tracksOf(written, receipt.counts)},
                 {"periods", periodsOf(receipt)},
                 {"damaged_samples", receipt.counts.damaged()},
                 {"uuid_data", nullptr}};
    if (!written.media.uuidData.empty()) {
        json["uuid_data"] = {{"bytes", written.media.uuidData.size()},
                             {"sha256", sha256(written.media.uuidData)}};
    }
    json["seconds"] = receipt.wallSeconds;
    json["speed"] = secondsOf(lengthUs) / std::max(receipt.wallSeconds, 1e-6);
    json["cpu_seconds"] = nullptr;
    json["peak_memory_bytes"] = nullptr;
    std::string text = dumpJson(json);
    markNumber("cpu_seconds", kCpuJsonMark, &text);
    markNumber("peak_memory_bytes", kMemoryJsonMark, &text);
    return text;
}

std::string emptyReceipt(const std::string& input, const std::string& output) {
    return dumpJson({{"status", "nothing written"}, {"input", input}, {"output", output}});
}

std::string toText(const Receipt& receipt) {
    const WrittenFile& written = *receipt.written;
    const int64_t lengthUs = written.media.durationUs();
    std::string text =
        console::printable(receipt.output) + (receipt.complete ? ": complete\n" : ": stopped\n");
    text += row("length", "%s, %s", secondsText(lengthUs).c_str(),
                bytesText(written.media.sizeBytes).c_str());
    if (written.video) text += videoRows(*written.media.video, receipt);
    if (written.audio) text += audioRows(*written.media.audio, *written.audio);
    if (!receipt.asked.empty()) {
        for (const PeriodResult& result : resultsOf(receipt)) text += periodRows(result);
    }
    if (receipt.counts.damaged() > 0) {
        text += row("damaged", "%lld samples were skipped",
                    static_cast<long long>(receipt.counts.damaged()));
    }
    if (!written.media.uuidData.empty()) {
        text += row("uuid", "%zu bytes", written.media.uuidData.size()) +
                row("", "sha256 %s", sha256(written.media.uuidData).c_str());
    }
    return text +
           row("took", "%.2f s, %.1f x real time", receipt.wallSeconds,
               secondsOf(lengthUs) / std::max(receipt.wallSeconds, 1e-6)) +
           row("", "%c s CPU, %c memory", kCpuTextMark, kMemoryTextMark);
}

}  // namespace android::qmmediaeditor::cli
